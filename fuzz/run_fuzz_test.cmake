# The test of one fuzz target (cmake -P): first every committed input once
# (libFuzzer given files runs each once), then a short fuzzing run that starts
# from the committed corpus, with a fixed seed so that the test does the same
# work each time. New inputs of the short run go to WORK, never to the
# committed corpus; a crash's input goes to WORK as well.
#   -DFUZZER=  the fuzz executable      -DCORPUS=  committed seed corpus
#   -DCRASHES= committed crash inputs   -DWORK=    scratch folder
#   -DRUNS=    inputs of the short run (0: none)
foreach(required FUZZER CORPUS WORK)
  if(NOT DEFINED ${required})
    message(FATAL_ERROR "run_fuzz_test.cmake: -D${required}= is missing")
  endif()
endforeach()
if(NOT DEFINED RUNS OR RUNS STREQUAL "")
  set(RUNS 20000)
endif()

file(GLOB inputs LIST_DIRECTORIES false "${CORPUS}/*")
if(DEFINED CRASHES AND EXISTS "${CRASHES}")
  file(GLOB crashes LIST_DIRECTORIES false "${CRASHES}/*")
  list(APPEND inputs ${crashes})
endif()
list(FILTER inputs EXCLUDE REGEX "/\\.[^/]*$")
list(LENGTH inputs count)
if(count EQUAL 0)
  message(FATAL_ERROR "no committed inputs in ${CORPUS}")
endif()

file(REMOVE_RECURSE "${WORK}")
file(MAKE_DIRECTORY "${WORK}/corpus")

message(STATUS "replaying ${count} committed inputs")
execute_process(COMMAND "${FUZZER}" -artifact_prefix=${WORK}/ ${inputs}
  RESULT_VARIABLE replay_result)
if(NOT replay_result EQUAL 0)
  message(FATAL_ERROR "replay of the committed inputs failed (${replay_result})")
endif()

if(RUNS GREATER 0)
  message(STATUS "fuzzing ${RUNS} inputs from the committed corpus")
  execute_process(COMMAND "${FUZZER}" -seed=1 -runs=${RUNS} -timeout=30
      -artifact_prefix=${WORK}/ "${WORK}/corpus" "${CORPUS}"
    RESULT_VARIABLE run_result)
  if(NOT run_result EQUAL 0)
    message(FATAL_ERROR "the short fuzzing run failed (${run_result}); its input is in ${WORK}")
  endif()
endif()
