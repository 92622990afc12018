# kiv_fuzz(NAME TEST ENTRY REPLAY LIBRARY...): an input reader under untrusted bytes. NAME_replay
# (REPLAY's main with the ENTRY point LLVMFuzzerTestOneInput) replays ./corpus as the test TEST in
# every build; with KIV_FUZZ (clang), NAME_fuzz is the libFuzzer target.
function(kiv_fuzz name test entry replay)
  add_executable(${name}_replay ${replay} ${entry})
  target_link_libraries(${name}_replay PRIVATE ${ARGN})
  add_test(NAME ${test} COMMAND ${name}_replay ${CMAKE_CURRENT_SOURCE_DIR}/corpus)
  if(KIV_FUZZ)
    add_executable(${name}_fuzz ${entry})
    target_link_libraries(${name}_fuzz PRIVATE ${ARGN})
    target_link_options(${name}_fuzz PRIVATE -fsanitize=fuzzer)
  endif()
endfunction()
