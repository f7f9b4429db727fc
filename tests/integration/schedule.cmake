# Faults and churn drawn from a seed (three schedules on one server, one on
# an ensemble), the reconnection during the first read, and a restart with
# more watches than one request holds. The same restart at 12,500 instances
# (25,000 watch records: a watcher and a cache) is a separate, heavy entry
# (normal build only). FERROW_SCHEDULE_SEED=N
# replays a seed (FERROW_SCHEDULE_REPEAT=K times); FERROW_SCHEDULE_SECONDS=N
# runs new ones for that long and checks that memory and descriptors stay
# flat (the soak):
#   FERROW_SCHEDULE_SECONDS=1200 tests/schedule_integration_test --gtest_filter='*Random*'
ferrow_add_test(schedule_integration_test LABEL integration TIMEOUT 900
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/schedule_test.cpp
  LIBS ferrow)
add_test(NAME schedule_scale_integration_test
  COMMAND schedule_integration_test --gtest_filter=*MoreWatchesThanOneRequestHolds*)
set_tests_properties(schedule_scale_integration_test PROPERTIES LABELS "integration;heavy" TIMEOUT 600
  ENVIRONMENT "FERROW_SCHEDULE_PRELOAD=12500")
