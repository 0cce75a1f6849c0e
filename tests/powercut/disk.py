"""Disks on loop devices: one whose writes are recorded, and images of what a power cut leaves of it."""

import contextlib
import ctypes
import errno
import fcntl
import mmap
import os
import pathlib
import random
import struct
import subprocess
import tempfile
import typing

from device import eventually, start

SIZE = 16 << 20
SECTOR = 1024  # written whole by every disk, as ext4 wants it for its superblocks

# The log of a disk: records of a header (kind, offset, length) and the bytes written.
HEADER = struct.Struct("<BQI")
WRITE, FLUSH = 1, 2

_libc = ctypes.CDLL(None, use_errno=True)

_LOOP_CONFIGURE, _LOOP_CTL_GET_FREE = 0x4C0A, 0x4C82
_LO_FLAGS_AUTOCLEAR = 4
_MS_BIND = 4096


def _mount(source, target, kind, flags=0, options=""):
    if _libc.mount(str(source).encode(), str(target).encode(), kind.encode(), flags, options.encode()) != 0:
        error = ctypes.get_errno()
        raise OSError(error, f"cannot mount {source} ({options}): {os.strerror(error)}", str(target))


def _unmount(target):
    """A process that has been killed may take a moment to let go of its files."""

    def unmounted():
        if _libc.umount2(str(target).encode(), 0) == 0:
            return True
        if ctypes.get_errno() != errno.EBUSY:
            raise OSError(ctypes.get_errno(), "cannot unmount it", str(target))
        return False

    eventually(unmounted)


class Mount:
    """The ext4 in `file`, mounted, so that its own recovery runs, at `folder`, and its folders at `places` (by their
    names)."""

    def __init__(self, file, folder, options, places):
        self._folder = folder
        self._places = places
        _mount_loop(file, folder, options)
        for name, place in places.items():
            _mount(folder / name, place, "none", _MS_BIND)

    def __enter__(self):
        return self

    def __exit__(self, *_error):
        for place in (*self._places.values(), self._folder):
            _unmount(place)


def _loop_device(backing):
    """The name and descriptor of a new loop device, which goes when nobody uses it any more."""
    while True:
        with open("/dev/loop-control", "rb") as control:
            name = f"/dev/loop{fcntl.ioctl(control, _LOOP_CTL_GET_FREE)}"
        device = os.open(name, os.O_RDWR | os.O_CLOEXEC)
        # struct loop_config: the file, the size of a block, and a struct loop_info64, which has its flags at byte 52.
        config = bytearray(304)
        struct.pack_into("<I", config, 0, backing.fileno())
        struct.pack_into("<I", config, 8 + 52, _LO_FLAGS_AUTOCLEAR)
        try:
            fcntl.ioctl(device, _LOOP_CONFIGURE, bytes(config))
            return name, device
        except OSError as error:
            os.close(device)
            if error.errno != errno.EBUSY:  # somebody else was quicker
                raise


def _mount_loop(file, folder, options):
    with open(file, "r+b") as backing:
        name, device = _loop_device(backing)
    try:
        _mount(name, folder, "ext4", 0, options)
    finally:
        os.close(device)


class Faults:
    """Switches, shared through a file: the error number with which reads, writes and flushes fail, and the delay of
    each in milliseconds."""

    def __init__(self, path):
        with open(path, "r+b") as file:
            self._bytes = mmap.mmap(file.fileno(), 4)

    def _switch(place):
        return property(lambda self: self._bytes[place], lambda self, value: self._bytes.__setitem__(place, value))

    read, write, flush, delay = map(_switch, range(4))

    def heal(self):
        self._bytes[:] = bytes(4)


class RecordedDisk:
    """An ext4 whose writes and flushes are recorded, from its first mount on."""

    def __init__(self, folder, base, options, places):
        self._fuse = folder / "fuse"
        self._log = folder / "log"
        self._mount_arguments = self._fuse / "disk", folder / "disk", options, places
        for place in (folder / "disk", self._fuse):
            place.mkdir()
        self._base = base
        self._image = folder / "image"
        self._image.write_bytes(base)
        (folder / "faults").write_bytes(bytes(4))
        self._log.touch()
        self.faults = Faults(folder / "faults")
        recorder = pathlib.Path(__file__).with_name("recorder.py")
        self._recorder = start(["/usr/bin/python3", recorder, self._fuse, self._image, self._log, folder / "faults"])
        eventually((self._fuse / "disk").exists)
        self._mounted = Mount(*self._mount_arguments)

    def __enter__(self):
        return self

    def __exit__(self, *_error):
        self._mounted.__exit__()
        _unmount(self._fuse)
        self._recorder.wait()

    def mount_anew(self):
        """REQUIRES: nobody uses it."""
        self._mounted.__exit__()
        self._remount()

    def _remount(self):
        # The cache of the host may differ from the file.
        with open(self._fuse / "disk", "rb") as file:
            os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)
        self._mounted = Mount(*self._mount_arguments)

    def lose_power(self, subset):
        """Forgets what no flush has made safe, but for what the seed `subset` draws. REQUIRES: nobody uses it."""
        self.faults.write = self.faults.flush = errno.EIO
        self._mounted.__exit__()
        self.faults.heal()

        record = Record(self._base, self.record())
        ((_, after),) = record.images([Cut(len(record), subset)])
        with open(self._log, "ab") as log, open(self._image, "r+b") as image:
            before = image.read()
            for place in range(0, SIZE, SECTOR):
                sector = after[place : place + SECTOR]
                if sector != before[place : place + SECTOR]:
                    log.write(HEADER.pack(WRITE, place, SECTOR) + sector)
                    os.pwrite(image.fileno(), sector, place)
            log.write(HEADER.pack(FLUSH, 0, 0))
        self._remount()

    def has_given_up(self):
        """Whether the file system lets nobody write any more, because the disk failed it."""
        try:
            with open(self._mount_arguments[1] / "probe", "wb") as probe:
                os.fsync(probe.fileno())
        except OSError:
            return True
        return False

    def position(self):
        """The length of the record: what happens from now on comes after it."""
        return self._log.stat().st_size

    def record(self):
        return self._log.read_bytes()


class Record:
    """The writes and flushes of a disk after `base`."""

    _PIECE = 1 << 16

    def __init__(self, base, log):
        self._base = base
        self.kinds = []
        self.offsets = []
        self.data = []
        self.ends = [0]  # of the first N records, as a position
        self._view = memoryview(log)
        position = 0
        while position < len(log):
            kind, offset, length = HEADER.unpack_from(log, position)
            position += HEADER.size
            self.kinds.append(kind)
            self.offsets.append(offset)
            self.data.append(self._view[position : position + length])
            position += length
            self.ends.append(position)

        self._pieces = {place for place in range(0, SIZE, self._PIECE) if any(base[place : place + self._PIECE])}
        for offset, data in zip(self.offsets, self.data):
            self._pieces |= set(range(offset - offset % self._PIECE, offset + len(data), self._PIECE))

    def __len__(self):
        return len(self.kinds)

    def save(self, image, path):
        """Writes one of its images to a file, which is sparse."""
        with open(path, "wb") as file:
            file.truncate(SIZE)
            for place in self._pieces:
                os.pwrite(file.fileno(), image[place : place + self._PIECE], place)

    def flushes(self):
        return self.kinds.count(FLUSH)

    def last_flush(self, count):
        """The number of records up to the last flush of the first `count`: what no power cut takes away any more."""
        while count and self.kinds[count - 1] != FLUSH:
            count -= 1
        return count

    def images(self, cuts):
        """Pairs of each cut, in their order in time, and the bytes of the disk after it. They are valid until the next
        pair is asked for."""
        image = bytearray(self._base)
        done = 0
        for cut in sorted(cuts, key=lambda cut: cut.count):
            certain = self.last_flush(cut.count)
            self._apply(image, range(done, certain))
            done = certain
            with self._undone(image, range(certain, cut.count)):
                if cut.subset is None:
                    self._apply(image, range(certain, cut.count))
                else:
                    self._apply_some(image, range(certain, cut.count), random.Random(cut.subset))
                yield cut, image

    @contextlib.contextmanager
    def _undone(self, image, records):
        before = [
            (self.offsets[i], bytes(image[self.offsets[i] : self.offsets[i] + len(self.data[i])])) for i in records
        ]
        yield
        for offset, data in reversed(before):
            image[offset : offset + len(data)] = data

    def _apply(self, image, records):
        for i in records:
            image[self.offsets[i] : self.offsets[i] + len(self.data[i])] = self.data[i]

    def _apply_some(self, image, records, choose):
        """Of writes that no flush separates, any may have reached the disk, and any sector of one."""
        share = choose.random()
        tear = choose.random() < 0.5
        for i in records:
            step = SECTOR if tear else max(1, len(self.data[i]))
            for place in range(0, len(self.data[i]), step):
                if choose.random() < share:
                    piece = self.data[i][place : place + step]
                    image[self.offsets[i] + place : self.offsets[i] + place + len(piece)] = piece


class Cut(typing.NamedTuple):
    """The power fails after `count` records. All writes since the last flush are on the disk, or those that the seed
    `subset` draws."""

    count: int
    subset: int | None

    def __str__(self):
        return f"after {self.count} writes and flushes" + ("" if self.subset is None else f", subset {self.subset}")


def make_image(folders):
    """A new ext4 with empty folders of these names."""
    with tempfile.TemporaryDirectory() as place:
        skeleton = pathlib.Path(place, "skeleton")
        for folder in folders:
            (skeleton / folder).mkdir(parents=True)
        image = pathlib.Path(place, "image")
        subprocess.run(
            [
                "mkfs.ext4",
                "-q",
                "-b",
                "4096",
                "-N",
                "256",
                "-m",
                "0",
                "-J",
                "size=4",
                "-E",
                "nodiscard,lazy_itable_init=0,lazy_journal_init=0,root_owner=0:0",
                "-d",
                skeleton,
                image,
                f"{SIZE >> 10}k",
            ],
            check=True,
            stdout=subprocess.DEVNULL,
        )
        return image.read_bytes()
