# Cross build for the box's architecture, 32-bit ARM with hardware floating
# point (Debian armhf), with Debian's cross toolchain (crossbuild-essential-armhf)
# and the armhf development packages installed beside the host's (multiarch).
#   cmake -S . -B build-armhf -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
# scripts/cross-armhf.sh installs what this needs, builds and runs the suite.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# For ARM, GCC notes at every function that takes or returns a standard
# container of a struct that its parameter passing changed in GCC 7.1. The
# whole tree and the libraries it links are built by one compiler, so the
# notes say nothing here and would bury the build's real messages.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# Libraries, headers and CMake packages come from the armhf multiarch folders
# (/usr/lib/arm-linux-gnueabihf, /usr/include/arm-linux-gnueabihf), which
# CMAKE_LIBRARY_ARCHITECTURE puts on the search paths; programs (pkg-config,
# ffmpeg) from the host.

# pkg-config modules of armhf only (the host's amd64 ones would link the wrong
# libraries).
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# CTest (and gtest_discover_tests) run every test program under qemu-user.
# The target's libraries come from the root file system's multiarch folders
# (-L /): the loader and C library there match each other, which a separate
# sysroot of another version does not (every program that starts a thread
# crashes then).
find_program(VELKA_QEMU_ARM qemu-arm)
if(NOT VELKA_QEMU_ARM)
  message(FATAL_ERROR "qemu-arm not found: install qemu-user (scripts/cross-armhf.sh does)")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR "${VELKA_QEMU_ARM};-L;/")
