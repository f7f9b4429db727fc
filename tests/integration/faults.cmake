# A watcher through real server faults (ensemble, expiry, restarts) and hostile
# instance data. The scale scenarios are heavy: normal build only.
set(FERROW_WATCH_HARNESS ${CMAKE_CURRENT_LIST_DIR}/watch_harness.cpp)
ferrow_add_test(faults_integration_test LABEL integration TIMEOUT 600
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/faults_test.cpp ${FERROW_WATCH_HARNESS}
  LIBS ferrow)
set_tests_properties(faults_integration_test PROPERTIES ENVIRONMENT "GTEST_FILTER=-Instances/ScaleFaultTest.*")
add_test(NAME faults_scale_integration_test COMMAND faults_integration_test --gtest_filter=Instances/ScaleFaultTest.*)
set_tests_properties(faults_scale_integration_test PROPERTIES LABELS "integration;heavy" TIMEOUT 600)
ferrow_add_test(hostile_data_integration_test LABEL integration TIMEOUT 300
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/hostile_data_test.cpp ${FERROW_WATCH_HARNESS}
  LIBS ferrow ZLIB::ZLIB)
