# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Brokers: Debian's mosquitto in a network namespace, clients that look at what it has, and what stands between."""

import socket
import struct
import threading

import paho.mqtt.client
from logged import Logged
from programs import DEADLINE, eventually

# What a broker for bridges needs: see docs/beyond-one-network.md. "user root" stands for "stay who you are".
SETTINGS = ["user root", "max_queued_messages 0", "max_inflight_messages 64", "set_tcp_nodelay true"]
OPEN = ["listener 1883 0.0.0.0", "allow_anonymous true"]
LOCALHOST = "127.0.0.1"


class Broker(Logged):
    """mosquitto with these settings, from start() on."""

    def __init__(self, namespace, folder, *settings, port=1883):
        super().__init__()
        self.namespace, self.port = namespace, port
        self._folder = folder
        (folder / "mosquitto.conf").write_text("\n".join([*SETTINGS, *(settings or OPEN)]) + "\n")

    def start(self):
        with self.namespace:
            self._start(["mosquitto", "-v", "-c", self._folder / "mosquitto.conf"])
            assert eventually(self._answers), self.lines
        return self

    def _answers(self):
        with socket.socket() as probe:
            return probe.connect_ex((LOCALHOST, self.port)) == 0

    def kill(self):
        """It has no time to save anything."""
        self._process.kill()
        self._end()

    def stop(self):
        """Ends it well: what is to be kept is kept."""
        self._process.terminate()
        self._end()

    def _end(self):
        self._wait_for_its_end()
        self._process = None

    def clean_up(self):
        if self._process is not None:
            self.kill()


class Client:
    """Any other client of the broker, which subscribes to these filters."""

    def __init__(self, broker, *filters, user=None, password=None):
        self.messages = {}  # The newest payload of each topic.
        self.history = []  # (topic, payload)
        self._changed = threading.Condition()
        self._subscribed = 0
        self._client = paho.mqtt.client.Client(protocol=paho.mqtt.client.MQTTv5)
        if user is not None:
            self._client.username_pw_set(user, password)
        self._client.max_inflight_messages_set(64)
        self._client.on_message = self._on_message
        self._client.on_subscribe = self._on_subscribe
        with broker.namespace:
            self._client.connect(LOCALHOST, broker.port)
        self._client.loop_start()
        for pattern in filters:
            self._client.subscribe(pattern, 1)
        assert self.eventually(lambda: self._subscribed == len(filters))

    def _on_subscribe(self, *_):
        with self._changed:
            self._subscribed += 1
            self._changed.notify_all()

    def _on_message(self, _client, _self, message):
        with self._changed:
            self.messages[message.topic] = message.payload
            self.history.append((message.topic, message.payload))
            self._changed.notify_all()

    def publish(self, topic, payload, retain=True):
        return self._client.publish(topic, payload, 1, retain)

    def publish_and_wait(self, topic, payload, retain=True):
        self.publish(topic, payload, retain).wait_for_publish(DEADLINE)

    def eventually(self, condition, seconds=DEADLINE):
        with self._changed:
            return self._changed.wait_for(condition, seconds)

    def gets(self, topic, payload):
        return self.eventually(lambda: self.messages.get(topic) == payload)

    def clean_up(self):
        self._client.disconnect()
        self._client.loop_stop()


PUBLISH, PUBACK = 3, 4


class Packet:
    """One of MQTT, as it stands on the wire."""

    def __init__(self, stream):
        """From a binary file; EOFError at its end."""
        head = self._exactly(stream, 1)
        size, shift = 0, 0
        while True:
            byte = self._exactly(stream, 1)
            head += byte
            size |= (byte[0] & 0x7F) << shift
            shift += 7
            if byte[0] < 0x80:
                break
        self.kind = head[0] >> 4
        self.body = self._exactly(stream, size)
        self.bytes = head + self.body

    @staticmethod
    def _exactly(stream, size):
        data = stream.read(size)
        if len(data) < size:
            raise EOFError
        return data

    def topic(self):
        size, = struct.unpack(">H", self.body[:2])
        return self.body[2:2 + size].decode("latin-1")

    def number(self):
        """The two bytes behind the topic of a message of QoS 1."""
        size, = struct.unpack(">H", self.body[:2])
        return self.body[2 + size:4 + size]


class Relay:
    """One connection of a client through a proxy."""

    def __init__(self, proxy, client, broker):
        self._proxy, self._ends = proxy, (client, broker)
        self.unacknowledged = 0
        self.is_cut = False
        proxy.start_thread(self._forward, client, broker, self._from_client)
        proxy.start_thread(self._forward, broker, client, self._from_broker)

    def _forward(self, source, target, look_at):
        try:
            stream = source.makefile("rb")
            while True:
                packet = Packet(stream)
                if not look_at(packet):
                    break
                reason = self._proxy.refusal(packet) if packet.kind == PUBLISH and source is self._ends[0] else None
                if reason is None:
                    target.sendall(packet.bytes)
                else:
                    source.sendall(bytes([PUBACK << 4, 3]) + packet.number() + bytes([reason]))
        except (EOFError, OSError):
            pass
        self.cut()

    def cut(self):
        with self._proxy.changed:
            self.is_cut = True
            self._proxy.changed.notify_all()
        for end in self._ends:
            try:
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def _from_client(self, packet):
        if packet.kind == PUBLISH:
            self._count(1)
        return self._proxy.passes(packet)

    def _from_broker(self, packet):
        if packet.kind == PUBACK:
            self._proxy.eventually(lambda: self.is_cut or not self._proxy.holds_acknowledgements)
            self._count(-1)
        return not self.is_cut

    def _count(self, difference):
        with self._proxy.changed:
            self.unacknowledged += difference
            self._proxy.most_unacknowledged = max(self._proxy.most_unacknowledged, self.unacknowledged)
            self._proxy.changed.notify_all()


class Proxy:
    """Stands between clients and a broker, in the broker's namespace.

    `passes(packet)` is asked about each packet that comes from a client: where it is false, the connection ends.
    `refusal(packet)` is asked about each message: where it gives a reason, that goes to the client, and nothing to the
    broker.
    """

    def __init__(self, broker, port=1884, passes=lambda packet: True, refusal=lambda packet: None):
        self._broker, self.port, self.passes, self.refusal = broker, port, passes, refusal
        self.changed = threading.Condition()
        self.holds_acknowledgements = False
        self.most_unacknowledged = 0
        self.relays = []
        with broker.namespace:
            self._listener = socket.create_server(("", port))
        self.start_thread(self._accept)

    @staticmethod
    def start_thread(function, *arguments):
        threading.Thread(target=function, args=arguments, daemon=True).start()

    def _accept(self):
        with self._broker.namespace:
            while True:
                try:
                    client, _ = self._listener.accept()
                except OSError:
                    return  # The test is over.
                try:
                    broker = socket.create_connection((LOCALHOST, self._broker.port))
                except OSError:
                    client.close()
                    continue
                self.relays.append(Relay(self, client, broker))

    def hold_acknowledgements(self, hold=True):
        with self.changed:
            self.holds_acknowledgements = hold
            self.changed.notify_all()

    def eventually(self, condition, seconds=DEADLINE):
        with self.changed:
            return self.changed.wait_for(condition, seconds)

    def has_unacknowledged(self, count):
        """Waits until the newest connection has so many messages without an acknowledgement."""
        return self.eventually(lambda: self.relays and self.relays[-1].unacknowledged == count)

    def clean_up(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self.hold_acknowledgements(False)
