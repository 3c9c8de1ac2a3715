# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The kept captures; see the README.md in captures/."""

import fnmatch
import json
import pathlib
import random
import re
import subprocess

import pytest

import captures
import programs
import tshark


def written_down(name):
    return (captures.FOLDER / f"{name}.txt").read_text(encoding="utf-8").splitlines()


@pytest.mark.parametrize("name", captures.SHOWN)
def test_a_kept_capture_is_shown_as_it_is_written_down(name):
    assert captures.shown(name) == written_down(name)


def test_the_captures_made_by_hand_are_what_the_script_makes():
    changed = [made.__name__ for made in captures.MADE
               if captures.path(made.__name__).read_bytes() != captures.make(made)]

    assert changed == []


@pytest.mark.parametrize("name", ["both_ways", "lost"])
def test_a_single_pass_shows_the_same_as_a_second_one(name):
    assert captures.shown(name, passes=()) == written_down(name)


def test_the_fields_have_the_names_that_filters_use():
    assert tshark.protocol_fields() == written_down("fields")


def ask(home, *requests):
    """The answers of sharkd, Wireshark's own daemon: {method: parameters} each."""
    lines = [json.dumps({"jsonrpc": "2.0", "id": number, "method": method, "params": parameters}) + "\n"
             for number, (method, parameters) in enumerate(requests, 1)]
    sharkd = tshark.start("sharkd", "-", home=home, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL)
    answers = [json.loads(line) for line in sharkd.communicate("".join(lines).encode())[0].splitlines()]
    assert [answer for answer in answers if "result" not in answer] == []
    assert len(answers) == len(requests)
    return [answer["result"] for answer in answers]


def load(name):
    return "load", {"file": str(captures.path(name))}


def labels(node):
    """The texts of a tree as sharkd tells it."""
    for inner in node:
        yield inner["l"]
        yield from labels(inner.get("n", ()))


@pytest.fixture
def home(tmp_path):
    """With the dissector where Wireshark looks for a user's own, and TRANSUM, which wants a tree on the first pass."""
    (tmp_path / ".local/lib/wireshark/plugins").mkdir(parents=True)
    (tmp_path / ".local/lib/wireshark/plugins/varnix.lua").symlink_to(tshark.DISSECTOR)
    (tmp_path / ".config/wireshark").mkdir(parents=True)
    (tmp_path / ".config/wireshark/enabled_protos").write_text("transum\n", encoding="ascii")
    return tmp_path


def test_packets_look_the_same_whenever_and_however_often_they_are_opened(home):
    print("seed:", programs.SEED)
    requests, opened = [], {}
    for name, packets in (("both_ways", 28), ("malformed", 79), ("both_ways", 28)):  # Nothing is left of another file.
        requests.append(load(name))
        for number in random.Random(programs.SEED).sample([*range(1, packets + 1)] * 2, 2 * packets):
            opened.setdefault((name, number), []).append(len(requests))
            requests.append(("frame", {"frame": number, "proto": True}))

    answers = ask(home, *requests)

    def tree(at):
        return list(labels(proto for proto in answers[at]["tree"] if proto.get("f") == "varnix"))

    shown = {packet: [tree(at) for at in places] for packet, places in opened.items()}
    assert {packet: trees for packet, trees in shown.items() if any(tree != trees[0] for tree in trees)} == {}
    assert [text for text in shown["both_ways", 16][0] if "Key: " in text] == [f"Key: key {n}" for n in range(1, 7)]


def test_each_filter_of_the_readme_finds_packets(home):
    readme = (tshark.DISSECTOR.parent / "README.md").read_text(encoding="utf-8")
    block = readme[readme.index("Display filters:"):].split("```")[1]
    filters = [re.split("  +", line)[0] for line in block.splitlines()[1:]]
    names = ("both_ways", "malformed", "middle")

    answers = iter(ask(home, *(request for name in names for request in (
        load(name), *(("frames", {"filter": words}) for words in filters)))))

    found = dict.fromkeys(filters, 0)
    for _ in names:
        next(answers)
        for words in filters:
            found[words] += len(next(answers))
    assert len(filters) == 8
    assert [words for words, count in found.items() if count == 0] == []


def test_the_debian_package_puts_it_where_wireshark_looks():
    folders = tshark.output(tshark.start("tshark", "-G", "folders", stdout=subprocess.PIPE, stderr=subprocess.PIPE))
    folder, = re.findall(r"^Global Lua Plugins:\s*(.*)$", folders, re.MULTILINE)
    packaged = pathlib.Path(__file__).parents[2] / "debian" / "varnix-tools.install"

    places = [line for line in packaged.read_text(encoding="ascii").splitlines() if "wireshark" in line]
    assert [fnmatch.fnmatch(f"{folder}/varnix.lua", f"/{place}") for place in places] == [True]


def test_two_passes_without_a_tree_on_the_first_one_say_what_is_missing():
    shown = captures.shown("both_ways", passes=["-2"])

    assert "1 Varnix: Announcement: group line-4, TCP port 49413" in shown
    assert "5 TCP: [Varnix: not decoded, tshark -2 without a filter]" in shown
    assert [line for line in shown if "Key: " in line] == []
