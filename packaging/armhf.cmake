# CMake toolchain for 32-bit hard-float ARM with a GNU cross compiler:
#   cmake -S . -B DIR -DCMAKE_TOOLCHAIN_FILE=packaging/armhf.cmake -DNIMBRELC_SYSROOT=/path/to/sysroot
# The sysroot holds the box's C library and the four libraries with their headers and .pc files. Another
# compiler by its prefix: -DNIMBRELC_CROSS=arm-box-linux-gnueabihf.
set(NIMBRELC_CROSS arm-linux-gnueabihf CACHE STRING "Prefix of the cross compiler")
set(NIMBRELC_SYSROOT "" CACHE PATH "Root of the box's libraries and headers")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES NIMBRELC_CROSS NIMBRELC_SYSROOT)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_CXX_COMPILER ${NIMBRELC_CROSS}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${NIMBRELC_CROSS})
set(CMAKE_SYSROOT ${NIMBRELC_SYSROOT})
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${NIMBRELC_SYSROOT})

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
foreach(what LIBRARY INCLUDE PACKAGE)
    set(CMAKE_FIND_ROOT_PATH_MODE_${what} ONLY)
endforeach()
set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${NIMBRELC_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${NIMBRELC_SYSROOT}/usr/lib/${NIMBRELC_CROSS}/pkgconfig:${NIMBRELC_SYSROOT}/usr/lib/pkgconfig:${NIMBRELC_SYSROOT}/usr/share/pkgconfig)
