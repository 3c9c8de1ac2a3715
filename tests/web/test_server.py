# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""What `varnix web` answers, and what it refuses: asked by scripts, without a browser."""

import base64
import concurrent.futures
import os
import re
import signal
import socket
import subprocess
import urllib.parse

import pytest

import client
import command
import programs
from programs import eventually

MOST_BROWSERS = 32


def without_times(rows):
    return sorted(({name: text for name, text in row.items() if name != "time"} for row in rows), key=str)


def is_ready(name, _):
    return name == "ready"


def told(events, *kinds):
    return [(name, data) for name, data in events if name in kinds]


def test_it_says_where_it_is_and_nothing_else(web):
    assert re.fullmatch(r"http://127\.0\.0\.1:[0-9]+/", web.url)

    assert web.ends() == 0

    assert web.running.errors == ""


def test_where_others_can_reach_it_it_says_what_that_means(serve):
    web = serve("0.0.0.0:0")

    assert web.running.says("^varnix: whoever reaches 0.0.0.0:[0-9]+ sees every row: no password, no encryption\n$")
    assert client.get(web.port, "/").status == 200
    assert client.get(web.port, "/rows", host="evil.example").status == 403  # That name may stand for any address.


def test_an_address_or_a_port_alone_will_do(serve):
    assert serve("127.0.0.2").url == "http://127.0.0.2:8075/"
    assert re.fullmatch(r"http://127\.0\.0\.1:[0-9]+/", serve("0").url)
    assert serve("127.0.0.1:0", "--passive").url  # It does not wait for members first.


def test_a_port_that_is_taken_is_an_error(web):
    second = command.run("web", "--listen", f"127.0.0.1:{web.port}")

    assert second.status == 1
    assert re.fullmatch(r"varnix: cannot listen at 127\.0\.0\.1:[0-9]+: Address already in use\n", second.errors)


@pytest.mark.parametrize("listen", ["here", "127.0.0.1:", "127.0.0.1:65536", "1.2.3:80", "[::1]:80", "", ":"])
def test_what_is_no_place_is_refused(network, listen):
    refused = command.run("web", "--listen", listen)

    assert refused.status == 2
    assert "must be an IPv4 address, a port, or ADDRESS:PORT" in refused.errors, refused


def test_members_and_rows_are_those_that_the_command_prints(web, member):
    member(b"press", [(b"status", b"speed", b"42"), (b"log", b"raw", b"\xff\x00")])
    pump = member(b"pump", [(b"status", b"speed", b"7")])
    assert eventually(lambda: len(client.get(web.port, "/rows").lines()) == 3)

    members = client.get(web.port, "/members")
    rows = client.get(web.port, "/rows")

    assert members.headers["content-type"] == rows.headers["content-type"] == "application/x-ndjson"
    dumped = command.Running("dump", "--json", "--wait", str(programs.DEADLINE))
    pump.meets()  # The fakes announce themselves when they are told to.
    assert {member["device"] for member in members.lines()} == {"press", "pump"}
    assert dumped.ends() == 0
    of_pump = [row for row in command.json_lines(b"\n".join(dumped.lines))]
    assert without_times(of_pump) == without_times(row for row in rows.lines() if row["device"] == "pump")
    assert all(list(row) == list(of_pump[0]) for row in rows.lines() if row["device"] == "pump")
    assert [row["value64"] for row in rows.lines() if row["table"] == "log"] == ["/wA="]


def test_the_rows_of_one_table_can_be_asked_for_whatever_its_name_is(web, member):
    names = [b"status", b"a b&c=d", "ö".encode(), b"\xff\x00", b""]
    member(b"press", [(name, b"k", b"%d" % number) for number, name in enumerate(names)])
    assert eventually(lambda: len(client.get(web.port, "/rows").lines()) == len(names))

    for number, name in enumerate(names):
        asked = client.get(web.port, "/rows?table=" + urllib.parse.quote_from_bytes(name, safe=""))
        assert [row["value"] for row in asked.lines()] == [str(number)]
    assert client.get(web.port, "/rows?table=none").body == b""


def test_rows_by_the_ten_thousand_are_served_whole(web, member):
    count = 20_000
    member(b"press", [(b"status", b"key-%05d" % number, b"%d" % number) for number in range(count)])
    events = client.Events(web.port)
    events.head()

    assert eventually(lambda: b"\nvarnix_rows %d\n" % count in client.get(web.port, "/metrics").body)

    rows = client.get(web.port, "/rows").lines()
    assert [(row["key"], row["value"]) for row in rows] == [(f"key-{n:05}", str(n)) for n in range(count)]
    seen = {}
    while len(seen) < count:
        name, data = events.next()
        seen.update((row["key"], row["value"]) for row in data if name == "rows")
    assert all(key == f"key-{int(value):05}" for key, value in seen.items())
    events.close()


def test_a_reader_is_told_what_there_is_and_then_what_changes(web, member):
    press = member(b"press", [(b"status", b"speed", b"42")])
    events = client.Events(web.port)
    head = events.head()
    assert head.headers["content-type"] == "text/event-stream"

    first = events.until(is_ready)
    press.set(b"status", b"speed", b"43")
    second = events.until(lambda name, data: name == "rows" and data[-1]["value"] == "43")
    press.leave()
    third = events.until(lambda name, data: name == "left")

    assert [name for name, _ in first][:2] == ["time", "hello"]
    assert told(first, "hello")[0][1][0]["group"] == "line-4"
    place = press.place.rpartition(":")
    everything = first + second
    came = told(everything, "member")[0][1][0]
    assert (came["device"], came["address"], came["port"]) == ("press", place[0], int(place[2]))
    row = told(everything, "rows")[0][1][0]
    assert list(row) == ["time", "device", "process", "address", "table", "key", "value", "port"]
    assert (row["value"], row["port"]) == ("42", int(place[2]))
    left = third[-1][1][0]
    assert (left["port"], left["since"], left["reason"]) == (int(place[2]), came["since"], "has left")
    assert client.get(web.port, "/rows").body == client.get(web.port, "/members").body == b""
    events.close()


def test_slow_readers_get_the_newest_state_and_no_backlog(web, member):
    press = member(b"press", [(b"status", b"speed", b"0")])
    fast = client.Events(web.port)
    slow, *others = [client.Events(web.port, SO_RCVBUF=4096) for _ in range(MOST_BROWSERS - 1)]
    for events in (fast, slow, *others):
        events.head()
    text = b"x" * 1000
    before = web.running.memory()
    sent = 0

    with concurrent.futures.ThreadPoolExecutor(1) as pool:
        taking = pool.submit(fast.until, lambda name, data: name == "rows" and
                             any(row["value"].startswith("150 ") for row in data))
        for number in range(1, 151):
            rows = [(b"status", b"key-%d" % key, b"%d %s" % (number, text)) for key in range(100)]
            press.set_all(rows)
            sent += len(rows) * len(text)
            if number % 2 == 0:
                slow.take_little()  # One that takes nothing for half a minute is let go.
        while not concurrent.futures.wait([taking], timeout=0.4).done:
            slow.take_little()
        taking.result()

    newest = {}
    while sum(value == "150" for value in newest.values()) < 100:
        name, data = slow.next()
        newest.update((row["key"], row["value"].split()[0]) for row in data if name == "rows")
    assert slow.size < sent / 10
    if programs.NATIVE:
        assert web.running.memory() - before < 8 << 20
    for events in (fast, slow, *others):
        events.close()


def test_no_more_browsers_than_it_can_serve_well_are_let_in(web):
    first = [client.Events(web.port) for _ in range(MOST_BROWSERS)]
    assert [events.head().status for events in first] == [200] * MOST_BROWSERS

    late = client.get(web.port, "/events")

    assert (late.status, late.headers["retry-after"]) == (503, "5")
    assert client.get(web.port, "/members").status == 200
    first.pop().close()

    def comes_in():
        events = client.Events(web.port)
        first.append(events)
        return events.head().status == 200
    assert eventually(comes_in)
    for events in first:
        events.close()


def test_a_request_may_have_8192_bytes(web):
    padding = 8192 - len(client.request("/", headers="X: \r\n"))

    assert client.get(web.port, "/", headers=f"X: {'x' * padding}\r\n").status == 200
    assert client.get(web.port, "/", headers=f"X: {'x' * (padding + 1)}\r\n").status == 431


def test_a_request_that_never_ends_is_given_up(web):
    slow = client.connect(web.port)
    slow.sendall(b"GET / HTTP/1.1\r\nHost: local")

    assert client.get(web.port, "/").status == 200  # Nobody waits for it.
    assert client.read_all(slow) == b""
    slow.close()


MOST_CONNECTIONS = 64


def test_connections_that_ask_for_nothing_keep_nobody_out(web):
    browser = client.Events(web.port)
    browser.head()
    silent = [client.connect(web.port) for _ in range(2 * MOST_CONNECTIONS)]

    for _ in range(3):
        assert client.get(web.port, "/members").status == 200

    assert client.read_all(silent[0]) == b""  # It has made room for others.
    browser.until(is_ready)  # A browser has not.
    for connected in (browser, *silent):
        connected.close()


def test_connections_that_take_nothing_keep_nobody_out(web, member):
    member(b"press", [(b"status", b"key-%05d" % number, b"x" * 1000) for number in range(4_000)])
    assert eventually(lambda: b"\nvarnix_rows 4000\n" in client.get(web.port, "/metrics").body)
    readers = []
    for _ in range(MOST_CONNECTIONS):
        reader = client.connect(web.port, SO_RCVBUF=4096)
        reader.sendall(client.request("/rows"))
        assert reader.recv(1) == b"H"
        readers.append(reader)

    assert client.get(web.port, "/members").status == 200

    with pytest.raises(ConnectionResetError):  # It has made room for others, and sees that its answer is cut.
        client.read_all(readers[0])
    for reader in readers:
        reader.close()


@pytest.mark.parametrize("name", ["SIGINT", "SIGTERM", "SIGKILL"])
def test_an_answer_that_is_cut_when_the_server_ends_does_not_look_whole(web, member, name):
    member(b"press", [(b"status", b"key-%05d" % number, b"x" * 1000) for number in range(4_000)])
    assert eventually(lambda: b"\nvarnix_rows 4000\n" in client.get(web.port, "/metrics").body)
    reader = client.connect(web.port, SO_RCVBUF=4096)
    reader.sendall(client.request("/rows"))
    assert reader.recv(1) == b"H"

    number = getattr(signal, name)
    assert web.ends(number) == (0 if name == "SIGINT" else -number)

    with pytest.raises(ConnectionResetError):
        client.read_all(reader)
    reader.close()


OTHERS = ["evil.example", "evil.example:8075", "localhost.evil.example", "127.0.0.1.evil.example", "localhost:80:80",
          "localhost@evil.example", "[evil.example]", "", "local host", "localhost:80x"]


@pytest.mark.parametrize("host", OTHERS)
def test_a_request_for_another_name_is_refused(web, host):
    for path in ("/", "/rows", "/events", "/metrics", "/none"):
        assert client.get(web.port, path, host=host).status == 403


@pytest.mark.parametrize("host", ["localhost", "LocalHost:8075", "127.0.0.1", "192.168.1.5:8075", "[::1]:8075",
                                  socket.gethostname(), socket.gethostname() + ".local:80"])
def test_a_request_for_this_host_or_an_address_is_answered(web, host):
    assert client.get(web.port, "/", host=host).status == 200


def test_a_request_without_one_host_is_refused(web):
    assert client.exchange(web.port, b"GET / HTTP/1.1\r\n\r\n").status == 400
    assert client.get(web.port, "/", headers="host: localhost\r\n").status == 400


@pytest.mark.parametrize("method", ["POST", "PUT", "DELETE", "PATCH", "OPTIONS"])
def test_nothing_can_be_changed(web, method):
    refused = client.get(web.port, "/rows", method=method)

    assert (refused.status, refused.headers["allow"]) == (405, "GET, HEAD")


def test_what_is_no_path_of_ours_is_not_found(web):
    for path in ("/page", "/pageXcss", "/page.js/", "/page.css.map", "/icon", "/rows/", "/Members"):
        assert client.get(web.port, path).status == 404, path


def test_a_head_is_answered_without_a_body(web):
    for path in ("/", "/members", "/rows", "/events", "/metrics"):
        answer = client.get(web.port, path, method="HEAD")
        assert (answer.status, answer.body) == (200, b"")


def test_one_request_of_a_connection_is_answered(web):
    answer = client.exchange(web.port, client.request("/members") + client.request("/metrics"))

    assert (answer.status, answer.body) == (200, b"")
    assert answer.headers["connection"] == "close"


def test_whoever_has_nothing_more_to_say_is_answered(web, member):
    member(b"press", [(b"status", b"key-%05d" % number, b"x" * 1000) for number in range(2_000)])
    assert eventually(lambda: b"\nvarnix_rows 2000\n" in client.get(web.port, "/metrics").body)
    for path in ("/members", "/page.js", "/rows"):
        with client.connect(web.port) as connected:
            connected.sendall(client.request(path))
            connected.shutdown(socket.SHUT_WR)
            answer = client.Answer(client.read_all(connected))
        assert answer.status == 200
        assert path != "/rows" or len(answer.lines()) == 2_000


def test_no_answer_lets_a_page_run_what_is_not_a_file_of_ours(web):
    for path in ("/", "/page.js", "/rows", "/none"):
        headers = client.get(web.port, path).headers
        policy = dict(part.strip().split(" ", 1) for part in headers["content-security-policy"].split(";"))
        assert policy["default-src"] == "'none'" and policy["script-src"] == policy["style-src"] == "'self'"
        assert policy["frame-ancestors"] == "'none'"
        assert headers["x-content-type-options"] == "nosniff"
    page = re.sub("<!--.*?-->", "", client.get(web.port, "/").body.decode())
    assert re.findall("<script.*?>(.*?)</script>", page) == [""]
    assert not re.search(r"<style|\son[a-z]+=|\sstyle=|javascript:", page)
    assert set(re.findall(r'(?:src|href)="(.*?)"', page)) == {"/page.js", "/page.css", "/icon.svg"} and "//" not in page


HOSTILE = [b"<script>window.caught=1</script>", b"\x1b]0;title\x07\x1b[2J", b"\"},\n{\"key\":\"\\", b"\r\n\r\n",
           "\u2028\u202e\x9b2J".encode(), b"\n# TYPE varnix_evil gauge\nvarnix_evil 1\n", b"\xff\x00\x1b[2J"]


@pytest.mark.parametrize("name", HOSTILE)
def test_whatever_members_call_things_stays_within_its_text(web, member, name):
    member(name, [(name, name, name)], process=name)
    assert eventually(lambda: b"\nvarnix_rows 1\n" in client.get(web.port, "/metrics").body)
    events = client.Events(web.port)
    events.head()
    told_rows = [data for kind, data in events.until(is_ready) if kind == "rows"]
    events.close()

    answers = {path: client.get(web.port, path) for path in ("/members", "/rows", "/metrics")}

    for answer in answers.values():
        assert "html" not in answer.headers["content-type"] and answer.headers["x-content-type-options"] == "nosniff"
        assert not set(answer.body) & (set(range(32)) - {10} | {127})
    for part, objects in (("key", answers["/rows"].lines()), ("device", answers["/members"].lines()),
                          ("value", told_rows[0])):
        assert len(objects) == 1
        text = objects[0].get(part)
        assert (base64.b64decode(objects[0][part + "64"]) if text is None else text.encode()) == name
    assert all(re.fullmatch(rb"# (HELP|TYPE) varnix_[a-z_]+ .*|varnix_[a-z_]+(\{.*\})? [0-9.]+", line)
               for line in answers["/metrics"].body.splitlines())
    assert b"varnix_evil " not in re.sub(rb"\{.*\}", b"", answers["/metrics"].body)


def test_metrics_have_base_units_and_no_key_or_table_as_a_label(web, member):
    press = member(b'pr"ess\\\n\xff', [(b"secret-table", b"secret-key", b"12345")])
    assert eventually(lambda: b"\nvarnix_rows 1\n" in client.get(web.port, "/metrics").body)

    answer = client.get(web.port, "/metrics")

    assert answer.headers["content-type"].startswith("text/plain; version=0.0.4")
    text = answer.body.decode()
    assert "secret" not in text
    samples = dict(re.findall(r"^(varnix_[a-z_]+(?:\{.*\})?) ([0-9.]+)$", text, re.MULTILINE))
    assert len(samples) == len([line for line in text.splitlines() if not line.startswith("#")])
    label = r'{device="pr\"ess\\\\\\x0a\\xff",process="ctl",place="%s"}' % press.place
    assert samples["varnix_members"] == samples["varnix_members_met_total"] == "1"
    assert samples["varnix_rows_size_bytes"] == samples["varnix_member_rows_size_bytes" + label] == "15"
    names = set(re.match("[a-z_]+", name)[0] for name in samples)
    assert names == set(re.findall("^# HELP ([a-z_]+) [A-Z].*\\.$", text, re.MULTILINE))
    types = dict(re.findall("^# TYPE ([a-z_]+) ([a-z]+)$", text, re.MULTILINE))
    assert {name for name, kind in types.items() if kind == "counter"} == {
        name for name in names if name.endswith("_total")}


def where_there_is_promtool(test):
    """Its rules are those of the test above."""
    return test if os.environ.get("VARNIX_PROMTOOL") else None


@where_there_is_promtool
def test_promtool_has_nothing_to_say_about_the_metrics(web, member):
    for name in HOSTILE:
        member(name, [(b"status", b"speed", b"1")])
    assert eventually(lambda: b"\nvarnix_rows %d\n" % len(HOSTILE) in client.get(web.port, "/metrics").body)
    text = client.get(web.port, "/metrics").body

    done = subprocess.run([os.environ["VARNIX_PROMTOOL"], "check", "metrics"], input=text, capture_output=True)

    assert (done.returncode, done.stdout, done.stderr) == (0, b"", b"")
