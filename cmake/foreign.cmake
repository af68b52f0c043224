# What the foreign toolchains share: libraries come from the unpacked packages (cmake/fetch_sysroot.sh), programs that
# run while building from the host.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZEL_FOREIGN)
set(ZEL_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-${ZEL_FOREIGN})
# libcrypto keeps one of its headers in the directory of the architecture.
string(APPEND CMAKE_C_FLAGS_INIT " -isystem ${ZEL_SYSROOT}/usr/include/${ZEL_FOREIGN}")
string(APPEND CMAKE_CXX_FLAGS_INIT " -isystem ${ZEL_SYSROOT}/usr/include/${ZEL_FOREIGN}")
set(CMAKE_FIND_ROOT_PATH ${ZEL_SYSROOT} /usr/${ZEL_FOREIGN})
set(CMAKE_LIBRARY_ARCHITECTURE ${ZEL_FOREIGN})
set(CMAKE_C_LIBRARY_ARCHITECTURE ${ZEL_FOREIGN})
set(CMAKE_CXX_LIBRARY_ARCHITECTURE ${ZEL_FOREIGN})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
