# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Processes that end while other threads go on calling the library."""

import pathlib
import re
import subprocess

import pytest

from endings import WAYS, WAYS_WITHOUT_DESTRUCTORS, every_run_ends_well
from programs import PROGRAMS

EXPORTED = pathlib.Path(__file__).with_name("exported_symbols.txt").read_text(encoding="ascii").split()


@pytest.mark.parametrize("way", WAYS + WAYS_WITHOUT_DESTRUCTORS)
def test_other_threads_may_call_every_function_while_the_process_ends(network, way):
    every_run_ends_well("system_exit_threads", way)


def test_those_threads_call_all_that_is_exported():
    # The virtual functions and the destructors are called through the objects.
    functions = [name for name in EXPORTED if name.startswith("_ZN6Varnix") and not re.search("D[012]Ev$", name)]

    listed = subprocess.run(["nm", "-D", "--undefined-only", str(PROGRAMS / "system_exit_threads")], check=True,
                            stdout=subprocess.PIPE, text=True).stdout

    assert len(functions) == 13
    for name in functions:
        # A va_list is what the processor makes of it.
        called = " " + re.escape(name).replace("<va_list>", r"\w+") + "(@|$)"
        assert re.search(called, listed, re.MULTILINE), name
