# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

# A big-endian machine of 64 bits.
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(triplet s390x-linux-gnu)
set(emulator qemu-s390x)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
