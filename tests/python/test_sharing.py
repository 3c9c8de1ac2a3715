# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Databases that Python shares with members that are written in C++, and with forked and spawned children."""

import multiprocessing
import os
import signal
import subprocess
import sys
import time

import pytest

import programs
import varnix

DEADLINE = programs.DEADLINE
EXAMPLES = os.environ["VARNIX_SOURCE"] + "/bindings/python/examples/"


def test_the_settings_of_a_database_come_back(network):
    assert varnix.sharing("settings") is None
    varnix.share("settings", group="line-4", device=b"\xff", process="py", broadcast="127.255.255.255")

    settings = varnix.sharing("settings")

    assert settings == ("line-4", "\udcff", "py", "127.255.255.255")
    assert (settings.group, settings.broadcast) == ("line-4", "127.255.255.255")
    varnix.share("settings", **settings._asdict())
    assert varnix.sharing("settings") == settings
    varnix.stop_sharing("settings")
    assert varnix.sharing("settings") is None


@pytest.mark.parametrize("broadcast", ["", "localhost", "1.2.3", "::1"])
def test_what_is_no_address_is_an_error(broadcast):
    with pytest.raises(OSError):
        varnix.share("unshared", "g", "d", "p", broadcast)

    assert varnix.sharing("unshared") is None


def test_rows_go_both_ways(plant):
    status = varnix.shared_table("plant", "status")
    changes = varnix.WatcherSet([status.watch("from c++")])

    status.set(b"from python", bytes(range(256)))
    plant.set(b"plant", b"status", b"from c++", bytes(range(256)))

    assert changes.wait(DEADLINE)[:2] == (b"from c++", bytes(range(256)))
    assert plant.gets_row(b"plant", b"status", b"from python", bytes(range(256)))


def test_a_hundred_thousand_rows_arrive(plant):
    bulk = varnix.shared_table("plant", "bulk")
    plant.watch(b"plant", b"bulk")

    for i in range(100_000):
        bulk.set(str(i), "v")

    assert plant.eventually(lambda: len(plant._tables.get((b"plant", b"bulk"), {})) == 100_000)


def test_peers_databases_and_tables_are_told(plant):
    peers = varnix.WatcherSet([varnix.peer_table("plant").watch("host::p")])
    tables = varnix.WatcherSet([varnix.table_table("plant").watch("status")])
    databases = varnix.WatcherSet([varnix.database_table().watch("plant")])

    assert peers.wait(DEADLINE).value.startswith(b"127.0.0.1:")
    assert tables.wait(DEADLINE).value == databases.wait(DEADLINE).value == b""
    plant.kill()
    assert peers.wait(DEADLINE).value == b""


def set_in_child(how):
    varnix.share("plant", "group", "child", how, "127.255.255.255")
    status = varnix.shared_table("plant", "status")
    status.set("from the child", how)
    seen = varnix.WatcherSet([status.watch("end")])
    if seen.wait(DEADLINE) is None:
        sys.exit(3)
    varnix.stop_sharing("plant")


@pytest.mark.parametrize("how", ["fork", "spawn"])
def test_children_of_multiprocessing_share_as_members_of_their_own(plant, how):
    status = varnix.shared_table("plant", "status")
    changes = varnix.WatcherSet([status.watch("from the child")])
    changes.fileno()
    child = multiprocessing.get_context(how).Process(target=set_in_child, args=(how,))
    child.start()

    while changes.wait(DEADLINE).value != how.encode():
        pass
    assert plant.gets_row(b"plant", b"status", b"from the child", how.encode())
    plant.set(b"plant", b"status", b"end", how.encode())

    child.join(DEADLINE)
    assert child.exitcode == 0


def test_a_program_ends_while_a_member_sets_rows_without_a_pause(plant):
    program = subprocess.Popen([sys.executable, "-c", """if True:
        import logging, varnix
        logging.basicConfig(level=logging.CRITICAL)
        varnix.start_logging(logging.DEBUG)
        changes = varnix.WatcherSet([varnix.shared_table("plant", "busy").watch_all()])
        varnix.share("plant", "group", "child", "python", "127.255.255.255")
        for _, change in zip(range(10), changes):
            pass
        print("the end")
        """], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    rows = [(b"k", str(number).encode()) for number in range(1000)]

    end = time.monotonic() + DEADLINE
    try:
        while program.poll() is None and time.monotonic() < end:
            plant.set_all(b"plant", b"busy", rows)
    finally:
        program.kill()

    assert (program.communicate()[0], program.returncode) == ("the end\n", 0)


@pytest.mark.parametrize("example", ["print_table.py", "print_table_asyncio.py"])
def test_an_example_prints_the_rows_of_a_member_until_it_is_interrupted(network, make_host, example):
    host = make_host()
    words = [sys.executable, EXAMPLES + example] + (["own", "value"] if example == "print_table.py" else [])
    program = subprocess.Popen(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    host.share(b"plant", b"line-4", b"host")
    host.set(b"plant", b"status", b"speed", b"42")
    host.do("network-changed")

    lines = iter(program.stdout.readline, "")
    assert "speed is 42\n" in lines

    for patience in 10, DEADLINE:  # An interrupt just before a call of the system is only seen behind it.
        program.send_signal(signal.SIGINT)
        if programs.eventually(lambda: program.poll() is not None, patience):
            break
    program.kill()
    assert (program.returncode, "Traceback" in program.stdout.read()) == (0, False)
