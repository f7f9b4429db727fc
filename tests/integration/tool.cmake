# The `ferrow` tool, the README's examples and the installed package, each
# against the real thing: a ZooKeeper server, the built programs run as child
# processes, a fresh install tree.
add_test(NAME tool_integration_test
  COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/tool_test.sh $<TARGET_FILE:ferrow_cli> $<TARGET_FILE:watch_service> $<TARGET_FILE:publish_instance> $<TARGET_FILE:call_service>)
set_tests_properties(tool_integration_test PROPERTIES LABELS integration TIMEOUT 300 ENVIRONMENT "${FERROW_TEST_SANITIZER_ENV}")

# Installs this build into a temporary prefix and builds a consumer project
# against it, with find_package and with pkg-config (scripts/test does the
# same with the Debian packages). Sanitized builds hand
# their sanitizer flags to the consumer, whose libraries need the runtime.
set(consumer_flags "")
if(FERROW_ASAN)
  set(consumer_flags "-fsanitize=address,undefined")
elseif(FERROW_TSAN)
  set(consumer_flags "-fsanitize=thread")
elseif(FERROW_COVERAGE)
  set(consumer_flags "--coverage")
endif()
add_test(NAME install_integration_test
  COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/install_test.sh prefix
    ${PROJECT_BINARY_DIR} ${CMAKE_CURRENT_LIST_DIR}/consumer ${PROJECT_SOURCE_DIR}/examples/watch_service.cpp "${consumer_flags}")
set_tests_properties(install_integration_test PROPERTIES LABELS integration TIMEOUT 600)

# The metrics endpoint of `ferrow watch`, scraped while the session expires.
add_test(NAME metrics_integration_test
  COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/metrics_test.sh $<TARGET_FILE:ferrow_cli>)
set_tests_properties(metrics_integration_test PROPERTIES LABELS integration TIMEOUT 300
  ENVIRONMENT "${FERROW_TEST_SANITIZER_ENV}")
