# Options that make a memory fault harder to exploit, for everything that is installed: stack canaries, checked
# calls of the C library, no writable table of addresses after the program has started, no executable stack. A
# Debug, sanitizer or coverage build does not have them.
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
  # Some compilers define it themselves, with another value.
  target_compile_options(${target} PRIVATE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2
    $<IF:$<BOOL:${MICRO850_HAS_STACK_PROTECTOR_STRONG}>,-fstack-protector-strong,-fstack-protector>)
  target_link_options(${target} PRIVATE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
endfunction()
