# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The library is small enough for devices with little flash."""

import os

import sizes


def test_the_stripped_library_is_smaller_than_80_kB():
    assert sizes.stripped_size(os.environ["VARNIX_LIBRARY"], os.environ["VARNIX_STRIP"]) < sizes.MOST_ARMHF_BYTES
