# SPDX-License-Identifier: Apache-2.0
# Cross build for the phone's architecture with Debian's AArch64 cross
# compiler and the arm64 multiarch packages (dpkg --add-architecture arm64).
# Test programs, gtest discovery included, run under qemu-aarch64.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# Debian multiarch: the arm64 libraries and their CMake packages live in
# /usr/lib/aarch64-linux-gnu beside the host's, headers in /usr/include.

# The programs run on the arm64 multiarch runtime (libc6:arm64, whose loader
# is /lib/ld-linux-aarch64.so.1), not with -L /usr/aarch64-linux-gnu: that
# prefix holds the cross toolchain's own glibc, whose loader does not match
# the multiarch libc.so.6 the libraries resolve to, and a child of fork()
# then hangs.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
