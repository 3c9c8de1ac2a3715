# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""How a connection begins and ends: certificates, passwords, brokers that do not suit, other bridges, and signals."""

import os
import pathlib
import re
import shutil
import signal
import socket
import struct
import subprocess

import pytest
from brokers import Packet
from programs import DEADLINE, EMULATOR, eventually, only_natively
from sites import DATABASE, PROGRAM, TABLE, topic

IMPORTED = b"plant@hall1"
ENDS = [signal.SIGTERM, signal.SIGINT, signal.SIGHUP]


def openssl(*arguments):
    subprocess.run(["openssl", *arguments], check=True, capture_output=True)


class Authority:
    """Makes certificates, in a folder of its own."""

    def __init__(self, folder):
        self._folder = folder
        self.certificate = folder / "ca.pem"
        openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "30",
                "-subj", "/CN=authority", "-keyout", folder / "ca.key", "-out", self.certificate)

    def folder(self):
        """One with the certificate as OpenSSL looks for it."""
        folder = self._folder / "trusted"
        folder.mkdir()
        shutil.copy(self.certificate, folder)
        openssl("rehash", folder)
        return folder

    def issue(self, name, *addresses, days=30):
        """The files of a certificate and of its key."""
        key, request, certificate = (self._folder / f"{name}.{end}" for end in ("key", "csr", "pem"))
        openssl("req", "-new", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                "-subj", f"/CN={name}", "-keyout", key, "-out", request)
        names = self._folder / "names"
        names.write_text("subjectAltName=" + ",".join(f"IP:{address}" for address in addresses or ["127.0.0.1"]))
        openssl("x509", "-req", "-in", request, "-CA", self.certificate, "-CAkey", self._folder / "ca.key",
                "-CAcreateserial", "-days", str(days), "-extfile", names, "-out", certificate)
        return certificate, key


@pytest.fixture
def make_authority(tmp_path_factory):
    return lambda: Authority(tmp_path_factory.mktemp("authority"))


@pytest.fixture
def make_tls_broker(make_broker):
    def make(authority, certificate, *settings):
        return make_broker("listener 8883 0.0.0.0", f"cafile {authority.certificate}", f"certfile {certificate[0]}",
                           f"keyfile {certificate[1]}", *(settings or ["allow_anonymous true"]), port=8883).start()

    return make


def test_rows_go_through_tls_with_good_certificates(make_tls_broker, make_authority, make_site, make_member,
                                                    start_bridge):
    authority = make_authority()
    make_tls_broker(authority, authority.issue("broker", "10.0.1.1", "10.0.2.1"), "require_certificate true",
                    "use_identity_as_username true", "allow_anonymous false")
    one, two = make_site(b"hall1"), make_site(b"hall2")
    for site, trusted, imports in ((one, authority.certificate, []), (two, authority.folder(), ["--import", "hall1"])):
        certificate, key = authority.issue(site.name.decode())
        start_bridge(site, "--ca", trusted, "--cert", certificate, "--key", key, *imports, port=8883)
    writer, reader = make_member(one), make_member(two, IMPORTED)
    reader.watch(IMPORTED, TABLE)
    rows = {b"row %d" % number: bytes([number % 256]) * number for number in range(2000)}
    rows[b"row 0"] = bytes(1_000_000)
    writer.set_all(TABLE, rows)
    assert reader.shows(TABLE, rows, IMPORTED)


@pytest.mark.parametrize("wrong", ["another authority", "another name", "out of date", "no certificate of ours"])
def test_a_certificate_that_is_not_valid_is_told_and_tried_again(make_tls_broker, make_authority, make_site,
                                                                 start_bridge, wrong):
    authority, other = make_authority(), make_authority()
    certificate = authority.issue("broker", "10.9.9.9" if wrong == "another name" else "10.0.1.1",
                                  days=-1 if wrong == "out of date" else 30)
    ours = wrong == "no certificate of ours"
    make_tls_broker(authority, certificate, *(["require_certificate true", "allow_anonymous true"] if ours else []))
    trusted = other if wrong == "another authority" else authority
    bridge = start_bridge(make_site(b"hall1"), "--ca", trusted.certificate, port=8883)
    what = ("it has ended the connection; it may want a certificate of ours" if ours
            else r"TLS with it fails \(.*certificate verify failed\)")
    assert bridge.says(r"warning: There is no connection to the broker at 10\.0\.1\.1 port 8883: "
                       + what + r".*Next attempt in \d+\.\d s\.", 2), bridge.lines


def test_a_wrong_password_is_told_until_it_is_right(make_broker, make_client, make_site, start_bridge, tmp_path):
    def set_password(password):
        subprocess.run(["mosquitto_passwd", "-b", "-c", tmp_path / "users", "hall", password], check=True)

    set_password("right")
    (tmp_path / "password").write_text("wrong\n")
    broker = make_broker("listener 1883 0.0.0.0", "allow_anonymous false", f"password_file {tmp_path}/users").start()
    bridge = start_bridge(make_site(b"hall1"), "--user", "hall", "--password-file", tmp_path / "password")
    assert bridge.says("The password goes to the broker in the clear")
    words = "it does not let us in: the user or the password is wrong"
    assert bridge.says(f"There is no connection to the broker at .*: {words}", 2)
    set_password("wrong")
    broker.send(signal.SIGHUP)
    assert bridge.says("notice: Connected to the broker")
    client = make_client(broker, "#", user="hall", password="wrong")
    assert client.gets("varnix/hall1/$state", b"1")


def test_of_two_bridges_of_a_site_one_ends_and_says_why(broker, make_client, make_site, make_member, start_bridge):
    """The first, unless the machine holds it up for seconds as it ends."""
    words = ("error: Another client connects to the broker as 'varnix:hall1', which is our name. "
             "Is there a second bridge for this site?")
    sites = [make_site(b"hall1"), make_site(b"hall1")]
    client = make_client(broker, "#")
    bridges = [start_bridge(sites[0])]
    assert client.gets("varnix/hall1/$state", b"1")
    bridges.append(start_bridge(sites[1]))
    assert eventually(lambda: any(bridge.count(re.escape(words)) for bridge in bridges))
    stays = 1 if bridges[0].count("error") else 0
    assert bridges[1 - stays].ends() == 3
    make_member(sites[stays]).set(DATABASE, TABLE, b"row", b"of the one that stays")
    assert client.gets(topic(b"hall1", b"row"), b"of the one that stays")
    assert client.gets("varnix/hall1/$state", b"1")
    assert bridges[stays].count("error") == 0


def test_a_broker_that_tells_of_a_second_bridge_is_believed(middle, make_site, start_bridge):
    with middle, socket.create_server(("", 1883)) as listener:
        listener.settimeout(DEADLINE)
        bridge = start_bridge(make_site(b"hall1"))
        connection, _ = listener.accept()
        connection.settimeout(DEADLINE)
        with connection:
            connection.recv(1000)
            connection.sendall(b"\x20\x03\x00\x00\x00")  # Accepted.
            assert bridge.says("Connected")
            connection.sendall(b"\xe0\x02\x8e\x00")  # Session taken over.
            assert bridge.ends() == 3
    assert bridge.says("Is there a second bridge for this site?")


def state_of_another(name):
    """The state that a second bridge of hall1 has left at the broker, as that delivers it."""
    def text(content):
        return struct.pack(">H", len(content)) + content

    properties = b"\x26" + text(b"instance") + text(name)
    body = text(b"varnix/hall1/$state") + bytes([len(properties)]) + properties + b"1"
    return b"\x31" + bytes([len(body)]) + body


def test_a_bridge_goes_on_beside_a_second_one_if_the_broker_may_not_know_its_leave(middle, make_site, start_bridge):
    """The second one may take it for being there, and end: then nobody would be left."""
    with middle, socket.create_server(("", 1883)) as listener:
        listener.settimeout(DEADLINE)
        bridge = start_bridge(make_site(b"hall1"), "--import", "hall2")
        for number in range(3):
            connection, _ = listener.accept()
            connection.settimeout(DEADLINE)
            with connection, connection.makefile("rb") as stream:
                Packet(stream)  # It connects.
                connection.sendall(b"\x20\x03\x00\x00\x00")  # Accepted.
                subscription, state = Packet(stream), Packet(stream)
                assert subscription.body.index(b"hall1/$state") < subscription.body.index(b"hall2")
                assert state.topic() == "varnix/hall1/$state" and state.body.endswith(b"1")
                connection.sendall(state_of_another(b"second-%d" % number))
                if number == 2:
                    leave = Packet(stream)
                    assert leave.topic() == "varnix/hall1/$state" and leave.body.endswith(b"0")
            assert bridge.says("The connection has ended", number + 1)
    assert bridge.stop() == 0


def test_sites_in_a_ring_of_imports_show_each_row_in_two_places(broker, make_client, make_site, make_member,
                                                                start_bridge):
    names = [b"hall1", b"hall2", b"hall3"]
    sites = {name: make_site(name) for name in names}
    sources = dict(zip(names, names[1:] + names[:1]))
    for name, source in sources.items():
        start_bridge(sites[name], "--import", source)
    all_databases = [DATABASE, *(DATABASE + b"@" + name for name in names)]
    members = {name: make_member(site, *all_databases) for name, site in sites.items()}
    client = make_client(broker, "#")
    rows = {name: {b"row %d" % number: b"%d of " % number + name for number in range(200)} for name in names}
    for name, member in members.items():
        for database in all_databases:
            member.watch(database, TABLE)
        member.set_all(TABLE, rows[name])
    for name, source in sources.items():
        assert members[name].shows(TABLE, rows[name])
        assert members[name].shows(TABLE, rows[source], DATABASE + b"@" + source)
    # A row more for each, which comes behind all that may be underway.
    for name, member in members.items():
        member.set(DATABASE, TABLE, b"last", name)
    for name, source in sources.items():
        assert members[name].gets(b"last", source, database=DATABASE + b"@" + source)
    for name, source in sources.items():
        for other in names:
            shown = members[name].table(DATABASE + b"@" + other, TABLE)
            assert shown == ({**rows[source], b"last": source} if other == source else {})
    assert client.eventually(lambda: len(client.messages) >= 3 * 202)
    assert client.messages == {
        **{f"varnix/{name.decode()}/$state": b"1" for name in names},
        **{topic(name, key): value for name in names for key, value in rows[name].items()},
        **{topic(name, b"last"): name for name in names}}


def test_who_imports_every_site_does_not_import_itself(broker, make_site, make_member, start_bridge):
    one, two = make_site(b"hall1"), make_site(b"hall2")
    for site in (one, two):
        start_bridge(site, "--import", "*")
    writer, reader = make_member(one, DATABASE, b"plant@hall1"), make_member(two, DATABASE, IMPORTED)
    for member in (writer, reader):
        member.watch(b"plant@hall1", TABLE)
    for number in range(10):
        writer.set(DATABASE, TABLE, b"row", b"%d" % number)
        reader.set(DATABASE, TABLE, b"row", b"%d of the reader" % number)
    assert reader.gets(b"row", b"9", database=IMPORTED)
    assert writer.table(b"plant@hall1", TABLE) == {}


@pytest.mark.parametrize("setting,words", [("retain_available false", "it keeps no retained messages"),
                                           ("max_qos 0", "it has no QoS 1")])
def test_a_broker_that_does_not_suit_is_told(make_broker, make_site, start_bridge, setting, words):
    make_broker("listener 1883 0.0.0.0", "allow_anonymous true", setting).start()
    assert start_bridge(make_site(b"hall1")).says(f"There is no connection to the broker at .*: {words}")


def test_a_broker_of_another_kind_is_told(middle, make_site, start_bridge):
    """One that speaks an older MQTT, something else, one that hangs up, one that says nothing, or is not there.

    Nor may be the host: the system would try to connect for two minutes.
    """
    hall = make_site(b"hall1")
    hall.namespace.ip("neigh add 10.0.1.77 lladdr 02:00:00:00:00:01 dev eth0")
    connecting = start_bridge(hall, broker="10.0.1.77")
    answers = {b"\x20\x02\x00\x01": "it does not speak MQTT 5", b"\x15\x03\x01\x00\x02": "what it sends is no MQTT 5",
               b"": r"it has ended the connection; it may want TLS \(--ca\)", None: "it does not answer"}
    for answer, words in answers.items():
        with middle, socket.create_server(("", 0)) as listener:
            bridge = start_bridge(hall, port=listener.getsockname()[1])
            connection, _ = listener.accept()
            with connection:
                connection.recv(1000)
                if answer == b"":
                    connection.shutdown(socket.SHUT_WR)
                elif answer is not None:
                    connection.sendall(answer)
                assert bridge.says(f"There is no connection to the broker at .*: {words}")
    assert start_bridge(hall, port=1).says("There is no connection to the broker at .*: Connection refused")
    assert start_bridge(hall, broker="broker.invalid").says("the name of its host is not known")
    assert connecting.says("There is no connection to the broker at .*: it did not answer in time. Next attempt in")


def test_attempts_become_rarer(make_site, start_bridge):
    bridge = start_bridge(make_site(b"hall1"), port=1)
    assert bridge.says("Connection refused. Next attempt in", 3)
    waits = [float(line.split()[-2]) for line in bridge.lines if "Next attempt" in line]
    for wait, shortest in zip(waits, (1, 2, 4)):
        assert shortest <= wait <= 2 * shortest


def test_no_connection_gets_the_log_where_standard_error_is_closed(broker, make_client, make_site):
    hall = make_site(b"hall1")
    client = make_client(broker, "#")
    with hall.namespace:
        bridge = subprocess.Popen(["sh", "-c", 'exec "$@" 2>&-', "sh", *EMULATOR, PROGRAM, *hall.bridge_arguments()])
    try:
        assert client.gets("varnix/hall1/$state", b"1")
        assert os.readlink(f"/proc/{bridge.pid}/fd/2") == "/dev/null"
        bridge.terminate()
        assert bridge.wait(DEADLINE) == 0
    finally:
        bridge.kill()
        bridge.wait()


def test_a_bridge_takes_its_options_from_a_file(broker, make_client, make_site, make_member, start_bridge, tmp_path):
    hall = make_site(b"hall1")
    client = make_client(broker, "#")
    start_bridge(hall, "--prefix", "above", databases=[DATABASE, b"office"], config=tmp_path / "hall1.conf")
    assert client.gets("above/hall1/$state", b"1")
    make_member(hall, b"office").set(b"office", TABLE, b"row", b"1")
    assert client.gets(f"above/hall1/office/{TABLE.decode()}/row", b"1")


@pytest.mark.parametrize("wrong,words", [
    (["--colour", "red"], "there is no option 'colour'"),
    (["--import", "hall1"], "import: 'hall1' is this site itself"),
    (["--config", "/no/such/file"], "cannot read '/no/such/file': No such file or directory")])
def test_a_wrong_option_ends_the_bridge_with_words_and_status_2(make_site, start_bridge, wrong, words):
    bridge = start_bridge(make_site(b"hall1"), *wrong)
    assert bridge.ends() == 2
    assert bridge.lines == [f"varnix-mqtt: {words}", "Try 'varnix-mqtt --help'."]


@only_natively  # The sanitizers need more descriptors.
def test_an_error_of_the_system_ends_the_bridge_with_words_and_status_1(make_site):
    """It may have three descriptors: one, which is closed at first, is enough to be loaded with, and not to run."""
    hall = make_site(b"hall1")
    with hall.namespace:
        ended = subprocess.run(["sh", "-c", 'exec <&-; ulimit -n 3; exec "$@"', "sh", *EMULATOR, PROGRAM,
                                *hall.bridge_arguments()], stderr=subprocess.PIPE, text=True, timeout=DEADLINE)
    assert ended.returncode == 1
    assert ended.stderr.endswith(" error: Ended by an error: eventfd: Too many open files.\n")


@pytest.mark.parametrize("number", ENDS)
def test_a_signal_ends_the_bridge_whatever_it_does(broker, make_site, make_member, make_writer, start_bridge, number):
    hall = make_site(b"hall1")
    idle = start_bridge(hall, "--import", "hall2")
    assert idle.says("All rows are published")
    assert idle.stop(number) == 0
    assert idle.says("notice: Ended, as asked for")

    make_writer(hall, "plant/data").tell("overwrite 1000000")
    busy = start_bridge(hall)
    assert busy.says("Publishing the table 'data'")
    assert busy.stop(number) == 0

    pausing = start_bridge(hall, port=1)
    assert pausing.says("Next attempt")
    assert pausing.stop(number) == 0

    hall.cut()
    connecting = start_bridge(hall)
    assert connecting.says("Sharing the database")
    assert connecting.stop(number) == 0


def blocks_of_the_page():
    """Of settings: what docs/beyond-one-network.md says that the files of a broker have, by path."""
    page = (pathlib.Path(os.environ["VARNIX_SOURCE"]) / "docs" / "beyond-one-network.md").read_text(encoding="utf-8")
    return {found[1]: found[0] for found in re.finditer(r"# (/etc/mosquitto/[\w./]+).*?(?=```)", page, re.DOTALL)}


def test_a_broker_as_the_page_has_it_lets_each_site_write_under_its_own_name(middle, make_broker, make_client,
                                                                             make_authority, make_site, make_member,
                                                                             start_bridge, tmp_path):
    settings, access = blocks_of_the_page().values()
    (tmp_path / "certs").mkdir()
    authority = make_authority()
    certificate, key = authority.issue("broker", "10.0.1.1", "10.0.2.1")
    for source, name in ((authority.certificate, "ca.pem"), (certificate, "broker.pem"), (key, "broker.key")):
        shutil.copy(source, tmp_path / "certs" / name)
    (tmp_path / "acl").write_text(access)
    for number, user in enumerate(("hall1", "hall2", "hall3")):
        options = ["-b", "-c"] if number == 0 else ["-b"]
        subprocess.run(["mosquitto_passwd", *options, tmp_path / "passwords", user, "secret"], check=True)
    (tmp_path / "password").write_text("secret\n")
    lines = [line for line in settings.replace("/etc/mosquitto", str(tmp_path)).splitlines()
             if line.split()[0] not in ("#", "max_queued_messages", "max_inflight_messages", "set_tcp_nodelay")]
    plain = ["listener 1883 127.0.0.1"]  # For the client that tries to write under another name.
    broker = make_broker(*lines, *plain).start()
    one, two = make_site(b"hall1"), make_site(b"hall2")
    for site, imports in ((one, []), (two, ["--import", "hall1"])):
        start_bridge(site, "--ca", authority.certificate, "--user", site.name, "--password-file", tmp_path / "password",
                     *imports, port=8883)
    stranger = make_client(broker, "varnix/#", user="hall3", password="secret")
    writer, reader = make_member(one), make_member(two, IMPORTED)
    reader.watch(IMPORTED, TABLE)
    writer.set(DATABASE, TABLE, b"row", b"of the site")
    assert reader.gets(b"row", b"of the site", database=IMPORTED)
    assert stranger.gets(topic(b"hall1", b"row"), b"of the site")
    stranger.publish_and_wait(topic(b"hall1", b"row"), b"of a stranger")
    writer.set(DATABASE, TABLE, b"last", b"1")
    assert reader.gets(b"last", b"1", database=IMPORTED)
    assert reader.table(IMPORTED, TABLE) == {b"row": b"of the site", b"last": b"1"}
