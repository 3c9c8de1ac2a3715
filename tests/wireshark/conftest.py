# The fixtures of the system tests: a network namespace for each test, and hosts that must end well.
from system.conftest import make_host, make_namespace, network
