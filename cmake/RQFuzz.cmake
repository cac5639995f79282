# Programs that read what others wrote, for libFuzzer, and the replay of what it found.

option(RQ_FUZZ "Build the programs for libFuzzer (preset linux-fuzz, with clang)" OFF)
add_custom_target(rq_fuzz_programs)

# rq_fuzz(<name> SOURCES ... [USES room...] [LIBRARIES lib...]): SOURCES define LLVMFuzzerTestOneInput. With RQ_FUZZ this is the
# program fuzz_<name>, which scripts/fuzz runs; without, the test fuzz.<name> gives it each file of tests/fuzz/corpus/<name>.
function(rq_fuzz name)
  cmake_parse_arguments(F "" "" "SOURCES;USES;LIBRARIES" ${ARGN})
  set(program fuzz_${name})
  set(fuzz "${PROJECT_SOURCE_DIR}/tests/fuzz")
  add_executable(${program} ${F_SOURCES})
  rq_include_root(${program} PRIVATE fuzz "${fuzz}")
  target_link_libraries(${program} PRIVATE rq_warnings ${F_LIBRARIES})
  foreach(used IN LISTS F_USES)
    target_link_libraries(${program} PRIVATE rq_${used})
  endforeach()
  if(RQ_FUZZ)
    set_target_properties(${program} PROPERTIES
      EXCLUDE_FROM_ALL ON RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/fuzz")
    target_link_options(${program} PRIVATE -fsanitize=fuzzer)
    add_dependencies(rq_fuzz_programs ${program})
  else()
    target_sources(${program} PRIVATE "${fuzz}/replay_main.cpp")
    add_test(NAME fuzz.${name} COMMAND ${program} "${RQ_PATH_ROOT}${fuzz}/corpus/${name}")
    set_tests_properties(fuzz.${name} PROPERTIES LABELS fuzz TIMEOUT 120)
  endif()
endfunction()
