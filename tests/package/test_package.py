# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""A stranger's project finds and links the library in each way that the README offers."""

import os
import pathlib
import re
import shlex
import shutil
import subprocess

import pytest

HERE = pathlib.Path(__file__).parent
SOURCE = HERE.parent.parent
BUILD = pathlib.Path(os.environ["VARNIX_BUILD"])
COMPILER = [os.environ["VARNIX_CXX"], *shlex.split(os.environ["VARNIX_CXX_FLAGS"])]
TOOLCHAIN = os.environ["VARNIX_TOOLCHAIN"]
EMULATOR = shlex.split(os.environ["VARNIX_EMULATOR"])
OFFLINE = ["unshare", "--net"] if os.geteuid() == 0 else []  # Configuring downloads nothing.


def run(*command, **variables):
    done = subprocess.run([str(word) for word in command], env={**os.environ, **variables}, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True)
    assert done.returncode == 0, done.stdout
    return done.stdout


def build_with_cmake(project, build, *definitions):
    if TOOLCHAIN:
        definitions += (f"-DCMAKE_TOOLCHAIN_FILE={TOOLCHAIN}",)
    run(*OFFLINE, "cmake", "-G", os.environ["VARNIX_GENERATOR"], "-S", project, "-B", build,
        f"-DCMAKE_CXX_COMPILER={COMPILER[0]}", "-DCMAKE_CXX_FLAGS=" + shlex.join(COMPILER[1:]), *definitions)
    run("cmake", "--build", build)


def output(program, prefix=None):
    variables = {"LD_LIBRARY_PATH": f"{prefix}/lib"} if prefix and not EMULATOR else {}
    emulator = EMULATOR + (["-E", f"LD_LIBRARY_PATH={prefix}/lib"] if prefix else []) if EMULATOR else []
    return run(*emulator, program, **variables)


def assert_works(program, prefix=None):
    assert output(program, prefix) == "temperature is 81\n"


@pytest.fixture(params=["fresh prefix", "moved prefix"])
def prefix(request, tmp_path):
    installed = tmp_path / "installed"
    run("cmake", "--install", BUILD, "--prefix", installed)
    if request.param == "fresh prefix":
        return installed
    return pathlib.Path(shutil.move(installed, tmp_path / "moved"))


def test_find_package_finds_it(prefix, tmp_path):
    build_with_cmake(HERE / "installed", tmp_path / "build", f"-DCMAKE_PREFIX_PATH={prefix}")

    assert_works(tmp_path / "build" / "stranger", prefix)


if not TOOLCHAIN:  # A dozen programs are enough once.

    @pytest.mark.parametrize("prefix", ["fresh prefix"], indirect=True)
    def test_the_examples_are_a_project_that_finds_it(prefix, tmp_path):
        build_with_cmake(SOURCE / "examples", tmp_path / "build", f"-DCMAKE_PREFIX_PATH={prefix}")

        assert output(tmp_path / "build" / "wait_on_several", prefix).startswith("speed is now 42\n")


def test_pkg_config_finds_it(prefix, tmp_path):
    flags = run("pkg-config", "--cflags", "--libs", "varnix", PKG_CONFIG_PATH=f"{prefix}/lib/pkgconfig").split()

    run(*COMPILER, "-std=c++11", HERE / "plain" / "main.cpp", *flags, "-o", tmp_path / "stranger")

    assert_works(tmp_path / "stranger", prefix)


def test_plain_linking_finds_it(prefix, tmp_path):
    run(*COMPILER, "-std=c++11", f"-I{prefix}/include", HERE / "plain" / "main.cpp", f"-L{prefix}/lib", "-lvarnix",
        "-o", tmp_path / "stranger")

    assert_works(tmp_path / "stranger", prefix)


def test_find_package_finds_the_library_for_c_in_a_project_of_c_alone(prefix, tmp_path):
    build_with_cmake(HERE / "installed-c", tmp_path / "build", f"-DCMAKE_PREFIX_PATH={prefix}")

    assert_works(tmp_path / "build" / "stranger", prefix)


def test_pkg_config_finds_the_library_for_c(prefix, tmp_path):
    flags = run("pkg-config", "--cflags", "--libs", "varnix_c", PKG_CONFIG_PATH=f"{prefix}/lib/pkgconfig").split()

    run(*COMPILER, "-x", "c", "-std=c99", HERE / "installed-c" / "main.c", *flags, "-o",
        tmp_path / "stranger")

    assert_works(tmp_path / "stranger", prefix)


def test_installing_gives_the_libraries_and_programs_and_nothing_else(prefix):
    installed = sorted(str(path.relative_to(prefix)) for path in prefix.rglob("*") if not path.is_dir())

    command = ["bin/varnix", "share/bash-completion/completions/varnix", "share/man/man1/varnix.1"]
    bridge = ["bin/varnix-mqtt", "lib/systemd/system/varnix-mqtt@.service", "share/man/man1/varnix-mqtt.1",
              "share/doc/varnix-mqtt/examples/example.conf"]
    assert installed == sorted([
        "include/Varnix.h",
        "include/varnix_c.h",
        "lib/libvarnix.so",
        "lib/libvarnix.so.1",
        "lib/libvarnix.so.1.0.0",
        "lib/libvarnix_c.so",
        "lib/libvarnix_c.so.1",
        "lib/libvarnix_c.so.1.0.0",
        "lib/cmake/Varnix/VarnixCTargets.cmake",
        f"lib/cmake/Varnix/VarnixCTargets-{os.environ['VARNIX_CONFIG'].lower()}.cmake",
        "lib/cmake/Varnix/VarnixConfig.cmake",
        "lib/cmake/Varnix/VarnixConfigVersion.cmake",
        "lib/cmake/Varnix/VarnixTargets.cmake",
        f"lib/cmake/Varnix/VarnixTargets-{os.environ['VARNIX_CONFIG'].lower()}.cmake",
        "lib/pkgconfig/varnix.pc",
        "lib/pkgconfig/varnix_c.pc",
        "lib/wireshark/plugins/varnix.lua",
    ] + (command if (BUILD / "tools" / "varnix" / "varnix").exists() else [])
      + (bridge if (BUILD / "bridges" / "mqtt" / "varnix-mqtt").exists() else []))


def test_all_packages_have_the_version_of_the_header(prefix):
    header = (prefix / "include" / "Varnix.h").read_text(encoding="utf-8")
    version = ".".join(re.search(rf"^#define VARNIX_VERSION_{part} (\d+)$", header, re.MULTILINE)[1]
                       for part in ("MAJOR", "MINOR", "PATCH"))

    for package in ("varnix", "varnix_c"):
        assert run("pkg-config", "--modversion", package, PKG_CONFIG_PATH=f"{prefix}/lib/pkgconfig") == f"{version}\n"
    config = prefix / "lib" / "cmake" / "Varnix" / "VarnixConfigVersion.cmake"
    assert f'set(PACKAGE_VERSION "{version}")\n' in config.read_text(encoding="utf-8")


def build_sub_project(project, directory, *definitions):
    """The files that the parent installs."""
    build_with_cmake(HERE / project, directory / "build", f"-DVARNIX_SOURCE={SOURCE}", "-DCMAKE_UNITY_BUILD=ON",
                     *definitions)
    run("cmake", "--install", directory / "build", "--prefix", directory / "installed")
    return {path.name for path in directory.glob("installed/**/*")}


if not TOOLCHAIN:  # What a sub-project brings does not depend on the machine.

    def test_as_a_sub_project_it_brings_its_library_alone(tmp_path):
        installed = build_sub_project("subproject", tmp_path)

        assert_works(tmp_path / "build" / "stranger")
        assert not installed & {"Varnix.h", "libvarnix.so", "varnix.pc"}

    def test_a_parent_project_that_asks_for_it_installs_the_library_too(tmp_path):
        installed = build_sub_project("fetched", tmp_path, "-DVARNIX_INSTALL=ON")

        assert_works(tmp_path / "build" / "stranger")
        assert installed >= {"Varnix.h", "libvarnix.so", "varnix.pc", "VarnixConfig.cmake"}


if shutil.which("systemd-analyze") and (BUILD / "bridges" / "mqtt" / "varnix-mqtt@.service").exists():

    def test_systemd_understands_every_line_of_the_service(tmp_path):
        unit = (BUILD / "bridges" / "mqtt" / "varnix-mqtt@.service").read_text(encoding="utf-8")
        program = re.compile(r"^ExecStart=\S+", re.MULTILINE)  # Which is installed elsewhere, if at all.
        (tmp_path / "varnix-mqtt@.service").write_text(program.sub("ExecStart=/bin/true", unit), encoding="utf-8")

        said = run("systemd-analyze", "verify", "--man=no", tmp_path / "varnix-mqtt@.service")

        assert [line for line in said.splitlines() if "varnix-mqtt@" in line] == []  # It warns of other units, too.


# As where no test tool is installed.
BARE = ["-DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON", "-DVARNIX_PYTEST=", "-DVARNIX_VALGRIND="]
LEFT_OUT = [
    "Varnix: left out: the comparison of the interface with its description: not found: pytest",
    "Varnix: left out: the tests of the installed package: not found: pytest",
    "Varnix: left out: the test that counts instructions: not found: pytest, valgrind",
    "Varnix: left out: the tests of the code for event loops: not found: pytest",
    "Varnix: left out: the tests of the file of the library for C: not found: pytest",
    "Varnix: left out: the tests of the package for Python: not found: pytest",
    "Varnix: left out: the tests of the scripts: not found: pytest",
    "Varnix: left out: the system tests: not found: pytest",
    "Varnix: left out: the unit tests: not found: GoogleTest with its gmock",
]
configure_bare = ["cmake", "-S", SOURCE, "-G", os.environ["VARNIX_GENERATOR"], *BARE]

if not TOOLCHAIN:  # Without the tools of another machine, the tests of this one.

    def test_tests_that_lack_a_tool_are_left_out_in_one_line_each(tmp_path):
        said = run(*configure_bare, "-B", tmp_path, "-DCMAKE_BUILD_TYPE=Release")

        assert set(LEFT_OUT) <= {line[3:] for line in said.splitlines()}

    def test_tests_that_lack_a_tool_are_an_error_where_all_are_required(tmp_path):
        with pytest.raises(AssertionError, match="Varnix: the unit tests: not found: GoogleTest with its gmock"):
            run(*configure_bare, "-B", tmp_path, "-DVARNIX_REQUIRE_ALL_TESTS=ON")
