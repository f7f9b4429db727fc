# A watcher through real server faults, one runner with a row per fault.
# The scale rows run as a separate, heavy entry (normal build only); the soak
# row, ten minutes by default (FERROW_SOAK_SECONDS), never runs by itself:
#   FERROW_SOAK_SECONDS=600 tests/faults_integration_test --gtest_filter='Soak/*'
ferrow_add_test(faults_integration_test LABEL integration TIMEOUT 600
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/faults_test.cpp
  LIBS ferrow)
set_tests_properties(faults_integration_test PROPERTIES
  ENVIRONMENT "GTEST_FILTER=-Scale/*:Soak/*;${FERROW_TEST_SANITIZER_ENV}")
add_test(NAME faults_scale_integration_test COMMAND faults_integration_test --gtest_filter=Scale/*)
set_tests_properties(faults_scale_integration_test PROPERTIES LABELS "integration;heavy" TIMEOUT 600)
