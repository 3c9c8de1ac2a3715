# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""scripts/check-includes finds the includes that run up between the rooms, in the source and in made-up ones."""

import subprocess

import pytest

import scripts

SCRIPT = scripts.SOURCE / "scripts" / "check-includes"

CLEAN = {
    "Varnix.cpp": '#include <Varnix.h>\n\n#include <string>\n\n'
                  '#include "databases/Database.h"\n#include "logging/Log.h"\n',
    "databases/Database.h": '#include <Varnix.h>\n#include "network/Server.h"\n#include "names/Key.h"\n',
    "network/Server.cpp": '#include "network/Server.h"\n\n#include <sys/socket.h>\n\n#include "tables/Table.h"\n',
    "network/Server.h": '#include "threads/Mutex.h"\n',
    "tables/Table.h": '#include "logging/Log.h"\n#include "memory/Spare.h"\n',
    "logging/Log.h": '#include "Varnix.h"\n#include "threads/Mutex.h"\n',
    "names/Key.h": "#include <string>\n",
    "names/Key.cpp": '#include "names/Key.h"\n',
    "memory/Spare.h": "#include <atomic>\n",
    "threads/Mutex.h": "#include <mutex>\n",
}


def check(folder, files):
    for name, text in files.items():
        (folder / name).parent.mkdir(exist_ok=True)
        (folder / name).write_text(text, encoding="utf-8")
    done = subprocess.run([SCRIPT, folder], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    return done.returncode, done.stdout.replace(f"{folder}/", "").replace(str(folder), "src").splitlines()


def test_no_include_of_the_source_runs_up():
    done = subprocess.run([SCRIPT], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    assert done.returncode == 0, done.stdout


def test_a_source_whose_includes_all_run_down_passes(tmp_path):
    assert check(tmp_path, CLEAN) == (0, [])


@pytest.mark.parametrize("file, include, what", [
    ("network/Server.h", '"databases/Database.h"', "databases/Database.h: network is not above databases"),
    ("network/Server.h", "<databases/Database.h>", "databases/Database.h: network is not above databases"),
    ("tables/Table.h", '"network/Server.h"', "network/Server.h: tables is not above network"),
    ("logging/Log.h", '"tables/Table.h"', "tables/Table.h: logging is not above tables"),
    ("names/Key.h", '"logging/Log.h"', "logging/Log.h: names is not above logging"),
    ("names/Key.h", '"memory/Spare.h"', "memory/Spare.h: names is not above memory"),
    ("memory/Spare.h", '"threads/Mutex.h"', "threads/Mutex.h: memory is not above threads"),
    ("threads/Mutex.h", "<Varnix.h>", "Varnix.h: threads is on the ground floor, below the public header"),
    ("databases/Database.h", '"Api.h"', "Api.h: databases is not above the topmost room"),
    ("databases/Database.h", '"attic/Old.h"', "attic/Old.h: attic has no place in the order of the rooms"),
    ("tables/Table.h", '"Other.h"', "Other.h is no path from src"),
])
def test_an_include_that_does_not_run_down_is_named(file, include, what, tmp_path):
    others = {"Api.h": "", "attic/Old.h": ""} if file == "databases/Database.h" else {}

    status, lines = check(tmp_path, {**CLEAN, **others, file: f"#pragma once\n\n#include {include}\n"})

    assert status != 0
    assert [line for line in lines if not line.startswith("attic/Old.h: ")] == [f"{file}:3: {what}"]


def test_a_folder_that_is_no_room_is_named(tmp_path):
    assert check(tmp_path, {**CLEAN, "attic/Old.h": ""}) == (
        1, ["attic/Old.h: attic has no place in the order of the rooms"])


def test_no_source_of_the_library_has_more_than_250_lines():
    lengths = {path.name: len(path.read_text(encoding="ascii").splitlines())
               for path in (scripts.SOURCE / "src").rglob("*") if path.suffix in (".h", ".cpp")}

    assert lengths and {name: length for name, length in lengths.items() if length > 250} == {}
