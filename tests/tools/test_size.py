# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""What the command costs a device with 32-bit ARM."""

import os
import subprocess

import pytest

from programs import figure


@pytest.mark.parametrize("variable, name, most", [
    ("VARNIX_WITHOUT_PAGE", "the command varnix without its page", 300_000),
    ("VARNIX_TOOL", "the command varnix", 400_000),
])
def test_it_is_small(tmp_path, variable, name, most):
    stripped = tmp_path / "varnix"
    subprocess.run([os.environ["VARNIX_STRIP"], "-o", stripped, os.environ[variable]], check=True)

    size = stripped.stat().st_size

    figure(f"{name} has {size} bytes")
    assert size <= most
