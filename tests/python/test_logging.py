# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The library's log lines in Python's logging."""

import logging
import os
import subprocess
import sys
import threading

import pytest

import programs
import varnix


@pytest.fixture
def start(caplog):
    caplog.set_level(logging.DEBUG)

    def start(*arguments, **keywords):
        varnix.start_logging(*arguments, **keywords)
        return caplog.records

    yield start
    varnix.stop_logging()


def test_a_message_has_the_level_and_the_tag_of_its_place(start):
    records = start(logging.DEBUG)

    varnix.shared_table("logged", "status")
    varnix.stop_logging()

    record, = [record for record in records if record.name == "varnix.mkshrdtbl"]
    assert record.levelno == logging.DEBUG
    assert record.getMessage().startswith("MakeSharedTable: logged:status -> 0x")


def test_a_message_comes_while_the_program_goes_on(start, table):
    records = start(logging.DEBUG)

    table.set("k", "v")

    assert programs.eventually(lambda: any(record.name == "varnix.tbl.set.ins" for record in records))


def test_what_is_below_the_level_is_not_handed_on(start):
    records = start(logging.INFO)

    varnix.shared_table("logged", "status")
    varnix.stop_logging()

    assert [record for record in records if record.name.startswith("varnix")] == []


@pytest.mark.parametrize("capacity", [1, 10])
def test_messages_without_room_are_counted_also_when_no_other_follows(start, table, capacity):
    held = threading.Lock()

    class Slow(logging.Filter):
        def filter(self, record):
            with held:
                return True

    slow = Slow()
    logging.getLogger("varnix.tbl.set.upd").addFilter(slow)
    table.set("k", "0")
    records = start(logging.DEBUG, capacity=capacity)
    with held:
        for i in range(1, 1001):
            table.set("k", str(i))

    def dropped():
        return [record.args[0] for record in records if record.name == "varnix"]

    assert programs.eventually(lambda: sum(dropped()) + len(records) - len(dropped()) == 1000)
    varnix.stop_logging()

    logging.getLogger("varnix.tbl.set.upd").removeFilter(slow)
    assert sum(dropped()) >= 900


def test_starting_again_changes_the_level_and_loses_nothing(start, table):
    records = start(logging.DEBUG)
    for i in range(100):
        table.set("k", str(i))
        if i % 10 == 0:
            varnix.start_logging(logging.DEBUG)
    varnix.stop_logging()

    assert len([record for record in records if record.name.startswith("varnix.tbl.set")]) == 100


def test_a_forked_child_logs_its_own_messages_alone():
    done = subprocess.run([sys.executable, "-c", """if True:
        import logging, os, sys, varnix
        logging.basicConfig(level=logging.DEBUG, format="%(process)d %(message)s", stream=sys.stdout)
        varnix.start_logging(logging.DEBUG)
        varnix.shared_table("d", "parent")
        child = os.fork()
        if child == 0:
            varnix.shared_table("d", "child")
            varnix.stop_logging()
            sys.stdout.flush()
            os._exit(0)
        assert os.waitpid(child, 0)[1] == 0
        varnix.stop_logging()
        print(child)
        """], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=programs.DEADLINE, env=os.environ)

    *lines, child = done.stdout.splitlines()
    assert done.returncode == 0
    assert [line.startswith(child + " ") for line in lines if "MakeSharedTable: d:child" in line] == [True]
    assert [line.startswith(child + " ") for line in lines if "MakeSharedTable: d:parent" in line] == [False]
