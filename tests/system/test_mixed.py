# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Native and 32-bit ARM processes in one group, and programs and libraries that disagree on how wide a time is."""

import os
import pathlib
import random
import subprocess

import pytest

import programs

HERE = pathlib.Path(__file__).parent
SOURCE = HERE.parent.parent
BUILDS = programs.PROGRAMS / "mixed"  # They stay, so that the next run builds only what has changed.
LIBRARY = pathlib.Path(os.environ["VARNIX_LIBRARY"])
CROSS_COMPILER = "arm-linux-gnueabihf-g++"
TOOLCHAIN = f"-DCMAKE_TOOLCHAIN_FILE={SOURCE}/cmake/toolchains/armhf.cmake"
WIDE = ["-D_TIME_BITS=64", "-D_FILE_OFFSET_BITS=64"]


def run(*command):
    done = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    assert done.returncode == 0, done.stdout
    return done.stdout


def build_library(name, *settings):
    run("cmake", "-G", os.environ["VARNIX_GENERATOR"], "-S", SOURCE, "-B", BUILDS / name,
        "-DCMAKE_BUILD_TYPE=MinSizeRel", "-DBUILD_TESTING=OFF", "-DVARNIX_EXAMPLES=OFF", "-DVARNIX_C=OFF",
        "-DVARNIX_TOOLS=OFF", "-DCMAKE_UNITY_BUILD=ON", *settings)
    run("cmake", "--build", BUILDS / name, "--target", "varnix")
    return BUILDS / name / "libvarnix.so"


@pytest.fixture(scope="module")
def native_library():
    return build_library("native", "-DCMAKE_CXX_COMPILER=g++")


@pytest.fixture(scope="module")
def wide_library():
    return build_library("wide", TOOLCHAIN, "-DCMAKE_CXX_FLAGS=" + " ".join(WIDE))


def build_program(compiler, name, library, directory, *flags):
    """The command that runs it."""
    run(compiler, "-std=c++17", "-pthread", *flags, f"-I{SOURCE}/include", HERE / f"{name}.cpp", library,
        f"-Wl,-rpath,{library.parent}", "-o", directory / name)
    return [*([] if compiler == "g++" else programs.EMULATOR), str(directory / name)]


@pytest.fixture
def native_host(native_library, tmp_path, make_host):
    (tmp_path / "native").mkdir()
    return make_host(program=build_program("g++", "host", native_library, tmp_path / "native"))


@pytest.fixture(params=["wide program with narrow library", "narrow program with wide library"])
def disagreeing(request, wide_library, tmp_path):
    """Builds a program; the command that runs it with its library, and the library."""
    library, flags = (LIBRARY, WIDE) if request.param.startswith("wide program") else (wide_library, [])
    return lambda name: (build_program(CROSS_COMPILER, name, library, tmp_path, *flags), library)


def assert_loaded(host, library):
    maps = pathlib.Path(f"/proc/{host.pid}/maps").read_text(encoding="ascii")
    assert str(library.resolve()) in maps


def machine(path):
    return [line.split()[-1] for line in run("readelf", "--file-header", path).splitlines() if "Machine:" in line]


def rows_of(name, seed):
    """Keys and values of all bytes and many lengths; the longest that a record can carry, too."""
    source = random.Random(seed)
    rows = {name + bytes([byte]): bytes([byte]) * 3 for byte in range(256)}
    rows.update({name + b"%d:" % size + source.randbytes(size % 300): source.randbytes(size)
                 for size in (1, 127, 128, 255, 256, 4095, 4096, 65535, 65536, 1_048_575)})
    rows[(name + source.randbytes(4095))[:4095 - 6]] = b"under the longest key"  # The table's name takes 6 bytes.
    return rows


def exchange(left, right):
    """Rows of before the meeting and of after it go both ways."""
    mine = {left: rows_of(b"left", 1), right: rows_of(b"right", 2)}
    both = {**mine[left], **mine[right]}
    for host, device in ((left, b"left"), (right, b"right")):
        host.watch(b"plant", b"state")
        rows = list(mine[host].items())
        for key, value in rows[:130]:
            host.set(b"plant", b"state", key, value)
        host.share(b"plant", b"line-4", device)
        for key, value in rows[130:]:
            host.set(b"plant", b"state", key, value)
    for host in (left, right):
        arrived = host.eventually(lambda host=host: len(host.events) >= len(both))
        assert arrived and host.table(b"plant", b"state") == both


def test_a_native_and_an_arm_process_exchange_rows_byte_for_byte(network, native_host, native_library, make_host):
    arm_host = make_host()

    exchange(native_host, arm_host)

    assert_loaded(native_host, native_library)
    assert_loaded(arm_host, LIBRARY)
    assert machine(native_library) != machine(LIBRARY) == ["ARM"]


def test_a_program_whose_library_disagrees_on_times_exchanges_rows(network, disagreeing, native_host, make_host):
    program, library = disagreeing("host")
    host = make_host(program=program)

    exchange(native_host, host)

    assert_loaded(host, library)


def test_a_program_whose_library_disagrees_on_times_waits_until_its_deadlines(disagreeing):
    program, library = disagreeing("deadlines")

    width = 8 if library == LIBRARY else 4
    assert run(*program) == f"{width}-byte times: deadlines are met\n"


@pytest.mark.parametrize("check", [
    "Table: destructors, Set, Watch, WatchAll", "Watcher: destructors, GetChanges",
    "WatcherSet: destructors, Wait, WaitUntil", "levels are numbered as those of syslog"])
def test_a_program_whose_library_disagrees_on_times_finds_its_binary_interface(disagreeing, check):
    program, _ = disagreeing("binary_interface")

    assert run(*program, check) == f"{check}: as ever\n"


def symbols(library, kind):
    return sorted(line.split()[-1] for line in run("nm", "-D", f"--{kind}-only", library).splitlines())


def test_the_width_of_a_time_changes_no_exported_symbol(wide_library):
    assert symbols(wide_library, "defined") == symbols(LIBRARY, "defined")
    wider = set(symbols(wide_library, "undefined")) - set(symbols(LIBRARY, "undefined"))
    assert any(symbol.partition("@")[0].endswith("64") for symbol in wider), wider
