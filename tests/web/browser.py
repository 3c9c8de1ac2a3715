# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Chromium without a window, in the namespace of the caller. It is driven over a pipe: nothing listens anywhere."""

import base64
import fcntl
import json
import os
import pathlib
import shlex
import subprocess
import threading

from programs import DEADLINE, eventually

# Nothing but the page is to use the network, or the processor.
OPTIONS = """--headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking
    --disable-component-update --disable-sync --disable-default-apps --disable-extensions --disable-dev-shm-usage
    --no-default-browser-check --mute-audio --hide-scrollbars --remote-debugging-pipe""".split()
KEYS = {"ArrowDown": 40, "ArrowUp": 38, "PageDown": 34, "PageUp": 33, "Home": 36, "End": 35, "Escape": 27, "Enter": 13,
        "Tab": 9}


class PageError(Exception):
    """What a script that the test has sent to the page has thrown."""


def move(descriptor):
    """To a number beyond those that the browser expects something at."""
    moved = fcntl.fcntl(descriptor, fcntl.F_DUPFD_CLOEXEC, 10)
    os.close(descriptor)
    return moved


class Browser:
    def __init__(self, profile):
        to_browser, from_test = os.pipe()
        to_test, from_browser = os.pipe()
        to_browser, from_browser = move(to_browser), move(from_browser)
        command = [os.environ["VARNIX_CHROMIUM"], *OPTIONS, f"--user-data-dir={profile}", "about:blank"]
        # The browser reads its descriptor 3 and writes its 4.
        script = f"exec {shlex.join(command)} 3<&{to_browser} 4>&{from_browser} {to_browser}<&- {from_browser}>&-"
        self._process = subprocess.Popen(
            ["bash", "-c", script], pass_fds=(to_browser, from_browser), stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True,
            env={**os.environ, "HOME": str(profile), "XDG_CONFIG_HOME": str(profile), "XDG_CACHE_HOME": str(profile)})
        os.close(to_browser)
        os.close(from_browser)
        self._write = os.fdopen(from_test, "wb")
        self._read = os.fdopen(to_test, "rb")
        self._changed = threading.Condition()
        self._answers = {}
        self._number = 0
        self._ended = False
        self.events = []  # (session, method, parameters)
        self._reader = threading.Thread(target=self._read_messages)
        self._reader.start()

    def _read_messages(self):
        pending = b""
        while piece := self._read.read1(1 << 20):
            *messages, pending = (pending + piece).split(b"\0")
            for message in map(json.loads, messages):
                with self._changed:
                    if "id" in message:
                        self._answers[message["id"]] = message
                    elif message["method"] in ("Runtime.exceptionThrown", "Runtime.consoleAPICalled", "Log.entryAdded",
                                               "Network.requestWillBeSent"):
                        self.events.append((message.get("sessionId"), message["method"], message["params"]))
                    self._changed.notify_all()
        with self._changed:
            self._ended = True
            self._changed.notify_all()

    def call(self, method, session=None, **parameters):
        with self._changed:
            self._number += 1
            number = self._number
        message = {"id": number, "method": method, "params": parameters, **({"sessionId": session} if session else {})}
        self._write.write(json.dumps(message).encode() + b"\0")
        self._write.flush()
        with self._changed:
            assert self._changed.wait_for(lambda: number in self._answers or self._ended, DEADLINE), message
            assert number in self._answers, "the browser has ended"
            answer = self._answers.pop(number)
        assert "error" not in answer, (message, answer["error"])
        return answer["result"]

    def open(self, url=None, script="", width=1280, height=800, dark=False):
        """A page of its own. The script runs before those of the page."""
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        page = Page(self, self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"], target)
        for domain in ("Page", "Runtime", "Log", "Network"):
            page.call(f"{domain}.enable")
        page.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)
        page.call("Emulation.setEmulatedMedia",
                  features=[{"name": "prefers-color-scheme", "value": "dark" if dark else "light"}])
        page.call("Emulation.setFocusEmulationEnabled", enabled=True)
        if script:
            page.call("Page.addScriptToEvaluateOnNewDocument", source=script)
        if url:
            page.go(url)
        return page

    def main_thread_seconds(self):
        """How long the scripts and the drawing of all pages have worked so far, and have waited for a processor."""
        worked, waited = 0, 0
        for process in self.call("SystemInfo.getProcessInfo")["processInfo"]:
            if process["type"] != "renderer":
                continue
            try:
                times = pathlib.Path(f"/proc/{process['id']}/schedstat").read_text().split()
                worked, waited = worked + int(times[0]), waited + int(times[1])
            except FileNotFoundError:  # It has just ended.
                pass
        return worked / 1e9, waited / 1e9

    def close(self):
        try:
            self._write.close()
        except BrokenPipeError:
            pass
        try:
            self._process.wait(5)  # It ends when nobody drives it any more.
        except subprocess.TimeoutExpired:
            pass
        try:
            os.killpg(self._process.pid, 9)  # Helpers that are left; the group is this browser's own.
        except ProcessLookupError:
            pass
        self._process.wait()
        self._reader.join()
        self._read.close()


class Page:
    def __init__(self, browser, session, target):
        self._browser = browser
        self._session = session
        self._target = target

    def close(self):
        self._browser.call("Target.closeTarget", targetId=self._target)

    def call(self, method, **parameters):
        return self._browser.call(method, self._session, **parameters)

    def go(self, url):
        self.call("Page.navigate", url=url)
        assert eventually(lambda: self.run("document.readyState === 'complete' && location.href !== 'about:blank'"))

    def run(self, expression):
        """The value of an expression in the page; of a promise, what it is fulfilled with."""
        done = self.call("Runtime.evaluate", expression=expression, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in done:
            raise PageError(done["exceptionDetails"].get("exception", done["exceptionDetails"]))
        return done["result"].get("value")

    def eventually(self, expression, seconds=DEADLINE):
        """Waits until it is true."""
        return eventually(lambda: self.run(expression), seconds)

    def press(self, *keys):
        for key in keys:
            text = {"text": "\r" if key == "Enter" else key} if len(key) == 1 or key == "Enter" else {}
            code = KEYS.get(key, ord(key.upper()) if len(key) == 1 else 0)
            for kind in ("keyDown", "keyUp"):
                self.call("Input.dispatchKeyEvent", type=kind, key=key, windowsVirtualKeyCode=code,
                          **(text if kind == "keyDown" else {}))

    def type(self, text):
        self.press(*text)

    def click(self, selector):
        box = self.run(f"document.querySelector({json.dumps(selector)}).getBoundingClientRect().toJSON()")
        x, y = box["x"] + box["width"] / 2, box["y"] + box["height"] / 2
        for kind in ("mousePressed", "mouseReleased"):
            self.call("Input.dispatchMouseEvent", type=kind, x=x, y=y, button="left", clickCount=1)

    def text(self, selector):
        return self.run(f"document.querySelector({json.dumps(selector)}).textContent")

    def shows(self, selector, text):
        """Waits until it does."""
        return self.eventually(f"document.querySelector({json.dumps(selector)})?.textContent === {json.dumps(text)}")

    def rows(self):
        """Those that are drawn, from top to bottom: table, key, value, who set it, and the classes."""
        return self.run("""[...document.querySelectorAll(".row:not([hidden])")]
            .sort((left, right) => left.ariaRowIndex - right.ariaRowIndex)
            .map((row) => [".table", ".key", ".value", ".by"].map((part) => row.querySelector(part).textContent)
                          .concat(row.className))""")

    def picture(self, path):
        data = self.call("Page.captureScreenshot", format="png")["data"]
        path.write_bytes(base64.b64decode(data))

    def faults(self):
        """What the page has thrown, or the browser has complained of, but for a server that was not there."""
        found = []
        for session, method, parameters in list(self._browser.events):
            if session != self._session:
                continue
            if method == "Runtime.exceptionThrown":
                found.append(parameters["exceptionDetails"])
            elif method == "Log.entryAdded" and parameters["entry"]["source"] != "network":
                found.append(parameters["entry"])
        return found

    def requested(self):
        """The addresses of everything that it has asked for."""
        return {parameters["request"]["url"] for session, method, parameters in list(self._browser.events)
                if session == self._session and method == "Network.requestWillBeSent"}
