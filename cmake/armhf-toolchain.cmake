# Cross build for the terminal's Zynq (ARMv7, hard float) with Debian's
# cross compiler and multiarch armhf -dev packages.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
set(CMAKE_PREFIX_PATH /usr/lib/arm-linux-gnueabihf/cmake)
# Unit tests run on the build machine through user-mode emulation, with the
# multiarch armhf C library (the cross toolchain's own copy crashes qemu on
# the first thread).
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static;-L;/)
# pkg-config must describe the armhf libraries, not the build machine's.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
