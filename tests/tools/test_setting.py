# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""What the command sets for members that use the real library: set, load, record, replay."""

import functools
import json
import random
import re
import signal
import socket
import subprocess
import time

import pytest

import programs
import wire
from command import eventually_taken_by, run


@pytest.fixture
def share(share):
    """The same of members that receive."""
    return functools.partial(share, receives=True)


def row_line(key, value, table="status", **more):
    return (json.dumps({"table": table, "key": key, "value": value, **more}) + "\n").encode()


def start_feeding(start):
    """A command that has set one row. Its time begins when its input is closed: until then members meet it."""
    setting = start("load", "-w", "1", stdin=subprocess.PIPE)
    setting.process.stdin.write(row_line("speed", "42"))
    setting.process.stdin.flush()
    return setting


def test_set_reaches_every_member_and_says_how_many(share):
    hosts = [share(device) for device in (b"press", b"pump", b"valve")]

    assert eventually_taken_by(3)
    for host in hosts:
        assert host.gets_row(b"plant", b"status", b"speed", b"42")


def test_set_says_who_it_is(share):
    press = share(b"press")

    run("--device", "bench", "set", "--process", "me", "status", "speed", "42")

    assert press.logs(7, "tblrcvr.gotuid", ".* got uid: bench::me")


def test_set_is_the_host_and_its_own_process_number_by_default(share, start):
    press = share(b"press")

    setting = start("set", "status", "speed", "42")

    assert setting.ends() == 0
    assert press.logs(7, "tblrcvr.gotuid", f".* got uid: {re.escape(socket.gethostname())}::varnix-{setting.pid}")


def test_a_value_is_read_from_standard_input_as_it_is(share):
    press = share(b"press")
    value = random.Random(1).randbytes(1_048_575)

    assert run("set", "status", "speed", "-", data=value).status == 0
    assert press.gets_row(b"plant", b"status", b"speed", value)
    too_long = run("set", "status", "speed", "-", data=value + b"x")

    assert too_long.status == 1 and "more than 1048575 bytes" in too_long.errors


def test_an_empty_value_is_set_at_once(share):
    press = share(b"press", [])

    assert run("set", "status", "speed", "").status == 0

    assert press.gets_row(b"plant", b"status", b"speed", b"")


def test_set_with_nobody_there_is_told(share):
    share(b"press", database=b"store")

    done = run("set", "status", "speed", "42", "-w", "0.7")

    assert done.status == 3
    assert 'nobody of group "line-4" with database "plant" was met within 0.7 s' in done.errors


def test_a_member_that_leaves_before_it_has_read_the_row_has_not_taken_it(ether, start):
    setting = start_feeding(start)
    member = wire.connect(ether.port_of_next_announcement())
    assert member.receive_record()[0] == b"plant"
    member.send(wire.answer(b"line-4", 9))
    assert programs.eventually(lambda: member.unread() > 0)

    member.reset()
    setting.process.stdin.close()

    assert setting.ends() == 1
    assert setting.errors == "varnix: 1 row taken by 0 members of 1 that were met, not by 127.0.0.1:9\n"


def test_a_member_that_does_not_close_its_end_has_not_taken_the_row(ether, start):
    setting = start_feeding(start)
    member = wire.connect(ether.port_of_next_announcement())
    member.receive_record()
    member.send(wire.answer(b"line-4", 9))

    assert member.receive_record() == (b"\x06statusspeed", b"42")
    setting.process.stdin.close()
    assert member.is_closed()

    assert setting.ends() == 1
    assert "1 row taken by 0 members of 1 that were met" in setting.errors


@programs.only_natively  # Others need time of their own.
def test_set_takes_no_longer_than_it_may(ether, start):
    def seconds_of_one():
        setting = start("set", "status", "speed", "42", "-w", "1")
        port = ether.port_of_next_announcement()
        begun = time.monotonic()
        member = wire.connect(port)
        member.send(wire.answer(b"line-4", 9))  # It never closes its end.
        visitors = []
        while setting.process.poll() is None:  # And always somebody comes, so that there is no quiet while.
            try:
                visitors.append(wire.connect(port))
            except ConnectionRefusedError:  # It waits for nobody any more.
                pass
            time.sleep(0.1)  # The pace of the visitors.
        seconds = time.monotonic() - begun
        for connection in [member, *visitors]:
            connection.close()
        is_met = setting.ends() == 1 and "1 row taken by 0 members of 1 that were met" in setting.errors
        return seconds if is_met else 9

    assert any(seconds_of_one() < 1.8 for _ in range(5))  # A busy machine takes its time.


def test_a_member_that_is_heard_and_does_not_hear_is_asked_to_connect(share, ether, start):
    press = share(b"press")
    ether.receive()

    def is_taken_within(seconds):
        setting = start("set", "--passive", "-w", seconds, "status", "speed", "42")
        programs.eventually(lambda: press.do("network-changed") or press.table(b"plant", b"status") or
                            setting.has_ended())
        return setting.ends() == 0

    assert any(is_taken_within(seconds) for seconds in ("3", "10", "30"))  # A busy machine takes its time.
    assert press.table(b"plant", b"status") == {b"speed": b"42"}


def test_those_who_set_rows_are_not_waited_for_by_each_other(share, start):
    share(b"press")
    holding = start("set", "--hold", "status", "speed", "42")
    assert holding.says("sent to 1 member and")

    done = run("set", "status", "mode", "auto")

    assert (done.status, done.errors) == (0, "varnix: 1 row taken by 1 member\n")
    holding.signal(signal.SIGINT)
    assert holding.ends() == 0
    assert holding.errors.endswith("varnix: 1 row taken by 1 member\n")


@pytest.mark.parametrize("name", ["set", *([] if programs.EMULATOR else ["load", "replay"])])
def test_a_held_row_reaches_those_who_join_later_until_an_interrupt(share, start, tmp_path, name):
    share(b"press")
    recording = tmp_path / "recording"
    recording.write_bytes(row_line("speed", "42"))
    with open(recording, "rb") as rows:
        words = {"set": ["status", "speed", "42"], "load": [], "replay": [str(recording)]}[name]
        setting = start(name, "--hold", *words, stdin=rows)
    assert setting.says("1 row, sent to 1 member and to all that join")

    pump = share(b"pump")
    assert pump.gets_row(b"plant", b"status", b"speed", b"42")
    setting.signal(signal.SIGINT)

    assert setting.ends() == 0
    assert "1 row taken by 2 members" in setting.errors


def test_load_sets_the_rows_of_json_lines(share):
    press = share(b"press")

    done = run("load", data=row_line("speed", "42", device="other", time="2026-11-22T04:17:29Z") +
               row_line("mode", "ä\0") + b'{"table":"status","key64":"/w==","value64":"AP8="}\n')

    assert (done.status, done.errors) == (0, "varnix: 3 rows taken by 1 member\n")
    expected = {b"speed": b"42", b"mode": "ä\0".encode(), b"\xff": b"\x00\xff"}
    assert press.eventually(lambda: press.table(b"plant", b"status") == expected)


def test_load_names_the_lines_that_it_leaves_out(share):
    press = share(b"press")
    bad = [b"no json\n", b"[]\n", row_line("k" * 4095, "too long"), row_line("k", "v", table="t" * 256),
           row_line("k", "v" * 1_048_576), b'{"table":"status","key":"k"}\n']
    unended = b'{"table":"status","key":"k"}'

    done = run("load", data=b"".join(bad) + row_line("speed", "42") + unended)

    assert done.status == 1
    assert [line for line in done.errors.splitlines() if "left out" in line] == [
        "varnix: line 1: no JSON from byte 2 on: left out",
        "varnix: line 2: no JSON object: left out",
        "varnix: line 3: table and key have more than 4094 bytes: left out",
        "varnix: line 4: a table's name has more than 255 bytes: left out",
        "varnix: line 5: a value has more than 1048575 bytes: left out",
        'varnix: line 6: no "value": left out',
        'varnix: line 8: no "value": left out']
    assert press.gets_row(b"plant", b"status", b"speed", b"42")


def test_a_torn_last_line_is_reported_and_left_out(share, tmp_path):
    press = share(b"press")
    recording = tmp_path / "recording"
    recording.write_bytes(row_line("speed", "42") + row_line("mode", "auto")[:-5])

    done = run("replay", "--speed", "0", str(recording))

    assert (done.status, done.errors) == (0, "varnix: line 2 is torn: left out\nvarnix: 1 row taken by 1 member\n")
    assert press.gets_row(b"plant", b"status", b"speed", b"42")


@pytest.mark.parametrize("words", [["load"], ["replay", "-"]])
def test_a_last_line_that_lacks_only_its_newline_is_taken(share, words):
    press = share(b"press")

    done = run(*words, data=row_line("speed", "42") + row_line("mode", "auto")[:-1])

    assert (done.status, done.errors) == (0, "varnix: 2 rows taken by 1 member\n")
    assert press.gets_row(b"plant", b"status", b"mode", b"auto")


def test_a_line_that_is_too_long_ends_a_load_and_is_told(share):
    press = share(b"press")

    done = run("load", data=row_line("speed", "42") + b"x" * (17 << 20) + b"\n" + row_line("speed", "43"))

    assert (done.status, done.errors) == (
        1, "varnix: line 2 is longer than 16 MiB: it and all behind it are left out\nvarnix: 1 row taken by 1 member\n")
    assert press.gets_row(b"plant", b"status", b"speed", b"42")


def test_words_that_begin_with_a_hyphen_stand_behind_two(share):
    press = share(b"press")

    assert run("set", "--", "status", "-speed", "-x").status == 0
    assert run("set", "status", "speed", "-5").status == 0

    assert press.gets_row(b"plant", b"status", b"-speed", b"-x")
    assert press.gets_row(b"plant", b"status", b"speed", b"-5")


def test_rows_are_set_while_more_of_them_come(share, start):
    press = share(b"press")
    loading = start("load", stdin=subprocess.PIPE)

    loading.process.stdin.write(row_line("speed", "42"))
    loading.process.stdin.flush()
    assert press.gets_row(b"plant", b"status", b"speed", b"42")
    loading.process.stdin.write(row_line("speed", "43"))
    loading.process.stdin.close()

    assert loading.ends() == 0
    assert press.gets_row(b"plant", b"status", b"speed", b"43")


def test_dump_into_load_gives_the_same_dump(share, start):
    print("seed", programs.SEED)
    source = random.Random(programs.SEED)
    rows = [(source.randbytes(source.randrange(5)), source.randbytes(source.randrange(20)),
             source.randbytes(source.choice((1, 100, 20_000)))) for _ in range(300 if programs.NATIVE else 50)]
    press = share(b"pr\xffess", rows)

    dumped = []

    def dump():
        """Keeps the output, and returns the rows without their times."""
        dumped.append(run("dump", "--json"))
        return [{name: text for name, text in row.items() if name != "time"} for row in dumped[-1].rows()]

    keys = {(table, key) for table, key, _ in rows}
    assert programs.eventually(lambda: len(dump()) == len(keys))  # A busy machine takes its time.
    before = dumped[-1]
    press.ends()
    loading = start("load", "--hold", "-w", "60", "--device", b"pr\xffess", "--process", "ctl",
                    stdin=subprocess.PIPE)
    loading.process.stdin.write(before.output)
    loading.process.stdin.close()
    share(b"pump")
    assert loading.says("sent to 1 member")

    expected = [{name: text for name, text in row.items() if name != "time"} for row in before.rows()]
    assert programs.eventually(lambda: dump() == expected)


def test_what_was_recorded_is_replayed(share, start, tmp_path):
    press = share(b"press", [(b"status", b"speed", b"1")])
    recording = tmp_path / "recording"
    recording.touch()
    record = start("record", str(recording))
    assert programs.eventually(lambda: recording.read_bytes().count(b"\n") == 1)
    for number in (2, 3):
        press.set(b"plant", b"status", b"speed of %d" % number, b"1")
        assert programs.eventually(lambda: recording.read_bytes().count(b"\n") == number)
    record.signal(signal.SIGINT)
    assert record.ends() == 0
    press.ends()

    pump = share(b"pump")
    assert run("replay", str(recording)).status == 0
    expected = {b"speed": b"1", b"speed of 2": b"1", b"speed of 3": b"1"}
    assert pump.eventually(lambda: pump.table(b"plant", b"status") == expected)


@pytest.mark.parametrize("gap, options", [("00:01", []), ("01:40", ["--speed", "100"])])
def test_a_replay_keeps_the_pace_or_goes_so_many_times_as_fast(share, start, tmp_path, gap, options):
    press = share(b"press")
    recording = tmp_path / "recording"
    recording.write_bytes(row_line("speed", "1", time="2026-11-22T04:00:00Z") +
                          row_line("speed", "2", time=f"2026-11-22T04:{gap}Z"))
    begun = time.monotonic()

    replay = start("replay", *options, str(recording))

    assert press.gets_row(b"plant", b"status", b"speed", b"2")
    assert time.monotonic() - begun >= 1
    assert replay.ends() == 0


def test_a_clock_that_was_set_back_does_not_stop_a_replay(share, tmp_path):
    press = share(b"press")
    recording = tmp_path / "recording"
    recording.write_bytes(row_line("a", "1", time="2026-11-22T04:17:29Z") +
                          row_line("b", "2", time="2020-01-01T00:00:00Z") +
                          row_line("c", "3", time="2020-01-01T00:00:00.1Z"))

    assert run("replay", str(recording)).status == 0

    assert press.gets_row(b"plant", b"status", b"c", b"3")


def test_rows_of_one_group_can_be_piped_into_another(share, start):
    press = share(b"press", [(b"status", b"speed", b"42")])
    pump = share(b"pump", group=b"line-5")
    loading = start("load", stdin=subprocess.PIPE, VARNIX_GROUP="line-5")
    watching = start("watch", "--json", stdout=loading.process.stdin)

    assert pump.gets_row(b"plant", b"status", b"speed", b"42")
    press.set(b"plant", b"status", b"speed", b"43")
    assert pump.gets_row(b"plant", b"status", b"speed", b"43")

    watching.signal(signal.SIGINT)
    assert watching.ends() == 0
    loading.process.stdin.close()
    assert loading.ends() == 0


def test_a_file_that_cannot_be_written_or_read_is_told(network):
    record = run("record", "/nowhere/recording")
    replay = run("replay", "/nowhere/recording")

    assert (record.status, record.errors) == (1, "varnix: cannot write /nowhere/recording: No such file or directory\n")
    assert (replay.status, replay.errors) == (1, "varnix: cannot read /nowhere/recording: No such file or directory\n")


def test_a_full_disk_ends_a_recording_with_the_reason(share, start):
    share(b"press", [(b"status", b"speed", b"42")])

    record = start("record", "/dev/full")

    assert record.ends() == 1
    assert record.errors == "varnix: cannot write: No space left on device\n"
