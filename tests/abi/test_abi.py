# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The library fits the programs that are in the field, and is the same wherever it is built."""

import os
import pathlib
import re
import shutil

import pytest

from descriptions import compare, is_change_noticed, run

SOURCE = pathlib.Path(os.environ["VARNIX_SOURCE"])
DESCRIPTION = pathlib.Path(os.environ["VARNIX_DESCRIPTION"])


def test_the_library_is_as_its_description(built):
    assert compare(DESCRIPTION, built) == (0, "")


def test_the_description_names_no_place_of_the_machine_that_made_it():
    description = DESCRIPTION.read_text(encoding="utf-8")

    assert re.findall(r"(?:path|filepath|comp-dir-path)='([^']*)'", description) == ["./src/Varnix.cpp"]
    assert str(SOURCE) not in description


@pytest.mark.parametrize("what, before, after", [
    ("a virtual function that has moved", r"vtable-offset='3'(?=>\s*<function-decl name='Watch')", "vtable-offset='5'"),
    ("another value of a level", "<enumerator name='Info' value='6'/>", "<enumerator name='Info' value='9'/>"),
    ("a level that is gone", r"\s*<enumerator name='Debug' value='7'/>", ""),
    ("a larger class", r"(<class-decl name='Watcher' size-in-bits=)'\d+'", r"\1'256'"),
    ("a function that is gone", r"\s*<elf-symbol name='_ZN6Varnix14NetworkChangedEv'[^>]*/>", ""),
])
def test_the_comparison_notices(what, before, after, built, tmp_path):
    assert is_change_noticed(DESCRIPTION, built, before, after, tmp_path / "changed.abi")


def build(source):
    source.mkdir(parents=True)
    for part in ("CMakeLists.txt", "cmake", "include", "src", "tools"):
        copy = shutil.copytree if (SOURCE / part).is_dir() else shutil.copy
        copy(SOURCE / part, source / part)
    run("cmake", "-G", os.environ["VARNIX_GENERATOR"], "-S", source, "-B", source / "build",
        f"-DCMAKE_BUILD_TYPE={os.environ['VARNIX_CONFIG']}", f"-DCMAKE_CXX_COMPILER={os.environ['VARNIX_CXX']}",
        "-DCMAKE_CXX_FLAGS=-g", "-DCMAKE_UNITY_BUILD=ON", "-DBUILD_TESTING=OFF", "-DVARNIX_EXAMPLES=OFF",
        "-DVARNIX_C=OFF")
    run("cmake", "--build", source / "build", "--target", "varnix", "--parallel", len(os.sched_getaffinity(0)))
    return source / "build" / "libvarnix.so"


if not os.environ["VARNIX_TOOLCHAIN"]:  # Where a build is depends on no compiler.

    def test_two_builds_in_different_directories_are_identical_with_debug_information(tmp_path):
        here = build(tmp_path / "here")
        elsewhere = build(tmp_path / "some" / "where" / "else")

        assert b".debug_info\0" in here.read_bytes()
        assert here.read_bytes() == elsewhere.read_bytes()
