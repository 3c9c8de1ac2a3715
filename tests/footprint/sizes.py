# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""How large a library is, and what it is made of."""

import pathlib
import re
import subprocess
import tempfile

MOST_ARMHF_BYTES = 80_000  # What devices with little flash were promised; the stripped file stays below.


def stripped_size(library, strip):
    with tempfile.TemporaryDirectory() as directory:
        stripped = pathlib.Path(directory) / "stripped.so"
        subprocess.run([strip, "--strip-all", "-o", str(stripped), str(library)], check=True)
        return stripped.stat().st_size


def sections(library, readelf):
    """(name, type, size, entry size, flags) of each section that is loaded."""
    listing = subprocess.run([readelf, "--section-headers", "--wide", str(library)], check=True, capture_output=True,
                             text=True).stdout
    pattern = r"^ *\[ *\d+\] (\S+) +(\S+) +[0-9a-f]+ [0-9a-f]+ ([0-9a-f]+) ([0-9a-f]+) +([A-Zxop]*) "
    for name, kind, size, entry_size, flags in re.findall(pattern, listing, re.MULTILINE):
        if "A" in flags:
            yield name, kind, int(size, 16), int(entry_size, 16), flags


def parts(library, readelf):
    """Bytes of what is executed, only read, written and relocated, and how many relocations there are."""
    sums = {"text": 0, "read-only": 0, "writable": 0, "relocations": 0, "relocation entries": 0}
    for _, kind, size, entry_size, flags in sections(library, readelf):
        if kind in ("REL", "RELA"):
            sums["relocations"] += size
            sums["relocation entries"] += size // entry_size
        elif "X" in flags:
            sums["text"] += size
        elif "W" in flags:
            sums["writable"] += size
        else:
            sums["read-only"] += size
    return sums
