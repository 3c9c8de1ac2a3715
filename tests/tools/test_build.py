# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Whether the command is built, and what is said where it is not."""

import os
import subprocess

import pytest

SOURCE = os.environ["VARNIX_SOURCE"]


@pytest.fixture
def configure(tmp_path):
    def configure_one(*options, source=SOURCE):
        return subprocess.run(["cmake", "-S", source, "-B", tmp_path / "build", "-G", os.environ["VARNIX_GENERATOR"],
                               f"-DCMAKE_CXX_COMPILER={os.environ['VARNIX_CXX']}", "-DBUILD_TESTING=OFF", *options],
                              capture_output=True, text=True)
    return configure_one


def has_target(build):
    done = subprocess.run(["cmake", "--build", build, "--target", "help"], capture_output=True, text=True, check=True)
    return "varnix_tool:" in done.stdout


def test_where_a_library_is_missing_one_line_says_so_and_the_rest_is_built(configure, tmp_path):
    done = configure("-DCMAKE_DISABLE_FIND_PACKAGE_nlohmann_json=ON", "-DVARNIX_NCURSES_INCLUDE=OFF")

    assert done.returncode == 0
    assert ("-- Varnix: left out: the command varnix: not found: nlohmann-json (nlohmann-json3-dev), "
            "ncurses (libncurses-dev)\n"
            in done.stdout)
    assert not has_target(tmp_path / "build")


def test_where_it_is_asked_for_a_missing_library_is_an_error(configure):
    done = configure("-DCMAKE_DISABLE_FIND_PACKAGE_CLI11=ON", "-DVARNIX_TOOLS=ON")

    assert done.returncode != 0
    assert "VARNIX_TOOLS is ON, and there is no CLI11 (libcli11-dev)" in done.stderr


def test_it_is_built_where_its_libraries_are_unless_it_is_not_wanted(configure, tmp_path):
    assert configure().returncode == 0 and has_target(tmp_path / "build")
    assert configure("-DVARNIX_TOOLS=OFF").returncode == 0 and not has_target(tmp_path / "build")


def test_it_is_linked_without_the_library_so_it_shows_what_is_on_the_wire():
    shown = subprocess.run(["readelf", "-d", os.environ["VARNIX_TOOL"]], capture_output=True, text=True, check=True)

    assert "(NEEDED)" in shown.stdout and "libvarnix" not in shown.stdout


def test_a_parent_project_does_not_get_it(configure, tmp_path):
    (tmp_path / "CMakeLists.txt").write_text(
        f"cmake_minimum_required(VERSION 3.16)\nproject(parent CXX)\nadd_subdirectory({SOURCE} varnix)\n")

    assert configure(source=tmp_path).returncode == 0

    assert not has_target(tmp_path / "build")
