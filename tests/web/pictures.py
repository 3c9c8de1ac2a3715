# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Takes the pictures of the page that the documents show: pictures.py FOLDER. Run by scripts/pictures."""

import math
import pathlib
import random
import sys
import tempfile
import time

sys.path.append(str(pathlib.Path(__file__).parents[1] / "tools"))

import browser
import command
import members
import namespaces

STEPS = 60
BETWEEN_STEPS = 0.15  # Seconds. The lines need a past.


class Plant:
    """A small line of machines, with a table that two members write and one that is no text."""

    def __init__(self):
        chance = random.Random(8075)
        self.noise = lambda width: chance.uniform(-width, width)
        self.press = members.Member(b"press-1", [(b"order", b"current", b"A-4711"), (b"order", b"next", b"A-4712"),
                                                 (b"status", b"mode", b"automatic"), (b"status", b"mould", b"M-20/3")])
        self.oven = members.Member(b"oven", [(b"status", b"mode", b"hold"), (b"recipe", b"name", b"PA66 dry"),
                                             (b"recipe", b"hash", bytes.fromhex("f09f4a1cc0ffee77"))], process=b"heat")
        self.robot = members.Member(b"robot", [(b"axis", b"homed", b"yes")], process=b"motion")
        self.panel = members.Member(b"panel", [(b"operator", b"name", "J. Müller".encode()),
                                               (b"operator", b"shift", b"early")], process=b"hmi")
        self.scale = members.Member(b"scale-2", [(b"status", b"weight", b"0.0")], process=b"io")
        self.all = [self.press, self.oven, self.robot, self.panel, self.scale]

    def step(self, number):
        self.press.set_all([(b"status", b"pressure/bar", b"%.1f" % (96 + 22 * math.sin(number / 5) + self.noise(2))),
                            (b"status", b"shots", b"%d" % (18_204 + number // 3))])
        self.oven.set_all([(b"zone/1", b"temperature", b"%.1f" % (184 + number / 12 + self.noise(.3))),
                           (b"zone/2", b"temperature", b"%.1f" % (191 - number / 30 + self.noise(.3))),
                           (b"zone/1", b"heater/%", b"%d" % (55 + 30 * math.cos(number / 7)))])
        self.robot.set_all([(b"axis", b"x", b"%.1f" % (400 * math.sin(number / 9))),
                            (b"axis", b"y", b"%.1f" % (250 * math.cos(number / 9))),
                            (b"axis", b"gripper", b"closed" if number % 16 < 8 else b"open")])
        if number % 20 == 10:
            self.press.set(b"order", b"current", b"A-%d" % (4711 + number // 20))
        if number == STEPS * 2 // 3:
            self.scale.leave()


def main(folder):
    with namespaces.Namespace(), tempfile.TemporaryDirectory() as profile:
        web = command.Running("web", "--listen", "127.0.0.1:0")
        assert web.eventually(lambda: web.lines), web.errors
        url = web.lines[0].decode()
        plant = Plant()
        for member in plant.all:
            member.meets()
        chromium = browser.Browser(profile)
        pages = {"light": chromium.open(url, width=1200, height=700),
                 "dark": chromium.open(url, width=1200, height=700, dark=True),
                 "phone": chromium.open(url, width=390, height=760)}
        numbers = iter(range(1000))
        for name, page in pages.items():
            page.call("Page.bringToFront")
            for _ in range(STEPS if name == "light" else STEPS // 6):
                plant.step(next(numbers))
                time.sleep(BETWEEN_STEPS)  # The pace of the changes that the pictures show.
            page.picture(folder / f"{name}.png")
        chromium.close()
        for member in plant.all:
            member.leave()
        web.clean_up()


main(pathlib.Path(sys.argv[1]))
