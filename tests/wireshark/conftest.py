# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

# The fixtures of the system tests: a network namespace for each test, and hosts that must end well.
from system.conftest import make_host, make_namespace, network
