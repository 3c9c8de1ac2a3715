# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""A page that hears what a test tells it, in place of a server."""

# A source of events that the test feeds, and a clock that it sets.
DRIVEN = """
    window.ahead = 0;
    const dateNow = Date.now;
    Date.now = () => dateNow() + window.ahead;
    window.EventSource = class {
      constructor() { this.listeners = {}; window.source = this; }
      addEventListener(kind, listener) { this.listeners[kind] = listener; }
      close() {}
    };
    window.tell = (kind, ...objects) =>
      window.source.listeners[kind]({ data: objects.map((one) => JSON.stringify(one)).join("\\n") });
    window.stamp = () => new Date(Date.now()).toISOString();
    window.member = (port, since) => ({ device: "press", process: "ctl-" + port, address: "10.0.0.1", port, since,
                                        group: "line-4", database: "plant" });
    window.row = (key, value) => ({ time: stamp(), address: "10.0.0.1", port: 1, table: "status", key, value });
    window.begin = (...rows) => {
      tell("time", { time: stamp() });
      tell("hello", { group: "line-4", database: "plant" });
      tell("member", member(1, stamp()));
      if (rows.length) tell("rows", ...rows);
      tell("ready", {});
    };
"""


def open_page(chromium, web, *scripts, **keywords):
    """The page, before it was told anything."""
    page = chromium.open(web.url, script=DRIVEN + "".join(scripts), **keywords)
    assert page.eventually("'source' in window && Object.keys(window.source.listeners).length === 6")
    return page
