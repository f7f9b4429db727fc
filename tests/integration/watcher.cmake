# The service watcher over the real connection against a real ZooKeeper
# server started by the test.
ferrow_add_test(watcher_integration_test LABEL integration TIMEOUT 300
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/watcher_test.cpp
  LIBS ferrow)
