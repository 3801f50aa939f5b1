# Builds for 64-bit RISC-V with Debian's cross compiler (package g++-riscv64-linux-gnu); tests run under qemu-user where that is there.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR riscv64)
set(triplet riscv64-linux-gnu)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)

# Programs are the building machine's; libraries and headers are the target's, those of the compiler.
set(CMAKE_FIND_ROOT_PATH /usr/${triplet})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${triplet}/pkgconfig:/usr/share/pkgconfig)

find_program(TAVIX_EMULATOR qemu-riscv64)
if(TAVIX_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${TAVIX_EMULATOR} -L /usr/${triplet})
endif()
