# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""How the command is called and how it ends: options, exit statuses, signals, closed pipes, terminals."""

import fcntl
import os
import pty
import re
import signal
import subprocess
import termios
import time

import pytest

import programs
import wire
from command import TOOL, environment, run, share

COMMANDS = ("members", "tables", "dump", "get", "watch", "set", "load", "record", "replay", "top", "doctor")
ARGUMENTS = {"get": ["status", "speed"], "set": ["status", "speed", "42"], "record": ["-"], "replay": ["-"]}


@pytest.fixture
def late_press(network, make_host):
    """A member that has set a row and is not shared yet."""
    host = make_host()
    host.set(b"plant", b"status", b"speed", "42 °C".encode())
    return host


@pytest.fixture
def press(late_press):
    share(late_press)
    return late_press


def eventually_shows(output, *words, **variables):
    """Runs the command until it shows this. A member that is late because the machine is busy is not met."""
    return programs.eventually(lambda: run(*words, **variables).output == output)


@programs.only_natively  # Like all that concerns words alone, it is the same elsewhere.
@pytest.mark.parametrize("arguments, reason", [
    ([], "no command is given"),
    (["look"], "look"),
    (["members", "dump"], "dump"),
    (["dump", "status", "speed"], "speed"),
    (["get", "status"], "KEY is required"),
    (["set", "status", "speed"], "VALUE is required"),
    (["dump", "--raw"], "--raw"),
    (["members", "--wait"], "--wait"),
    (["members", "--wait", "soon"], "--wait"),
    (["members", "--wait", "-1"], "--wait"),
    (["members", "--wait", "nan"], "--wait"),
    (["watch", "-n", "0"], "--count"),
    (["watch", "-n", "many"], "--count"),
    (["members", "--limit", "0"], "--limit"),
    (["members", "--broadcast", "everybody"], "--broadcast: must be an IPv4 address"),
    (["members", "--group", "g" * 255], "--group: must have 1 to 254 bytes"),
    (["members", "--device", "d" * 256], "--device: must have 0 to 255 bytes"),
    (["set", "t" * 256, "k", "v"], "TABLE has more than 255 bytes"),
    (["set", "t", "k" * 4094, "v"], "TABLE and KEY have more than 4094 bytes"),
    (["replay", "-", "--speed", "-1"], "--speed"),
])
def test_wrong_usage_is_told_in_one_line_with_how_to_get_help(arguments, reason):
    told = run(*arguments)

    assert (told.status, told.output) == (2, b"")
    assert re.fullmatch(r"varnix: .*; see 'varnix .*--help'\n", told.errors) and reason in told.errors, told


@programs.only_natively
@pytest.mark.parametrize("name", COMMANDS[1:])
def test_a_group_and_a_database_are_asked_for(name):
    arguments = [name, *ARGUMENTS.get(name, [])]

    no_group, no_database = run(*arguments, VARNIX_GROUP=""), run(*arguments, VARNIX_DATABASE="")

    assert no_group.status == no_database.status == 2
    assert "which group? Give --group or set VARNIX_GROUP" in no_group.errors
    assert "which database? Give --database or set VARNIX_DATABASE" in no_database.errors


@programs.only_natively
@pytest.mark.parametrize("name", COMMANDS)
def test_each_command_has_help_with_an_example_that_is_right(name):
    shown = run(name, "--help")

    assert (shown.status, shown.errors) == (0, "")
    text = shown.output.decode()
    examples = text.partition("Example")[2].splitlines()[1:]
    assert examples and all(re.match(r"  (date \| )?varnix .*\b" + name + r"\b", example) for example in examples)
    for example in examples:  # What follows is wrong usage for sure, so nothing is done.
        words = example.partition("varnix ")[2].partition("#")[0].replace(">", "<").partition("<")[0].split()
        assert "surplus" in run(*words, *(["x"] * 2 if name in ("dump", "watch") else []), "surplus").errors


def test_help_names_every_command():
    shown = run("--help")

    assert (shown.status, shown.errors) == (0, "")
    for name in COMMANDS:
        assert re.search(rf"^  {name} ", shown.output.decode(), re.MULTILINE)


def test_version_is_that_of_the_project():
    shown = run("--version")

    assert (shown.status, shown.errors) == (0, "")
    assert re.fullmatch(rb"varnix \d+\.\d+\.\d+\n", shown.output)


def test_options_stand_before_or_behind_the_command(press):
    row = "press::ctl  status  speed = 42 °C\n".encode()
    wanted = ["-g", "line-4", "-d", "plant", "-b", "127.255.255.255"]
    nothing = {"VARNIX_GROUP": "none", "VARNIX_DATABASE": "none", "VARNIX_BROADCAST": "127.0.0.1"}

    for words in ([*wanted, "dump", "status"], ["dump", "status", *wanted],
                  [*wanted[:2], "dump", *wanted[2:], "status"]):
        assert eventually_shows(row, *words, **nothing)


def test_the_largest_limit_is_one_on_small_machines_too(press):
    assert eventually_shows("press::ctl  status  speed = 42 °C\n".encode(), "dump", "--limit", "65536")


@pytest.mark.parametrize("name", [name for name in COMMANDS if name not in ("watch", "record", "top", "doctor")])
def test_nobody_within_the_time_is_status_3(network, name):
    told = run(name, *ARGUMENTS.get(name, []), "-w", "0.2")

    assert (told.status, told.output) == (3, b"")
    assert re.fullmatch(r'varnix: nobody of group "line-4" with database "plant" was met within 0.2 s; '
                        r"'varnix doctor' says why\n", told.errors)


def test_a_limited_watch_ends_with_status_3_after_the_time_that_is_given(press):
    def shows_the_row(seconds):
        told = run("watch", "-n", "2", "-w", seconds)
        assert told.status == 3
        return (told.output, told.errors) == ("press::ctl  status  speed = 42 °C\n".encode(),
                                              "varnix: only 1 row, asked of 1 member\n")

    assert any(shows_the_row(seconds) for seconds in ("0.7", "3", "10"))  # A busy machine takes its time.


def test_a_limited_watch_where_nobody_is_ends_with_status_3_and_says_so(network):
    told = run("watch", "-n", "2", "-w", "0.2")

    assert (told.status, told.output) == (3, b"")
    assert re.fullmatch(r"varnix: nobody of .* was met within 0.2 s; 'varnix doctor' says why\n", told.errors)


def test_a_watch_goes_on_when_nobody_is_there_and_says_so(network, start):
    watch = start("watch", "-w", "0.2")

    assert watch.says("nobody of .* was met within 0.2 s; looking further")
    assert watch.process.poll() is None


def test_no_route_is_told(network):
    told = run("dump", "-w", "0.2", "-b", "255.255.255.255")

    assert told.status == 3
    assert "cannot announce to 255.255.255.255: Network is unreachable" in told.errors


@pytest.mark.parametrize("name", ["watch", "record"])
def test_an_interrupt_ends_what_lives_well(press, start, name):
    living = start(name, *ARGUMENTS.get(name, []))
    assert living.eventually(lambda: living.lines)

    living.signal(signal.SIGINT)

    assert (living.ends(), living.errors) == (0, "")


def test_other_signals_end_the_process_as_they_do(press, start):
    for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT):
        watch = start("watch")
        assert watch.eventually(lambda: watch.lines)
        watch.signal(number)
        assert watch.ends() == -number


def test_an_interrupt_ends_what_is_not_done_as_signals_do(network, start):
    for arguments in (["dump", "-w", "60"], ["set", "status", "speed", "42", "-w", "60"]):
        running = start(*arguments)
        assert programs.eventually(lambda: takes_interrupts(running.pid))
        running.signal(signal.SIGINT)
        assert running.ends() == -signal.SIGINT


def test_an_interrupt_ends_what_waits_until_its_rows_are_taken(ether, start):
    setting = start("set", "status", "speed", "42", "-w", "60")
    member = wire.connect(ether.port_of_next_announcement())
    member.send(wire.answer(b"line-4", 1))
    assert member.receive_record()[0] == b"plant"
    assert member.receive_record() == (b"\x06statusspeed", b"42")
    assert member.is_closed()  # Its direction; ours stays open, so not all is known to be taken.

    setting.signal(signal.SIGINT)

    assert setting.ends() == -signal.SIGINT
    member.close()


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_a_signal_that_cuts_the_output_off_ends_the_process_as_it_does(press, start, number):
    press.set(b"plant", b"status", b"long", b"x" * 1_000_000)  # More than any pipe takes.

    def is_cut_off():
        reader, writer = os.pipe()
        get = start("get", "status", "long", stdout=writer)
        os.close(writer)
        begun = os.read(reader, 1)  # Nothing, if the member is late because the machine is busy.
        if begun:
            get.signal(number)
            assert get.ends() == -number
        os.close(reader)
        return begun

    assert programs.eventually(is_cut_off)


def test_a_signal_amid_the_last_checks_of_the_doctor_ends_the_process_as_it_does(network, start):
    def is_cut_off(seconds):
        ether = wire.Ether()
        reader, writer = os.pipe()
        fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, 4096)  # Half of what the last checks need.
        doctor = start("doctor", "-w", seconds, stdout=writer)
        os.close(writer)
        ether.receive()  # The doctor has announced itself, so it hears.
        for port in range(1, 41):
            ether.announce(port, b"LINE-4")  # Each looks the same as the group that it looks for.
        ether.socket.close()
        with open(reader, "rb", buffering=0) as shown:
            assert [shown.readline()[:13] for _ in range(2)] == [b"OK      route", b"OK      port "]
            assert shown.read(1)
            doctor.signal(signal.SIGTERM)
            return doctor.ends() == -signal.SIGTERM

    assert any(is_cut_off(seconds) for seconds in ("0.3", "2", "6"))  # A busy machine hears fewer of them.


def takes_interrupts(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        caught = int(re.search(r"^SigCgt:\s+([0-9a-f]+)", status.read(), re.MULTILINE)[1], 16)
    return caught & 1 << (signal.SIGINT - 1)


def test_an_ignored_hang_up_stays_ignored(press, start):
    watch = subprocess.Popen(["nohup", *TOOL, "watch"], env=environment(), stdout=subprocess.PIPE,
                             stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    assert watch.stdout.readline()

    watch.send_signal(signal.SIGHUP)
    press.set(b"plant", b"status", b"speed", b"43")
    assert watch.stdout.readline() == b"press::ctl  status  speed = 43\n"
    watch.send_signal(signal.SIGINT)

    assert watch.wait(programs.DEADLINE) == 0


def test_a_reader_that_has_gone_ends_it_quietly(press, start):
    reader, writer = os.pipe()
    watch = start("watch", stdout=writer)
    os.close(writer)
    assert os.read(reader, 5) == b"press"

    os.close(reader)  # No row comes that could show it.

    assert (watch.ends(), watch.errors) == (0, "")


@programs.only_natively  # Elsewhere one that ends quietly has to do.
@pytest.mark.parametrize("name", [name for name in COMMANDS if name != "top"])  # Which needs a terminal.
def test_a_closed_standard_output_ends_it_quietly(press, name):
    taken = {"set": b"varnix: 1 row taken by 1 member\n", "load": b"varnix: 0 rows taken by 1 member\n"}

    def ends_quietly():
        done = subprocess.run(["sh", "-c", 'exec "$@" >&-', "sh", *TOOL, name, *ARGUMENTS.get(name, [])], input=b"",
                              env=environment(), stderr=subprocess.PIPE, timeout=programs.DEADLINE)
        return (done.returncode, done.stderr) == (0, taken.get(name.replace("replay", "load"), b""))

    assert programs.eventually(ends_quietly) if name in ("set", "load", "replay") else ends_quietly()


@programs.only_natively
@pytest.mark.parametrize("name", ["members", "tables", "dump", "get", "record", "doctor"])
def test_a_pipe_that_nobody_reads_ends_it_quietly(press, name):
    reader, writer = os.pipe()
    os.close(reader)
    done = subprocess.run([*TOOL, name, *ARGUMENTS.get(name, [])], stdout=writer, env=environment(),
                          stderr=subprocess.PIPE, timeout=programs.DEADLINE)
    os.close(writer)

    assert (done.returncode, done.stderr) == (0, b"")


def test_closed_standard_descriptors_are_not_written_to_as_sockets(press):
    done = subprocess.run(["sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh", *TOOL, "set", "status", "mode", "auto"],
                          env=environment(), timeout=programs.DEADLINE)

    assert done.returncode == 0
    assert press.logs(7, "tblsvr.fnd", ".*found peer.*")
    assert not press.errors


def test_a_full_disk_is_told(press):
    with open("/dev/full", "wb") as full:
        done = subprocess.run([*TOOL, "dump"], env=environment(), stdout=full, stderr=subprocess.PIPE,
                              timeout=programs.DEADLINE)

    assert (done.returncode, done.stderr) == (1, b"varnix: cannot write: No space left on device\n")


class Terminal:
    """The command with a terminal for standard output and standard error, or for the latter alone."""

    def __init__(self, *arguments, errors_alone=False, stdin=None, columns=0, **variables):
        self.master, slave = pty.openpty()
        termios.tcsetwinsize(slave, (24, columns))  # Without columns the size is not known.
        self.process = subprocess.Popen([*TOOL, *arguments], stdin=stdin or slave, stderr=slave,
                                        stdout=subprocess.PIPE if errors_alone else slave,
                                        env=environment({"TERM": "xterm", **variables}))
        os.close(slave)

    def shows(self, pattern=None):
        """Everything up to what matches a regular expression, or to the end."""
        shown = b""
        while pattern is None or not re.search(pattern, shown):
            try:
                shown += os.read(self.master, 65536)
            except OSError:  # Nobody has the other end any more.
                os.close(self.master)
                assert pattern is None, shown
                break
        return shown


def test_colours_are_for_terminals(press):
    coloured = "\x1b[36mpress::ctl\x1b[0m  \x1b[33mstatus\x1b[0m  \x1b[1mspeed\x1b[0m = 42 °C\r\n".encode()
    plain = "press::ctl  status  speed = 42 °C\r\n".encode()
    for shown, variables in ((coloured, {}), (plain, {"NO_COLOR": "1"}), (plain, {"TERM": "dumb"})):
        assert programs.eventually(lambda: Terminal("dump", **variables).shows() == shown)


def test_a_terminal_that_knows_no_utf_8_gets_ascii(press):
    shown = b"press::ctl  status  speed = 42 \\xc2\\xb0C\r\n"
    assert programs.eventually(lambda: Terminal("dump", NO_COLOR="1", LC_ALL="C").shows() == shown)


def test_what_takes_longer_than_a_second_shows_its_progress_on_a_terminal(network):
    searching = Terminal("dump", "-w", "2.5", errors_alone=True)

    shown = searching.shows().decode()

    assert searching.process.wait(programs.DEADLINE) == 3
    assert re.search(r'Looking for members of group "line-4" with database "plant": 0 met, [12] s', shown), shown
    assert re.search(r"\r\x1b\[Kvarnix: nobody of group [^\r]*\r\n$", shown), shown


def test_progress_stays_in_one_line_of_the_terminal_with_its_numbers(network):
    searching = Terminal("dump", "-w", "2.5", "-g", "line-4 " + "é" * 100, errors_alone=True, columns=70)

    lines = searching.shows().decode().split("\r\x1b[K")[1:-1]

    assert searching.process.wait(programs.DEADLINE) == 3
    shown = 'Looking for members of group "line-4 é+: 0 met, [0-9]+ s, 0 rows'
    assert lines and all(re.fullmatch(shown, line) and len(line) == 69 for line in lines), lines


def test_a_long_dump_into_a_file_shows_its_progress(ether, late_press):
    dump = Terminal("dump", "-w", "50", errors_alone=True)
    silent = wire.connect(ether.port_of_next_announcement())
    share(late_press)  # Only now, since a dump ends after a pause once it has met somebody.

    dump.shows(rb'\r\x1b\[KLooking for members of group "line-4" with database "plant": 1 met, [0-9]+ s, 1 row')
    silent.close()

    assert dump.shows().endswith(b"\r\x1b[K")
    assert dump.process.communicate()[0] == "press::ctl  status  speed = 42 °C\n".encode()
    assert dump.process.returncode == 0


def test_load_and_replay_show_their_progress_on_a_terminal(press, tmp_path):
    recording = tmp_path / "recording"
    recording.write_bytes(b'{"time":"2026-11-22T04:17:29Z","table":"status","key":"mode","value":"auto"}\n'
                          b'{"time":"2026-11-22T04:17:31Z","table":"status","key":"mode","value":"off"}\n')
    reader, writer = os.pipe()
    load, replay = Terminal("load", errors_alone=True, stdin=reader), Terminal("replay", str(recording))
    os.close(reader)
    os.write(writer, b'{"table":"status","key":"speed","value":"43"}\n')

    load.shows(rb"\r\x1b\[K1 row, 1 member connected")
    replay.shows(rb"\r\x1b\[K1 row, 1 member connected")
    os.close(writer)

    for setting in (load, replay):
        assert setting.shows().endswith(b"\r\x1b[Kvarnix: 1 row taken by 1 member\r\n")
        assert setting.process.wait(programs.DEADLINE) == 0
        setting.process.stdout and setting.process.stdout.close()


def test_no_progress_is_shown_to_a_file(network):
    assert run("dump", "-w", "1.5").errors.count("\n") == 1


def test_a_watch_that_ends_leaves_no_error_in_the_logs_of_members(network, make_host, start):
    hosts = [make_host("--default-log") for _ in range(5)]  # Its log shows errors.
    for number, host in enumerate(hosts):
        host.watch(b"plant", b"status")
        host.set(b"plant", b"status", b"%d" % number, b"1")
        host.share(b"plant", b"line-4", b"press", b"%d" % number)
    watch = start("watch")
    assert watch.eventually(lambda: len(watch.lines) >= len(hosts))
    time.sleep(1.1)  # To a stream that has lasted a second members connect again at once when it ends.

    watch.signal(signal.SIGINT)

    assert watch.ends() == 0
    another = make_host("--default-log")
    another.set(b"plant", b"status", b"speed", b"42")
    share(another)
    for host in hosts:  # By the time that they have met another, they have tried to connect again.
        assert host.gets_row(b"plant", b"status", b"speed", b"42")
        assert host.errors == []
