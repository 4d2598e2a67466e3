# Cross-building with Debian's compilers against a sysroot of Debian's packages, which scripts/arm makes; what
# is built runs under QEMU. The including file sets `triplet`, `processor` and `qemu`.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${processor})
set(CMAKE_CXX_COMPILER ${triplet}-g++)
# A note on an old change of the ABI, which concerns objects of older compilers alone.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
set(CMAKE_STRIP ${triplet}-strip)

set(MICRO850_SYSROOT ${CMAKE_BINARY_DIR}/sysroot CACHE PATH "Root of the target's packages")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MICRO850_SYSROOT)
set(CMAKE_SYSROOT ${MICRO850_SYSROOT})
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
# Whether Qt's folder of plugins is there QEMU asks the machine itself, not the sysroot.
set(CMAKE_CROSSCOMPILING_EMULATOR ${qemu} -L ${MICRO850_SYSROOT}
  -E QT_PLUGIN_PATH=${MICRO850_SYSROOT}/usr/lib/${triplet}/qt5/plugins)

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
