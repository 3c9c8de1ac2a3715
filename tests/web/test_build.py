# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Whether the command gets its page, and what is said where it does not."""

import os
import subprocess

import pytest

SOURCE = os.environ["VARNIX_SOURCE"]
NOTHING = "-DVARNIX_HTTPLIB="
MISSING = "cpp-httplib 0.11 (libcpp-httplib-dev)"


@pytest.fixture
def configure(tmp_path):
    def configure_one(*options):
        return subprocess.run(["cmake", "-S", SOURCE, "-B", tmp_path / "build", "-G", os.environ["VARNIX_GENERATOR"],
                               f"-DCMAKE_CXX_COMPILER={os.environ['VARNIX_CXX']}", "-DBUILD_TESTING=OFF", *options],
                              capture_output=True, text=True)
    return configure_one


def targets(build):
    done = subprocess.run(["cmake", "--build", build, "--target", "help"], capture_output=True, text=True, check=True)
    return {name for name in ("varnix_tool", "varnix_web_objects") if f"{name}:" in done.stdout}


def test_where_its_library_is_missing_one_line_says_so_and_the_command_is_built(configure, tmp_path):
    done = configure(NOTHING)

    assert done.returncode == 0
    assert f"-- Varnix: left out: the page of the command varnix: not found: {MISSING}\n" in done.stdout
    assert targets(tmp_path / "build") == {"varnix_tool"}


def test_another_version_of_its_library_is_as_none(configure, tmp_path):
    header = tmp_path / "other" / "httplib.h"
    header.parent.mkdir()
    header.write_text('#define CPPHTTPLIB_VERSION "0.18.3"\n')
    done = configure(f"-DVARNIX_HTTPLIB_INCLUDE={header.parent}")

    assert done.returncode == 0
    assert f"-- Varnix: left out: the page of the command varnix: not found: {MISSING}\n" in done.stdout


def test_where_it_is_asked_for_a_missing_library_is_an_error(configure):
    done = configure(NOTHING, "-DVARNIX_WEB=ON")

    assert done.returncode != 0
    assert f"VARNIX_WEB is ON, and there is no {MISSING}" in done.stderr


def test_where_it_is_asked_for_and_the_command_is_not_built_that_is_an_error(configure):
    done = configure("-DVARNIX_TOOLS=OFF", "-DVARNIX_WEB=ON")

    assert done.returncode != 0
    assert "VARNIX_WEB is ON, and there is no command to give it to (VARNIX_TOOLS)" in done.stderr


def test_it_is_built_where_its_library_is_unless_it_is_not_wanted(configure, tmp_path):
    assert configure().returncode == 0 and targets(tmp_path / "build") == {"varnix_tool", "varnix_web_objects"}
    assert configure("-DVARNIX_WEB=OFF").returncode == 0 and targets(tmp_path / "build") == {"varnix_tool"}
