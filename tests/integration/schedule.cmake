# Faults and churn drawn from a seed, and the reconnection during the first
# read. Three seeds per run; FERROW_SCHEDULE_SEED replays one, and
# FERROW_SCHEDULE_SECONDS runs new ones for as long as asked:
#   FERROW_SCHEDULE_SECONDS=3600 tests/schedule_integration_test --gtest_filter='*Random*'
ferrow_add_test(schedule_integration_test LABEL integration TIMEOUT 600
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/schedule_test.cpp
  LIBS ferrow)
