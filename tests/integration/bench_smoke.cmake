# The end-to-end benchmark at tiny sizes, with its own throwaway server: it
# must exit 0 and print every RESULT line. The bench directory is configured
# after the tests, so the test is declared once the whole project has been
# read, and only where the benchmark is built.
function(ferrow_add_bench_smoke)
  if(TARGET ferrow_bench_e2e)
    add_test(NAME bench_smoke
      COMMAND ${CMAKE_COMMAND} -DBENCH=$<TARGET_FILE:ferrow_bench_e2e> -DBALANCE=$<TARGET_FILE:ferrow_bench_balance>
              -P ${PROJECT_SOURCE_DIR}/bench/smoke_check.cmake)
    set_tests_properties(bench_smoke PROPERTIES LABELS integration TIMEOUT 120)
  endif()
endfunction()
cmake_language(DEFER DIRECTORY ${PROJECT_SOURCE_DIR} CALL ferrow_add_bench_smoke)
