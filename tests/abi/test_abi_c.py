# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The library for C fits the programs that are in the field."""

import os
import pathlib
import re

import pytest

from descriptions import compare, describe

DESCRIPTION = pathlib.Path(os.environ["VARNIX_DESCRIPTION"])


@pytest.fixture(scope="module")
def built(tmp_path_factory):
    return describe(tmp_path_factory.mktemp("built") / "built.abi")


def test_the_library_for_c_is_as_its_description(built):
    assert compare(DESCRIPTION, built) == (0, "")


@pytest.mark.parametrize("what, before, after", [
    ("a larger struct", r"(<class-decl name='varnix_change' size-in-bits=)'\d+'", r"\1'1024'"),
    ("a function that is gone", r"\s*<elf-symbol name='varnix_network_changed'[^>]*/>", ""),
])
def test_the_comparison_notices(what, before, after, built, tmp_path):
    changed, count = re.subn(before, after, built.read_text(encoding="utf-8"))
    (tmp_path / "changed.abi").write_text(changed, encoding="utf-8")

    assert count == 1
    assert compare(DESCRIPTION, tmp_path / "changed.abi")[0] & 4
