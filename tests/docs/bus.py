"""The client `panel` on the device's bus, which hears all that is announced."""

import json
import os
import select
import subprocess
import time

from device import PATIENCE, eventually, start

_REQUESTS = "panel/prop-service"
_REPLIES = "prop-service/panel"
_LAST_KEY = "State.Documents.Last"


class Bus:
    def __init__(self, device):
        self._listener = start(
            ["mosquitto_sub", "-i", "listener", "-q", "1", "-F", "%t %p", "-t", _REPLIES, "-t", "+/any"],
            stdout=subprocess.PIPE,
        )
        self._speaker = start(
            ["mosquitto_pub", "-i", "speaker", "-q", "1", "-t", _REQUESTS, "-l"], stdin=subprocess.PIPE, text=True
        )
        self._last = 0
        if not eventually(lambda: "Sending SUBACK to listener" in device.broker_log()):
            raise TimeoutError("the broker does not accept the subscriptions")

    def ask(self, request):
        """Sends a request. The replies, and the notifications as "TOPIC TEXT", that come of it: all of them, because
        announcements come in their order and so that of a later write comes last."""
        self._last += 1
        last = {"method": "setV", "param": _LAST_KEY, "value": str(self._last)}
        self._speaker.stdin.write(f"{request}\n{json.dumps(last)}\n")
        self._speaker.stdin.flush()

        end = f'prop-service-groupnotify/any {{"{_LAST_KEY}":"{self._last}"}}\n'
        heard = [line for line in self._listen_until(end).splitlines() if line and _LAST_KEY not in line]
        replies = [line.removeprefix(_REPLIES + " ") for line in heard if line.startswith(_REPLIES + " ")]
        return replies, [line for line in heard if not line.startswith(_REPLIES + " ")]

    def _listen_until(self, end):
        heard = ""
        deadline = time.monotonic() + PATIENCE
        while end not in heard or f'"{_LAST_KEY}","status"' not in heard:
            if not select.select([self._listener.stdout], [], [], max(0, deadline - time.monotonic()))[0]:
                raise TimeoutError("no answer; so far: " + heard)
            heard += os.read(self._listener.stdout.fileno(), 65536).decode()
        return heard

    def close(self):
        for process in (self._speaker, self._listener):
            process.terminate()
            process.wait(PATIENCE)
