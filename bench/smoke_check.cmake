# Run by ctest in script mode:
#   cmake -DBENCH=<ferrow_bench_e2e> -DBALANCE=<ferrow_bench_balance> -P smoke_check.cmake
# Runs the end-to-end benchmark at its smoke sizes (with its own throwaway
# server) and fails unless it exits 0 and prints the RESULT line of every
# figure for the four clients; then the balance simulation, likewise.
execute_process(COMMAND "${BENCH}" --smoke --cache
  RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE errors TIMEOUT 100)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "ferrow_bench_e2e --smoke exited with ${status}\n${output}\n${errors}")
endif()
foreach(figure initial_sync_ms initial_sync_reads peak_rss_mib cpu_ms_per_1k heap_bytes_per_instance
               change_latency_p50_ms change_latency_p99_ms churn_ms churn_data_reads churn_children_reads)
  foreach(client ferrow cache baseline raw)
    if(NOT output MATCHES "RESULT figure=${figure} client=${client} n=[0-9]+ median=[-0-9.e+]+ min=[-0-9.e+]+ max=[-0-9.e+]+\n")
      message(FATAL_ERROR "no RESULT line for ${figure} of ${client}:\n${output}")
    endif()
  endforeach()
endforeach()
if(NOT output MATCHES "RESULT figure=watcher_own_bytes_per_instance client=ferrow ")
  message(FATAL_ERROR "no RESULT line for watcher_own_bytes_per_instance:\n${output}")
endif()

execute_process(COMMAND "${BALANCE}" --smoke
  RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE errors TIMEOUT 60)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "ferrow_bench_balance --smoke exited with ${status}\n${output}\n${errors}")
endif()
foreach(line "call_latency strategy=least_request" "keys_moved_on_leave" "keys_moved_on_join")
  if(NOT output MATCHES "RESULT figure=${line}")
    message(FATAL_ERROR "no RESULT line for ${line}:\n${output}")
  endif()
endforeach()
