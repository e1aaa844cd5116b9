# CMake toolchain for another processor with a GNU cross compiler, named by its prefix:
#   cmake -S . -B DIR -DCMAKE_TOOLCHAIN_FILE=packaging/cross.cmake -DNIMBRELC_CROSS=arm-linux-gnueabihf
#       [-DNIMBRELC_SYSROOT=/path/to/sysroot]
# The sysroot holds the box's C library and the four libraries with their headers and .pc files. Without one they
# are where Debian installs another processor's.
set(NIMBRELC_CROSS "" CACHE STRING "Prefix of the cross compiler")
set(NIMBRELC_SYSROOT "" CACHE PATH "Root of the box's libraries and headers")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES NIMBRELC_CROSS NIMBRELC_SYSROOT)

set(CMAKE_SYSTEM_NAME Linux)
string(REGEX MATCH "^[^-]+" CMAKE_SYSTEM_PROCESSOR "${NIMBRELC_CROSS}")
set(CMAKE_CXX_COMPILER ${NIMBRELC_CROSS}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${NIMBRELC_CROSS})
set(CMAKE_SYSROOT ${NIMBRELC_SYSROOT})

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
foreach(what LIBRARY INCLUDE PACKAGE)
    set(CMAKE_FIND_ROOT_PATH_MODE_${what} ONLY)
endforeach()
set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${NIMBRELC_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${NIMBRELC_SYSROOT}/usr/lib/${NIMBRELC_CROSS}/pkgconfig:${NIMBRELC_SYSROOT}/usr/lib/pkgconfig:${NIMBRELC_SYSROOT}/usr/share/pkgconfig)
