import importlib.util
import pathlib
import sys

import pytest

SYSTEM_TESTS = pathlib.Path(__file__).resolve().parent.parent / "system"
sys.path.insert(0, str(SYSTEM_TESTS))
pytest.register_assert_rewrite("programs", "brokers", "sites")

import brokers
import sites

# The fixtures of the system tests; their file has the same name as this one.
specification = importlib.util.spec_from_file_location("system_fixtures", SYSTEM_TESTS / "conftest.py")
system_fixtures = importlib.util.module_from_spec(specification)
specification.loader.exec_module(system_fixtures)
make_namespace, make_host = system_fixtures.make_namespace, system_fixtures.make_host


@pytest.fixture
def make_broker(make_namespace, tmp_path):
    """Brokers, in one namespace that the sites are joined to."""
    made = []
    namespace = make_namespace()

    def make(*settings, **options):
        folder = tmp_path / f"broker{len(made)}"
        folder.mkdir()
        made.append(brokers.Broker(namespace, folder, *settings, **options))
        return made[-1]

    make.namespace = namespace
    yield make
    for broker in made:
        broker.clean_up()


@pytest.fixture
def broker(make_broker):
    return make_broker().start()


@pytest.fixture
def make_client():
    made = []

    def make(*arguments, **options):
        made.append(brokers.Client(*arguments, **options))
        return made[-1]

    yield make
    for client in made:
        client.clean_up()


@pytest.fixture
def make_site(make_namespace, make_broker, make_host):
    made = []

    def make(name):
        made.append(sites.Site(name, len(made) + 1, make_namespace(), make_broker.namespace, make_host))
        return made[-1]

    return make


@pytest.fixture
def start_bridge():
    """Starts the bridge of a site; all bridges must end well when the test is over."""
    made = []

    def start(site, *arguments, **options):
        made.append(site.start_bridge(*arguments, **options))
        return made[-1]

    yield start
    ends = [(bridge.clean_up(), bridge.lines[-20:]) for bridge in made]
    assert [status for status, _ in ends] == [0] * len(made), ends
