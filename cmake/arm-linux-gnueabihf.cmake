# Cross build for ARM hard-float Linux with Debian's cross compiler
# (g++-arm-linux-gnueabihf).  The third-party libraries come from a sysroot
# of Debian's armhf packages unpacked by tools/setup-armhf.sh; the C and C++
# runtimes the compiler links against are its own.  Programs built here run
# on the host under qemu-user (CMAKE_CROSSCOMPILING_EMULATOR), which ctest
# and gtest_discover_tests use, and which the Python tests take from
# VESTA_EMULATOR.
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
#         [-DVESTA_ARMHF_SYSROOT=build-armhf/sysroot]
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

if(NOT VESTA_ARMHF_SYSROOT)
  get_filename_component(VESTA_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build-armhf/sysroot"
                         ABSOLUTE)
endif()
# try_compile projects read this file again and need the same sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VESTA_ARMHF_SYSROOT)

set(CMAKE_FIND_ROOT_PATH "${VESTA_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Debian keeps the architecture's own headers (opensslconf.h) apart.
set(CMAKE_C_FLAGS_INIT "-isystem ${VESTA_ARMHF_SYSROOT}/usr/include/arm-linux-gnueabihf")
# -Wno-psabi: GCC notes that an ABI changed in GCC 7.1, which concerns no
# code built here.
set(CMAKE_CXX_FLAGS_INIT "${CMAKE_C_FLAGS_INIT} -Wno-psabi")

# The sysroot's shared libraries name their own dependencies by soname.
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-Wl,-rpath-link,${VESTA_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")

# The emulator finds the dynamic loader, the C library and every other
# absolute path the program opens (OpenSSL's modules among them) in the
# sysroot first.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L "${VESTA_ARMHF_SYSROOT}")
