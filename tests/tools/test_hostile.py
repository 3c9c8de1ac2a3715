# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Members of a broken or hostile kind: the command ends in time, stays small, and shows what the others have set."""

import itertools
import json
import os
import random
import re
import resource
import signal
import socket
import time

import pytest

import fakes
import programs
import wire
from command import run, share
from programs import EMULATOR

MEBIBYTE = 1 << 20
ROW = b"press::ctl  status  speed = 42"
COUNT = 30_000  # Of rows.
# The sanitizers and the emulator need memory of their own.
BASE = 40 * MEBIBYTE if programs.NATIVE else 400 * MEBIBYTE


@pytest.fixture
def make_press(ether, make_host):
    """Makes a member that has set a row and is not shared yet."""
    def make():
        host = make_host()
        host.set(b"plant", b"status", b"speed", b"42")
        return host
    return make


@pytest.fixture
def press(ether, make_press):
    host = make_press()
    share(host)
    ether.receive()
    return host


def is_met(press):
    """Waits until a command that looks has met it."""
    return press.logs(7, "tblsndr.getgrp", r'.*group="\(observer\)" port=0')


@pytest.fixture
def look(start, ether):
    """Runs a command to its end while fake members announce themselves as soon as it listens. `press` is shared once
    they were visited: as long as it has met nobody, no pause makes a command end."""
    def run_among(members, *arguments, press=None, **keywords):
        fresh = wire.Ether()  # In which no announcement of an earlier command waits.
        for member in members:
            member.visits = 0
        running = start(*arguments, **keywords)
        fresh.receive()  # The command has announced itself, so it hears.
        fresh.socket.close()
        for member in members:
            member.announce(ether)
        if press:
            assert programs.eventually(lambda: all(member.visits for member in members) or running.has_ended())
            share(press)
        status = running.ends()
        return status, running
    return run_among


@pytest.fixture
def looks(look, make_press):
    """The same among press and fake members, again with more time each time: a busy machine needs it."""
    def run_among(members, *arguments):
        for seconds in ("1", "2", "4.5"):
            press = make_press()
            yield seconds, *look(members, *arguments, "-w", seconds, press=press)
            press.ends()
    return run_among


def test_one_that_is_silent_costs_the_time_that_is_given_and_is_named(fake, looks):
    silent = fake(fakes.wait_for_end)

    assert any((status, dump.lines) == (1, [ROW]) and dump.errors == (
        f"varnix: 127.0.0.1:{silent.port} has not said who it is after {seconds} s; --wait gives it more\n")
        for seconds, status, dump in looks([silent], "dump"))


def test_one_that_stays_silent_is_given_up_after_5_seconds(make_press, fake, look):
    silent = fake(fakes.wait_for_end)

    status, dump = look([silent], "dump", "-w", "30", press=make_press())

    assert (status, dump.lines) == (1, [ROW])
    assert dump.errors == f"varnix: 127.0.0.1:{silent.port} accepts connections and does not say who it is\n"


def test_one_that_connects_and_says_nothing_is_told(make_press, ether, start):
    def is_told_after(seconds):
        press = make_press()
        fresh = wire.Ether()
        dump = start("dump", "-w", seconds)
        silent = wire.connect(fresh.port_of_next_announcement())
        share(press)
        status = dump.ends()
        press.ends(), silent.close(), fresh.socket.close()
        return (status, dump.lines) == (1, [ROW]) and dump.errors == (
            f"varnix: 1 connection to us without a word after {seconds} s; --wait gives them more\n")

    assert any(is_told_after(seconds) for seconds in ("2", "4.5"))  # A busy machine takes its time.


def test_one_that_hangs_up_is_named(make_press, fake, look):
    rude = fake(lambda connected: connected.shutdown(socket.SHUT_RDWR))

    status, dump = look([rude], "dump", "-w", "30", press=make_press())

    assert (status, dump.lines) == (1, [ROW])
    assert f"127.0.0.1:{rude.port} closes connections before it says who it is\n" in dump.errors


def test_a_port_of_nobody_is_named(make_press, ether, start):
    nobody = wire.Listener()
    nobody.close()
    press = make_press()
    dump = start("dump", "-w", "30")
    ether.receive()
    ether.announce(nobody.port, b"line-4")

    assert dump.says(f"127.0.0.1:{nobody.port} cannot be reached: Connection refused\n")
    share(press)
    assert (dump.ends(), dump.lines) == (1, [ROW])


def test_one_that_sends_a_byte_now_and_then_is_not_waited_for(fake, looks):
    def dribble(connected):
        for byte in wire.hello(b"plant", b"fake", b"c" * 1000):
            connected.sendall(bytes([byte]))
            time.sleep(0.1)  # The attack itself: never silent, and never done within -w.

    assert any((status, dump.lines) == (1, [ROW]) for _, status, dump in looks([fake(dribble)], "dump"))


def test_one_that_never_ends_a_row_is_named(fake, looks):
    def torn(connected):
        connected.sendall(fakes.GREETING + wire.record(b"\x06statusspeed", b"1"))
        connected.sendall(fakes.claim(4095, 1_048_575) + b"x" * 100)
        fakes.wait_for_end(connected)

    rows = sorted([ROW.split(), b"fake::ctl status speed = 1".split()])

    assert any(status == 1 and sorted(line.split() for line in dump.lines) == rows and
               re.search(rf"fake::ctl at 127\.0\.0\.1:\d+ was still sending after {seconds} s", dump.errors)
               for seconds, status, dump in looks([fake(torn)], "dump"))


def endless(connected):
    connected.sendall(fakes.GREETING)
    for block in itertools.count():
        rows = (wire.record(b"\x04many%d" % number, b"x" * 20) for number in range(block * 1000, block * 1000 + 1000))
        connected.sendall(b"".join(rows))


def test_one_that_never_pauses_ends_with_the_time_and_is_named(fake, looks):
    assert any((status, dump.lines) == (1, [ROW]) and
               f"was still sending after {seconds} s; --wait gives it more" in dump.errors
               for seconds, status, dump in looks([fake(endless)], "dump", "status"))


def test_one_that_needs_more_memory_than_it_may_is_left_out(make_press, fake, start, ether):
    press = make_press()
    tables = start("tables", "-w", "50", "--limit", "4")
    ether.receive()
    fake(endless).announce(ether)

    assert tables.says("fake::ctl at 127.0.0.1:[0-9]+ sends more than --limit allows: left out")
    assert tables.memory() < BASE + 16 * MEBIBYTE
    share(press)  # Only now, since it ends after a pause once it has met somebody.
    assert tables.ends() == 1
    assert tables.lines == [b"press::ctl  status  1 row  7 bytes"]


LONG = b"\xff" * 4350  # Of which a person sees 17,400 characters.


def test_many_tables_of_one_with_a_long_name_cost_no_memory_and_can_be_interrupted(fake, start, ether):
    rows = b"".join(wire.record(b"\x04%04d" % number, b"") for number in range(7000))

    def behave(connected):
        connected.sendall(wire.record(b"plant", b"\x00" + LONG) + rows)
        fakes.wait_for_end(connected)

    reader, writer = os.pipe()
    tables = start("tables", "-w", "50", stdout=writer)
    os.close(writer)
    ether.receive()
    fake(behave).announce(ether)

    assert os.read(reader, 100) == b"::" + (b"\\xff" * 25)[:98]
    assert tables.memory() < BASE + 32 * MEBIBYTE
    tables.signal(2)
    assert tables.ends() == -2
    os.close(reader)


def test_rows_of_one_that_has_a_long_name_are_shown(fake, look):
    def behave(connected):
        connected.sendall(wire.record(b"plant", b"\x00" + LONG) + wire.record(b"\x06statusspeed", b"1") +
                          wire.record(b"\x06statusspeed", b"2"))
        fakes.wait_for_end(connected)

    member = fake(behave)

    _, dump = look([member], "dump", "-w", "50")
    _, tables = look([member], "tables", "-w", "50")

    name = b"::" + b"\\xff" * len(LONG)
    assert dump.lines == [name + b"  status  speed = 1", name + b"  status  speed = 2"]
    assert tables.lines == [name + b"  status  1 row  6 bytes"]


def test_a_value_that_changes_counts_once(fake, look):
    def change(connected):
        connected.sendall(fakes.GREETING)
        for number in range(20):
            connected.sendall(wire.record(b"\x06statusspeed", b"%d" % number + b"x" * 100_000))
        fakes.wait_for_end(connected)

    status, get = look([fake(change)], "get", "status", "speed", "-w", "50", "--limit", "1")

    assert (status, get.errors) == (0, "")
    assert get.lines == [b"19" + b"x" * 100_000]


def keys_of_one_hash(count):
    """Of 16 bytes, which std::hash of the standard library for 64-bit machines does not tell from each other."""
    mask, factor = (1 << 64) - 1, 0xc6a4a7935bd1e995

    def mixed(number):
        return number ^ number >> 47  # Its own inverse.

    inverse = pow(factor, -1, 1 << 64)
    for number in range(count):
        # With the first half the hash is `state`; the second half makes it 0.
        state = (0xc70f6907 ^ 16 * factor & mask ^ mixed(number * factor & mask) * factor & mask) * factor & mask
        second = mixed(state * inverse & mask) * inverse & mask
        yield number.to_bytes(8, "little") + second.to_bytes(8, "little")


@programs.only_natively  # Where words have 32 bits, the hash is another one.
def test_keys_that_were_chosen_to_have_one_hash_cost_no_more_than_others(fake, look):
    def seconds_for(keys):
        rows = b"".join(wire.record(b"\x04many" + key, b"x") for key in keys)

        def behave(connected):
            connected.sendall(fakes.GREETING + rows)
            fakes.wait_for_end(connected)

        before = os.times()
        status, tables = look([fake(behave)], "tables", "-w", "50")
        after = os.times()
        assert (status, tables.lines) == (0, [b"fake::ctl  many  %d rows  %d bytes" % (COUNT, COUNT * 17)])
        return after.children_user - before.children_user

    ordinary = seconds_for(b"%016d" % number for number in range(COUNT))
    chosen = seconds_for(keys_of_one_hash(COUNT))

    assert chosen < 5 * ordinary + 0.5


def test_many_that_hold_back_the_rest_of_large_rows_stay_below_the_limit(press, fake, start, ether):
    def hold_back(connected):
        connected.sendall(wire.hello(b"plant", b"fake", os.urandom(8)))
        connected.sendall(fakes.claim(4095, 1_048_575) + bytes(1_000_000))
        fakes.wait_for_end(connected)

    watch = start("watch", "--limit", "8")
    assert watch.prints(ROW)
    for _ in range(40):
        fake(hold_back).announce(ether)

    assert watch.eventually(lambda: watch.errors.count("sends more than --limit allows: left out") >= 20)
    press.set(b"plant", b"status", b"speed", b"43")
    assert watch.prints(b"press::ctl  status  speed = 43")
    assert watch.memory() < BASE + 24 * MEBIBYTE


def test_a_reader_that_stops_reading_costs_no_memory_and_can_be_interrupted(fake, start, ether):
    reader, writer = os.pipe()
    watch = start("watch", stdout=writer)
    os.close(writer)
    ether.receive()
    member = fake(endless)
    member.announce(ether)

    assert os.read(reader, 4) == b"fake"
    assert programs.eventually(lambda: sleeps(watch.pid))
    assert watch.memory() < BASE

    watch.signal(2)
    assert watch.ends() == 0
    os.close(reader)


@programs.only_natively  # Others need time of their own.
def test_a_reader_that_pauses_gets_every_row(network, make_host, start):
    host = make_host("--default-log")  # The other log is slower.
    host.set_all(b"plant", b"status", ((b"%d" % number, b"x" * 2500) for number in range(400)))
    share(host)
    reader, writer = os.pipe()
    dump = start("dump", "-w", "3", stdout=writer)
    os.close(writer)

    with open(reader, "rb") as shown:
        begun = shown.read(4)
        time.sleep(3.2)  # The case itself: a pause that is longer than -w.
        rows = (begun + shown.read()).count(b"\n")

    assert (dump.ends(), dump.errors, rows) == (0, "", 400)


def sleeps(pid):
    """Whether it uses no processor during 0.2 s, twenty times what the kernel counts in."""
    def used():
        with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
            return stat.read().rpartition(")")[2].split()[11:13]

    before = used()
    time.sleep(0.2)  # What is measured over.
    return used() == before


@pytest.mark.parametrize("greeting", [
    pytest.param(fakes.claim(0, 0), id="no database and no identity"),
    pytest.param(wire.record(b"plant", b""), id="no identity"),
    pytest.param(wire.record(b"plant", b"\xff"), id="an identity that claims too much"),
    pytest.param(wire.record(b"p" * 4095, b"\x00" * 1_048_575), id="the largest"),
])
@pytest.mark.parametrize("name", ["members", "dump"])
def test_odd_greetings_are_no_harm(make_press, fake, look, greeting, name):
    press = make_press()

    def behave(connected):
        assert is_met(press)  # So that the command does not end before it comes.
        connected.sendall(greeting + wire.record(b"", b"") + wire.record(b"\xff", b"v") + wire.record(b"\x00", b""))
        fakes.wait_for_end(connected)

    _, running = look([fake(behave)], name, "-w", "30", press=press)

    assert any(line.startswith(b"press::ctl") for line in running.lines), running.errors


def test_identities_that_no_device_has_are_left_out_and_take_no_memory(press, fake, start, ether):
    left_out = []

    def behave(connected):
        try:
            connected.sendall(wire.record(b"plant", b"\x04fake" + b"x" * 1_000_000)[:-1])
            fakes.wait_for_end(connected)
        finally:
            left_out.append(connected)

    watch = start("watch", "--limit", "1000")
    assert watch.prints(ROW)
    for _ in range(50):  # Together they would need more than it may.
        fake(behave).announce(ether)

    assert programs.eventually(lambda: len(left_out) >= 50)
    assert watch.says(r"127\.0\.0\.1:\d+ has a name of more than 4351 bytes: left out")
    assert watch.memory() < BASE
    press.set(b"plant", b"status", b"speed", b"43")
    assert watch.prints(b"press::ctl  status  speed = 43")
    assert len(watch.lines) == 2


def test_malformed_keys_are_shown_as_members_take_them(make_press, fake, look):
    press = make_press()

    def behave(connected):
        assert is_met(press)
        connected.sendall(fakes.GREETING + wire.record(b"", b"1") + wire.record(b"\x05four", b"2"))
        fakes.wait_for_end(connected)

    status, dump = look([fake(behave)], "dump", "-w", "30", press=press)

    assert status == 0
    assert sorted(line.split() for line in dump.lines) == sorted(
        [ROW.split(), [b"fake::ctl", b"=", b"1"], [b"fake::ctl", b"=", b"2"]])


BABBLERS = 30
BABBLED_AT = ["dump", "set status mode auto",
              *([] if EMULATOR else ["members", "tables", "get status speed", "load", "doctor"])]


@pytest.fixture
def babblers(fake):
    print("seed", programs.SEED)
    source = random.Random(programs.SEED)

    def babble(connected):
        own = random.Random(source.random())
        if own.random() < 0.5:
            connected.sendall(fakes.GREETING)
        while own.random() < 0.95:
            connected.sendall(own.randbytes(own.choice((1, 4, 100, 100_000))))

    return [fake(babble) for _ in range(BABBLERS)]


@pytest.mark.parametrize("name", BABBLED_AT)
def test_random_bytes_are_no_harm(make_press, babblers, look, tmp_path, name):
    rows = tmp_path / "rows"
    rows.write_text('{"table":"status","key":"mode","value":"auto"}\n', encoding="ascii")
    sets = name.startswith(("set", "load"))

    def reaches_press(seconds):
        press = make_press()
        press.watch(b"plant", b"status")
        with open(rows, "rb") as stdin:
            status, running = look(babblers, *name.split(), "-w", seconds, press=press, stdin=stdin)
        assert status in (0, 1, 3), running.errors
        shown = b"\n".join(running.lines)
        taken = "taken by 1 member" in running.errors and press.gets_row(b"plant", b"status", b"mode", b"auto")
        press.ends()
        if name == "doctor":
            return b'%d members of "line-4"' % (BABBLERS + 1) in shown
        return taken if sets else b"press::ctl" in shown or b"42" in shown

    assert any(reaches_press(seconds) for seconds in ("2", "5", "20"))  # A busy machine takes its time.


def test_a_recording_among_random_bytes_has_whole_lines_and_the_rows_of_others(press, babblers, start, ether):
    record = start("record", "-")
    assert record.eventually(lambda: any(b'"press"' in line for line in record.lines))
    for babbler in babblers:
        babbler.announce(ether)
    assert programs.eventually(lambda: all(babbler.visits for babbler in babblers))

    press.set(b"plant", b"status", b"speed", b"43")

    assert record.eventually(lambda: any(b'"device":"press"' in line and b'"43"' in line for line in record.lines))
    record.signal(signal.SIGINT)
    assert record.ends() == 0
    whole = record.lines[:-1]  # The interrupt may have torn the last one.
    assert all("table" in row or "table64" in row for row in map(json.loads, whole))


def test_random_bytes_of_those_who_connect_are_no_harm(press, ether, start):
    print("seed", programs.SEED)
    source = random.Random(programs.SEED)
    watch = start("watch")
    port = ether.port_of_next_announcement()
    assert watch.prints(ROW)

    visitors = []
    for _ in range(300):
        visitors.append(wire.connect(port))
        try:
            visitors[-1].send(source.choice((
                b"", fakes.claim(4095, 1_048_575), fakes.claim(6, 2) + b"line-4", wire.answer(b"line-4", port),
                wire.answer(b"line-4", 0), wire.answer(b"line-4", 1), wire.record(b"line-4", b"xyz"),
                wire.answer(b"line-4", 1) + b"more", source.randbytes(5000))))
        except OSError:  # The command has closed the connection already.
            pass
        if source.random() < 0.5:
            visitors.pop().reset()

    press.set(b"plant", b"status", b"speed", b"43")
    assert watch.prints(b"press::ctl  status  speed = 43")
    late = wire.connect(port)
    assert late.receive_record()[0] == b"plant"
    for visitor in [*visitors, late]:
        visitor.close()


@programs.only_natively  # Others take long for so many connections.
def test_visitors_that_fill_every_place_and_stay_do_not_keep_others_out(ether, fake, start):
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))  # One for each visitor.
    watch = start("watch")
    port = ether.port_of_next_announcement()
    visitors = []
    for _ in range(16):
        together = [wire.connect(port) for _ in range(64)]  # No more than may wait to be accepted.
        for visitor in together:
            visitor.send(wire.answer(b"line-4", 0))
        for visitor in together:
            assert visitor.receive_record()[0] == b"plant"
        visitors += together

    member = fake(lambda connected: connected.sendall(fakes.GREETING + wire.record(b"\x06statusspeed", b"1")))
    late = wire.connect(port)
    late.send(wire.answer(b"line-4", member.port))

    assert watch.prints(b"fake::ctl  status  speed = 1")
    for visitor in [*visitors, late]:
        visitor.close()


def test_a_flood_of_announcements_does_not_hide_a_member(ether, make_host, start):
    begun = time.monotonic()
    watch = start("watch")
    ether.receive()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as speaker:
        speaker.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
        for port in range(1, 20_000 if not EMULATOR else 2_000):
            speaker.sendto(port.to_bytes(2, "big") + b"line-4", ("127.255.255.255", wire.DISCOVERY_PORT))
        for size in (0, 1, 257, 1000):
            speaker.sendto(b"x" * size, ("127.255.255.255", wire.DISCOVERY_PORT))

    host = make_host()
    host.set(b"plant", b"status", b"speed", b"42")
    share(host)

    assert watch.prints(ROW)
    assert watch.memory() < BASE
    watch.signal(signal.SIGINT)
    assert watch.ends() == 0
    minutes = 1 + (time.monotonic() - begun) // 60
    assert 60 <= watch.errors.count("cannot be reached") <= 60 * minutes  # A log does not fill.
    assert re.search("varnix: [0-9]+ more notes? of this kind left out: a minute has at most 60\n", watch.errors)


def test_one_that_takes_the_place_of_another_name_is_told_from_it_by_its_address(make_press, fake, look):
    press = make_press()

    def pretend(connected):
        assert is_met(press)
        connected.sendall(wire.hello(b"plant", b"press", b"ctl") + wire.record(b"\x06statusspeed", b"666"))
        fakes.wait_for_end(connected)

    status, get = look([fake(pretend)], "get", "status", "speed", "-w", "30", press=press)

    assert status == 0
    assert get.errors.count("press::ctl at 127.0.0.1:") == 2
