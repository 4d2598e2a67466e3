# micro850_warnings(TARGET): enables the warnings that the project's code must not cause. Qt's headers are system
# headers, which cause none.
function(micro850_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Wcast-align)
endfunction()
