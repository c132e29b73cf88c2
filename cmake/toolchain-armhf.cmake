# Cross-build for armhf with Debian's cross compiler (g++-arm-linux-gnueabihf):
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake -DTTY_HUB_TESTS=OFF
# libcrypto of the board: libssl-dev:armhf installed, or -DTTY_HUB_SYSROOT=DIR
# (see target-root.cmake).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_STRIP arm-linux-gnueabihf-strip)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/target-root.cmake)
