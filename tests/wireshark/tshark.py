# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""What tshark makes of a capture with the dissector of this source."""

import os
import pathlib
import re
import resource
import subprocess
import tempfile

DISSECTOR = pathlib.Path(os.environ["VARNIX_DISSECTOR"])
# As in Wireshark, a second pass shows what the first one has learnt. Without a filter the first one makes no tree.
TWICE = ["-2", "-Y", "frame"]
ADDRESS_SPACE = 4 << 30  # Bytes. What hostile bytes could make the dissector take is more than the machine has.


def start(*arguments, home=None, **keywords):
    """A program of Wireshark's, without a user's settings."""
    own_home = None if home else tempfile.TemporaryDirectory()
    environment = {"PATH": os.environ["PATH"], "HOME": str(home or own_home.name), "LC_ALL": "C.UTF-8", "TZ": "UTC"}
    process = subprocess.Popen([str(word) for word in arguments], env=environment, **keywords)
    resource.prlimit(process.pid, resource.RLIMIT_AS, (ADDRESS_SPACE, ADDRESS_SPACE))
    process.home = own_home  # Removed with the process.
    return process


def run(capture, *options):
    return start("tshark", "-X", f"lua_script:{DISSECTOR}", "-n", "-r", capture, *options, stdout=subprocess.PIPE,
                 stderr=subprocess.PIPE)


def output(process):
    shown, complaints = process.communicate()
    assert process.returncode == 0, complaints.decode()
    assert b"lua" not in complaints.lower(), complaints.decode()
    wrong = [line for line in shown.splitlines() if b"Lua Error" in line or b"Dissector bug" in line]
    assert wrong == []
    return shown.decode()


def protocol_fields():
    """What can be filtered by: each field's name, type and label."""
    listing_all = start("tshark", "-G", "fields", "-X", f"lua_script:{DISSECTOR}", stdout=subprocess.PIPE,
                        stderr=subprocess.DEVNULL)
    ours = [line.decode() for line in listing_all.communicate()[0].splitlines() if b"\tvarnix\t" in line]
    return sorted("{2} {3}: {1}".format(*line.split("\t")) for line in ours if line.startswith("F\t"))


def fields(capture, names, *options):
    """For each packet the values of each field, in their order. A field that is not there looks like an empty one."""
    shown = output(run(capture, *options, "-T", "fields", "-E", "separator=/t", "-E", "aggregator=\x01",
                       *(word for name in names for word in ("-e", name))))
    return [[column.split("\x01") for column in line.split("\t")] for line in shown.removesuffix("\n").split("\n")]


def bytes_of(text):
    """The byte string that is shown as this text."""
    return re.sub(rb"\\(?:x([0-9a-f]{2})|\\)", lambda found: bytes.fromhex((found[1] or b"5c").decode()), text.encode())


SUMMARY = re.compile(r" *(\d+) +[\d.]+ \S* ? *\S+ → \S+ +(\S+) \d+ (.*)")


def listing(capture, *options):
    """Each packet in a line, and below it the dissector's trees as a person sees them. What other protocols say differs
    from version to version; of it is here what the dissector adds."""
    lines, is_ours, expert = [], False, None
    for line in output(run(capture, *options, "-P", "-V", "-O", "varnix")).splitlines():
        indent = len(line) - len(line.lstrip())
        summary = SUMMARY.fullmatch(line)
        if summary:
            number, protocol, info = summary.groups()
            ours = info if protocol == "Varnix" else info[info.find("[Varnix"):] if "[Varnix" in info else ""
            lines.append(f"{number} {protocol}" + (f": {ours}" if ours else ""))
        elif indent == 0:
            is_ours = line.startswith("Varnix")
        if expert is not None and indent <= expert:
            expert = None
        if is_ours and line and not summary and expert is None:
            lines.append(f"    {line}".rstrip())
            expert = indent if "[Expert Info" in line else None  # Below it there is the same in pieces.
    return lines
