"""Brokers: Debian's mosquitto, in a network namespace, and a client that looks at what it has."""

import os
import queue
import re
import socket
import subprocess
import threading
import time

import paho.mqtt.client
import paho.mqtt.packettypes
import paho.mqtt.properties
from programs import DEADLINE, eventually

SETTINGS = ["user root", "max_queued_messages 0", "max_inflight_messages 100", "set_tcp_nodelay true"]
OPEN = ["listener 1883 0.0.0.0", "allow_anonymous true"]
PORT = 1883


class Broker:
    """mosquitto with these settings, from start() on."""

    def __init__(self, namespace, folder, *settings, address="127.0.0.1", port=PORT):
        self.namespace, self.address, self.port = namespace, address, port
        self._folder = folder
        self._process = None
        self.pid = None
        self.lines = []
        self._changed = threading.Condition()
        self._reader = None
        (folder / "mosquitto.conf").write_text("\n".join([*SETTINGS, *(settings or OPEN)]) + "\n")

    def start(self):
        with self.namespace:
            self._process = subprocess.Popen(["mosquitto", "-c", self._folder / "mosquitto.conf", "-v"],
                                             stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
            self.pid = self._process.pid
            self._reader = threading.Thread(target=self._read, args=(self._process.stderr,))
            self._reader.start()
            assert eventually(self._answers), self.lines
        return self

    def _read(self, stream):
        for line in stream:
            with self._changed:
                self.lines.append(line.decode("latin-1").rstrip("\n"))
                self._changed.notify_all()

    def _answers(self):
        with socket.socket() as probe:
            return probe.connect_ex((self.address, self.port)) == 0

    def says(self, pattern, seconds=DEADLINE):
        """Waits for a line in which the pattern is found."""
        with self._changed:
            return self._changed.wait_for(lambda: any(re.search(pattern, line) for line in self.lines), seconds)

    def send(self, number):
        os.kill(self.pid, number)

    def kill(self):
        """It has no time to save anything."""
        self._process.kill()
        self._end()

    def stop(self):
        """Ends it well: what is to be kept is kept."""
        self._process.terminate()
        self._end()

    def _end(self):
        self._process.wait(DEADLINE)
        self._reader.join()
        self._process.stderr.close()
        self._process = None

    def clean_up(self):
        if self._process is not None:
            self.kill()

    def memory(self):
        """Bytes."""
        with open(f"/proc/{self.pid}/statm", encoding="ascii") as file:
            return int(file.read().split()[1]) * os.sysconf("SC_PAGESIZE")


class Client:
    """Any other client of the broker. What has arrived is in `messages`, the newest payload of each topic."""

    def __init__(self, broker, *filters, **options):
        self.messages = {}
        self.history = []  # (topic, payload, retained)
        self._changed = threading.Condition()
        self._subscribed = queue.Queue()
        self._client = paho.mqtt.client.Client(protocol=paho.mqtt.client.MQTTv5)
        if "user" in options:
            self._client.username_pw_set(options["user"], options["password"])
        self._client.max_inflight_messages_set(100)
        self._client.on_message = self._on_message
        self._client.on_subscribe = lambda *arguments: self._subscribed.put(arguments)
        with broker.namespace:
            self._client.connect(broker.address, broker.port)
        self._client.loop_start()
        for pattern in filters:
            self._client.subscribe(pattern, 1)
            self._subscribed.get(timeout=DEADLINE)

    def _on_message(self, _client, _self, message):
        with self._changed:
            self.messages[message.topic] = message.payload
            self.history.append((message.topic, message.payload, bool(message.retain)))
            self._changed.notify_all()

    def publish(self, topic, payload, retain=True):
        sent = self._client.publish(topic, payload, 1, retain)
        return sent

    def publish_and_wait(self, topic, payload, retain=True):
        self.publish(topic, payload, retain).wait_for_publish(DEADLINE)

    def eventually(self, condition, seconds=DEADLINE):
        with self._changed:
            return self._changed.wait_for(lambda: condition(self.messages), seconds)

    def gets(self, topic, payload):
        return self.eventually(lambda messages: messages.get(topic) == payload)

    def clean_up(self):
        self._client.disconnect()
        self._client.loop_stop()
