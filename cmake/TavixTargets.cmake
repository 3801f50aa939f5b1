# What every target of ours is compiled with.
function(tavix_configure target)
  target_compile_features(${target} PUBLIC cxx_std_17)
  set_target_properties(
    ${target} PROPERTIES CXX_STANDARD 17 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF CXX_VISIBILITY_PRESET hidden
                         VISIBILITY_INLINES_HIDDEN ON)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor)
  if(TAVIX_IS_TOP_LEVEL)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
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
