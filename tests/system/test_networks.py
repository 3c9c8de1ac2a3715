"""Networks of several hosts that are cut and healed while everybody writes."""

import random
import re
import subprocess
import time

import pytest

import namespaces
import programs
from programs import SEED, SOAK

HOSTS = 12 if SOAK else 4
CUTS = 200 if SOAK else 4
SECONDS = [0.5, 2, 10, 60] if SOAK else [0.5, 2, 6]
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
        """How many established connections each host has to the listening port of each other."""
        def sockets(place, *options):
            with place:
                return subprocess.run(["ss", "-Htn", *options], check=True, stdout=subprocess.PIPE, text=True).stdout

        ports = [re.search(r"0\.0\.0\.0:(\d+)", sockets(place, "-l"))[1] for place in self.places]
        counts = {}
        for here, place in enumerate(self.places):
            for there, port in enumerate(ports):
                if here != there:
                    far = re.escape(f"10.1.1.{there + 1}:{port}") + r"\s"
                    counts[here, there] = len(re.findall(far, sockets(place, "state", "established") + "\n"))
        return counts

    def has_one_stream_each_way(self):
        return programs.eventually(lambda: set(self.streams().values()) == {1})


def bound(cut):
    """How long after a cut of so many seconds the slowest may take, by the schedule."""
    # A silent peer is given up after 4 seconds; then each attempt to connect takes 5, for 30 seconds.
    attempts, noticed, attempt, announcement = 30, 4, 5, 60
    if cut < attempts:
        # TCP doubles its pauses while nothing comes through; a stream that survives goes on after one more of them.
        return noticed + 2 * attempt + 2 * cut
    return noticed + 2 * attempt + announcement


@pytest.fixture
def network_of_hosts(make_namespace, make_host):
    network = Network(make_namespace, make_host, HOSTS)
    network.write()
    assert programs.eventually(network.has_converged)
    return network


def test_every_host_has_exactly_one_stream_to_every_other(network_of_hosts):
    assert network_of_hosts.has_one_stream_each_way()


def test_all_hosts_converge_after_every_cut_and_nobody_sees_a_row_go_back(network_of_hosts):
    programs.figure("seed of the cuts:", SEED)
    chance = random.Random(SEED)
    for _ in range(CUTS):
        victim, silent, seconds = chance.randrange(HOSTS), chance.random() < 0.5, chance.choice(SECONDS)
        network_of_hosts.cut(victim, silent)
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            network_of_hosts.write()
            time.sleep(0.1)  # The pace of the writers while the cut lasts.
        network_of_hosts.heal(victim, silent)
        healed = time.monotonic()
        network_of_hosts.write()

        assert programs.eventually(network_of_hosts.has_converged, bound(seconds))
        programs.figure(HOSTS, "hosts, one cut off", "silently" if silent else "loudly", "for", seconds, "s, converged",
                        round(time.monotonic() - healed, 2), "s after it was back; the bound is", bound(seconds), "s")

    assert network_of_hosts.nobody_has_seen_a_row_go_back()
    assert network_of_hosts.has_one_stream_each_way()


def test_a_host_whose_address_changes_is_met_at_the_new_one(network_of_hosts):
    place = network_of_hosts.places[0]
    place.ip("address del 10.1.1.1/24 dev eth0")
    place.ip("address add 10.1.1.101/24 dev eth0")
    network_of_hosts.make_reachable(0)

    network_of_hosts.hosts[0].do("network-changed")
    network_of_hosts.write()

    assert programs.eventually(network_of_hosts.has_converged, bound(0))
    assert network_of_hosts.nobody_has_seen_a_row_go_back()


def test_an_interface_without_a_route_is_made_good_for_when_it_has_one(make_namespace, make_host):
    network = Network(make_namespace, make_host, 2)
    network.places[0].ip("route del 255.255.255.255/32 dev eth0")
    network.hosts[0].share(b"plant", b"line-4", b"host 0 again", address=EVERYBODY)

    network.make_reachable(0)
    network.hosts[0].do("network-changed")
    network.write()

    assert programs.eventually(network.has_converged, bound(0))
    assert network.nobody_has_seen_a_row_go_back()
