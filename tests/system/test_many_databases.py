# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Members with many databases in one group: each announcement makes each of them connect to each."""

import resource
import time

import programs

DATABASES = 10 if programs.EMULATOR else 50


def databases_met(reader, value):
    return sum(reader.table(b"db%d" % number, b"t").get(b"k") == value for number in range(DATABASES))


def test_two_processes_meet_in_every_database_of_one_group(network, make_host):
    writer, reader = make_host("--errors-only"), make_host("--errors-only")
    for host in (writer, reader):
        host.limit(resource.RLIMIT_NOFILE, 1024)
    for number in range(DATABASES):
        reader.watch(b"db%d" % number, b"t")
        writer.set(b"db%d" % number, b"t", b"k", b"1")
    begin = time.monotonic()
    for number in range(DATABASES):
        for host, name in ((writer, b"writer"), (reader, b"reader")):
            host.share(b"db%d" % number, b"line-4", name)

    assert reader.eventually(lambda: databases_met(reader, b"1") == DATABASES), databases_met(reader, b"1")

    programs.figure(f"{DATABASES} databases of one group met after {time.monotonic() - begin:.1f} s")
    for host in (writer, reader):
        shortages = [text for level, _, text in host.log if level == 3 and "::thread error" in text]
        assert len(shortages) <= 100, shortages  # One for each time that places had to wait, and not one for each place.
