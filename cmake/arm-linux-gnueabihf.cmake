# Debian's cross compiler for 32-bit ARM with hardware floating point, the device's kind of processor. The libraries
# are in a root of their own, which ./dev arm fills; the programs run in QEMU's user mode.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)  # notes on what g++ 7 changed

cmake_path(SET CMAKE_SYSROOT NORMALIZE ${CMAKE_CURRENT_LIST_DIR}/../build/arm-sysroot)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# A program that another one starts finds its libraries by what it inherits. The path names every folder, because the
# emulator does not turn statx() to the root, so that the loader takes the usual folders for absent.
set(libraries ${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf)
set(CMAKE_CROSSCOMPILING_EMULATOR
  qemu-arm -L ${CMAKE_SYSROOT} -E QEMU_LD_PREFIX=${CMAKE_SYSROOT}
  -E LD_LIBRARY_PATH=${libraries}:${libraries}/android:${CMAKE_SYSROOT}/lib/arm-linux-gnueabihf:${CMAKE_SYSROOT}/usr/lib/p7zip)
