"""The model of a telephone: what it may hold after a power cut, derived from the events before."""

import dataclasses
import math

from device import FILES, Firmware


class Expectation:
    """The states that are right. A property's value is one of those accepted since the last moment at which everything
    accepted was known to be on the disk, or that one itself."""

    def __init__(self, version):
        self.state = {}  # of each volatile key: the values that it may have, None among them
        self.recovery = {None}
        self.files = {}  # of each kind of backup: the contents that are right, and whether it must be there
        self.pending = set()  # kinds that the next start must restore if their files are there
        self.restored = {}  # of each kind that is being restored: the values that are right when its file is gone
        self.firmware = Firmware(version)
        self.rebuild(True)

    def rebuild(self, complete):
        """The table is made anew from the script."""
        self.now = dict(self.firmware.defaults)
        if complete:
            self.allowed = {key: {value} for key, value in self.now.items()}
        else:
            self._allow(self.now)
        self.restored = {}

    def write(self, values, complete):
        self._allow(values)
        if complete:
            self.now |= values

    def synchronise(self):
        self.allowed = {key: {value} for key, value in self.now.items()}
        self.restored = {}

    def restore(self, kind, content, complete):
        values = self.firmware.restores(content)
        self._allow(values)
        self.restored[kind] = {key: {value} for key, value in values.items()}
        self.files[kind] = [content], False
        if complete:
            self.now |= values

    def _allow(self, values):
        for right in (self.allowed, *self.restored.values()):
            for key in right.keys() & values.keys():
                right[key].add(values[key])

    def to_restore(self, files):
        """The kind that a start restores when these files are there; None for none."""
        return next((kind for kind in ("version", "factory") if kind in self.pending and FILES[kind] in files), None)

    def problems_of_files(self, files):
        """`files`: name and content of what lies in "/config"."""
        for kind, (contents, must) in self.files.items():
            found = files.get(FILES[kind])
            if found is None and must:
                yield f"{FILES[kind]} was exported, and is not there"
            if found is not None and found not in contents:
                yield f"{FILES[kind]} holds {_excerpt(found)}, not " + " or ".join(map(_excerpt, contents))

    def problems_of_values(self, files, values):
        """`files`: as they were before the daemon started, unless its start was forced; `values`: what it serves."""
        if missing := self.firmware.all_keys() ^ values.keys():
            yield f"not exactly the script's properties are served: {sorted(missing)[:5]}"
            return
        kind = self.to_restore(files)
        required = self.firmware.restores(files[FILES[kind]]) if kind else {}
        for key in self.firmware.defaults:
            right = self.allowed[key]
            why = "accepted since it was last known to be on the disk"
            for done, by_key in self.restored.items():
                if FILES[done] not in files and key in by_key:
                    right, why = by_key[key], f"of {FILES[done]}, which is gone, or accepted later"
            if key in required:
                right, why = {required[key]}, f"of {FILES[kind]}, which was restored"
            if values[key] not in right:
                yield (
                    f"{key} is {_excerpt(values[key])}, which is none of those {why}: "
                    + ", ".join(map(_excerpt, sorted(right)[:4]))
                )

    def problems_of_state(self, kept, files, after, recovery, state):
        """`kept`: whether the volatile store lies on the disk; `recovery`, `state`: what the daemon serves."""
        if FILES["version"] in files:
            if recovery != "yes":
                yield f"the flag of the recovery is {recovery} after a restore"
            if FILES["version"] in after:
                yield "a restored backup is still there"
        elif recovery not in (self.recovery if kept else {None}):
            yield f"the flag of the recovery is {recovery} without a restore"
        for key, value in state.items():
            if value not in (self.state.get(key, {None}) if kept else {None}):
                yield f"{key} is {_excerpt(value)}, which nobody has written"


def _excerpt(thing):
    text = repr(thing)
    return text if len(text) <= 160 else f"{text[:60]} ... {text[-60:]} ({len(text)} characters)"


@dataclasses.dataclass
class Event:
    """Something that happened between two positions of the disk's record; `end` is infinite while it has not ended,
    or when its end is unknown."""

    begin: int = 0
    end: float = math.inf

    def apply(self, expected, complete):
        raise NotImplementedError


@dataclasses.dataclass
class Wrote(Event):
    """Values that were accepted; perhaps accepted, when it has not ended."""

    values: dict = None

    def apply(self, expected, complete):
        expected.write(self.values, complete)


@dataclasses.dataclass
class WroteState(Event):
    key: str = None
    value: str | None = None

    def apply(self, expected, complete):
        expected.state.setdefault(self.key, {None}).add(self.value)


@dataclasses.dataclass
class Synchronised(Event):
    """An orderly stop, or a second in which nothing was written."""

    def apply(self, expected, complete):
        if complete:
            expected.synchronise()


@dataclasses.dataclass
class Exported(Event):
    kind: str = None
    content: str | None = None  # None unless it was answered with "Ok"

    def apply(self, expected, complete):
        expected.restored.pop(self.kind, None)
        if self.kind in ("version", "factory"):
            expected.pending.add(self.kind)
        if not complete:
            earlier, must = expected.files.get(self.kind, ([], False))
            expected.files[self.kind] = [*earlier, self.content], must
            return
        expected.files[self.kind] = [self.content], True
        expected.synchronise()


@dataclasses.dataclass
class Restored(Event):
    """A restore of the user's backup."""

    content: str = None

    def apply(self, expected, complete):
        expected.restore("user", self.content, complete)
        if complete:
            expected.synchronise()


@dataclasses.dataclass
class RemovedDatabase(Event):
    def apply(self, expected, complete):
        expected.rebuild(complete)


@dataclasses.dataclass
class InstalledFirmware(Event):
    """REQUIRES: the database file is missing."""

    version: int = 0

    def apply(self, expected, complete):
        if complete:
            expected.firmware = Firmware(self.version)
            expected.rebuild(True)


@dataclasses.dataclass
class Booted(Event):
    """A start of the daemon; it ends when the daemon answers."""

    forced: bool = False
    drop_state: bool = False
    restores: tuple | None = None  # the kind and the content of a backup
    seen: dict = None  # all values that it served then
    left: set = None  # the kinds of backups that still lay there then

    def apply(self, expected, complete):
        if self.drop_state:
            for values in expected.state.values():
                values.add(None)
        if self.forced:
            expected.rebuild(complete)
        elif self.restores:
            kind, content = self.restores
            expected.restore(kind, content, complete)
            if kind == "version":
                expected.recovery = {None, "yes"}
        if complete:
            expected.now = {key: self.seen[key] for key in expected.now}
            expected.pending &= self.left


def expectation(version, events, position=math.inf):
    """Returns the expectation when the power fails at `position`."""
    expected = Expectation(version)
    for event in events:
        if event.begin > position:
            break
        event.apply(expected, event.end <= position and event.end != math.inf)
    return expected
