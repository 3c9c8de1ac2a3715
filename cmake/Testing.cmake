# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

# What the tests of every room are made with.
set(VARNIX_TESTING_DIR ${CMAKE_CURRENT_LIST_DIR})

# varnix_leave_out(<tests> <reason>): says in one line which tests are not built here, and why.
function(varnix_leave_out tests reason)
  if(VARNIX_REQUIRE_ALL_TESTS)
    message(SEND_ERROR "Varnix: ${tests}: ${reason}")
  else()
    message(STATUS "Varnix: left out: ${tests}: ${reason}")
  endif()
endfunction()

# varnix_find_programs(<found> <tests> <program>...): the path of `ip` is in VARNIX_IP, and so on. Where one is missing,
# <found> is false and the tests are left out.
function(varnix_find_programs found tests)
  set(missing "")
  foreach(program IN LISTS ARGN)
    string(MAKE_C_IDENTIFIER "VARNIX_${program}" variable)
    string(TOUPPER ${variable} variable)
    find_program(${variable} ${program} PATHS /usr/sbin /sbin)
    mark_as_advanced(${variable})
    if(NOT ${variable})
      list(APPEND missing ${program})
    endif()
  endforeach()
  set(${found} TRUE PARENT_SCOPE)
  if(missing)
    string(REPLACE ";" ", " missing "${missing}")
    varnix_leave_out("${tests}" "not found: ${missing}")
    set(${found} FALSE PARENT_SCOPE)
  endif()
endfunction()

# varnix_pytest(<test> <file or folder> LABEL <kind> [TIMEOUT <seconds>] [COST <seconds>] [PROCESSORS <count>]
#               [ENVIRONMENT <NAME=VALUE>...])
# The tests of one Python file, or of a folder, as one test of ctest. They find tests/system/namespaces.py and what else
# is there. COST: about how long it takes; what takes long starts first.
function(varnix_pytest test path)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "LABEL;TIMEOUT;COST;PROCESSORS" "ENVIRONMENT")
  add_test(NAME ${test} COMMAND ${VARNIX_PYTEST} -p no:cacheprovider -q -rsP --tb=short
    ${CMAKE_CURRENT_SOURCE_DIR}/${path})
  set_tests_properties(${test} PROPERTIES
    LABELS ${arg_LABEL}
    SKIP_REGULAR_EXPRESSION "needs (network|time) namespaces")
  foreach(property IN ITEMS TIMEOUT COST PROCESSORS)
    if(arg_${property})
      set_tests_properties(${test} PROPERTIES ${property} ${arg_${property}})
    endif()
  endforeach()
  set_property(TEST ${test} PROPERTY ENVIRONMENT
    PYTHONDONTWRITEBYTECODE=1
    PYTHONPATH=${PROJECT_SOURCE_DIR}/tests/system:${PROJECT_SOURCE_DIR}/tests
    TSAN_OPTIONS=atexit_sleep_ms=20  # Not a second at the end of every process.
    VARNIX_SOURCE=${PROJECT_SOURCE_DIR}
    VARNIX_BUILD=${PROJECT_BINARY_DIR}
    VARNIX_PROGRAMS=${CMAKE_CURRENT_BINARY_DIR}
    VARNIX_LIBRARY=$<TARGET_FILE:varnix>
    VARNIX_INCLUDE=${PROJECT_SOURCE_DIR}/include
    VARNIX_CXX=${CMAKE_CXX_COMPILER}
    VARNIX_CXX_FLAGS=${CMAKE_CXX_FLAGS}
    VARNIX_CONFIG=${CMAKE_BUILD_TYPE}
    VARNIX_GENERATOR=${CMAKE_GENERATOR}
    VARNIX_TOOLCHAIN=${CMAKE_TOOLCHAIN_FILE}
    "VARNIX_EMULATOR=$<JOIN:${CMAKE_CROSSCOMPILING_EMULATOR}, >"
    ${arg_ENVIRONMENT})
endfunction()
