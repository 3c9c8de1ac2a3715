# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

# varnix_tidy(<target>... [LARGE_HEADERS]): clang-tidy on the sources of the targets. With VARNIX_TIDY=QUICK its
# analyzer inlines less in those that include LARGE_HEADERS: it would spend most of its time in their templates.
function(varnix_tidy)
  cmake_parse_arguments(PARSE_ARGV 0 arg "LARGE_HEADERS" "" "")
  set(command clang-tidy)
  if(arg_LARGE_HEADERS AND VARNIX_TIDY STREQUAL QUICK)
    foreach(word IN ITEMS -Xclang -analyzer-config -Xclang mode=shallow)
      list(APPEND command --extra-arg=${word})
    endforeach()
  endif()
  if(VARNIX_TIDY)
    set_target_properties(${arg_UNPARSED_ARGUMENTS} PROPERTIES CXX_CLANG_TIDY "${command}")
  endif()
endfunction()
