# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

import contextlib
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "system"))
pytest.register_assert_rewrite("programs", "brokers", "sites")

import brokers
import namespaces
import sites

UNAVAILABLE = namespaces.why_unavailable()


def making(make, clean_up):
    """Yields a function that makes things. All of them are cleaned up when the test is over, the last one first."""
    with contextlib.ExitStack() as made:

        def make_one(*arguments, **keywords):
            thing = make(*arguments, **keywords)
            made.callback(clean_up, thing)
            return thing

        yield make_one


@pytest.fixture
def make_namespace():
    if UNAVAILABLE:
        pytest.skip(UNAVAILABLE)
    yield from making(namespaces.Namespace, namespaces.Namespace.close)


@pytest.fixture
def middle(make_namespace):
    """The namespace of the brokers."""
    return make_namespace()


@pytest.fixture
def make_broker(middle, tmp_path_factory):
    yield from making(lambda *settings, **options: brokers.Broker(middle, tmp_path_factory.mktemp("broker"), *settings,
                                                                  **options),
                      brokers.Broker.clean_up)


@pytest.fixture
def broker(make_broker):
    return make_broker().start()


@pytest.fixture
def make_client():
    yield from making(brokers.Client, brokers.Client.clean_up)


@pytest.fixture
def make_proxy():
    yield from making(brokers.Proxy, brokers.Proxy.clean_up)


@pytest.fixture
def make_site(make_namespace, middle):
    count = iter(range(1, 255))
    return lambda name: sites.Site(name, next(count), make_namespace(), middle)


@pytest.fixture
def make_member():
    """A member of the group of a site, which shares these databases. It must end well when the test is over."""

    def make(site, *databases):
        with site.namespace:
            member = sites.Member()
            number = site._members = site._members + 1
            for database in databases or [sites.DATABASE]:
                member.share(database, sites.GROUP, b"member %d" % number)
            member.do("network-changed")
        return member

    def clean_up(member):
        assert member.clean_up() == 0, member.errors

    yield from making(make, clean_up)


@pytest.fixture
def start_bridge():
    """The bridge of a site. It must end well when the test is over, if the test has not seen its end."""

    def make(site, *arguments, environment=None, limit=None, **options):
        with site.namespace:
            return sites.Bridge(*site.bridge_arguments(*arguments, **options), environment=environment, limit=limit)

    def clean_up(bridge):
        assert bridge.clean_up(), bridge.lines[-20:]

    yield from making(make, clean_up)


@pytest.fixture
def make_writer():
    """A member of the group of a site that sets rows by itself; see bench/peers/main.cpp."""

    def make(site, database_and_table):
        with site.namespace:
            return sites.Writer(database_and_table)

    yield from making(make, sites.Writer.clean_up)
