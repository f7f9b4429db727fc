# In-process tests of the foundations: log records and their back end, the
# observer registry, and the connection contract's hash, error and handles.
ferrow_add_test(logger_test LABEL unit TIMEOUT 120
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/logger_test.cpp ${CMAKE_CURRENT_LIST_DIR}/log_backend_test.cpp
  LIBS logger)
ferrow_add_test(observable_test LABEL unit TIMEOUT 120
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/observable_test.cpp
  LIBS utility)
ferrow_add_test(connection_contract_test LABEL unit TIMEOUT 120
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/uuid_hash_test.cpp ${CMAKE_CURRENT_LIST_DIR}/error_test.cpp ${CMAKE_CURRENT_LIST_DIR}/watch_handle_test.cpp
  LIBS ferrow_connection Boost::headers)
