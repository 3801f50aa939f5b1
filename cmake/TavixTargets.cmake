# Ends the configuration when something is missing: says how Debian calls it, and which option does without it.
function(tavix_require found name package option without)
  if(NOT ${found})
    message(FATAL_ERROR "${name} is missing (Debian: ${package}). -D${option}=OFF builds without ${without}.")
  endif()
endfunction()

# Lets a target's build use a library that is headers alone, the same for all processors: where they lie among the building
# machine's own headers, which must not be seen then, they get a folder of their own. Of use in the calling directory.
function(tavix_isolate_headers library folder)
  get_target_property(include ${library} INTERFACE_INCLUDE_DIRECTORIES)
  if(CMAKE_CROSSCOMPILING AND include STREQUAL "/usr/include")
    file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/headers)
    file(CREATE_LINK ${include}/${folder} ${PROJECT_BINARY_DIR}/headers/${folder} SYMBOLIC)
    set_target_properties(${library} PROPERTIES INTERFACE_INCLUDE_DIRECTORIES ${PROJECT_BINARY_DIR}/headers)
  endif()
endfunction()

# Sanitizers and coverage, as the build's options ask for them.
function(tavix_instrument target)
  if(TAVIX_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${TAVIX_SANITIZE} -fno-omit-frame-pointer
                                             -fno-sanitize-recover=all)
    target_link_options(${target} PUBLIC -fsanitize=${TAVIX_SANITIZE})
  endif()
  if(TAVIX_COVERAGE)
    target_compile_options(${target} PRIVATE --coverage)
    target_link_options(${target} PUBLIC --coverage)
  endif()
endfunction()

# What every target in C is compiled with: the oldest standard that the C interface is for.
function(tavix_configure_c target)
  set_target_properties(${target} PROPERTIES C_STANDARD 99 C_STANDARD_REQUIRED ON C_EXTENSIONS OFF)
  target_compile_options(${target} PRIVATE -Wall -Wextra -pedantic -Wshadow -Wconversion)
  if(TAVIX_IS_TOP_LEVEL)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  tavix_instrument(${target})
endfunction()

# What every target in C++ is compiled with.
function(tavix_configure target)
  target_compile_features(${target} PUBLIC cxx_std_17)
  set_target_properties(
    ${target} PROPERTIES CXX_STANDARD 17 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF CXX_VISIBILITY_PRESET hidden
                         VISIBILITY_INLINES_HIDDEN ON)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor)
  # Files above 2 GiB and times after 2038. No public header holds such types.
  if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    target_compile_definitions(${target} PRIVATE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
  endif()
  if(TAVIX_IS_TOP_LEVEL)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  tavix_instrument(${target})
endfunction()

# A small program is a tenth smaller when it is optimized as a whole. Takes it and the libraries that are parts of it.
function(tavix_optimize_as_a_whole)
  if(NOT CMAKE_BUILD_TYPE STREQUAL "Release")
    return()
  endif()
  if(NOT DEFINED TAVIX_OPTIMIZES_AS_A_WHOLE)
    include(CheckIPOSupported)
    check_ipo_supported(RESULT is_supported OUTPUT ignored LANGUAGES CXX)
    set(TAVIX_OPTIMIZES_AS_A_WHOLE ${is_supported} CACHE INTERNAL "Whether the compiler optimizes programs as a whole")
  endif()
  set_target_properties(${ARGN} PROPERTIES INTERPROCEDURAL_OPTIMIZATION ${TAVIX_OPTIMIZES_AS_A_WHOLE})
endfunction()

# A small program has its data behind its code, without gaps up to the next page.
function(tavix_leave_no_gaps target)
  target_link_options(${target} PRIVATE $<$<CONFIG:Release>:-Wl,-z,noseparate-code>)
endfunction()

# A small program: addresses that are only moved when it is loaded take a bit each in place of 24 bytes. Linker and C
# library have to know that form: those of Debian 12 do.
function(tavix_pack_relocations target)
  if(CMAKE_CROSSCOMPILING OR NOT CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
    return()
  endif()
  include(CheckCXXSourceCompiles)
  check_cxx_source_compiles("#include <features.h>
#if !defined(__GLIBC__) || !__GLIBC_PREREQ(2, 36)
#error no such form
#endif
int main() {}" TAVIX_HAS_PACKED_RELOCATIONS)
  if(TAVIX_HAS_PACKED_RELOCATIONS)
    target_link_options(${target} PRIVATE $<$<CONFIG:Release>:-Wl,-z,pack-relative-relocs>)
  endif()
endfunction()
