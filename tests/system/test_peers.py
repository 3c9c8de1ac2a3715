# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""What a process is told of the members it receives from, and how it stops sharing."""

import re
import time

import namespaces
import programs

GONE_AFTER_A_CUT = 4  # Seconds, by TCP's keepalive.
MARGIN = 60  # For a busy machine.


def peers(host):
    """The last value of each row of the peer table of `plant`."""
    rows = [event.split()[2:] for event in list(host.events) if event.startswith("peer " + b"plant".hex() + " ")]
    return {bytes.fromhex(key).decode(): "" if value == "-" else bytes.fromhex(value).decode() for key, value in rows}


def watch_peers(host):
    host.do("watch-peers", b"plant".hex())


def stop_sharing(host):
    host.do("stop-sharing", b"plant".hex())


def is_met(host, name):
    return host.eventually(lambda: re.fullmatch(r"127\.0\.0\.1:[1-9][0-9]*", peers(host).get(name, "")))


def is_gone(host, name, seconds=MARGIN):
    return host.eventually(lambda: peers(host).get(name) == "", seconds)


def streams_from(host, name):
    """By what its log has told until now, the streams that it receives from that peer."""
    streams = set()
    for _, tag, text in list(host.log):
        stream, _, rest = text.partition(" ")
        if (tag, rest) == ("tblrcvr.gotuid", f"got uid: {name}"):
            streams.add(stream)
        elif tag == "tblrcvr.dtor":
            streams.discard(stream)
    return streams


def test_a_peer_is_shown_while_it_is_received_from(network, make_host):
    press, pump = make_host(), make_host()
    watch_peers(press)  # Before it is shared.
    press.share(b"plant", b"line-4", b"press")
    assert peers(press) == {}

    pump.share(b"plant", b"line-4", b"pump", b"ctl")
    assert is_met(press, "pump::ctl")

    pump.kill()
    assert is_gone(press, "pump::ctl")
    again = make_host()
    again.share(b"plant", b"line-4", b"pump", b"ctl")
    assert is_met(press, "pump::ctl")
    assert set(peers(press)) == {"pump::ctl"}


def test_a_table_that_is_asked_for_late_shows_who_is_there(network, make_host):
    press, pump, valve = make_host(), make_host(), make_host()
    press.watch(b"plant", b"state")
    for host, name in (press, b"press"), (pump, b"pump"), (valve, b"valve"):
        host.share(b"plant", b"line-4", name)
    for host, name in (pump, b"pump"), (valve, b"valve"):
        host.set(b"plant", b"state", name, b"on")
        assert press.gets_row(b"plant", b"state", name, b"on")
    assert press.eventually(lambda: streams_from(press, "valve::p"))
    valve.kill()
    assert press.eventually(lambda: not streams_from(press, "valve::p"))

    watch_peers(press)

    assert is_met(press, "pump::p")
    assert set(peers(press)) == {"pump::p"}


def test_a_peer_whose_network_is_cut_is_shown_as_gone(make_namespace, make_host):
    left, right = make_namespace(), make_namespace()
    namespaces.connect(left, right)
    hosts = []
    for number, place in enumerate((left, right)):
        place.ip(f"address add 10.1.1.{number + 1}/24 broadcast 10.1.1.255 dev eth0")
        with place:
            hosts.append(make_host())
    press, pump = hosts
    watch_peers(press)
    press.share(b"plant", b"line-4", b"press", address="10.1.1.255")
    pump.share(b"plant", b"line-4", b"pump", address="10.1.1.255")
    assert press.eventually(lambda: peers(press).get("pump::p", "").startswith("10.1.1.2:"))

    right.ip("link set eth0 down")
    cut = time.monotonic()

    assert is_gone(press, "pump::p", GONE_AFTER_A_CUT + MARGIN)
    programs.figure("a cut is told after", round(time.monotonic() - cut, 1), "s")
    right.ip("link set eth0 up")


def test_who_stops_sharing_is_gone_and_comes_back_when_it_shares_again(network, make_host):
    press, pump = make_host(), make_host()
    pump.watch(b"plant", b"state")
    for host, name in (press, b"press"), (pump, b"pump"):
        watch_peers(host)
        host.share(b"plant", b"line-4", name)
    assert is_met(press, "pump::p") and is_met(pump, "press::p")

    stop_sharing(press)
    press.do("group", b"plant".hex())
    assert "group none" in press.events
    assert peers(press) == {"pump::p": ""} or is_gone(press, "pump::p")
    assert is_gone(pump, "press::p")
    press.set(b"plant", b"state", b"set", b"meanwhile")

    press.share(b"plant", b"line-4", b"press")
    assert is_met(pump, "press::p")
    assert pump.gets_row(b"plant", b"state", b"set", b"meanwhile")


def test_stopping_what_is_not_shared_does_nothing_and_makes_no_database(network, make_host):
    press = make_host()
    press.do("watch-databases")

    stop_sharing(press)
    press.do("stop-sharing", b"made".hex())
    press.set(b"made", b"t", b"k", b"v")
    press.do("stop-sharing", b"made".hex())

    assert press.eventually(lambda: "database " + b"made".hex() + " -" in press.events)
    assert [event for event in press.events if event.startswith("database ")] == ["database " + b"made".hex() + " -"]
