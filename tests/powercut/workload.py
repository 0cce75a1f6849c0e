"""The life of a telephone, as a seed draws it."""

import contextlib
import errno
import os
import pathlib
import random
import sqlite3
import time

from device import DATABASE, FILES, RECOVERY, Daemon, DaemonEnded, Firmware, eventually
from model import (
    Booted,
    Exported,
    InstalledFirmware,
    RemovedDatabase,
    Restored,
    Synchronised,
    Wrote,
    WroteState,
    expectation,
)

_MASKS = {"user": 8, "version": 254, "factory": 16, "dump": 4}
_METHODS = {
    "user": "makeBackup",
    "version": "prepareVersionChange",
    "factory": "prepareFactoryReset",
    "dump": "makeSysdump",
}
_EARLIER = ".earlier"
_LONGEST_STOP = 3  # seconds
_STATE_KEYS = [f"State.Test.{i}" for i in range(4)]


class Violation(Exception):
    """The daemon does what it must not."""


class Workload:
    """Leads a device through its life, and notes what happened."""

    def __init__(self, seed, disk, broker, program, log):
        self.events = []
        self._random = random.Random(seed)
        self._disk = disk
        self._broker = broker
        self._program = program
        self._log = log
        self._version = Firmware.FIRST
        self._daemon = None
        self._count = 0

    def run(self, steps):
        Firmware(self._version).install()
        self._boot()
        for _ in range(steps):
            (step,) = self._random.choices(*zip(*_STEPS.items()))
            step(self)

    def end(self):
        """However it went."""
        self._disk.faults.heal()
        if self._daemon:
            self._kill()

    # Its parts.

    @contextlib.contextmanager
    def _happens(self, event):
        event.begin = self._disk.position()
        self.events.append(event)
        yield event
        event.end = self._disk.position()

    def _expected(self):
        return expectation(Firmware.FIRST, self.events)

    def _ask(self, method, **members):
        reply = self._daemon.ask(method, **members)
        if reply["status"] != "Ok":
            raise Violation(f"{method} {members} is answered with {reply}")

    def _begin_boot(self, *options):
        """The event, and the files as they are at its beginning."""
        files = read_files()
        forced = "--force-db-init" in options
        kind = None if forced else self._expected().to_restore(files)
        restores = (kind, files[FILES[kind]]) if kind else None
        return Booted(forced=forced, drop_state="--drop-state" in options, restores=restores), files

    def _boot(self, *options):
        before = self._expected()
        event, files = self._begin_boot(*options)
        with self._happens(event):
            self._daemon = Daemon(self._program, self._log, options)
            event.seen = self._daemon.values()
            left = read_files()
            event.left = {kind for kind, name in FILES.items() if name in left}
        expected = self._expected()
        expected.pending = set() if event.forced else before.pending
        if problems := [*before.problems_of_files(files), *expected.problems_of_values(files, event.seen)]:
            raise Violation("after a start: " + "; ".join(problems[:3]))

    def _kill(self):
        self._daemon.kill()
        self._broker.forget()

    def _stop(self):
        """A stop that takes longer than it may, because the machine has much to do, may lose something."""
        event = Synchronised(begin=self._disk.position())
        self.events.append(event)
        begin = time.monotonic()
        if status := self._daemon.stop():
            raise Violation(f"a stop ends with status {status}")
        if time.monotonic() < begin + _LONGEST_STOP:
            event.end = self._disk.position()

    def _new_value(self, key):
        self._count += 1
        if key.startswith("Number."):
            return str(100000 + self._count)
        return f"{self._count:06d}" + "v" * self._random.randint(0, 240) + f"{self._count:06d}."

    def _some_values(self, count):
        keys = sorted(Firmware(self._version).defaults)
        return {key: self._new_value(key) for key in self._random.sample(keys, count)}

    # The steps.

    def write_one(self):
        for key, value in self._some_values(self._random.randint(1, 6)).items():
            with self._happens(Wrote(values={key: value})):
                self._ask("setV", param=key, value=value)
            if self._random.random() < 0.3:
                time.sleep(self._random.random() * 0.02)

    def write_list(self):
        values = self._some_values(self._random.randint(2, 30))
        with self._happens(Wrote(values=values)):
            self._ask("setVList", list=values)

    def reset(self):
        group = self._random.choice(["Text.", "Kept.", "Plain.", "Number.", "Text.1"])
        values = {key: value for key, value in Firmware(self._version).defaults.items() if key.startswith(group)}
        with self._happens(Wrote(values=values)):
            self._ask("resetVal", param=group + "%")

    def write_state(self):
        for _ in range(self._random.randint(1, 8)):
            key = self._random.choice(_STATE_KEYS)
            if self._random.random() < 0.2:
                with self._happens(WroteState(key=key)):
                    self._daemon.ask("resetVal", param=key)
            else:
                value = f"{self._random.random()}" * self._random.randint(1, 200)
                with self._happens(WroteState(key=key, value=value)):
                    self._ask("setV", param=key, value=value)

    def settle(self):
        """A second without a write is enough for everything to be on the disk. A busy machine has longer to begin."""
        with self._happens(Synchronised()):
            eventually(lambda: values_in_file().items() >= self._expected().now.items())
            time.sleep(1)

    def meet_trouble(self):
        """Lets the disk fail, be slow or full, and work again. A file system that gave up writing needs a new start."""
        filler = DATABASE.with_name("filler")
        kind = self._random.choice(["read", "write", "flush", "delay", "full"])
        if kind == "full":
            with contextlib.suppress(OSError), open(filler, "wb", buffering=0) as file:
                while file.write(bytes(1 << 16)):
                    pass
        else:
            error = self._random.choice([errno.EIO, errno.ENOSPC])
            setattr(self._disk.faults, kind, self._random.randint(1, 20) if kind == "delay" else error)
        self.write_one()
        if self._random.random() < 0.5:
            self._try_to_export()
        time.sleep(self._random.random())
        self.write_list()
        self._disk.faults.heal()
        filler.unlink(missing_ok=True)

        if self._disk.has_given_up():
            self._kill()
            self._disk.mount_anew()
            self._boot()
        else:
            self.settle()

    def _try_to_export(self):
        """May fail, but not pretend to have succeeded."""
        export = Exported(begin=self._disk.position(), kind="user")
        self.events.append(export)
        if self._daemon.ask("makeBackup")["status"] == "Ok":
            export.end = self._disk.position()
            export.content = read_files().get(FILES["user"])
            self._verify_export(export, _MASKS["user"])

    def export(self, kind=None):
        kind = kind or self._random.choice(["user", "user", "dump", "version", "factory"])
        everything = kind == "user" and self._random.random() < 0.5
        with self._happens(Exported(kind=kind)) as export:
            self._ask(_METHODS[kind], **({"allSettings": True} if everything else {}))
        export.content = read_files().get(FILES[kind])
        self._verify_export(export, 238 if everything else _MASKS[kind])

    def _verify_export(self, export, mask):
        if export.content is None:
            raise Violation(f"{FILES[export.kind]} was exported, and is not there")
        firmware = Firmware(self._version)
        lines = export.content.splitlines()
        if lines[-1] != f"DatabaseVersion:{self._version}":
            raise Violation(f"{FILES[export.kind]} has no line with the version")
        found = dict(line.split(";")[:2] for line in lines[:-1])
        now = self._expected().now
        for key, flags in firmware.flags.items():
            if flags & mask and found.get(key) != now[key]:
                raise Violation(f"{FILES[export.kind]} has {key} as {found.get(key)}, which is {now[key]}")

    def restore(self):
        _, must = self._expected().files.get("user", (None, False))
        if must:
            with self._happens(Restored(content=read_files()[FILES["user"]])):
                self._ask("restore")

    def kill_and_start(self):
        values = self._some_values(self._random.randint(1, 20))
        with contextlib.suppress(DaemonEnded):
            for key, value in values.items():
                begin = self._disk.position()
                self._daemon.send("setV", param=key, value=value)
                self.events.append(Wrote(begin=begin, values={key: value}))
        time.sleep(self._random.random() * 0.02)
        self._kill()
        self._boot()

    def lose_power_and_start(self):
        """Later cuts are then the second in a row."""
        self.write_list()
        time.sleep(self._random.random() * 0.05)
        self._kill()
        self._disk.lose_power(self._random.getrandbits(32))
        self._boot()

    def stop_and_start(self):
        self._stop()
        self._boot(*self._random.choice([(), (), ("--drop-state",)]))

    def start_forced(self):
        self._random.choice([self._stop, self._kill])()
        self._boot("--force-db-init")

    def reset_to_factory(self):
        self._prepare_and_start_anew("factory")

    def change_firmware(self):
        self._prepare_and_start_anew("version")

    def _prepare_and_start_anew(self, kind):
        self.export(kind)
        if self._random.random() < 0.3:
            self.write_one()
        self._stop()
        with self._happens(RemovedDatabase()):
            DATABASE.unlink()
            folder = os.open(DATABASE.parent, os.O_RDONLY)
            os.fsync(folder)
            os.close(folder)
        if kind == "version":
            with self._happens(InstalledFirmware(version=self._version + 1)):
                self._version += 1
                Firmware(self._version).install()
        while self._random.random() < 0.4:
            self._start_in_vain(kind)
        self._boot()

    def _start_in_vain(self, kind):
        """A start that is cut off, or meets a disk that fails."""
        fault = self._random.choice([None, None, "read", "write", "flush"])
        event, _ = self._begin_boot()
        event.begin = self._disk.position()
        self.events.append(event)
        self._daemon = Daemon(self._program, self._log)
        time.sleep(self._random.random() * 0.15)
        recovery = None
        if fault:
            setattr(self._disk.faults, fault, errno.EIO)
            with contextlib.suppress(DaemonEnded):
                recovery = self._daemon.state(RECOVERY)
        self._kill()
        self._disk.faults.heal()
        if self._disk.has_given_up():
            self._disk.mount_anew()
        if kind == "version" and recovery == "no" and FILES[kind] not in read_files():
            raise Violation(f"{FILES[kind]} is gone, though it could not be restored")


_STEPS = {
    Workload.write_one: 8,
    Workload.write_list: 6,
    Workload.reset: 2,
    Workload.write_state: 3,
    Workload.settle: 2,
    Workload.export: 5,
    Workload.restore: 3,
    Workload.kill_and_start: 2,
    Workload.stop_and_start: 2,
    Workload.start_forced: 1,
    Workload.meet_trouble: 2,
    Workload.lose_power_and_start: 2,
    Workload.reset_to_factory: 2,
    Workload.change_firmware: 2,
}


def values_in_file():
    with contextlib.closing(sqlite3.connect(f"file:{DATABASE}?mode=ro", uri=True, timeout=5)) as database:
        try:
            return dict(database.execute("SELECT key, value FROM settings"))
        except sqlite3.OperationalError:
            return {}


def read_files(folder=pathlib.Path("/config")):
    """The backups by their names. Where an export was cut off, the earlier file counts."""
    files = {entry.name: entry.read_text(errors="replace") for entry in folder.iterdir()}
    for name in [name for name in files if name.endswith(_EARLIER)]:
        files.pop(name.removesuffix(_EARLIER), None)
        if earlier := files.pop(name):
            files[name.removesuffix(_EARLIER)] = earlier
    return files


def read_state(daemon):
    return daemon.state(RECOVERY), {key: daemon.state(key) for key in _STATE_KEYS}
