# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The screen of `varnix top`, in a terminal of tmux."""

import os
import random
import re
import shlex
import signal
import subprocess

import pytest

import fakes
import programs
import wire
from command import TOOL, environment, run

STATUS = b"status"


class Terminal:
    """A shell in a terminal of its own. What it shows is what a person would see."""

    def __init__(self, width=80, height=24):
        self._name = f"varnix-{os.getpid()}-{id(self)}"
        self._tmux("-f", "/dev/null", "new-session", "-d", "-x", str(width), "-y", str(height),
                   "bash", "--norc", "--noprofile")
        self.type("PS1='$ '; clear", "Enter")
        assert self.shows(r"\A\$ *\n")

    def _tmux(self, *words):
        return subprocess.run(["tmux", "-L", self._name, *words], env=environment(), check=True, text=True,
                              stdout=subprocess.PIPE).stdout

    def type(self, *keys):
        self._tmux("send-keys", *keys)

    def run(self, *words):
        self.type("-l", shlex.join(words))
        self.type("Enter")

    def screen(self):
        return self._tmux("capture-pane", "-p")

    def shows(self, pattern, seconds=programs.DEADLINE):
        return programs.eventually(lambda: re.search(pattern, self.screen(), re.MULTILINE), seconds)

    def state(self):
        """Of the terminal: what is switched on."""
        self.type("clear; stty -a; echo done", "Enter")
        assert self.shows("^done$")
        flags = self._tmux("display-message", "-p", "#{alternate_on} #{cursor_flag} #{insert_flag} #{keypad_flag} "
                                                    "#{keypad_cursor_flag} #{wrap_flag}")
        return self.screen().replace("rows", "").split("done")[0], flags

    def resize(self, width, height):
        self._tmux("resize-window", "-x", str(width), "-y", str(height))

    def _children(self):
        """Of the shell."""
        shell = self._tmux("display-message", "-p", "#{pane_pid}").strip()
        found = subprocess.run(["ps", "-o", "pid=", "--ppid", shell], text=True, stdout=subprocess.PIPE).stdout
        return [int(line) for line in found.splitlines()]

    def signal(self, number):
        child, = self._children()
        os.kill(child, number)

    def close(self):
        """Also while the command is put aside."""
        for pid in self._children():
            os.kill(pid, signal.SIGKILL)
        self._tmux("kill-server")


@pytest.fixture
def terminal(network):
    opened = Terminal()
    yield opened
    opened.close()


SCREEN = """\
 varnix  line-4/plant  2 members  3 tables  4 rows  -/s
MEMBER                 ADDRESS               TABLES     ROWS     BYTES   ROWS/S
press::ctl             (address)                  2        3        21        -
pump::ctl              (address)                  1        1         9        -
MEMBER                 TABLE                            ROWS     BYTES   ROWS/S
press::ctl             log                                 1         4        -
press::ctl             status                              2        17        -
pump::ctl              status                              1         9        -
MEMBER            TABLE        KEY              ROWS/S  AGE   VALUE
pump::ctl         status       valve                 -  (age) open
press::ctl        log          x\\x00y                -  (age) 1
press::ctl        status       mode                  -  (age) auto
press::ctl        status       speed                 -  (age) 42°
""" + 10 * "\n" + """\
 q quit  s sort: last change  / filter  Tab parts  Space stop  Up Down scroll
"""


def steady(screen):
    """Without what differs from run to run."""
    screen = re.sub(r"127\.0\.0\.1:\d+ *", lambda address: "(address)".ljust(len(address[0])), screen)
    return re.sub(r" +\d+s   ", "  (age) ", screen)


def test_the_screen_shows_members_tables_and_rows(terminal, share):
    share(b"press", [(STATUS, b"speed", "42°".encode()), (STATUS, b"mode", b"auto"), (b"log", b"x\0y", b"1")])
    terminal.run(*TOOL, "top")
    assert terminal.shows("3 rows")

    share(b"pump", [(STATUS, b"valve", b"open")])

    assert terminal.shows("4 rows")
    assert steady(terminal.screen()) == SCREEN


@pytest.fixture
def top(terminal, share):
    """The screen with a member of two tables and ten rows."""
    terminal.member = share(b"press", [(STATUS, b"key %d" % number, b"%d" % number) for number in range(9)] +
                            [(b"log", b"today", b"nothing")])
    terminal.run(*TOOL, "top")
    assert terminal.shows("10 rows")
    return terminal


def shown_keys(terminal):
    return re.findall(r"^press::ctl +(?:status|log) +(key \d|today) ", terminal.screen(), re.MULTILINE)


def test_rows_are_sorted_by_their_last_change_their_rate_or_their_name(top):
    by_change = ["today"] + [f"key {number}" for number in range(8, -1, -1)]
    assert shown_keys(top) == by_change
    for size in range(10, 15):
        top.member.set(b"plant", STATUS, b"key 4", b"x" * size)
        assert top.member.logs(7, "tblsndr.strm", rf".*key 4.*\({size} bytes.*")  # Else the next one overtakes it.
    top.member.set(b"plant", STATUS, b"key 2", b"again")
    assert programs.eventually(lambda: shown_keys(top)[:2] == ["key 2", "key 4"])

    top.type("s")
    assert top.shows("sort: rate") and programs.eventually(lambda: shown_keys(top)[:2] == ["key 4", "key 2"])
    top.type("s")
    assert top.shows("sort: name") and shown_keys(top) == ["today"] + [f"key {number}" for number in range(9)]
    top.type("s")
    assert top.shows("sort: last change")


def test_a_filter_leaves_rows_and_tables_that_have_it_in_their_name(top):
    top.type("/", "T", "O", "D")
    assert top.shows("filter: TOD_")
    assert programs.eventually(lambda: shown_keys(top) == ["today"])
    assert len(re.findall(r"^press::ctl +(status|log) +\d", top.screen(), re.MULTILINE)) == 1

    top.type("BSpace", "BSpace", "BSpace", "8", "Enter")
    assert top.shows("/ filter: 8 ") and shown_keys(top) == ["key 8"]
    top.type("Escape")
    assert programs.eventually(lambda: len(shown_keys(top)) == 10)


def test_what_is_stopped_does_not_change_until_it_goes_on(top):
    top.type("Space")
    assert top.shows("STOPPED")

    top.member.set(b"plant", STATUS, b"key 0", b"unseen")
    top.member.set(b"plant", STATUS, b"key 1", b"unseen")
    assert top.member.logs(7, "tblsndr.strm", ".*key 1.*6 bytes.*")
    top.type("s")
    assert top.shows("sort: rate") and "unseen" not in top.screen()
    top.type("Space")

    assert top.shows("key 0 .* unseen") and "STOPPED" not in top.screen()


def test_parts_are_shown_alone_and_scroll(top):
    top.resize(80, 8)
    top.type("Tab")
    assert top.shows(r"\A.*\nMEMBER +ADDRESS") and "KEY" not in top.screen()
    top.type("Tab")
    assert top.shows(r"\A.*\nMEMBER +TABLE +ROWS")
    top.type("Tab")
    assert top.shows(r"\A.*\nMEMBER +TABLE +KEY")

    assert len(shown_keys(top)) == 5
    top.type("Down", "Down")
    assert programs.eventually(lambda: shown_keys(top) == [f"key {number}" for number in range(7, 2, -1)])
    top.type("NPage", "NPage", "NPage")
    assert programs.eventually(lambda: shown_keys(top) == [f"key {number}" for number in range(4, -1, -1)])
    top.type("PPage", "Up")
    assert programs.eventually(lambda: shown_keys(top)[0] == "today")


def test_it_takes_every_size_of_the_terminal(top):
    for width, height in ((200, 60), (20, 5), (2, 2), (80, 3), (79, 24), (80, 24)):
        top.resize(width, height)
    assert top.shows("10 rows") and top.shows("key 0 ")
    assert all(len(line) <= 80 for line in top.screen().splitlines())


def test_a_member_that_leaves_is_gone_from_the_screen(top):
    assert top.member.ends() == 0

    assert top.shows("0 members  0 tables  0 rows")


@pytest.mark.parametrize("end, status", [
    ("q", 0), ("C-c", 0), (signal.SIGINT, 0), (signal.SIGTERM, 143), (signal.SIGHUP, 129), (signal.SIGQUIT, 131)])
def test_the_terminal_is_left_as_it_was(terminal, end, status):
    before = terminal.state()
    terminal.type("clear", "Enter")
    terminal.run(*TOOL, "top")
    assert terminal.shows("0 members") and terminal.shows("q quit")

    if isinstance(end, str):
        terminal.type(end)
    else:
        terminal.signal(end)

    assert programs.eventually(lambda: terminal.screen().rstrip().endswith("\n$"))  # Else it may take what is typed.
    terminal.type("echo status $?", "Enter")
    assert terminal.shows(f"^status {status}$")
    assert "q quit" not in terminal.screen()
    assert terminal.state() == before


def is_put_aside(top, seconds):
    top.type("C-z")
    return top.shows("Stopped", seconds)


def test_it_can_be_put_aside_and_taken_up_again(top):
    # The emulator seems to lose a signal to stop now and then.
    assert programs.eventually(lambda: is_put_aside(top, 10 if programs.EMULATOR else programs.DEADLINE))
    assert "icanon" in top.state()[0].replace("-icanon", "")

    top.type("fg", "Enter")
    assert top.shows("q quit") and top.shows("key 0 ")
    top.type("q")
    assert top.shows(r"^\$ *$")


def test_no_route_is_told_on_the_screen(terminal):
    terminal.run(*TOOL, "top", "-b", "255.255.255.255")

    assert terminal.shows("cannot announce to 255.255.255.255: Network is unreachable")


def test_names_that_a_terminal_would_obey_are_shown(terminal, ether, fake):
    terminal.run(*TOOL, "top")
    ether.receive()

    def behave(connected):
        connected.sendall(wire.hello(b"plant", b"\x1b[2J\x9b", b"\xff\n") +
                          wire.record(b"\x05\x1b]0;xkey\x07", b"\x1b[31m\r\n\xc2\x9b2J"))
        fakes.wait_for_end(connected)

    fake(behave).announce(ether)

    assert terminal.shows(r"^\\x1b\[2J\\x9b::~ +\\x1b\]0;x +key\\x07 .* \\x1b\[31m\\x0d\\x0a~$")


def test_random_bytes_are_no_harm(terminal, ether, fake, share):
    print("seed", programs.SEED)
    source = random.Random(programs.SEED)

    def babble(connected):
        own = random.Random(source.random())
        connected.sendall(wire.hello(b"plant", own.randbytes(own.randrange(30)), own.randbytes(30)))
        while own.random() < 0.95:
            key = b"\x04" + own.randbytes(own.randrange(30))
            connected.sendall(wire.record(key, own.randbytes(own.randrange(100))))
        while own.random() < 0.95:
            connected.sendall(own.randbytes(own.choice((1, 4, 100, 10_000))))
        fakes.wait_for_end(connected)

    babblers = [fake(babble) for _ in range(20)]
    terminal.resize(80, 60)
    terminal.run(*TOOL, "top")
    ether.receive()  # It has announced itself, so it hears.
    for babbler in babblers:
        babbler.announce(ether)
    assert programs.eventually(lambda: all(babbler.visits for babbler in babblers))

    share(b"press", [(STATUS, b"speed", b"42")])
    terminal.type("/", "p", "r", "e", "s", "s", "Enter")  # The rows of the others may be newer.

    assert terminal.shows("^press::ctl +status +speed .* 42$")
    assert terminal.shows("^ q quit .* filter: press ")
    lines = terminal.screen().splitlines()
    assert (len(lines), sum(line.startswith("MEMBER ") for line in lines)) == (60, 3)
    assert lines[0].startswith(" varnix  line-4/plant  ") and lines[-1].startswith(" q quit ")
    terminal.type("q")
    assert terminal.shows(r"^\$ *$")


def test_what_it_keeps_leaves_half_of_the_limit_for_a_screen_that_is_stopped(terminal, ether, fake):
    terminal.run(*TOOL, "top", "--limit", "1")
    ether.receive()

    def behave(connected):
        connected.sendall(wire.hello(b"plant", b"fake", b"ctl") +
                          b"".join(wire.record(b"\x06statuskey %d" % number, b"x" * 100) for number in range(3_000)))
        fakes.wait_for_end(connected)

    fake(behave).announce(ether)  # With 0.8 MB.

    assert terminal.shows("fake::ctl at 127.0.0.1:[0-9]+ sends more than --limit allows: left out")


def test_who_is_left_out_for_a_name_that_is_too_long_is_told(terminal, ether, fake):
    terminal.run(*TOOL, "top")
    ether.receive()

    def behave(connected):
        connected.sendall(wire.record(b"plant", b"\x04fake" + b"x" * 5_000))
        fakes.wait_for_end(connected)

    fake(behave).announce(ether)

    assert terminal.shows("^ *127.0.0.1:[0-9]+ has a name of more than 4351 bytes: left out")


def test_it_needs_a_terminal_that_can_show_a_screen(terminal):
    assert (run("top").status, run("top").errors) == (1, "varnix: top needs a terminal\n")
    terminal.run("sh", "-c", shlex.join([*TOOL, "top"]) + " < /dev/null")
    assert terminal.shows("^varnix: top needs a terminal")

    terminal.run("env", "TERM=unheard-of", *TOOL, "top")

    assert terminal.shows("^varnix: this terminal cannot show a screen; TERM names its kind")


def test_without_a_terminal_nothing_is_announced(ether):
    assert run("top").status == 1

    ether.send(b"all that was sent")
    assert ether.receive() == b"all that was sent"
