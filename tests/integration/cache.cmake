# The service cache and the instance provider over the real connection
# against a real ZooKeeper server started by the test.
ferrow_add_test(cache_integration_test LABEL integration TIMEOUT 300
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/cache_test.cpp
  LIBS ferrow)
