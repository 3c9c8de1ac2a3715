"""A peer that comes back before anybody knows that it was gone."""

import wire
from programs import EMULATOR, SOAK

GROUP = b"line-4"
BACKLOG = 5_000 if EMULATOR else 100_000
RUNS = 50 if SOAK else 3


def serve(listener, device):
    stream = listener.accept()
    stream.send(wire.hello(b"plant", device, b"q"))
    return stream


def test_a_peer_that_restarts_while_its_old_stream_is_drained_is_met_at_once(ether, make_host):
    host = make_host("--slow-log")
    host.watch(b"plant", b"state")
    host.share(b"plant", GROUP, b"press")
    backlog = b"".join(wire.record(b"\x07backlog%06d" % number, b"v") for number in range(BACKLOG))
    for run in range(RUNS):
        device = b"pump %d" % run
        old = wire.Listener()
        ether.announce(old.port, GROUP)
        stream = serve(old, device)
        assert stream.receive_record()[0] == GROUP
        stream.send(backlog)
        stream.close()
        old.close()

        restarted = wire.Listener()
        ether.announce(restarted.port, GROUP)  # Once; the next one would be a minute away.
        assert serve(restarted, device).is_closed(), "the old stream is still drained"
        stream = serve(restarted, device)
        assert stream.receive_record()[0] == GROUP
        stream.send(wire.record(b"\x05state" b"alive", b"%d" % run))

        assert host.gets_row(b"plant", b"state", b"alive", b"%d" % run)
        stream.close()
        restarted.close()


def test_a_process_that_restarts_with_the_same_identity_is_seen_again_each_time(network, make_host):
    observer = make_host()
    observer.watch(b"plant", b"state")
    observer.share(b"plant", GROUP, b"observer")
    for run in range(20):
        writer = make_host("--default-log")
        writer.share(b"plant", GROUP, b"writer")
        writer.set(b"plant", b"state", b"run", b"%d" % run)
        assert observer.gets_row(b"plant", b"state", b"run", b"%d" % run)
        writer.kill()
