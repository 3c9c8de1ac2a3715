# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Hosts at both ends of a cable, and firewalls."""

import subprocess

import namespaces


def lay(here, there):
    """The first is 10.1.1.1 then, the second 10.1.1.2."""
    namespaces.connect(here, there)
    for number, place in enumerate((here, there), 1):
        place.ip(f"address add 10.1.1.{number}/24 dev eth0")
        place.ip("route add 255.255.255.255/32 dev eth0")


def drop(place, direction, packets):
    """A firewall in that place drops them."""
    with place:
        for command in ("table inet wall",
                        f"chain inet wall {direction} {{ type filter hook {direction} priority 0 ; }}",
                        f"rule inet wall {direction} {packets} drop"):
            subprocess.run(["nft", f"add {command}"], check=True)
