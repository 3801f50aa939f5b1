# Builds 32-bit programs that a 64-bit x86 machine runs by itself (package g++-12-multilib; not g++-multilib, which Debian
# does not install beside its cross compilers).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
# The kernel's headers are the same for both, and lie beside the 64-bit ones alone.
set(CMAKE_C_FLAGS_INIT "-m32 -idirafter /usr/include/x86_64-linux-gnu")
set(CMAKE_CXX_FLAGS_INIT "${CMAKE_C_FLAGS_INIT}")
