# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The conversations in conversations/ (see the README.md there), replayed against a process with the real library."""

import ast
import pathlib
import re
import struct

import pytest

import wire

FOLDER = pathlib.Path(__file__).parent / "conversations"
CONVERSATIONS = sorted(path.stem for path in FOLDER.glob("*.txt"))
assert CONVERSATIONS, f"nothing in {FOLDER}"

PIECE = re.compile(r"(\[host\]|\[peer\])|([0-9a-f]{2})(?:\*([0-9]+))?")
WORD = re.compile(r'("(?:[^"\\]|\\.)*")(?:\*([0-9]+))?')


def lines_of(conversation):
    """(what it says, its comment) for each line."""
    for line in (FOLDER / f"{conversation}.txt").read_text(encoding="ascii").splitlines():
        said, _, comment = line.partition("#")
        yield said.strip(), comment.strip()


def words_in(text):
    words = [ast.literal_eval("b" + quoted) * int(count or 1) for quoted, count in WORD.findall(text)]
    assert WORD.sub("", text).strip() == "", text
    return words


def bytes_in(text, ports):
    pieces = []
    for token in text.split():
        port, byte, count = PIECE.fullmatch(token).groups()
        pieces.append(struct.pack(">H", ports[port]) if port else bytes.fromhex(byte) * int(count or 1))
    return b"".join(pieces)


class Replay:
    def __init__(self, host, ether):
        self.host, self.ether, self.listener = host, ether, wire.Listener()
        self.ports = {"[peer]": self.listener.port}
        self.connections = {}
        self.rows = []

    def play(self, line):
        subject, _, rest = line.partition(" ")
        if subject == "do":
            self.call(*rest.split(" ", 1))
        elif subject == "row":
            self.await_row(words_in(rest))
        elif subject == "udp":
            side, _, text = rest.partition(" ")
            {"host": self.hear, "peer": self.announce}[side](text)
        else:
            self.converse(int(subject), *rest.split(" ", 1))

    def call(self, command, text=""):
        words = words_in(text)
        if command == "network-changed":
            self.host.do(command)
        else:
            {"share": self.host.share, "set": self.host.set, "watch": self.host.watch}[command](*words)

    def await_row(self, words):
        assert self.host.gets_row(*words), words
        self.rows.append(words)

    def hear(self, text):
        datagram, (_, port) = self.ether.socket.recvfrom(65536)
        if text.startswith("[host]"):
            self.ports["[host]"], = struct.unpack(">H", datagram[:2])
        assert datagram == bytes_in(text, self.ports)
        assert port == 1975

    def announce(self, text):
        datagram = bytes_in(text, self.ports)
        self.ether.send(datagram)
        assert self.ether.receive() == datagram  # All who listen hear it, us too.

    def converse(self, number, side, action):
        if action == "connects":
            assert number not in self.connections
            connect = {"host": self.listener.accept, "peer": lambda: wire.connect(self.ports["[host]"])}[side]
            self.connections[number] = connect()
        elif action == "closes":
            assert side == "host"
            assert self.connections.pop(number).is_closed()
        elif side == "peer":
            self.connections[number].send(bytes_in(action, self.ports))
        else:
            assert side == "host"
            expected = bytes_in(action, self.ports)
            assert self.connections[number].receive(len(expected)) == expected

    def nothing_is_left(self):
        """The host has ended: it has said and reported what was expected, and nothing else."""
        assert [number for number, connection in self.connections.items() if not connection.is_closed()] == []
        self.listener.socket.settimeout(0)
        with pytest.raises(BlockingIOError):
            self.listener.accept()
        self.ether.socket.settimeout(0)
        with pytest.raises(BlockingIOError):
            self.ether.receive()
        assert sorted(self.host.events) == sorted(
            "row " + " ".join(word.hex() or "-" for word in words) for words in self.rows)

    def close(self):
        self.listener.close()
        for connection in self.connections.values():
            connection.close()


@pytest.fixture
def replay(ether, make_host):
    made = Replay(make_host(), ether)
    yield made
    made.close()


@pytest.mark.parametrize("conversation", CONVERSATIONS)
def test_a_recorded_conversation_is_still_spoken(conversation, replay):
    for line, _ in lines_of(conversation):
        if line:
            replay.play(line)

    assert replay.host.ends() == 0
    replay.nothing_is_left()


@pytest.mark.parametrize("conversation", CONVERSATIONS)
def test_the_comments_of_a_conversation_quote_its_bytes(conversation):
    explained = [(line.split()[2:], re.findall(r'"(.*?)"', comment))
                 for line, comment in lines_of(conversation) if line and comment]

    for tokens, quotes in explained:
        content = bytes_in(" ".join(tokens), {"[host]": 0, "[peer]": 0})
        assert [quote for quote in quotes if quote.encode() not in content] == [], tokens
