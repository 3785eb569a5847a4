# Cross build for 64-bit ARM Linux with Debian's aarch64 GNU toolchain
# (g++-aarch64-linux-gnu). The binaries run on an x86-64 machine under
# qemu-user: ctest and gtest_discover_tests start them through the emulator
# below, which takes its processor model from QEMU_CPU in the environment
# (for example QEMU_CPU=cortex-a53 for a core without the dot product).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Libraries and headers come from the target's sysroot only; build tools
# from the host.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# -L points qemu at the target's dynamic loader and C++ runtime.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64;-L;/usr/aarch64-linux-gnu)
