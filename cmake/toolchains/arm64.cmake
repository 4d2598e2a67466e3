set(triplet aarch64-linux-gnu)
set(processor aarch64)
set(qemu qemu-aarch64-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
