"""A telephone: the daemon on its fixed paths, which lie on a disk of the test's own, with a broker beside it.

Only inside `script/sandbox --private-network`.
"""

import contextlib
import inspect
import json
import os
import pathlib
import re
import select
import shutil
import signal
import socket
import sqlite3
import struct
import subprocess
import time

PATIENCE = 20  # seconds

FOLDERS = {"sbin": "/usr/sbin", "config": "/config", "volatile": "/var/volatile"}
DATABASE = pathlib.Path("/usr/sbin/nvm")
FILES = {"user": "user_backup.csv", "version": "sys_backup.csv", "factory": "reset_backup.csv", "dump": "sysdump.csv"}
RECOVERY = "State.System.General.FirmwareUpdateParametersRecovery"

# As in the script of the sample device.
_SCRIPT = pathlib.Path(__file__).parents[2] / "device/etc/propsrv.d/nvminit.sql"
_SCHEMA = re.search(r"CREATE TABLE[^;]*;\n", _SCRIPT.read_text())[0]

# Filled by the daemon at every start, or of its own use.
_SYSTEM = {
    "NVM.Version": ("", 1),
    "System.Debug.LevelMask.PROP-SRV": ("6", 6),
    "NET.MAC.Address": ("", 5),
    "System.General.Variant.Name": ("", 5),
    "System.General.Variant.MajorID": ("3", 5),
    "System.General.Variant.MinorID": ("", 5),
    "System.General.ExperimentalFeatures": ("", 1),
    "System.General.SoftwareVersion": ("", 5),
    "System.General.UserAgent": ("", 5),
    "WebUI.PhoneModel": ("", 1),
    "NET.General.DeviceNameInNetwork": ("Halcyon", 14),
}


class Firmware:
    """The files of one version. Each version renames "Moved.<version - 1>", and has a new property of the old name."""

    FIRST = 5

    def __init__(self, version):
        self.version = version
        self.flags = {f"Text.{i}": 2 | 8 for i in range(24)}
        self.flags |= {f"Kept.{i}": 2 | 16 for i in range(8)}
        self.flags |= {f"Plain.{i}": 0 for i in range(6)}
        self.flags |= {f"Number.{i}": 8 for i in range(4)}
        self.flags |= {f"Moved.{version}": 2 | 8, f"Moved.{version - 1}": 2 | 8}
        self.defaults = {
            key: "100000" if key.startswith("Number") else f"default of {key} in {version}." for key in self.flags
        }

    def all_keys(self):
        return {*self.defaults, *_SYSTEM}

    def install(self):
        folder = pathlib.Path("/etc/propsrv.d")
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir()
        shutil.rmtree("/etc/nvm.conf.d", ignore_errors=True)
        pathlib.Path("/etc/model").write_text("Halcyon 5 ADV\n")
        pathlib.Path("/etc/version").write_text(f"1.{self.version}\n")
        rows = [
            (key, str(self.version) if key == "NVM.Version" else value, flags, "NULL")
            for key, (value, flags) in _SYSTEM.items()
        ]
        rows += [
            (key, self.defaults[key], flags, 100000 if key.startswith("Number") else "NULL")
            for key, flags in self.flags.items()
        ]
        inserts = [
            f"INSERT INTO settings (key, value, defaultvalues, flags, range_min) "
            f"VALUES ('{key}', '{value}', '{value}', {flags}, {least});\n"
            for key, value, flags, least in rows
        ]
        (folder / "nvminit.sql").write_text("BEGIN;\n" + _SCHEMA + "".join(inserts) + "COMMIT;\n")
        for step in range(self.FIRST + 1, self.version + 1):
            (folder / f"migration_{step}.json").write_text(
                json.dumps({"rename": [{"oldKey": f"Moved.{step - 1}", "newKey": f"Moved.{step}"}]})
            )

    def restores(self, content):
        """Key and value of what this firmware takes from a backup file."""
        data, marker, version = content.partition("DatabaseVersion:")
        values = dict(line.split(";", 1) for line in data.splitlines() if ";" in line)
        for step in range(int(version) + 1 if marker else self.version + 1, self.version + 1):
            if f"Moved.{step - 1}" in values:
                values[f"Moved.{step}"] = values.pop(f"Moved.{step - 1}")
        return {key: value for key, value in values.items() if key in self.flags}


def start(command, **options):
    """A process that ends with this one, however that ends."""
    return subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *map(str, command)], **options)


def eventually(condition):
    """Returns when `condition` is true; throws when it does not become so."""
    deadline = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > deadline:
            raise TimeoutError(f"for {PATIENCE} s not true: {inspect.getsource(condition).strip()}")
        time.sleep(0.002)


class DaemonEnded(Exception):
    """The daemon ended, or does not answer."""


class Broker:
    """A broker that keeps requests for a daemon that is about to start."""

    def __init__(self, program, folder):
        configuration = folder / "mosquitto.conf"
        configuration.write_text(
            "listener 1883 127.0.0.1\nallow_anonymous true\nset_tcp_nodelay true\nuser root\n" "log_type error\n"
        )
        with open(folder / "mosquitto.log", "w") as log:
            self._process = start([program, "-c", configuration], stderr=log)
        eventually(self._listens)
        self.forget()

    def forget(self):
        """Drops the requests that wait for the daemon, and keeps those to come. REQUIRES: the daemon does not run."""
        for clean in (True, False):
            with _Connection("prop-service", clean) as service:
                service.subscribe("+/prop-service", 2)

    @staticmethod
    def _listens():
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", 1883)) == 0

    def __enter__(self):
        return self

    def __exit__(self, *_error):
        self._process.kill()
        self._process.wait()


class _Connection:
    """As much of MQTT 3.1.1 as a client needs that asks one question at a time."""

    def __init__(self, name, clean=True):
        self._received = b""
        self._socket = socket.create_connection(("127.0.0.1", 1883))
        self._socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._send(0x10, b"\0\4MQTT\4" + bytes([2 if clean else 0]) + b"\0\0" + _text(name))
        self.receive(0x20)

    def __enter__(self):
        return self

    def __exit__(self, *_error):
        self._socket.sendall(b"\xe0\0")
        self._socket.close()

    def subscribe(self, topic, qos):
        self._send(0x82, b"\0\1" + _text(topic) + bytes([qos]))
        self.receive(0x90)

    def publish(self, topic, payload):
        self._send(0x32, _text(topic) + b"\0\2" + payload)

    def receive(self, wanted, process=None):
        """The content of the next packet of this kind; None when none comes or `process` (a descriptor) has ended."""
        watched = [self._socket] if process is None else [self._socket, process]
        while (packet := self._packet()) is None or packet[0] & 0xF0 != wanted:
            if packet is None:
                if self._socket not in select.select(watched, [], [], PATIENCE)[0]:
                    return None
                if not (more := self._socket.recv(1 << 16)):
                    raise ConnectionError("the broker has closed the connection")
                self._received += more
        return packet[1]

    def _packet(self):
        """The next packet, without its header and, if it is a message, without its topic, acknowledged."""
        length = 0
        for place, byte in enumerate(self._received[1:5]):
            length |= (byte & 127) << 7 * place
            if byte < 128:
                begin = place + 2
                break
        else:
            return None
        if len(self._received) < begin + length:
            return None
        kind, content = self._received[0], self._received[begin : begin + length]
        self._received = self._received[begin + length :]
        if kind & 0xF0 == 0x30:
            topic = 2 + struct.unpack_from(">H", content)[0]
            content = content[topic:]
            if kind & 6:
                self._send(0x40, content[:2])
                content = content[2:]
        return kind, content

    def _send(self, kind, content):
        length, rest = b"", len(content)
        while rest > 127:
            length += bytes([rest & 127 | 128])
            rest >>= 7
        self._socket.sendall(bytes([kind]) + length + bytes([rest]) + content)


def _text(text):
    return struct.pack(">H", len(text)) + text.encode()


class Daemon:
    """A running daemon, and the client that asks it."""

    _started = 0

    def __init__(self, program, log, options=()):
        Daemon._started += 1
        self._name = f"phone{Daemon._started}"
        self._client = _Connection(self._name)
        self._client.subscribe(f"prop-service/{self._name}", 1)
        self._log = log
        with open(log, "ab") as output:
            self._process = start([program, *options], stderr=output, stdout=output)
        self._ended = os.pidfd_open(self._process.pid)

    def ask(self, method, **members):
        """The reply. Throws `DaemonEnded` without one."""
        self.send(method, **members)
        reply = self._client.receive(0x30, self._ended)
        if reply is None:
            raise DaemonEnded(
                "it does not answer"
                if self._process.poll() is None
                else f"it ended with status {self._process.returncode}"
            )
        return json.loads(reply)

    def send(self, method, **members):
        self._client.publish(f"{self._name}/prop-service", json.dumps({"method": method, **members}).encode())

    def values(self):
        """All properties."""
        reply = self.ask("getColsL", param="%", fields="key,value")
        return {row["key"]: row.get("value", "") for row in reply["result"]}

    def state(self, key):
        return self.ask("getV", param=key).get("result")

    def stop(self):
        """The exit status after SIGTERM."""
        self._process.send_signal(signal.SIGTERM)
        try:
            return self._process.wait(PATIENCE)
        except subprocess.TimeoutExpired as error:
            raise DaemonEnded("it does not stop") from error
        finally:
            self.kill()

    def kill(self):
        """With all that it has started, as the service manager and a power cut do."""
        if self._client:
            if self._process.poll() is None:
                self._process.send_signal(signal.SIGSTOP)
                os.waitid(os.P_PID, self._process.pid, os.WSTOPPED | os.WEXITED | os.WNOWAIT)
            for process in _descendants(self._process.pid):
                os.kill(process, signal.SIGKILL)
            self._process.kill()
            self._process.wait()
            os.close(self._ended)
            with self._client:
                self._client = None


def _descendants(process):
    for children in pathlib.Path(f"/proc/{process}/task").glob("*/children"):
        for child in map(int, children.read_text().split()):
            yield from _descendants(child)
            yield child


def problems_of_database(file, scratch):
    """Returns SQLite's complaints about copies of a database and its journal."""
    for name in ("nvm", "nvm-journal"):
        copy = scratch / name
        copy.unlink(missing_ok=True)
        if (original := file.with_name(name)).exists():
            shutil.copyfile(original, copy)
    try:
        with contextlib.closing(sqlite3.connect(scratch / "nvm")) as database:
            answer = database.execute("PRAGMA integrity_check").fetchall()
    except sqlite3.DatabaseError as error:
        return str(error)
    return None if answer == [("ok",)] else str(answer)
