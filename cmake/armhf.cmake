# Cross build for ARMv7 hard-float (armhf) with Debian's cross toolchain
# (crossbuild-essential-armhf) and multiarch armhf libraries (json-c, GoogleTest)
# under /usr/lib/arm-linux-gnueabihf. Tests run under qemu-user.
#
#   cmake -S . -B build/armhf -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/armhf.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(WWANCTL_CROSS_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${WWANCTL_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${WWANCTL_CROSS_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${WWANCTL_CROSS_TRIPLE})

# The cross sysroot holds libc and libstdc++; the multiarch directories hold
# the armhf -dev packages. Programs (cmake, pkg-config) come from the host.
set(CMAKE_FIND_ROOT_PATH /usr/${WWANCTL_CROSS_TRIPLE} /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reads only the armhf .pc files (json-c).
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${WWANCTL_CROSS_TRIPLE}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# ctest (and GoogleTest's test discovery) run the target's programs through
# qemu-user. At run time they load the multiarch armhf libraries (libc6:armhf,
# libstdc++6:armhf) from /lib/arm-linux-gnueabihf, not the cross sysroot's: the
# sysroot's older libc crashes in fork() under qemu-arm.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm)
