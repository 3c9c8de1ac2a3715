# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Descriptions of libraries as abidw makes them, and their comparison."""

import os
import re
import shlex
import subprocess


def run(*command):
    done = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    assert done.returncode == 0, done.stdout
    return done.stdout


def describe(description):
    run(*shlex.split(os.environ["VARNIX_DESCRIBE"]), "--out-file", description)
    return description


def compare(expected, built):
    done = subprocess.run(["abidiff", expected, built], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    assert done.returncode & 3 == 0, done.stdout  # Those bits are for an error of the comparison itself.
    return done.returncode, done.stdout


def is_change_noticed(expected, built, before, after, changed):
    """Whether the comparison sees an incompatible change, where `after` replaces the one `before` in what is built."""
    text, count = re.subn(before, after, built.read_text(encoding="utf-8"))
    assert count == 1
    changed.write_text(text, encoding="utf-8")
    return compare(expected, changed)[0] & 4 != 0
