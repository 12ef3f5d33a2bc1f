# 32-bit ARM with hardware floating point: Debian's cross compiler, the libraries of the sysroot that
# sysroot.sh unpacks, programs of the build run under qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(triplet arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)  # notes on what older compilers did

set(CMAKE_FIND_ROOT_PATH ${CMAKE_CURRENT_LIST_DIR}/../../build/arm-sysroot)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_FIND_LIBRARY_SUFFIXES .a)
set(ENV{PKG_CONFIG_LIBDIR} /nowhere)  # the host's libraries are not meant

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/${triplet})
