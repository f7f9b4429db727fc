# A watcher through real server faults (ensemble, expiry, restarts), hostile
# instance data, and an opt-in soak. The scale scenarios run from the same
# program as a separate, heavy entry (normal build only).
set(FERROW_WATCH_HARNESS ${CMAKE_CURRENT_LIST_DIR}/watch_harness.cpp)
ferrow_add_test(faults_integration_test LABEL integration TIMEOUT 600
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/faults_test.cpp ${FERROW_WATCH_HARNESS}
  LIBS ferrow)
set_tests_properties(faults_integration_test PROPERTIES
  ENVIRONMENT "GTEST_FILTER=-Instances/ScaleFaultTest.*;${FERROW_TEST_SANITIZER_ENV}")
add_test(NAME faults_scale_integration_test COMMAND faults_integration_test --gtest_filter=Instances/ScaleFaultTest.*)
set_tests_properties(faults_scale_integration_test PROPERTIES LABELS "integration;heavy" TIMEOUT 600)

ferrow_add_test(hostile_data_integration_test LABEL integration TIMEOUT 300
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/hostile_data_test.cpp ${FERROW_WATCH_HARNESS}
  LIBS ferrow ZLIB::ZLIB)

# Ten minutes by default (FERROW_SOAK_SECONDS): never part of a normal run.
# Run the program directly: FERROW_SOAK_SECONDS=600 tests/soak_integration_test
ferrow_add_test(soak_integration_test LABEL soak TIMEOUT 3600
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/soak_test.cpp ${FERROW_WATCH_HARNESS}
  LIBS ferrow)
set_tests_properties(soak_integration_test PROPERTIES DISABLED TRUE)
