# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The file of the library for C, its header and its examples."""

import os
import pathlib
import re
import shutil
import subprocess

import pytest

import programs
from programs import output_of

LIBRARY = os.environ["VARNIX_C_LIBRARY"]
INCLUDE = pathlib.Path(os.environ["VARNIX_C_INCLUDE"])
HEADER = (INCLUDE / "varnix_c.h").read_text(encoding="ascii")
CPP_HEADER = (pathlib.Path(os.environ["VARNIX_INCLUDE"]) / "Varnix.h").read_text(encoding="ascii")
EXAMPLE = programs.PROGRAMS / "examples" / "wait_with_epoll_c"


def test_the_exported_symbols_are_the_functions_of_the_header_with_their_version():
    declared = re.findall(r"^VARNIX_C_EXPORT .*?(varnix_\w+)\(", HEADER, re.MULTILINE)
    exported = [line.split()[2] for line in output_of("nm", "-D", "--defined-only", LIBRARY).splitlines()]

    assert len(declared) > 20
    assert sorted(exported) == sorted(["VARNIX_C_1"] + [f"{name}@@VARNIX_C_1" for name in declared])


def test_every_function_that_can_fail_is_tried_without_memory():
    tried = pathlib.Path(__file__).with_name("memory.cpp").read_text(encoding="ascii")

    can_fail = re.findall(r"^VARNIX_C_EXPORT int (varnix_\w+)\(", HEADER, re.MULTILINE)
    assert len(can_fail) > 20
    assert [name for name in can_fail if not re.search(rf"\b{name}\b", tried)] == []


def test_every_function_and_method_of_varnix_h_has_its_like():
    functions = re.findall(r"^VARNIX_EXPORT [^(]*?(\w+)\(", CPP_HEADER, re.MULTILINE)
    methods = [f"{kind}::{name}" for kind, body in re.findall(r"^class VARNIX_EXPORT (\w+) {(.*?)^};", CPP_HEADER,
                                                            re.MULTILINE | re.DOTALL)
               for name in re.findall(r"virtual [^~(]* (\w+)\(", body)]

    assert len(functions) > 10 and len(methods) == 6
    named = re.sub(r"\n *// ", " ", HEADER)
    assert [name for name in functions + methods if not re.search(rf"[(,] ?{name}[,)]", named)] == []


def test_the_name_and_what_is_needed():
    dynamic = output_of("readelf", "--dynamic", "--wide", LIBRARY)

    assert re.findall(r"\(SONAME\).*\[(.*)\]", dynamic) == ["libvarnix_c.so.1"]
    needed = [name for name in re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)
              if not re.match("lib(asan|ubsan|tsan)", name)]
    standard = r"(libstdc\+\+\.so\.6|libgcc_s\.so\.1|libm\.so\.6|libc\.so\.6|ld-linux[-a-z0-9_]*\.so\.[0-9])"
    assert [name for name in needed if not re.fullmatch(standard, name)] == ["libvarnix.so.1"]
    assert re.search(r"\(FLAGS_1\)\s+Flags:.* NODELETE", dynamic)


def compilers(*names):
    return [name for name in names if shutil.which(name)]


LANGUAGES = [
    *((compiler, "c", standard) for compiler in compilers("gcc", "clang") for standard in ("c99", "c11", "c17")),
    *((compiler, "c++", standard) for compiler in compilers("g++", "clang++")
      for standard in ("c++98", "c++11", "c++20"))]


@pytest.mark.parametrize("compiler, language, standard", LANGUAGES)
def test_the_header_compiles_alone_and_without_a_warning(compiler, language, standard):
    uses = '#include <varnix_c.h>\nint f(varnix_table* t);\nint f(varnix_table* t) {\n' \
           '  return varnix_table_set(t, VARNIX_LITERAL("k"), VARNIX_LITERAL("v"));\n}\n'
    done = subprocess.run([compiler, f"-std={standard}", f"-I{INCLUDE}", "-Wall", "-Wextra", "-Wpedantic", "-Wshadow",
                           "-Wconversion", "-Wsign-conversion", "-Wundef", "-fsyntax-only", "-x", language, "-"],
                          input=uses, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    assert (done.returncode, done.stdout) == (0, "")


@pytest.mark.skipif(not EXAMPLE.exists(), reason="the examples are not built")
def test_the_epoll_example_prints_the_rows_that_it_is_given():
    program = subprocess.Popen([*programs.EMULATOR, EXAMPLE], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    try:
        # Lines come in pieces and together, and the last without an end.
        for piece, printed in (("spe", []), ("ed 42\nheat 81\ndo", ["speed is 42\n", "heat is 81\n"])):
            program.stdin.write(piece)
            program.stdin.flush()
            assert [program.stdout.readline() for _ in printed] == printed
        rest, _ = program.communicate("or open\nlast row", timeout=programs.DEADLINE)
    finally:
        program.kill()
        program.wait()

    assert (program.returncode, rest) == (0, "door is open\nlast is row\n")


@pytest.mark.skipif(not EXAMPLE.exists(), reason="the examples are not built")
def test_two_processes_of_the_sharing_example_print_both_rows(network):
    example = [*programs.EMULATOR, EXAMPLE.with_name("share_a_table_c")]
    members = [subprocess.Popen([*example, *words], stdout=subprocess.PIPE, text=True)
               for words in (("left", "hello"), ("right", "world"))]
    try:
        printed = [{member.stdout.readline() for _ in range(2)} for member in members]
    finally:
        for member in members:
            member.kill()
            member.wait()

    assert printed == [{"left is hello\n", "right is world\n"}] * 2
