# micro850_coverage(TARGET): the target counts what of it is run, if MICRO850_COVERAGE is set: for lines and branches
# with gcov, for each condition of a decision with clang 19 (MCDC).
function(micro850_coverage target)
  if(MICRO850_COVERAGE STREQUAL "MCDC")
    set(flags -fprofile-instr-generate -fcoverage-mapping -fcoverage-mcdc)
  elseif(MICRO850_COVERAGE)
    set(flags --coverage)
  else()
    return()
  endif()
  target_compile_options(${target} PRIVATE -O0 ${flags})
  target_link_options(${target} PUBLIC ${flags})
endfunction()
