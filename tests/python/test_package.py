# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The package as it is installed, typed and measured."""

import ast
import ctypes
import itertools
import os
import pathlib
import subprocess
import sys
import timeit

import pytest

import programs
import varnix

SOURCE = pathlib.Path(os.environ["VARNIX_SOURCE"]) / "bindings" / "python"


def run(*command, **keywords):
    done = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          **keywords)
    assert done.returncode == 0, done.stdout
    return done.stdout


def test_pip_installs_it_without_a_compiler_and_without_a_network(tmp_path):
    copy = tmp_path / "copy"
    run("cp", "-r", SOURCE, copy)  # It builds inside.
    run(sys.executable, "-m", "pip", "install", "--no-build-isolation", "--no-index", "--no-deps", "--target",
        tmp_path / "installed", copy, env={**os.environ, "CC": "/bin/false", "HOME": str(tmp_path)})

    output = run(sys.executable, "-c", "import varnix; print(varnix.__file__)", cwd=tmp_path,
                 env={**os.environ, "PYTHONPATH": str(tmp_path / "installed")})
    assert output == f"{tmp_path}/installed/varnix/__init__.py\n"
    assert (tmp_path / "installed" / "varnix" / "py.typed").exists()


@pytest.fixture(scope="module")
def mypy(tmp_path_factory):
    cache = tmp_path_factory.mktemp("mypy")

    def check(*paths):
        return subprocess.run(["mypy", "--strict", "--python-version", "3.9", "--cache-dir", cache, *paths],
                              env={**os.environ, "MYPYPATH": str(SOURCE)}, stdout=subprocess.PIPE, text=True)

    return check


def test_the_types_of_the_package_and_its_examples_hold_for_the_oldest_version(mypy):
    done = mypy(SOURCE / "varnix", SOURCE / "examples")

    assert done.returncode == 0, done.stdout


@pytest.mark.parametrize("path", sorted(SOURCE.glob("*/*.py")), ids=lambda path: path.name)
def test_the_syntax_is_that_of_the_oldest_version(path):
    assert 'requires-python = ">=3.9"' in (SOURCE / "pyproject.toml").read_text(encoding="utf-8")
    ast.parse(path.read_text(encoding="utf-8"), path.name, feature_version=(3, 9))


def test_a_user_of_wrong_types_is_told(mypy, tmp_path):
    (tmp_path / "wrong.py").write_text("import varnix\nvarnix.table('t').set('k', 5)\n", encoding="ascii")

    done = mypy(tmp_path / "wrong.py")

    assert 'Argument 2 to "set" of "Table" has incompatible type "int"' in done.stdout


def test_setting_and_waiting_cost_little_more_than_an_empty_call(table):
    changes = varnix.WatcherSet([table.watch_all()])
    values = itertools.cycle([b"41.5", b"42.0"])
    empty = ctypes.CDLL("libvarnix_c.so.1").varnix_version

    def microseconds(call):  # In short rounds: some of them run undisturbed, whatever else the machine does.
        return min(timeit.repeat(call, number=100, repeat=300)) / 100 * 1e6

    def set_and_wait():
        table.set(b"speed", next(values))
        changes.wait()

    nothing = microseconds(lambda: empty(next(values)) and None)
    setting = microseconds(lambda: table.set(b"speed", next(values)))
    waiting = microseconds(set_and_wait) - setting
    changes.fileno()  # From now on the kernel is told when the set has a change, and when it has none.
    both = microseconds(set_and_wait)
    programs.figure(f"us in Python: an empty call {nothing:.2f}, a set {setting:.2f}, a wait {waiting:.2f}, "
                    f"both where the set has a descriptor {both:.2f}")

    assert setting < nothing + 20 and waiting < nothing + 20 and both < 2 * nothing + 40
