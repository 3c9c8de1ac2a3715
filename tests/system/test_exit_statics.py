# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Processes that end while static objects still hold tables, watchers and sets."""

import pytest

from endings import WAYS, every_run_ends_well
from programs import PROGRAMS


@pytest.mark.parametrize("way", WAYS)
@pytest.mark.parametrize("linked", ["through the second library", "after the second library"])
def test_static_objects_may_be_destroyed_after_the_library_ends(network, linked, way):
    every_run_ends_well("system_exit_statics_" + linked.split()[0], way)


@pytest.mark.parametrize("way", WAYS)
def test_a_library_that_uses_ours_may_be_loaded_and_unloaded_again_and_again(network, way):
    every_run_ends_well("system_exit_plugin", way, str(PROGRAMS / "libsystem_exit_statics.so"))
