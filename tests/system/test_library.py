# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The library file and the header: what programs in the field are linked to."""

import os
import pathlib
import re
import shutil
import subprocess

import pytest

import programs
from programs import output_of

LIBRARY = os.environ["VARNIX_LIBRARY"]
INCLUDE = os.environ["VARNIX_INCLUDE"]
HERE = pathlib.Path(__file__).parent


def dynamic_section():
    return output_of("readelf", "--dynamic", "--wide", LIBRARY)


def undefined_symbols():
    lines = output_of("nm", "-D", "--undefined-only", LIBRARY).splitlines()
    return {line.split()[1].partition("@")[0] for line in lines}


def test_the_exported_symbols_are_those_of_the_header_and_no_others():
    # Mangled, because destructors that differ look the same demangled. A va_list is what the processor makes of it.
    exported = [line.split()[2].partition("@")[0].replace("P13__va_list_tag", "<va_list>").replace("St9__va_list",
                                                                                                "<va_list>")
                for line in output_of("nm", "-D", "--defined-only", LIBRARY).splitlines()]

    assert sorted(exported) == (HERE / "exported_symbols.txt").read_text(encoding="ascii").split()


def test_every_exported_symbol_carries_the_version():
    lines = output_of("nm", "-D", "--defined-only", LIBRARY).splitlines()

    assert {line.partition("@@")[2] for line in lines if not line.endswith(" A VARNIX_1")} == {"VARNIX_1"}


def test_the_soname_is_libvarnix_so_1():
    assert re.findall(r"\(SONAME\).*\[(.*)\]", dynamic_section()) == ["libvarnix.so.1"]


def test_nothing_is_needed_but_the_standard_libraries():
    needed = re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic_section())

    ours = [name for name in needed if not re.match(r"lib(asan|ubsan|tsan)\.so", name)]
    standard = r"(libstdc\+\+\.so\.6|libgcc_s\.so\.1|libm\.so\.6|libc\.so\.6|ld-linux[-a-z0-9_]*\.so\.[0-9])"
    assert ours and [name for name in ours if not re.fullmatch(standard, name)] == []


def test_the_library_is_never_unloaded():
    flags, = re.findall(r"\(FLAGS_1\)\s+Flags: (.*)", dynamic_section())

    assert "NODELETE" in flags.split()


def test_no_environment_variable_is_read():
    symbols = undefined_symbols()

    assert "fopencookie" in symbols
    assert symbols & {"getenv", "secure_getenv", "environ", "__environ", "_environ"} == set()


def test_the_wall_clock_is_never_asked():
    symbols = undefined_symbols()

    assert "_ZNSt6chrono3_V212steady_clock3nowEv" in symbols
    assert symbols & {"pthread_cond_clockwait", "__pthread_cond_clockwait64"}  # Of the monotonic clock.
    plain = {re.sub(r"^__|(_time)?64$", "", symbol) for symbol in symbols}
    assert plain & {"_ZNSt6chrono3_V212system_clock3nowEv", "time", "gettimeofday", "clock_gettime", "ftime",
                    "timespec_get", "localtime", "gmtime", "pthread_cond_timedwait", "pthread_mutex_timedlock",
                    "sem_timedwait", "clock_nanosleep", "timer_create", "timerfd_create"} == set()


def test_no_signal_is_sent_and_no_handler_or_mask_set():
    assert undefined_symbols() & {"signal", "sigaction", "sigprocmask", "pthread_sigmask", "raise", "kill",
                                  "bsd_signal", "pthread_kill", "alarm", "setitimer"} == set()


def test_nothing_is_printed_but_by_the_first_log_hook():
    symbols = undefined_symbols()

    assert "perror" in symbols
    assert symbols & {"printf", "puts", "putchar", "vprintf", "stdout", "_ZSt4cout", "_ZSt4cerr", "_ZSt4clog", "syslog",
                      "openlog", "fopen", "__printf_chk", "__vprintf_chk"} == set()


def test_no_program_is_started():
    assert undefined_symbols() & {"fork", "vfork", "system", "popen", "execve", "execv", "posix_spawn"} == set()


@programs.only_natively
@pytest.mark.parametrize("standard", ["c++11", "c++14", "c++17", "c++20", "c++2b"])
@pytest.mark.parametrize("compiler", [name for name in ("g++", "clang++") if shutil.which(name)])
def test_the_header_compiles_alone_and_without_a_warning(compiler, standard):
    done = subprocess.run([compiler, f"-std={standard}", f"-I{INCLUDE}", "-Wall", "-Wextra", "-Wpedantic", "-Wshadow",
                           "-Wconversion", "-Wsign-conversion", "-Wnon-virtual-dtor", "-Wold-style-cast", "-Wundef",
                           "-fsyntax-only", "-x", "c++", "-"],
                          input="#include <Varnix.h>\n", stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    assert (done.returncode, done.stdout) == (0, "")


@programs.only_natively
@pytest.mark.parametrize("compiler", [name for name in ("g++", "clang++") if shutil.which(name)])
def test_the_header_may_be_included_twice_and_from_two_files(compiler, tmp_path):
    for name, text in (("one.cpp", "#include <Varnix.h>\n#include <Varnix.h>\n"),
                       ("two.cpp", "#include <Varnix.h>\nint main() {}\n")):
        (tmp_path / name).write_text(text, encoding="ascii")

    done = subprocess.run([compiler, "-std=c++11", f"-I{INCLUDE}", "one.cpp", "two.cpp"], cwd=tmp_path,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    assert (done.returncode, done.stdout) == (0, "")


@pytest.mark.parametrize("check", [
    "Table: destructors, Set, Watch, WatchAll",
    "Watcher: destructors, GetChanges",
    "WatcherSet: destructors, Wait, WaitUntil",
    "levels are numbered as those of syslog",
])
def test_programs_compiled_long_ago_find_the_virtual_functions_in_their_order(check):
    done = subprocess.run(programs.command("system_binary_interface", check), stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True)

    assert (done.returncode, done.stdout) == (0, f"{check}: as ever\n")
