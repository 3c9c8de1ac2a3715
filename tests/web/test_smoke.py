# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""`varnix web` beside a member that uses the real library, and asked for what nobody asks for."""

import random

import client
import command
import programs


def test_what_a_member_sets_is_served_as_page_rows_events_and_metrics(web, make_host):
    host = make_host()
    host.set(b"plant", b"status", b"speed", b"42")
    host.share(b"plant", b"line-4", b"press", b"ctl")
    events = client.Events(web.port)
    events.head()
    events.until(lambda name, data: name == "rows")

    host.set(b"plant", b"status", b"speed", b"43")

    events.until(lambda name, data: name == "rows" and data[-1]["value"] == "43")
    assert b"<title>Varnix</title>" in client.get(web.port, "/").body
    assert b"new EventSource" in client.get(web.port, "/page.js").body
    rows = client.get(web.port, "/rows?table=status").lines()
    assert [(row["device"], row["key"], row["value"]) for row in rows] == [("press", "speed", "43")]
    assert client.get(web.port, "/members").lines() == command.run("members", "--json").rows()
    assert b"\nvarnix_rows 1\n" in client.get(web.port, "/metrics").body
    events.close()
    assert web.ends() == 0


def test_bytes_that_are_no_request_do_it_no_harm(web):
    generator = random.Random(programs.SEED)
    pieces = [b"GET ", b"/", b"/rows?table=%", b" HTTP/1.1", b"\r\n", b"\n", b"Host: localhost", b"Range: bytes=0-",
              b":", b"\0", b"\xff", b"%00", b"Content-Length: 99999999999", b"Transfer-Encoding: chunked", b"?",
              b"&=&="]
    statuses = set()
    for _ in range(200 if programs.NATIVE else 40):
        data = b"".join(generator.choice(pieces) for _ in range(generator.randrange(1, 40)))
        statuses.add(client.exchange(web.port, data + b"\r\n\r\n").status)
    assert statuses <= {200, 400, 403, 404, 405}, (programs.SEED, statuses)

    assert client.get(web.port, "/").status == 200
