# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

# Only examples and tests are written in C; the library for C is not. Where no C compiler is found, they are left out.
if(VARNIX_EXAMPLES OR (varnix_is_top_level AND BUILD_TESTING))
  include(CheckLanguage)
  check_language(C)
  if(CMAKE_C_COMPILER)
    enable_language(C)
  endif()
endif()

# A program needs the sanitizers of the library that it is linked to; they are named among the flags of C++.
string(REGEX MATCHALL "-f(no-)?sanitize[^ ]*" varnix_sanitizers "${CMAKE_CXX_FLAGS}")
add_library(varnix_sanitized_c INTERFACE)
target_compile_options(varnix_sanitized_c INTERFACE $<$<COMPILE_LANGUAGE:C>:${varnix_sanitizers}>)
target_link_options(varnix_sanitized_c INTERFACE ${varnix_sanitizers})
