# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Processes that use the library, recorded on the loopback interface of a namespace."""

import pathlib
import re
import signal
import socket
import struct
import tempfile

import namespaces
import programs
import tshark


class Recorder:
    """Records what passes `lo`, from its construction to stop(), into a pcap file."""

    MARKER = b"The last packet of this recording."

    def __init__(self, path):
        self._path = pathlib.Path(path)
        self._dumpcap = tshark.start("dumpcap", "-q", "-p", "-P", "-i", "lo", "-B", "32", "-w", path, stderr=-1)
        heard = b""
        while b"File: " not in heard:  # It is said when the interface is open.
            line = self._dumpcap.stderr.readline()
            assert line, heard
            heard += line

    def stop(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as ear:
            ear.bind(("127.0.0.1", 0))
            ear.sendto(self.MARKER, ear.getsockname())
            assert programs.eventually(lambda: self.MARKER in self._path.read_bytes())
        self._dumpcap.send_signal(signal.SIGINT)
        said = self._dumpcap.communicate()[1].decode()
        assert self._dumpcap.returncode == 0, said
        assert re.search(r"received/dropped on interface 'Loopback: lo': \d+/0 ", said), said

    def close(self):
        if self._dumpcap.poll() is None:
            self._dumpcap.kill()
            self._dumpcap.communicate()


def without_marker(capture):
    """The recording but for its last packet."""
    packets, at = [capture[:24]], 24
    while at < len(capture):
        size, = struct.unpack_from("<I", capture, at + 8)
        packets.append(capture[at:at + 16 + size])
        at += 16 + size
    assert packets.pop().endswith(Recorder.MARKER)
    return b"".join(packets)


def share_rows(rows, make_host):
    """A member for each device sets its (table, key, value) rows, half of them before it shares, and gets those of all.
    Returns their hosts."""
    all_rows = [row for rows_of_one in rows.values() for row in rows_of_one]
    hosts = {device: make_host() for device in rows}
    for device, host in hosts.items():
        for table in {table for table, _, _ in all_rows}:
            host.watch(b"plant", table)
        for row in rows[device][::2]:
            host.set(b"plant", *row)
        host.share(b"plant", b"line-4", device, b"ctl")
    for device, host in hosts.items():
        for row in rows[device][1::2]:
            host.set(b"plant", *row)
    for host in hosts.values():
        assert all(host.gets_row(b"plant", *row) for row in all_rows)
    return hosts.values()


def record(path):
    """Two members, with rows of every kind, as the kept capture has them. An empty value leaves with the next row."""
    rows = {
        b"press": [(b"status", b"speed", b"42"), (b"status", b"empty", b""), (b"", b"", b"no names"),
                   (b"status", b"\xff\x00\n", b"\\ \xc3\xa4 \xe4")],
        b"pump-\xfe": [(b"cfg", b"rate", b"50"), (b"cfg", b"mode", b"on")],
    }
    assert namespaces.why_unavailable() is None, namespaces.why_unavailable()
    with tempfile.TemporaryDirectory() as folder, namespaces.Namespace():
        recorder = Recorder(f"{folder}/recorded.pcap")
        for host in share_rows(rows, programs.Host):
            assert host.clean_up() == 0
        recorder.stop()
        path.write_bytes(without_marker(pathlib.Path(f"{folder}/recorded.pcap").read_bytes()))
