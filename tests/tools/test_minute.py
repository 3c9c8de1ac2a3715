# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""What needs the announcement that each member makes once a minute: it takes one."""

import json
import re

import pytest

import cables


@pytest.fixture
def share(ether, make_host):
    """Starts a member, and waits until nobody hears its first announcement any more."""
    def start_one(device, database):
        host = make_host()
        host.set(database, b"status", b"speed", b"42")
        host.share(database, b"line-4", device, b"ctl")
        ether.receive()
        return host
    return start_one


def test_a_minute_hears_everybody(share, start, make_namespace, make_host):
    share(b"press", b"plant")
    share(b"pump", b"store")
    here, there = make_namespace(), make_namespace()
    cables.lay(here, there)
    cables.drop(there, "output", "udp dport 1975")
    with there:
        make_host().share(b"plant", b"line-4", b"valve", b"ctl", "0.0.0.0")

    with here:
        elsewhere = start("doctor", "--json", "-w", "61", VARNIX_BROADCAST="255.255.255.255")
    doctor = start("doctor", "--json", "-w", "61")
    members = start("members", "--json", "--passive", VARNIX_DATABASE="")  # It takes 61 seconds by itself.

    assert (doctor.ends(120), doctor.errors) == (0, "")
    found = {finding["check"]: finding["seen"] for finding in map(json.loads, doctor.lines)}
    assert found["database"].startswith('1 member with "plant"; other databases: "store" of pump::ctl at 127.0.0.1:')
    assert found["heard"] == "1 member announced themselves"
    assert (members.ends(), members.errors) == (0, "")
    heard = {(member["device"], member["database"]) for member in map(json.loads, members.lines)}
    assert heard == {("press", "plant"), ("pump", "store")}  # And not the doctor.
    assert (elsewhere.ends(120), elsewhere.errors) == (1, "")
    fault, = (finding for finding in map(json.loads, elsewhere.lines) if finding["result"] == "FAILED")
    assert fault["check"] == "heard"
    assert re.fullmatch(r"valve::ctl at 10\.1\.1\.2:\d+ did not announce themselves to us within a minute",
                        fault["seen"])
    assert fault["log"] == "on this device's members no tblrcvr.ctor of those"
