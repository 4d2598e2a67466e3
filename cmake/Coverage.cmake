# What of the code is run: with MICRO850_COVERAGE=ON, lines and branches of the targets that are given to
# micro850_coverage, counted by gcov; with MCDC, each condition of a decision, counted by clang 19.
function(micro850_coverage target)
  if(MICRO850_COVERAGE AND NOT MICRO850_COVERAGE STREQUAL "MCDC")
    target_compile_options(${target} PRIVATE -O0 --coverage)
    target_link_options(${target} PUBLIC --coverage)
  endif()
endfunction()

# Conditions are counted in these rooms only, but in every program: the linker keeps one copy of an inline function of a
# header, and it may be that of a test. A program that has counted something writes it to profiles/, wherever it runs.
if(MICRO850_COVERAGE STREQUAL "MCDC")
  set(counted ${PROJECT_BINARY_DIR}/counted_rooms.txt)
  file(WRITE ${counted} "[clang]
default:skip
source:${PROJECT_SOURCE_DIR}/src/*=allow
source:${PROJECT_SOURCE_DIR}/hostkit/wire/*=allow
source:${PROJECT_SOURCE_DIR}/hostkit/poll/*=allow
")
  add_compile_options(-fprofile-instr-generate=${PROJECT_BINARY_DIR}/profiles/%m-%p.profraw
    -fcoverage-mapping -fcoverage-mcdc -fprofile-list=${counted})
  add_link_options(-fprofile-instr-generate)
endif()
