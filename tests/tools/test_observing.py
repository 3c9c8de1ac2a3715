# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""What the command shows of members that use the real library: members, tables, dump, get, watch."""

import base64
import itertools
import json
import random
import re
import signal
import socket
import time

import pytest

import programs
import wire
from command import run
from wire import DISCOVERY_PORT

EVERY_BYTE = bytes(range(256))


def eventually_shows(expected, *words):
    """Runs the command until it ends well with these lines, in whatever order and however aligned. A member that is
    late because the machine is busy is not met."""
    def shows():
        shown = run(*words)
        lines = sorted(line.split() for line in shown.output.splitlines())
        return (shown.status, shown.errors, lines) == (0, "", sorted(line.split() for line in expected))

    return programs.eventually(shows)


def eventually_lists(expected, what, *words):
    """The same of what is taken from each row as JSON."""
    return programs.eventually(lambda: sorted(map(what, run(*words, "--json").rows())) == sorted(expected))


def run_well(*words):
    """Runs the command until it ends well, and so has shown something."""
    shown = None

    def ends_well():
        nonlocal shown
        shown = run(*words)
        return shown.status == 0

    assert programs.eventually(ends_well), shown
    return shown


def parts(row):
    return row["device"], row["process"], row["table"], row["key"], row["value"]


def test_members_shows_name_place_group_and_database(share):
    share(b"press")

    shown = run("members")

    assert shown.status == 0, shown
    assert re.fullmatch(rb"press::ctl  127\.0\.0\.1:[0-9]+  line-4  plant\n", shown.output), shown


def test_members_as_json_name_the_port_that_is_announced(ether, share):
    share(b"press")
    port = ether.port_of_next_announcement()

    shown = run("members", "--json")

    assert shown.rows() == [{"device": "press", "process": "ctl", "address": "127.0.0.1", "port": port,
                             "group": "line-4", "database": "plant"}]


def test_members_without_a_group_are_those_of_every_group_that_is_heard_of(share, start, ether):
    pump = share(b"pump", database=b"other", group=b"line-5")
    share(b"press")
    ether.receive(), ether.receive()
    listing = start("members", "--json", "-w", "60", VARNIX_GROUP="", VARNIX_DATABASE="")

    # One that announces itself shows its group; others of the same group and database then come by themselves.
    assert programs.eventually(lambda: pump.do("network-changed") or listing.lines)
    valve = share(b"valve", database=b"other", group=b"line-5", address="127.0.0.1")

    assert listing.eventually(lambda: len(listing.lines) == 2)
    assert {(member["device"], member["group"], member["database"]) for member in map(json.loads, listing.lines)} == {
        ("pump", "line-5", "other"), ("valve", "line-5", "other")}
    assert valve.logs(7, "tblsndr.getgrp", r".*group=\"\(observer\)\" port=0")


def test_members_are_no_other_observers(share, start):
    press = share(b"press", [(b"status", b"speed", b"42")])
    listing = start("members", "--json", "-w", "60", VARNIX_GROUP="", VARNIX_DATABASE="")
    assert programs.eventually(lambda: press.do("network-changed") or listing.lines)

    watch = start("watch")  # It announces itself, too.
    assert watch.prints(b"press::ctl  status  speed = 42")
    share(b"valve")

    assert listing.eventually(lambda: any(b"valve" in line for line in listing.lines))
    assert {member["device"] for member in map(json.loads, listing.lines)} == {"press", "valve"}


def test_an_observer_that_comes_and_goes_meanwhile_is_no_failure(ether, share, start):
    share(b"press", [(b"status", b"speed", b"42")])
    ether.receive()

    def is_no_failure():
        fresh = wire.Ether()
        dump = start("dump", "-w", "50")
        port = fresh.port_of_next_announcement()
        fresh.socket.close()
        try:
            silent = wire.connect(port)  # As long as it says nothing, it is waited for.
        except ConnectionRefusedError:
            return False
        assert run("watch", "-n", "1").output == b"press::ctl  status  speed = 42\n"
        silent.close()
        return (dump.ends(), dump.lines, dump.errors) == (0, [b"press::ctl  status  speed = 42"], "")

    assert programs.eventually(is_no_failure)  # On a busy machine the dump may end before one of the others comes.


def test_tables_counts_rows_and_bytes_for_each_member(share):
    share(b"press", [(b"status", b"speed", b"42"), (b"status", b"mode", b"auto"), (b"log", b"", b"1234567")])
    share(b"pump", [(b"status", b"speed", b"7")])

    assert eventually_lists(
        [("press", "log", 1, 7), ("press", "status", 2, 15), ("pump", "status", 1, 6)],
        lambda row: (row["device"], row["table"], row["rows"], row["bytes"]), "tables")
    aligned = [b"press::ctl  log     1 row  7 bytes", b"press::ctl  status  2 rows  15 bytes",
               b"pump::ctl   status  1 row  6 bytes"]
    assert programs.eventually(lambda: sorted(run("tables").output.splitlines()) == aligned)


def test_tables_of_members_that_have_set_nothing_are_nothing(share):
    share(b"press")

    shown = run("tables")

    assert (shown.status, shown.output, shown.errors) == (3, b"", "varnix: no row, asked of 1 member\n")


def test_dump_shows_every_row_with_who_set_it_and_ends(share):
    share(b"press", [(b"status", b"speed", b"42"), (b"status", b"mode", b"auto")])
    share(b"pump", [(b"status", b"speed", b"7")])

    assert eventually_shows([b"press::ctl  status  speed = 42", b"press::ctl  status  mode = auto",
                             b"pump::ctl  status  speed = 7"], "dump")


def test_rows_that_a_member_has_received_are_not_shown_as_its_own(share):
    left = share(b"left", [(b"status", b"speed", b"42")])
    right = share(b"right", [(b"status", b"mode", b"auto")])
    for host, key, value in ((left, b"mode", b"auto"), (right, b"speed", b"42")):
        host.watch(b"plant", b"status")
        assert host.gets_row(b"plant", b"status", key, value)

    assert eventually_lists([("left", "ctl", "status", "speed", "42"), ("right", "ctl", "status", "mode", "auto")],
                            parts, "dump")


def test_a_row_as_json_has_these_members_in_this_order(share):
    share(b"press", [(b"status", b"speed", b"42")])

    line = run_well("dump", "--json").output.decode()

    assert re.fullmatch(r'{"time":"20\d\d-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z","device":"press","process":"ctl",'
                        r'"address":"127\.0\.0\.1","table":"status","key":"speed","value":"42"}\n', line)
    age = time.time() - time.mktime(time.strptime(line[9:28], "%Y-%m-%dT%H:%M:%S")) + time.timezone
    assert -2 <= age <= programs.DEADLINE


def test_dump_of_one_table_leaves_out_the_others(share):
    share(b"press", [(b"status", b"speed", b"42"), (b"log", b"speed", b"1")])

    assert run_well("dump", "log").output == b"press::ctl  log  speed = 1\n"
    nothing = run("dump", "nowhere")
    assert (nothing.status, nothing.output) == (3, b"") and 'no row in table "nowhere"' in nothing.errors


def test_bytes_that_are_no_text_are_in_base64_in_json(share):
    share(b"pr\xff", [(b"st\xfe", EVERY_BYTE, EVERY_BYTE[::-1])], process=b"\x80")

    row, = run_well("dump", "--json").rows()

    for name, expected in (("device", b"pr\xff"), ("process", b"\x80"), ("table", b"st\xfe"), ("key", EVERY_BYTE),
                           ("value", EVERY_BYTE[::-1])):
        assert name not in row
        assert base64.b64decode(row[name + "64"], validate=True) == expected


def test_names_of_members_that_are_no_text_are_in_base64_in_json(share):
    share(b"pr\xff", process=b"\x80", group=b"li\xfd", database=b"pl\xfe")

    member, = run("members", "--json", "-g", b"li\xfd", "-d", b"pl\xfe").rows()

    assert {name: base64.b64decode(text) for name, text in member.items() if name.endswith("64")} == {
        "device64": b"pr\xff", "process64": b"\x80", "group64": b"li\xfd", "database64": b"pl\xfe"}
    assert {name for name in member if not name.endswith("64")} == {"address", "port"}


def test_text_of_every_kind_survives_json(share):
    value = "42 °C \u0000\u001b[31m \u009b \"quoted\" \\ \u2028 \U0001f600 \ufeff\x7f"
    share("Größe".encode(), [(b"status", b"", value.encode())])

    shown = run_well("dump", "--json")

    row, = shown.rows()
    assert (row["device"], row["key"], row["value"]) == ("Größe", "", value)
    assert not re.search(rb"[\x00-\x09\x0b-\x1f\x7f]|\xc2[\x80-\x9f]", shown.output)


def test_bytes_that_a_terminal_would_obey_are_shown_as_numbers(share):
    share(b"press", [(b"status", b"a\x1b[2J\nb", "ok é \u202e\\".encode() + b"\xff\x00")])

    shown = run_well("dump").output
    assert shown == "press::ctl  status  a\\x1b[2J\\x0ab = ok é \\xe2\\x80\\xae\\\\\\xff\\x00\n".encode()


def test_get_prints_the_value_as_it_is_and_a_newline(share):
    share(b"press", [(b"status", b"speed", EVERY_BYTE)])

    shown = run_well("get", "status", "speed")

    assert (shown.output, shown.errors) == (EVERY_BYTE + b"\n", "")
    assert run_well("get", "-r", "status", "speed").output == EVERY_BYTE


def test_get_as_json_is_the_whole_row(share):
    share(b"press", [(b"status", b"speed", b"42"), (b"status", b"mode", b"auto")])

    row, = run_well("get", "--json", "status", "speed").rows()

    assert parts(row) == ("press", "ctl", "status", "speed", "42")
    assert row["address"] == "127.0.0.1" and row["time"].startswith("20")


def test_get_of_a_row_that_several_have_set_names_them(share):
    share(b"press", [(b"status", b"speed", b"42")])
    share(b"pump", [(b"status", b"speed", b"42")])

    def names_both():  # One that is late because the machine is busy is not met.
        shown = run("get", "status", "speed")
        return (shown.status, shown.output) == (0, b"42\n") and re.search(
            r"2 members have set this row: .*the last that arrived", shown.errors) and (
            "press::ctl" in shown.errors and "pump::ctl" in shown.errors)

    assert programs.eventually(names_both)


def test_get_of_a_row_that_nobody_has_set_is_nothing(share):
    share(b"press", [(b"status", b"speed", b"42")])

    shown = run("get", "status", "mode")

    assert (shown.status, shown.output) == (3, b"")
    assert "no row \"mode\" in table \"status\", asked of 1 member" in shown.errors


def test_watch_shows_what_is_there_and_then_each_change(share, start):
    press = share(b"press", [(b"status", b"speed", b"42")])
    watch = start("watch")
    assert watch.prints(b"press::ctl  status  speed = 42")

    press.set(b"plant", b"status", b"speed", b"43")
    assert watch.prints(b"press::ctl  status  speed = 43")
    share(b"pump", [(b"status", b"speed", b"7")])

    assert watch.prints(b"pump::ctl   status  speed = 7")
    assert len(watch.lines) == 3


def test_watch_of_a_key_ends_after_so_many_rows(share, start):
    press = share(b"press", [(b"status", b"speed", b"1"), (b"status", b"mode", b"auto"), (b"log", b"speed", b"0")])
    watch = start("watch", "-n", "2", "status", "speed")
    assert watch.prints(b"press::ctl  status  speed = 1")

    press.set(b"plant", b"status", b"mode", b"off")
    press.set(b"plant", b"status", b"speed", b"2")

    assert watch.ends() == 0
    assert watch.lines == [b"press::ctl  status  speed = 1", b"press::ctl  status  speed = 2"]


def test_watch_of_new_rows_leaves_out_those_that_are_there(share, start):
    def shows_the_new_row_alone():
        press = share(b"press", [(b"status", b"key %d" % number, b"there") for number in range(100)])
        watch = start("watch", "--new")
        assert press.logs(7, "tblsndr.strm", ".*key 99.*")

        # A key that comes again is new without doubt.
        press.set(b"plant", b"status", b"key 0", b"again")

        assert watch.prints(b"press::ctl  status  key 0 = again")
        watch.signal(signal.SIGINT)
        assert (watch.ends(), press.ends()) == (0, 0)
        return len(watch.lines) == 1

    assert programs.eventually(shows_the_new_row_alone)  # What comes after a pause amid the others seems new, too.


def test_rows_of_a_table_that_changes_without_a_pause_are_dumped_whole(share, start):
    press = share(b"press", [(b"status", b"still %d" % number, b"x") for number in range(50)])
    loading = start("--device", "busy", "load", "--hold", stdin=-1)
    feed = loading.process.stdin
    press.watch(b"plant", b"status")
    numbers = itertools.count()

    def change():
        number = next(numbers)
        feed.write(b'{"table":"status","key":"busy %d","value":"%d"}\n' % (number % 7, number))
        feed.flush()
        time.sleep(0.002)  # The pace of the changes.

    def dumped_keys():
        dump = start("dump", "--json", "-w", "50")
        while not dump.has_ended():
            change()
        assert dump.ends() == 0
        return {row["key"] for row in map(json.loads, dump.lines)}

    # From now on members meet it.
    assert programs.eventually(lambda: change() or b"busy 0" in press.table(b"plant", b"status"))
    expected = {f"still {number}" for number in range(50)} | {f"busy {number}" for number in range(7)}
    assert programs.eventually(lambda: expected <= dumped_keys())
    assert press.ends() == 0


def test_names_that_are_equal_are_two_members_at_two_ports(share):
    share(b"press", [(b"status", b"speed", b"1")], address="127.0.0.1")
    share(b"press", [(b"status", b"speed", b"2")], address="127.0.0.1")

    assert eventually_lists(["1", "2"], lambda row: row["value"], "dump")


def test_members_of_a_passive_look_are_those_that_announce_themselves(share, start, ether):
    press = share(b"press", [(b"status", b"speed", b"42")])
    ether.receive()
    watch = start("watch", "--passive")
    assert programs.eventually(lambda: press.do("network-changed") or watch.lines)

    assert watch.lines == [b"press::ctl  status  speed = 42"]
    ports = {ether.receive()[:2] for _ in range(2)}
    assert len(ports) == 1  # Nobody but the member has announced anything.


def test_an_observer_sets_nothing_and_is_not_connected_to(share, start):
    press = share(b"press", [(b"status", b"speed", b"42")])
    press.watch(b"plant", b"status")
    watch = start("watch", "--device", "looker", "--process", "on")
    assert watch.prints(b"press::ctl  status  speed = 42")

    press.set(b"plant", b"status", b"speed", b"43")
    assert watch.prints(b"press::ctl  status  speed = 43")
    assert press.logs(7, "tblrcvr.gotuid", ".* got uid: looker::on")
    watch.signal(signal.SIGINT)

    assert watch.ends() == 0
    assert not press.logged(7, "tblrcvr.ctor", r".* for plant:2130706433:0 .*")
    assert press.eventually(lambda: press.rows(b"plant", b"status") == [(b"speed", b"42"), (b"speed", b"43")])


def test_random_rows_of_every_size_are_shown_as_they_were_set(share):
    source = random.Random(programs.SEED)
    print("seed", programs.SEED)
    rows = {(source.randbytes(source.randrange(6)), source.randbytes(source.randrange(30))):
            source.randbytes(source.choice((1, 10, 5000))) for _ in range(200)}
    rows[b"large", b"largest"] = source.randbytes(1_048_575)
    rows[b"t" * 255, b"k" * (4095 - 256)] = b"longest"
    share(b"press", [(table, key, value) for (table, key), value in rows.items()])

    def decoded(row, name):
        return row[name].encode() if name in row else base64.b64decode(row[name + "64"])

    def shown():
        return {(decoded(row, "table"), decoded(row, "key")): decoded(row, "value")
                for row in run("dump", "--json").rows()}

    assert programs.eventually(lambda: shown() == rows)


@pytest.fixture
def take_port():
    """Takes the port of announcements, as a program that does not share it."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as selfish:
        def take():  # It cannot be bound where it is in use, so elsewhere.
            selfish.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            selfish.bind(("127.0.0.1", DISCOVERY_PORT))
            selfish.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 0)
        yield take


DEAF = "varnix: announcements are not heard: cannot share UDP port 1975: Address already in use\n"


def test_a_port_of_announcements_that_cannot_be_shared_is_told_and_members_come(share, take_port):
    share(b"press", [(b"status", b"speed", b"42")])
    take_port()

    shown, done = run("dump"), run("set", "status", "speed", "43")

    assert (shown.output, shown.errors) == (b"press::ctl  status  speed = 42\n", DEAF)
    assert (done.status, done.errors) == (0, DEAF + "varnix: 1 row taken by 1 member\n")


def test_where_nothing_can_be_heard_and_nothing_may_be_sent_it_ends_at_once(network, take_port):
    take_port()

    for words in (["dump"], ["watch"], ["set", "status", "speed", "43"], ["load"]):
        told = run(*words, "--passive", "-w", "1000")
        assert (told.status, told.errors) == (1, DEAF)
