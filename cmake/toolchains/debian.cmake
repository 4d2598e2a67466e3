# Cross-builds with Debian's compilers and a sysroot of Debian's packages, which scripts/arm creates. The programs
# run under QEMU. The including file sets `triplet`, `processor` and `qemu`.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${processor})
set(CMAKE_CXX_COMPILER ${triplet}-g++)
# Suppresses a note on an old change of the ABI, which concerns only objects of older compilers.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
set(CMAKE_STRIP ${triplet}-strip)

set(MICRO850_SYSROOT ${CMAKE_BINARY_DIR}/sysroot CACHE PATH "Root of the target's packages")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MICRO850_SYSROOT)
set(CMAKE_SYSROOT ${MICRO850_SYSROOT})
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
# QEMU looks for Qt's folder of plugins on this machine and not in the sysroot, so it is named here.
set(CMAKE_CROSSCOMPILING_EMULATOR ${qemu} -L ${MICRO850_SYSROOT}
  -E QT_PLUGIN_PATH=${MICRO850_SYSROOT}/usr/lib/${triplet}/qt5/plugins)

set(ENV{PKG_CONFIG_SYSROOT_DIR} ${MICRO850_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${MICRO850_SYSROOT}/usr/lib/${triplet}/pkgconfig:${MICRO850_SYSROOT}/usr/share/pkgconfig)

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
