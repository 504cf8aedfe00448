# Cross-build for the terminal: 32-bit ARM embedded Linux (armhf).
# Target libraries that Debian's cross toolchain does not carry (SQLite) come
# from the sysroot that scripts/arm-sysroot.sh unpacks from Debian's armhf
# packages; the tests run under qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

set(CATRA_ARM_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/arm-sysroot" CACHE PATH
    "Unpacked armhf packages (scripts/arm-sysroot.sh)")
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf "${CATRA_ARM_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

# Test executables run under user-mode emulation with the target's libraries;
# without qemu-user installed, each fails naming it.
set(CMAKE_CROSSCOMPILING_EMULATOR
    "${CMAKE_CURRENT_LIST_DIR}/../tests/support/needs.sh" qemu-user --
    qemu-arm -L /usr/arm-linux-gnueabihf)
