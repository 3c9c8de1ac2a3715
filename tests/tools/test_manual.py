# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The manual page and the completion say what the command knows, all of it."""

import os
import pathlib
import re
import subprocess

import pytest

from command import run

SOURCE = pathlib.Path(os.environ["VARNIX_SOURCE"]) / "tools" / "varnix"
COMPLETION = SOURCE / "varnix.bash-completion"
MANUAL = SOURCE / "varnix.1"


def options_of(*words):
    """The long options in the help, but for --help itself."""
    shown = run(*words, "--help").output.decode()
    return set(re.findall(r"^ +(?:-\w,)?(--[a-z]+)", shown, re.MULTILINE)) - {"--help"}


def commands():
    listed = run("--help").output.decode().partition("Commands:")[2]
    return re.findall(r"^  ([a-z]+) ", listed, re.MULTILINE)


def manual():
    """As it is read: without the overstriking of bold text."""
    done = subprocess.run(["mandoc", "-T", "ascii", MANUAL], capture_output=True, text=True, check=True)
    return re.sub(".\b", "", done.stdout)


def complete(*words):
    """What bash offers in place of the last word. There are no programs that the completion could start."""
    script = """
        source "$1"; shift
        COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
        _varnix
        printf '%s\\n' "${COMPREPLY[@]}"
    """
    done = subprocess.run(["/bin/bash", "-c", script, "bash", COMPLETION, "varnix", *words], capture_output=True,
                          text=True, check=True, env={"PATH": "/nonexistent"})
    assert done.stderr == ""
    return set(done.stdout.split())


def test_the_manual_has_no_fault():
    done = subprocess.run(["mandoc", "-T", "lint", "-W", "all", MANUAL], capture_output=True, text=True)

    assert (done.returncode, done.stdout) == (0, "")


def test_the_manual_names_every_command_and_every_option():
    text = manual()

    for name in commands():
        assert re.search(rf"^     {name}( |$)", text, re.MULTILINE), name
        for option in options_of() | options_of(name):
            assert option in text, option


def test_every_command_is_completed():
    assert complete("") - {"web"} == set(commands()) - {"web"}  # Which some builds lack.
    assert complete("-g", "line-4", "--json", "re") == {"record", "replay"}


@pytest.mark.parametrize("name", commands())
def test_every_option_of_a_command_is_completed(name):
    assert complete(name, "--") - {"--help"} == options_of() | options_of(name)


def test_options_may_have_their_value_behind_an_equals_sign():
    assert complete("--group", "=", "line-4", "--json", "re") == {"record", "replay"}
    assert complete("--wait", "=", "5", "watch", "--n") == {"--new"}
    assert complete("--broadcast", "=", "127") == {"127.255.255.255"}
    assert complete("--broadcast", "=") == {"127.255.255.255", "255.255.255.255"}
    assert complete("--group", "=", "li") == complete("watch", "--group", "=") == set()


def test_what_has_no_fixed_words_is_not_completed():
    for words in (("-g", ""), ("--database", ""), ("get", ""), ("watch", "status", ""), ("replay", "--speed", "")):
        assert complete(*words) == set()


def test_a_broadcast_address_and_files_are_completed(tmp_path):
    (tmp_path / "monday.json").touch()

    assert complete("--broadcast", "127") == {"127.255.255.255"}
    assert complete("replay", f"{tmp_path}/m") == {f"{tmp_path}/monday.json"}
