# micro850_warnings(TARGET): the warnings that the project's own code is free of; Qt's headers are
# not ours to mend and are taken as system headers.
function(micro850_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Wcast-align)
endfunction()
