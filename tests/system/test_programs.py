# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""What the other tests rely on."""

from programs import steps_back


def test_a_number_that_does_not_rise_is_a_step_back():
    assert steps_back([(b"a", b"1"), (b"b", b"1"), (b"a", b"3"), (b"a", b"2"), (b"b", b"1"), (b"a", b"4")]) == [
        (b"a", b"2", 3), (b"b", b"1", 1)]
