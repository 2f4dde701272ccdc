# Cross build for AArch64 with Debian's cross compiler and the arm64 libraries
# of a multiarch install (scripts/cross_setup.sh installs both):
#
#   cmake -S . -B build-arm64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
#
# Test binaries run under qemu-user: CTest starts each one through
# CMAKE_CROSSCOMPILING_EMULATOR.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Multiarch puts the arm64 libraries beside the host's, in /usr/lib/aarch64-linux-gnu
# (searched first through CMAKE_LIBRARY_ARCHITECTURE), and shares /usr/include.
# pkg-config must see only the arm64 .pc files, never the host's.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# The arm64 libc of the multiarch install (libc6:arm64) brings its dynamic
# linker to /lib/ld-linux-aarch64.so.1, so qemu needs no sysroot prefix. With
# -L /usr/aarch64-linux-gnu the cross compiler's older ld.so would load the
# multiarch libc.so.6, and the pair hangs in fork().
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
