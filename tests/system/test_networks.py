# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Networks of several hosts that are cut and healed while everybody writes."""

import itertools
import random
import re
import subprocess
import time

import pytest

import namespaces
import programs
from programs import SEED, SOAK

HOSTS = 12 if SOAK else 4
CUTS = 80  # In the long form: within an hour.
SECONDS = [0.5, 2, 10, 60]

# The schedule of the protocol, in seconds.
GIVEN_UP = 4  # A peer that falls silent is.
ATTEMPT = 5  # To connect.
PAUSE = 2  # After an attempt that fails at once.
PERIOD = 30  # Of attempts, from an announcement on,
LASTING = 9  # or from the end of a stream that lasted so long.
ANNOUNCEMENT = 60
ABOUT = 1  # How early or late a timer of TCP may be.
REACHED_AGAIN = GIVEN_UP + 2 * ATTEMPT  # After a lost segment or a changed address, at the latest.
MARGIN = 3 if programs.NATIVE else 20  # For a busy machine.

EVERYBODY = "0.0.0.0"  # The limited broadcast address, 255.255.255.255.


class Network:
    """Hosts on one bridge, each of which sets rows of its own in one table and watches all."""

    def __init__(self, make_namespace, make_host, count):
        self.bridge = make_namespace()
        self.bridge.ip("link add bridge type bridge")
        self.bridge.ip("link set bridge up")
        self.places, self.hosts, self.written = [], [], {}
        for number in range(count):
            place = make_namespace()
            namespaces.connect(self.bridge, place, left_name=f"port{number}")
            self.bridge.ip(f"link set port{number} master bridge")
            place.ip(f"address add 10.1.1.{number + 1}/24 dev eth0")
            self.places.append(place)
            self.make_reachable(number)
            with place:
                self.hosts.append(make_host("--default-log"))
            self.hosts[-1].watch(b"plant", b"state")
        self.shared = time.monotonic()
        for number, host in enumerate(self.hosts):
            host.share(b"plant", b"line-4", b"host %d" % number, address=EVERYBODY)

    def make_reachable(self, number):
        self.places[number].ip("route replace 255.255.255.255/32 dev eth0")

    def write(self):
        """Every host gives each of its rows its next value."""
        for number, host in enumerate(self.hosts):
            for row in range(3):
                key = b"%d:%d" % (number, row)
                self.written[key] = self.written.get(key, 0) + 1
                host.set(b"plant", b"state", key, b"%d" % self.written[key])

    def keep_writing(self, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self.write()
            time.sleep(0.1)  # The pace of the writers.

    def cut(self, number, silent):
        if silent:
            self.bridge.ip(f"link set port{number} nomaster")  # The carrier stays.
        else:
            self.places[number].ip("link set eth0 down")

    def heal(self, number, silent):
        if silent:
            self.bridge.ip(f"link set port{number} master bridge")
        else:
            self.places[number].ip("link set eth0 up")
            self.make_reachable(number)

    def has_converged(self):
        expected = {key: b"%d" % value for key, value in self.written.items()}
        return all(host.table(b"plant", b"state") == expected for host in self.hosts)

    def nobody_has_seen_a_row_go_back(self):
        """Each row has one writer, who counts."""
        for host in self.hosts:
            assert programs.steps_back(host.rows(b"plant", b"state")) == []
        return True

    def streams(self):
        """How many established connections each host has to the listening port of each other, and that one from it."""
        def sockets(place, *options):
            with place:
                return subprocess.run(["ss", "-Htn", *options], check=True, stdout=subprocess.PIPE, text=True).stdout

        ports = [re.search(r"0\.0\.0\.0:(\d+)", sockets(place, "-l"))[1] for place in self.places]
        established = [sockets(place, "state", "established") for place in self.places]
        counts = {}
        for here, there in itertools.permutations(range(len(self.places)), 2):
            sender = re.escape(f"10.1.1.{there + 1}:{ports[there]}") + r"\s+"
            receiver = re.escape(f"10.1.1.{here + 1}:") + r"\d+\s+"
            counts["to", here, there] = len(re.findall(receiver + sender, established[here]))
            counts["from", there, here] = len(re.findall(sender + receiver, established[there]))
        return counts

    def expect_one_stream_each_way(self):
        """Fails where there are more or fewer, and tells where."""
        wrong = {}

        def are_right():
            wrong.clear()
            wrong.update({pair: count for pair, count in self.streams().items() if count != 1})
            return not wrong

        # A sender of rows that was cut off learns that its stream is over when TCP next sends again, after a pause that
        # is no longer than the cut was.
        assert programs.eventually(are_right, 2 * max(SECONDS)), wrong


class Schedule:
    """By when the hosts must have converged: what the protocol promises of the two streams of each pair."""

    def __init__(self, first_announcement):
        self._pairs = list(itertools.combinations(range(HOSTS), 2))
        self._up_since = dict.fromkeys(self._pairs, time.monotonic())
        self._tried_until = dict.fromkeys(self._pairs, first_announcement + PERIOD)

    def bound(self, victim, began, healed):
        """How many seconds after the cut of that device the slowest may take."""
        cut = healed - began
        if cut > GIVEN_UP - ABOUT:
            self._give_up(victim, began + GIVEN_UP)
        if cut <= GIVEN_UP + ABOUT:
            # TCP doubles its pauses while nothing comes through; a stream that survives goes on after one more of them.
            # One that does not is given up meanwhile and tried again.
            return REACHED_AGAIN + 2 * cut
        # All streams of the host have been given up, and with them what TCP had to send again. While they are tried,
        # the worst that the end of the cut can meet is an attempt that has just begun and is lost, or a pause; the
        # next attempt finds the peer. So the length of the cut does not count, unless they are tried no more.
        tried = all(healed + ATTEMPT + PAUSE < self._tried_until[pair] for pair in self._pairs if victim in pair)
        return ATTEMPT + PAUSE + MARGIN + (0 if tried else ANNOUNCEMENT)

    def _give_up(self, victim, moment):
        for pair in self._pairs:
            if victim in pair:
                if moment - self._up_since[pair] >= LASTING:
                    self._tried_until[pair] = moment + PERIOD
                del self._up_since[pair]

    def converged(self):
        for pair in self._pairs:
            self._up_since.setdefault(pair, time.monotonic())


@pytest.fixture
def network_of_hosts(make_namespace, make_host):
    network = Network(make_namespace, make_host, HOSTS)
    network.write()
    assert programs.eventually(network.has_converged)
    return network


def test_every_host_has_exactly_one_stream_to_every_other(network_of_hosts):
    network_of_hosts.expect_one_stream_each_way()


def random_cuts(chance):
    """(host, silent, seconds, seconds of peace before) of each."""
    if SOAK:
        # Half of the cuts meet streams that have lasted, and are tried again for a whole period.
        return [(chance.randrange(HOSTS), chance.random() < 0.5, chance.choice(SECONDS), chance.choice([0, LASTING]))
                for _ in range(CUTS)]
    # Of each kind one: short cuts that the streams survive, and long ones that they do not.
    kinds = [(silent, seconds, 0) for silent in (False, True) for seconds in (0.5, 6)]
    return [(chance.randrange(HOSTS), *kind) for kind in chance.sample(kinds, len(kinds))]


def test_all_hosts_converge_after_every_cut_and_nobody_sees_a_row_go_back(network_of_hosts):
    programs.figure("seed of the cuts:", SEED)
    schedule = Schedule(network_of_hosts.shared)
    for victim, silent, seconds, peace in random_cuts(random.Random(SEED)):
        network_of_hosts.keep_writing(peace)
        began = time.monotonic()
        network_of_hosts.cut(victim, silent)
        network_of_hosts.keep_writing(seconds)
        network_of_hosts.heal(victim, silent)
        healed = time.monotonic()
        network_of_hosts.write()
        bound = schedule.bound(victim, began, healed)

        assert programs.eventually(network_of_hosts.has_converged, bound)
        programs.figure(HOSTS, "hosts, one cut off", "silently" if silent else "loudly", "for", seconds, "s, converged",
                        round(time.monotonic() - healed, 2), "s after it was back; the bound is", round(bound), "s")
        schedule.converged()
        if SOAK:
            network_of_hosts.expect_one_stream_each_way()

    assert network_of_hosts.nobody_has_seen_a_row_go_back()
    network_of_hosts.expect_one_stream_each_way()


def test_a_host_whose_address_changes_is_met_at_the_new_one(network_of_hosts):
    place = network_of_hosts.places[0]
    place.ip("address del 10.1.1.1/24 dev eth0")
    place.ip("address add 10.1.1.101/24 dev eth0")
    network_of_hosts.make_reachable(0)

    network_of_hosts.hosts[0].do("network-changed")
    network_of_hosts.write()

    assert programs.eventually(network_of_hosts.has_converged, REACHED_AGAIN)
    assert network_of_hosts.nobody_has_seen_a_row_go_back()


def test_an_interface_without_a_route_is_made_good_for_when_it_has_one(make_namespace, make_host):
    network = Network(make_namespace, make_host, 2)
    network.places[0].ip("route del 255.255.255.255/32 dev eth0")
    network.hosts[0].share(b"plant", b"line-4", b"host 0 again", address=EVERYBODY)

    network.make_reachable(0)
    network.hosts[0].do("network-changed")
    network.write()

    assert programs.eventually(network.has_converged, REACHED_AGAIN)
    assert network.nobody_has_seen_a_row_go_back()
