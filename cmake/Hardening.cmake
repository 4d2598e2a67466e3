# What makes a fault in memory harder to exploit, for what is installed: canaries on the stack, checked calls of
# the C library, no writable table of addresses once the program runs, no executable stack. Not for Debug, nor
# where a sanitizer or the coverage count looks with means of its own.
option(MICRO850_HARDENING "Build with canaries, checked calls, full RELRO and no executable stack" ON)
if(MICRO850_SANITIZE OR MICRO850_COVERAGE OR CMAKE_BUILD_TYPE STREQUAL "Debug")
  set(MICRO850_IS_HARDENED OFF)
else()
  set(MICRO850_IS_HARDENED ${MICRO850_HARDENING})
endif()

# An SDK's old compiler may not know the strong form.
include(CheckCXXCompilerFlag)
check_cxx_compiler_flag(-fstack-protector-strong MICRO850_HAS_STACK_PROTECTOR_STRONG)

# micro850_hardening(TARGET)
function(micro850_hardening target)
  if(NOT MICRO850_IS_HARDENED)
    return()
  endif()
  # Some compilers define it by themselves, to another value.
  target_compile_options(${target} PRIVATE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2
    $<IF:$<BOOL:${MICRO850_HAS_STACK_PROTECTOR_STRONG}>,-fstack-protector-strong,-fstack-protector>)
  target_link_options(${target} PRIVATE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
endfunction()
