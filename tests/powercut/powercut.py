"""Cuts the power of a telephone at every moment of its life (see script/powercut).

    powercut.py PROGRAM RESULTS [MINUTES] [--seed N] [--replay FILE]
"""

import argparse
import bisect
import contextlib
import dataclasses
import gzip
import hashlib
import itertools
import math
import pathlib
import pickle
import random
import shutil
import sys
import time

from device import FOLDERS, Broker, Daemon, DaemonEnded, Firmware, problems_of_database
from disk import Cut, Mount, Record, RecordedDisk, make_image
from model import Wrote, WroteState, expectation
from workload import Violation, Workload, read_files, read_state

_PLACE = pathlib.Path("/powercut")
_STEPS = 25
_BATCH = 60  # cuts, made in their order in time
_SECONDS_OF_A_LIFE = 20  # then the next begins, however many moments are left


@dataclasses.dataclass
class Life:
    """A recorded life, of which crash images are made."""

    seed: int
    options: str
    keeps_state: bool
    base: bytes
    log: bytes = b""
    events: list = None
    cut: Cut = None


def _places(keeps_state):
    return {name: place for name, place in FOLDERS.items() if keeps_state or name != "volatile"}


def _forget_state():
    shutil.rmtree("/var/volatile/stateCache", ignore_errors=True)


@contextlib.contextmanager
def _folder(name):
    place = _PLACE / name
    place.mkdir(parents=True)
    yield place
    shutil.rmtree(place)


def live(seed, program, broker_program):
    """A new life, led until its end or until the daemon does what it must not."""
    choose = random.Random(f"configuration {seed}")
    life = Life(
        seed,
        "errors=remount-ro,data=" + choose.choice(["ordered", "ordered", "ordered", "writeback"]),
        choose.random() < 0.3,
        make_image(FOLDERS),
    )
    _forget_state()
    failure = None
    with (
        _folder("life") as place,
        Broker(broker_program, place) as broker,
        RecordedDisk(place, life.base, life.options, _places(life.keeps_state)) as disk,
    ):
        workload = Workload(seed, disk, broker, program, place / "daemon.log")
        try:
            workload.run(_STEPS)
        except (Violation, DaemonEnded, TimeoutError) as error:
            failure = f"{error}\n{(place / 'daemon.log').read_text()[-2000:]}"
        finally:
            workload.end()
        life.log, life.events = disk.record(), workload.events
    return life, failure


class Judge:
    """Starts the daemon on images of what a power cut left."""

    def __init__(self, program, broker_program):
        self._program = program
        self._broker_program = broker_program
        self.images = self.starts = 0

    def first_violation(self, life, cuts, deadline):
        """The first of these cuts after which something is wrong, what, and the image; None when the time is over."""
        record = Record(life.base, life.log)
        judged = set()
        with _folder("judge") as place, Broker(self._broker_program, place):
            (place / "disk").mkdir()
            while cuts:
                batch, cuts = cuts[:_BATCH], cuts[_BATCH:]
                for cut, image in record.images(batch):
                    if time.monotonic() > deadline:
                        return None
                    record.save(image, place / "image")
                    if problems := self._judge(place, life, record.ends[cut.count], judged):
                        return cut, problems, bytes(image)
        return None

    def _judge(self, place, life, position, judged):
        self.images += 1
        try:
            mount = Mount(place / "image", place / "disk", life.options, _places(life.keeps_state))
        except OSError as error:
            return [str(error)]
        with mount:
            # Equal files at one moment of the model are judged once.
            passed = sum((event.begin <= position) + (event.end <= position) for event in life.events)
            seen = passed, _digest(place / "disk")
            if seen in judged:
                return []
            judged.add(seen)
            return list(self._problems(place, life, position))

    def _problems(self, place, life, position):
        self.starts += 1
        expected = expectation(Firmware.FIRST, life.events, position)
        files = read_files()
        yield from expected.problems_of_files(files)
        database = place / "disk/sbin/nvm"
        if database.exists() and not database.with_name("nvm.unfinished").exists():
            if problem := problems_of_database(database, place):
                yield f"the database is damaged: {problem}"
        expected.firmware.install()
        if not life.keeps_state:
            _forget_state()
        log = place / "daemon.log"
        log.unlink(missing_ok=True)
        daemon = Daemon(self._program, log)
        try:
            values = daemon.values()
            recovery, state = read_state(daemon)
            yield from expected.problems_of_values(files, values)
            yield from expected.problems_of_state(life.keeps_state, files, read_files(), recovery, state)
        except DaemonEnded as error:
            yield f"the daemon does not start: {error}\n{log.read_text()[-2000:]}"
        finally:
            daemon.kill()


def _digest(folder):
    digest = hashlib.blake2b()
    for entry in sorted(folder.rglob("*")):
        if entry.is_file() and "lost+found" not in entry.parts:
            digest.update(str(entry).encode() + b"\0" + hashlib.blake2b(entry.read_bytes()).digest())
    return digest.digest()


def _cuts(record, events, choose):
    """Every cut between two writes, and subsets of the writes in flight there, in an order of chance. At first, every
    other one lies at the end of an event or within it."""

    def with_subset(count):
        in_flight = count - record.last_flush(count)
        return [Cut(count, None)] + ([Cut(count, choose.getrandbits(32))] if in_flight > 1 else [])

    everywhere = [cut for count in range(len(record) + 1) for cut in with_subset(count)]
    near_events = []
    for event in events:
        if not isinstance(event, (Wrote, WroteState)) and event.end != math.inf:
            first, last = (bisect.bisect_right(record.ends, position) - 1 for position in (event.begin, event.end))
            near_events += with_subset(last) + with_subset(choose.randint(first, last))
    choose.shuffle(everywhere)
    choose.shuffle(near_events)
    pairs = itertools.zip_longest(near_events, everywhere)
    return [cut for pair in pairs for cut in pair if cut]


def _title(life, cut):
    return (
        f"seed {life.seed}, {life.options}, volatile store {'on the disk' if life.keeps_state else 'in memory'}, "
        + (f"power cut {cut}" if cut else "without a power cut")
    )


def _report(results, life, problem, cut=None, image=None):
    """Prints a violation, and leaves what it takes to look at it again."""
    results.mkdir(parents=True, exist_ok=True)
    life.cut = cut
    name = results / f"seed-{life.seed}"
    pathlib.Path(f"{name}.record").write_bytes(gzip.compress(pickle.dumps(life), 1))
    print(f"FAILED: {_title(life, cut)}\n{problem[:2000]}")
    if image:
        pathlib.Path(f"{name}.image").write_bytes(image)
        print(f"The disk is {name}.image. To see this again: script/powercut --replay {name}.record")
    sys.stdout.flush()


def _replay(file, judge):
    life = pickle.loads(gzip.decompress(file.read_bytes()))
    print(_title(life, life.cut))
    if not life.cut:
        print(f"It was wrong already without a power cut: lead it again with --seed {life.seed}.")
        return 1
    found = judge.first_violation(life, [life.cut], math.inf)
    print("\n".join(found[1]) if found else "Nothing is wrong.")
    return 1 if found else 0


def main():
    parser = argparse.ArgumentParser(prog="script/powercut")
    parser.add_argument("program", help=argparse.SUPPRESS)
    parser.add_argument("results", type=pathlib.Path, help=argparse.SUPPRESS)
    parser.add_argument("minutes", nargs="?", type=float, default=1)
    parser.add_argument("--seed", type=int)
    parser.add_argument("--replay", type=pathlib.Path)
    options = parser.parse_args()

    _PLACE.mkdir()
    # The device's /usr/sbin lies over the host's, which has the broker.
    broker = _PLACE / "mosquitto"
    shutil.copy("/usr/sbin/mosquitto", broker)
    judge = Judge(options.program, broker)
    if options.replay:
        return _replay(options.replay, judge)

    end = time.monotonic() + 60 * options.minutes
    lives = moments = 0
    failed = False
    while not failed and time.monotonic() < end:
        seed = random.SystemRandom().randrange(10**6) if options.seed is None else options.seed
        life, failure = live(seed, options.program, broker)
        record = Record(life.base, life.log)
        cuts = _cuts(record, life.events, random.Random(f"cuts {seed}"))
        lives += 1
        moments += len(cuts)
        print(
            f"seed {seed}: {len(life.events)} events, {len(record)} writes and flushes, {len(cuts)} moments", flush=True
        )
        if failure:
            _report(options.results, life, failure)
            failed = True
        until = end if options.seed is not None else time.monotonic() + _SECONDS_OF_A_LIFE
        if not failed and (found := judge.first_violation(life, cuts, until)):
            _report(options.results, life, "\n".join(found[1]), found[0], found[2])
            failed = True
        if options.seed is not None:
            break
    print(
        f"{lives} lives of {moments} moments, {judge.images} images, {judge.starts} of them with something new, "
        + ("FAILED" if failed else "nothing wrong")
    )
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
