# Cross-build for armhf with Debian's cross compiler (g++-arm-linux-gnueabihf):
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake -DTTY_HUB_TESTS=OFF
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_STRIP arm-linux-gnueabihf-strip)
# The cross toolchain's own root, and Debian's multiarch packages of the
# target (libssl-dev:armhf) in /usr/lib/arm-linux-gnueabihf and /usr/include/arm-linux-gnueabihf.
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf /)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
# pkg-config (which FindOpenSSL asks first) reads the target's .pc files.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
