# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

# Fails unless a ```cpp block of README is EXAMPLE, byte for byte but for the lines that name its licence.
file(READ ${README} readme)
file(READ ${EXAMPLE} example)
string(REGEX REPLACE "^(// SPDX-[^\n]*\n)+\n" "" example "${example}")
string(FIND "${readme}" "```cpp\n${example}```\n" found)
if(found EQUAL -1)
  message(FATAL_ERROR "The code in ${README} is not that of ${EXAMPLE}: copy the one to the other.")
endif()
