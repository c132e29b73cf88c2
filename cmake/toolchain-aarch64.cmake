# Cross-build for aarch64 with Debian's cross compiler (g++-aarch64-linux-gnu):
#   cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64.cmake -DTTY_HUB_TESTS=OFF
# libcrypto of the board: libssl-dev:arm64 installed, or -DTTY_HUB_SYSROOT=DIR
# (see target-root.cmake).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_STRIP aarch64-linux-gnu-strip)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/target-root.cmake)
