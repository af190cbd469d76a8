# Cross-compiles for 32-bit ARM with hardware floating point, with Debian's compiler:
#
#     cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf.cmake
#
# Programs of the target run under qemu-arm where that is installed, tests included. GoogleTest is made for the target
# from Debian's package googletest.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

set(triplet arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})

# Libraries and headers are those of the target. Packages may also stand where those for any processor stand: there is
# nothing for another one, since Debian keeps such apart by processor.
set(CMAKE_FIND_ROOT_PATH /usr/${triplet})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

set(CMAKE_CXX_FLAGS_INIT -Wno-psabi) # remarks on what older compilers did
list(APPEND CMAKE_MODULE_PATH ${CMAKE_CURRENT_LIST_DIR}/target)

find_program(GSSIP_EMULATOR qemu-arm)
if(GSSIP_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${GSSIP_EMULATOR} -L /usr/${triplet})
endif()
