# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

import pytest

import varnix
from system.conftest import make_host, make_namespace, network


@pytest.fixture
def table():
    return varnix.table("test")


@pytest.fixture
def plant(network, make_host):
    """A database that this process shares with a host: what is set in its table "status" reaches the other."""
    varnix.share("plant", "group", "device", "python", "127.255.255.255")
    host = make_host()
    host.share(b"plant", b"group", b"host")
    host.watch(b"plant", b"status")
    varnix.network_changed()
    yield host
    varnix.stop_sharing("plant")
