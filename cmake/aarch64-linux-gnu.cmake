# Cross build for 64-bit ARM Linux with Debian's cross compiler
# (g++-aarch64-linux-gnu) and arm64 libraries from Debian's multiarch
# packages (libasound2-dev:arm64, libgtest-dev:arm64). Tests run under
# qemu-user:
#
#   cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
#   cmake --build build-aarch64 -j2 && ctest --test-dir build-aarch64
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# Libraries and CMake packages of the target only; programs of the host.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu /usr/lib/aarch64-linux-gnu/cmake)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")

# The multiarch arm64 C library (a dependency of libasound2:arm64) provides
# the loader and libraries qemu runs the programs with.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
