# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The library for C fits the programs that are in the field."""

import os
import pathlib

import pytest

from descriptions import compare, is_change_noticed

DESCRIPTION = pathlib.Path(os.environ["VARNIX_DESCRIPTION"])


def test_the_library_for_c_is_as_its_description(built):
    assert compare(DESCRIPTION, built) == (0, "")


@pytest.mark.parametrize("what, before, after", [
    ("a larger struct", r"(<class-decl name='varnix_change' size-in-bits=)'\d+'", r"\1'1024'"),
    ("a function that is gone", r"\s*<elf-symbol name='varnix_network_changed'[^>]*/>", ""),
])
def test_the_comparison_notices(what, before, after, built, tmp_path):
    assert is_change_noticed(DESCRIPTION, built, before, after, tmp_path / "changed.abi")
