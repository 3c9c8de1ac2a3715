from system.conftest import make_namespace, network
