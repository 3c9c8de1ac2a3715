# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

import pytest

from descriptions import describe


@pytest.fixture(scope="module")
def built(tmp_path_factory):
    """The description of the library as it is built."""
    return describe(tmp_path_factory.mktemp("built") / "built.abi")
