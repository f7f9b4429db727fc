# In-process tests: the foundations (log records, observer registry, watch
# handles, zlib, envelope, id hash, the cache's table) and the watcher's and registration's
# decision tables over the scripted connection.
ferrow_add_test(unit_test LABEL unit TIMEOUT 120
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/foundation_test.cpp ${CMAKE_CURRENT_LIST_DIR}/service_watcher_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/instance_table_test.cpp
  LIBS ferrow)
target_include_directories(unit_test PRIVATE ${PROJECT_SOURCE_DIR}/ferrow/source)
