"""A sample device to try documents on: broker, daemon, and somebody who starts and stops them.

Only inside `script/sandbox --private-network`: it uses the device's own paths, and port 1883.
"""

import pathlib
import shutil
import socket
import subprocess
import tempfile
import threading
import time

from documents import ROOT

PATIENCE = 20  # seconds

# As script/run has it.
BROKER_CONFIGURATION = """\
listener 1883 127.0.0.1
allow_anonymous true
set_tcp_nodelay true
"""
BROKER_ALWAYS = "user root\nlog_dest stderr\nlog_type all\n"


def eventually(condition):
    """The first result of `condition` that is true, or its last one when the time is over."""
    deadline = time.monotonic() + PATIENCE
    while not (result := condition()) and time.monotonic() < deadline:
        time.sleep(0.01)
    return result


def start(command, **options):
    """A process that ends with this one, however that ends."""
    return subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *map(str, command)], **options)


class Device:
    """Has the files that device/ installs; where `files` (path: content) are given, those in place of the database
    script, the customisation and the migrations. Broker and daemon run; the `systemctl` that is found in `environment`
    starts and stops them."""

    def __init__(self, build_directory, files):
        self.home = pathlib.Path(tempfile.mkdtemp(prefix="docs-"))
        self.checkout = self._make_checkout(build_directory)
        self.environment = {
            "HOME": str(self.home),
            "TERM": "xterm",
            "TZ": "UTC",
            "LC_ALL": "C.UTF-8",
            "PATH": f"{build_directory}:{ROOT}/tests/docs/bin:/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin",
            "SERVICES": str(self.home / "services"),
        }
        self._daemon_file = build_directory / "PropertyService"
        self._daemon_log = self.home / "propsrv.log"
        self._broker_log = self.home / "mosquitto.log"
        self._broker_log.touch()
        self._processes = {}

        # Ordinary users may write in the overlay of /etc, but not in the folders that are root's.
        subprocess.run(["mount", "-t", "tmpfs", "device", "/etc/mosquitto"], check=True)
        shutil.copytree(ROOT / "device/etc", "/etc", dirs_exist_ok=True)
        if files:
            for folder in ("/etc/propsrv.d", "/etc/nvm.conf.d"):
                shutil.rmtree(folder)
                pathlib.Path(folder).mkdir()
        for path, content in files.items():
            pathlib.Path(path).write_text(content)
        self._listen_for_services()
        self._start("mosquitto")
        self._start("propsrv")

    def close(self):
        self._stop("propsrv")
        self._stop("mosquitto")
        shutil.rmtree(self.home)

    def log(self):
        return self._daemon_log.read_text()

    def broker_log(self):
        return self._broker_log.read_text()

    def _make_checkout(self, build_directory):
        """A folder that looks like the source tree with a finished build. The files of the device may be edited."""
        checkout = self.home / "checkout"
        (checkout / "build").mkdir(parents=True)
        shutil.copytree(ROOT / "device", checkout / "device")
        for entry in ROOT.iterdir():
            if entry.name not in ("build", "device"):
                (checkout / entry.name).symlink_to(entry)
        for preset in ("debug", "release"):
            (checkout / "build" / preset).symlink_to(build_directory)
        return checkout

    def _start(self, service):
        if service not in self._processes:
            self._processes[service] = {"mosquitto": self._start_broker, "propsrv": self._start_daemon}[service]()

    def _stop(self, service):
        if process := self._processes.pop(service, None):
            process.terminate()
            process.wait(PATIENCE)

    def _start_broker(self):
        installed = pathlib.Path("/etc/mosquitto/conf.d/propsrv.conf")
        configuration = self.home / "mosquitto.conf"
        chosen = installed.read_text() if installed.exists() else BROKER_CONFIGURATION
        configuration.write_text(chosen + BROKER_ALWAYS)
        return self._started(["/usr/sbin/mosquitto", "-c", configuration], self._broker_log, _broker_listens)

    def _start_daemon(self):
        def subscriptions():
            return self.broker_log().count("Sending SUBACK to prop-service")

        earlier = subscriptions()
        return self._started([self._daemon_file], self._daemon_log, lambda: subscriptions() > earlier)

    @staticmethod
    def _started(command, log, is_ready):
        with open(log, "a") as output:
            process = start(command, stderr=output)
        eventually(lambda: is_ready() or process.poll() is not None)
        if process.poll() is not None or not is_ready():
            raise RuntimeError(f"{command[0]} does not start:\n{log.read_text()}")
        return process

    def _listen_for_services(self):
        """bin/systemctl says what to do in one line, and is answered with what went wrong."""
        listener = socket.socket(socket.AF_UNIX)
        listener.bind(self.environment["SERVICES"])
        listener.listen()

        def serve():
            while True:
                connection, _ = listener.accept()
                with connection, connection.makefile("rw") as line:
                    line.write(self._manage(*line.readline().split()))

        # For good, since what a thread has started ends with it.
        threading.Thread(target=serve, daemon=True).start()

    def _manage(self, verb, *services):
        try:
            for service in services:
                if verb in ("stop", "restart"):
                    self._stop(service)
                if verb in ("start", "restart"):
                    self._start(service)
            return ""
        except (KeyError, RuntimeError, subprocess.TimeoutExpired) as error:
            return f"{verb}: {error}\n"


def _broker_listens():
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", 1883)) == 0
