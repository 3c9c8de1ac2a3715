# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""What the command costs a device with 32-bit ARM."""

import os
import subprocess

from programs import figure

MOST_BYTES = int(os.environ["VARNIX_MOST_BYTES"])


def test_it_is_small(tmp_path):
    stripped = tmp_path / "varnix"
    subprocess.run([os.environ["VARNIX_STRIP"], "-o", stripped, os.environ["VARNIX_TOOL"]], check=True)

    size = stripped.stat().st_size

    figure(f"the command varnix has {size} bytes")
    assert size <= MOST_BYTES
