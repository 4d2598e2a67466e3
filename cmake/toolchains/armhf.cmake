set(triplet arm-linux-gnueabihf)
set(processor arm)
set(qemu qemu-arm-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
