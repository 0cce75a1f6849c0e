"""A disk that remembers: a file system of one file, for a loop device, that records each write and flush in its order.

    recorder.py FOLDER IMAGE LOG FAULTS

mounts at FOLDER and serves the file `disk` with the bytes of IMAGE, which it changes. Each write and each flush is
appended to LOG before it is answered. While a byte of FAULTS is not 0, the disk misbehaves (see `Faults` in disk.py).
"""

import errno
import mmap
import os
import stat
import sys
import time

import llfuse

from disk import FLUSH, HEADER, WRITE, Faults

_DISK = llfuse.ROOT_INODE + 1


class _Recorder(llfuse.Operations):
    def __init__(self, image, log, faults):
        super().__init__()
        self._image = image
        self._log = log
        self._faults = faults

    def getattr(self, inode, _context=None):
        entry = llfuse.EntryAttributes()
        entry.st_ino = inode
        entry.st_mode = (stat.S_IFDIR | 0o700) if inode == llfuse.ROOT_INODE else (stat.S_IFREG | 0o600)
        entry.st_size = 0 if inode == llfuse.ROOT_INODE else len(self._image)
        entry.st_nlink = 1
        entry.entry_timeout = entry.attr_timeout = 3600
        return entry

    def setattr(self, inode, _attributes, _fields, _handle, _context):
        return self.getattr(inode)

    def lookup(self, _parent, name, _context=None):
        if name != b"disk":
            raise llfuse.FUSEError(errno.ENOENT)
        return self.getattr(_DISK)

    def open(self, inode, _flags, _context):
        return inode

    def read(self, _handle, offset, size):
        self._misbehave(self._faults.read)
        return self._image[offset : offset + size]

    def write(self, _handle, offset, data):
        self._misbehave(self._faults.write)
        os.write(self._log, HEADER.pack(WRITE, offset, len(data)) + data)
        self._image[offset : offset + len(data)] = data
        return len(data)

    def fsync(self, _handle, _only_data):
        self._misbehave(self._faults.flush)
        os.write(self._log, HEADER.pack(FLUSH, 0, 0))

    def _misbehave(self, error):
        if self._faults.delay:
            time.sleep(self._faults.delay / 1000)
        if error:
            raise llfuse.FUSEError(error)


def main():
    folder, image, log, faults = sys.argv[1:]
    with open(image, "r+b") as file:
        content = mmap.mmap(file.fileno(), 0)
    log = os.open(log, os.O_WRONLY | os.O_APPEND)
    llfuse.init(_Recorder(content, log, Faults(faults)), folder, ["fsname=powercut", "max_read=131072"])
    # Requests are served in their order, by one thread.
    llfuse.main(workers=1)


main()
