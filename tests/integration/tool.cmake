# The `ferrow` tool, publishing, the README's examples and the installed
# package, each against the real thing: a ZooKeeper server, the built
# programs run as child processes, a fresh install tree.
ferrow_add_test(tool_integration_test LABEL integration TIMEOUT 300
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/tool_test.cpp
  LIBS ferrow)
target_compile_definitions(tool_integration_test PRIVATE FERROW_CLI_PATH="$<TARGET_FILE:ferrow_cli>"
  WATCH_SERVICE_PATH="$<TARGET_FILE:watch_service>" PUBLISH_INSTANCE_PATH="$<TARGET_FILE:publish_instance>")
add_dependencies(tool_integration_test ferrow_cli watch_service publish_instance)

# Installs this build into a temporary prefix and builds a consumer project
# against it, with find_package and with pkg-config. Sanitized builds hand
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
  COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/install_test.sh
    ${PROJECT_BINARY_DIR} ${CMAKE_CURRENT_LIST_DIR}/consumer "${consumer_flags}")
set_tests_properties(install_integration_test PROPERTIES LABELS integration TIMEOUT 600)
