# Protected services against a real ZooKeeper server started by the test.
ferrow_add_test(access_integration_test LABEL integration TIMEOUT 300
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/access_test.cpp
  LIBS ferrow)
