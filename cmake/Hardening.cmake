# Options that make a memory fault harder to exploit, for everything that is installed: stack canaries, checked
# calls of the C library, a stack that cannot be stepped over, marked branch targets, no writable table of addresses
# after the program has started, no executable stack, programs at random addresses. A Debug, sanitizer or coverage
# build does not have them. micro850.pro has the same options for qmake.
option(MICRO850_HARDENING
  "Build with canaries, checked calls, stack probes, branch marks, full RELRO and no executable stack" ON)
if(MICRO850_SANITIZE OR MICRO850_COVERAGE OR CMAKE_BUILD_TYPE STREQUAL "Debug")
  set(MICRO850_IS_HARDENED OFF)
else()
  set(MICRO850_IS_HARDENED ${MICRO850_HARDENING})
endif()

# Without it, only a compiler that does so by default links the programs for random addresses.
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

# An SDK's old compiler may not know the strong form, nor the later options. Each processor has its own option for
# branches: -fcf-protection is x86's, -mbranch-protection 64-bit ARM's.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
check_cxx_compiler_flag(-fstack-protector-strong MICRO850_HAS_STACK_PROTECTOR_STRONG)
check_cxx_compiler_flag(-fstack-clash-protection MICRO850_HAS_STACK_CLASH_PROTECTION)
check_cxx_compiler_flag(-fcf-protection MICRO850_HAS_CF_PROTECTION)
check_cxx_compiler_flag(-mbranch-protection=standard MICRO850_HAS_BRANCH_PROTECTION)
# These two make the room that stack probes and branch marks take (docs/footprint.md): a function that deletes a tree
# is not inlined into itself, and a linker that works around a fault of one processor changes an instruction in place
# where it would add a page of stubs.
check_cxx_compiler_flag(--param=max-inline-recursive-depth=1 MICRO850_HAS_RECURSIVE_DEPTH)
set(CMAKE_REQUIRED_LINK_OPTIONS -Wl,--fix-cortex-a53-843419=adr)
check_cxx_source_compiles("int main() { return 0; }" MICRO850_HAS_FIX_IN_PLACE)
unset(CMAKE_REQUIRED_LINK_OPTIONS)

# micro850_hardening(TARGET)
function(micro850_hardening target)
  if(NOT MICRO850_IS_HARDENED)
    return()
  endif()
  # Some compilers define it themselves, with another value.
  target_compile_options(${target} PRIVATE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2
    $<IF:$<BOOL:${MICRO850_HAS_STACK_PROTECTOR_STRONG}>,-fstack-protector-strong,-fstack-protector>
    $<$<BOOL:${MICRO850_HAS_STACK_CLASH_PROTECTION}>:-fstack-clash-protection>
    $<$<BOOL:${MICRO850_HAS_CF_PROTECTION}>:-fcf-protection>
    $<$<BOOL:${MICRO850_HAS_BRANCH_PROTECTION}>:-mbranch-protection=standard>
    $<$<BOOL:${MICRO850_HAS_RECURSIVE_DEPTH}>:--param=max-inline-recursive-depth=1>)
  target_link_options(${target} PRIVATE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack
    $<$<BOOL:${MICRO850_HAS_FIX_IN_PLACE}>:-Wl,--fix-cortex-a53-843419=adr>)
endfunction()
