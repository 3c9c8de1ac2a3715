# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Network namespaces: each test has one or several of its own, so that tests neither hear each other nor anybody else.

A namespace has no name: it lives as long as its descriptor or a process in it, and so it is never left behind.
"""

import ctypes
import os
import subprocess

CLONE_NEWNET = 0x40000000
CLONE_NEWUSER = 0x10000000

_libc = ctypes.CDLL(None, use_errno=True)


def _check(result):
    if result != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


def _become_root_of_a_user_namespace():
    user, group = os.geteuid(), os.getegid()
    _check(_libc.unshare(CLONE_NEWUSER | CLONE_NEWNET))
    for file, text in (("setgroups", "deny"), ("uid_map", f"0 {user} 1"), ("gid_map", f"0 {group} 1")):
        with open(f"/proc/self/{file}", "w", encoding="ascii") as opened:
            opened.write(text)


def why_unavailable():
    """None when namespaces can be made. Who is not root becomes root of a user namespace, where that is allowed."""
    here = os.open("/proc/self/ns/net", os.O_RDONLY)
    try:
        _check(_libc.unshare(CLONE_NEWNET))
        _check(_libc.setns(here, CLONE_NEWNET))
        return None
    except OSError as no_privilege:
        try:
            _become_root_of_a_user_namespace()
            return None
        except OSError as not_allowed:
            return f"needs network namespaces: as this user {no_privilege}, with a user namespace {not_allowed}"
    finally:
        os.close(here)


class Namespace:
    """`with namespace:` sockets are made and programs are started inside."""

    def __init__(self):
        self._outside = []
        before = os.open("/proc/self/ns/net", os.O_RDONLY)
        _check(_libc.unshare(CLONE_NEWNET))
        self._descriptor = os.open("/proc/self/ns/net", os.O_RDONLY)
        _check(_libc.setns(before, CLONE_NEWNET))
        os.close(before)
        self.ip("link set lo up")

    def __enter__(self):
        self._outside.append(os.open("/proc/self/ns/net", os.O_RDONLY))
        _check(_libc.setns(self._descriptor, CLONE_NEWNET))
        return self

    def __exit__(self, *_):
        outside = self._outside.pop()
        _check(_libc.setns(outside, CLONE_NEWNET))
        os.close(outside)

    def close(self):
        os.close(self._descriptor)

    def ip(self, command):
        with self:
            subprocess.run(["ip", *command.split()], check=True)

    def path(self):
        return f"/proc/{os.getpid()}/fd/{self._descriptor}"


def connect(left, right, left_name="eth0", right_name="eth0"):
    """A cable between two namespaces, with an MTU of 1500."""
    left.ip(f"link add {left_name} mtu 1500 type veth peer name far mtu 1500")
    left.ip(f"link set far name {right_name} netns {right.path()}")
    left.ip(f"link set {left_name} up")
    right.ip(f"link set {right_name} up")
