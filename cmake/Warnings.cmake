function(orvane_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  if(ORVANE_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  elseif(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC 12 reports -Wrestrict and -Wmaybe-uninitialized from inside libstdc++'s string and
    # variant code at -O3 and under sanitizers (GCC bugs 105329, 105651); clang keeps
    # checking uninitialised use.
    target_compile_options(${target} PRIVATE -Wno-restrict -Wno-maybe-uninitialized)
  endif()
endfunction()
