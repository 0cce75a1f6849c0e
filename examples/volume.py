#!/usr/bin/python3
"""Reads, writes, lists and watches properties as propsrv-protocol(7) says, with Debian's python3-paho-mqtt.

    volume.py get KEY | set KEY VALUE | list PATTERN | watch KEY...

CREDENTIALS in the environment names a file with user and password, a line each; TIMEOUT is in seconds."""

import json
import os
import pathlib
import signal
import sys
import time
import uuid

import paho.mqtt.client as mqtt

PRESENCE, CHANGES = "services/prop-service/online", "+/any"


class Failure(Exception):
    """No connection; the service is away, and nothing was sent; or no answer, and what became of it is unknown."""


class Properties:
    """One connection to the service, for one thread. After a failure make another: paho would repeat old requests."""

    def __init__(self, user="", password="", timeout=5.0, host="localhost", port=1883):
        self._own = "volume-" + uuid.uuid4().hex
        self._name, self.timeout = user or self._own, timeout
        self._replies, self._is_open, self._in_doubt = [], False, True
        self.present = None  # True, False, or None while it is unknown
        self.missed, self.announced = True, set()  # whether changes may have been missed; the keys of others
        version = [mqtt.CallbackAPIVersion.VERSION2] if hasattr(mqtt, "CallbackAPIVersion") else []
        self._mqtt = mqtt.Client(*version, client_id=self._own, clean_session=True)
        self._mqtt.username_pw_set(user or None, password or None)
        self._mqtt.on_connect, self._mqtt.on_subscribe = self._on_connect, self._on_subscribe
        self._mqtt.on_message = self._on_message
        self._mqtt.connect(host, port)
        deadline = time.monotonic() + timeout
        while not self._is_open:
            self.turn(deadline, "the broker does not answer")

    def turn(self, deadline, complaint):
        """Waits for something to come, and complains after the deadline."""
        if (left := deadline - time.monotonic()) <= 0:
            raise Failure(complaint)
        if self._mqtt.loop(min(left, 1)) != mqtt.MQTT_ERR_SUCCESS:
            raise Failure("the connection to the broker is lost")

    def get(self, key):
        """Returns the value, or None for an unknown property."""
        request = {"method": "getV", "param": key}
        return self._ask(request, lambda reply: "result" in reply or reply["status"] == "NotFound").get("result")

    def set(self, key, value):
        request = {"method": "setV", "param": key, "value": value}
        return self._ask(request, lambda reply: "result" not in reply)["status"]

    def list(self, pattern):
        """Values by key, those of State keys aside."""
        request = {"method": "getColsL", "param": pattern, "fields": "key,value"}
        reply = self._ask(request, lambda reply: "result" in reply or reply["status"] is None)
        return {row["key"]: row.get("value", "") for row in reply.get("result", [])}

    def _ask(self, request, is_answer):
        if self.present is False:
            raise Failure("the service is away; nothing was sent")
        mark, self._replies = None, []
        if self._in_doubt:  # no property is called like the mark; replies before its echo belong to earlier requests
            mark = "?" + uuid.uuid4().hex
            self._publish({"method": "getColsL", "param": mark, "fields": "key"})
        self._in_doubt = True
        self._publish(request)
        deadline = time.monotonic() + self.timeout
        while True:
            self.turn(deadline, "no answer; whether it was done, or will be, is unknown")
            while self._replies:
                reply = self._replies.pop(0)
                if mark is not None:
                    mark = None if reply.get("param") == mark else mark
                elif reply.get("param") == request["param"] and "status" in reply and is_answer(reply):
                    self._in_doubt = False
                    return reply

    def _publish(self, request):
        self._mqtt.publish(f"{self._name}/prop-service", json.dumps(request), qos=2)

    def _on_connect(self, client, _userdata, _flags, code, *_properties):
        if code != 0:
            raise Failure(mqtt.connack_string(code))
        client.subscribe(PRESENCE, 1)  # the broker answers in this order: the second answer comes after the presence
        self._last = client.subscribe([(f"prop-service/{self._name}", 1), (CHANGES, 1)])[1]

    def _on_subscribe(self, _client, _userdata, subscription, codes, *_properties):
        if any(getattr(code, "value", code) >= 128 for code in codes):
            raise Failure("the broker refuses a subscription")
        self._is_open |= subscription == self._last

    def _on_message(self, _client, _userdata, message):
        if message.topic == PRESENCE:
            self.present = {b"0": False, b"1": True}.get(message.payload)
            self.missed |= self.present is True  # what the start of the service has changed was not announced
        elif not message.topic.startswith("prop-service/"):  # of one key, which is the param, or of many
            self.announced.update(body := json.loads(message.payload), [body.get("param")])
        else:
            self._replies.append(json.loads(message.payload))


def watch(properties, keys, known):
    while True:
        if properties.present is not False:
            # An announcement may be older than the last reading: it only says what to read.
            stale = keys if properties.missed else properties.announced.intersection(keys)
            properties.missed, properties.announced = False, set()
            for key in sorted(stale):
                if (value := properties.get(key)) != known.get(key, known):
                    known[key] = value
                    print(f"{key} is not there" if value is None else f"{key}={value}", flush=True)
        properties.turn(time.monotonic() + 60, "")


def main(arguments):
    user, password, *_ = pathlib.Path(os.environ.get("CREDENTIALS", "/dev/null")).read_text().split("\n") + [""]
    known = {}
    while True:
        try:
            properties = Properties(user, password, float(os.environ.get("TIMEOUT", "5")))
            match arguments:
                case ["get", key]:
                    value = properties.get(key)
                    return print(value) if value is not None else "no such property"
                case ["set", key, value]:
                    return {"Ok": None}.get(status := properties.set(key, value), status)
                case ["list", pattern]:
                    values = sorted(properties.list(pattern).items())
                    return sys.stdout.writelines(f"{key}={value}\n" for key, value in values)
                case ["watch", *keys] if keys:
                    watch(properties, keys, known)
            return __doc__
        except (Failure, OSError) as failure:
            print(failure, file=sys.stderr, flush=True)
            if arguments[:1] != ["watch"]:
                return 3
            time.sleep(1)


if __name__ == "__main__":
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    sys.exit(main(sys.argv[1:]))
