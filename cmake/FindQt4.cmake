# Finds QtCore of the Qt 4 in a panel's SDK and defines the target Qt4::QtCore. Searches the folder QT4_PREFIX
# (with include/QtCore and lib/libQtCore.so) or, if that is not set, where CMake searches (CMAKE_PREFIX_PATH, the
# sysroot of a toolchain file). Unlike CMake's own module, it needs no qmake that runs on this machine.
set(QT4_PREFIX "" CACHE PATH "Folder of the Qt 4 to build for, with include/QtCore and lib/libQtCore.so")
if(QT4_PREFIX)
  set(only NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
endif()
find_path(Qt4_INCLUDE_DIR QtCore/qglobal.h
  PATHS ${QT4_PREFIX} PATH_SUFFIXES include include/qt4 qt4 ${only})
find_library(Qt4_CORE_LIBRARY NAMES QtCore QtCoreE
  PATHS ${QT4_PREFIX} PATH_SUFFIXES lib ${only})
mark_as_advanced(Qt4_INCLUDE_DIR Qt4_CORE_LIBRARY)

if(Qt4_INCLUDE_DIR)
  file(STRINGS ${Qt4_INCLUDE_DIR}/QtCore/qglobal.h line REGEX "define +QT_VERSION_STR +\"")
  string(REGEX REPLACE ".*\"([0-9.]+)\".*" "\\1" Qt4_VERSION "${line}")
  if(NOT Qt4_VERSION MATCHES "^4\\.")
    set(Qt4_INCLUDE_DIR Qt4_INCLUDE_DIR-NOTFOUND)
  endif()
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Qt4
  REQUIRED_VARS Qt4_CORE_LIBRARY Qt4_INCLUDE_DIR VERSION_VAR Qt4_VERSION
  REASON_FAILURE_MESSAGE "Give its folder with -DQT4_PREFIX=...")

if(Qt4_FOUND AND NOT TARGET Qt4::QtCore)
  add_library(Qt4::QtCore UNKNOWN IMPORTED)
  set_target_properties(Qt4::QtCore PROPERTIES
    IMPORTED_LOCATION ${Qt4_CORE_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES "${Qt4_INCLUDE_DIR};${Qt4_INCLUDE_DIR}/QtCore"
    INTERFACE_COMPILE_DEFINITIONS QT_CORE_LIB
    INTERFACE_POSITION_INDEPENDENT_CODE ON)
endif()
