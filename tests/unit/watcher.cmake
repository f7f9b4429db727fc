# In-process tests of the service watcher and the registration over the
# scripted connection, of the instance envelope and of the zlib wrapper.
ferrow_add_test(service_watcher_test LABEL unit TIMEOUT 120
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/service_watcher_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/registration_session_test.cpp
  LIBS ferrow)
ferrow_add_test(znode_data_test LABEL unit TIMEOUT 120
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/znode_data_test.cpp ${CMAKE_CURRENT_LIST_DIR}/zlib_test.cpp
  LIBS ferrow)
target_include_directories(znode_data_test PRIVATE ${PROJECT_SOURCE_DIR}/ferrow/source)
