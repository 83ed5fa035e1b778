# Runs one fuzz target for a bounded number of inputs over its seed corpus.
# The seeds are read from CORPUS and never written: new inputs go to a
# fresh scratch directory WORK, findings (crash-*, leak-*, timeout-*) to
# FINDINGS.
#   cmake -DFUZZER=... -DCORPUS=... -DWORK=... -DFINDINGS=... -DRUNS=N
#         -DMAX_SECONDS=S -P run_fuzz.cmake
foreach(var FUZZER CORPUS WORK FINDINGS RUNS MAX_SECONDS)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "run_fuzz.cmake: ${var} is not set")
  endif()
endforeach()
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK} ${FINDINGS})
execute_process(
  COMMAND ${FUZZER} -seed=1 -runs=${RUNS} -max_total_time=${MAX_SECONDS} -timeout=10
          -rss_limit_mb=2048 -close_fd_mask=2 -print_final_stats=1 -artifact_prefix=${FINDINGS}/
          ${WORK} ${CORPUS}
  RESULT_VARIABLE result)
file(REMOVE_RECURSE ${WORK})
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${FUZZER} failed (${result}); findings are in ${FINDINGS}")
endif()
