"""A terminal on the device: what a person types, and what is seen then."""

import fcntl
import os
import pty
import re
import select
import signal
import struct
import subprocess
import termios
import time

from device import PATIENCE, eventually, start

_END = "\x1e"  # what the shell writes after each command


class Terminal:
    """A shell that keeps its variables and its folder from one command to the next. Input is empty."""

    def __init__(self, device):
        self._device = device
        self._screen, process_side = _open_terminal()
        self._shell = start(
            ["bash", "--noprofile", "--norc"],
            env=device.environment,
            cwd=device.checkout,
            stdin=subprocess.PIPE,
            stdout=process_side,
            stderr=process_side,
            text=True,
        )
        os.close(process_side)
        self._status = 0

    def run(self, command):
        """The lines that a command shows, and its exit status."""
        self._shell.stdin.write(f"(exit {self._status})\n{{ {command}\n}} </dev/null; printf '{_END}%s\\n' $?\n")
        self._shell.stdin.flush()
        seen = ""
        deadline = time.monotonic() + PATIENCE
        while not (end := re.search(f"{_END}(\\d+)\n", seen)):
            if not select.select([self._screen], [], [], max(0, deadline - time.monotonic()))[0]:
                raise TimeoutError(f"{command}: does not end; so far: {seen}")
            seen += os.read(self._screen, 65536).decode()
        self._status = int(end[1])
        return shown(seen[: end.start()]), self._status

    def follow(self, command):
        """Starts a command that goes on until Ctrl-C. Returns once it hears what is announced."""
        return Follower(self._device, command)

    def close(self):
        self._shell.stdin.close()
        self._shell.wait(PATIENCE)
        os.close(self._screen)


class Follower:
    """A command that goes on until Ctrl-C, on a terminal of its own."""

    def __init__(self, device, command):
        earlier = device.broker_log()
        self._screen, process_side = _open_terminal()
        self._process = start(
            ["bash", "--noprofile", "--norc", "-c", f"exec {command}"],
            env=device.environment,
            cwd=device.checkout,
            stdin=subprocess.DEVNULL,
            stdout=process_side,
            stderr=process_side,
        )
        os.close(process_side)
        self._seen = ""
        reads = command.startswith("propctl")  # to know what was before
        if not eventually(lambda: _listens(device.broker_log()[len(earlier) :], reads)):
            raise TimeoutError(f"{command}: does not subscribe; so far: {self._read()}")

    def end(self, lines):
        """Waits for so many lines, presses Ctrl-C, and returns all lines."""
        eventually(lambda: len(shown(self._read())) >= lines)
        self._process.send_signal(signal.SIGINT)
        self._process.wait(PATIENCE)
        seen = shown(self._read())
        os.close(self._screen)
        return seen

    def _read(self):
        while select.select([self._screen], [], [], 0)[0]:
            try:
                self._seen += os.read(self._screen, 65536).decode()
            except OSError:  # nobody writes any more
                break
        return self._seen


def _listens(log, reads):
    """True when a client hears more than replies and, if it `reads` first, has read."""
    for client in re.findall(r": (\S+) \d (?!prop-service/)\S+\n", log):
        asked = log.count(f"Received PUBLISH from {client} ")
        answered = len(re.findall(f"Sending PUBLISH to {client} .*'prop-service/", log))
        if asked == answered and (asked or not reads):
            return True
    return False


def _open_terminal():
    """As wide as a manual page. Lines end with LF alone."""
    screen, process_side = pty.openpty()
    fcntl.ioctl(process_side, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 100, 0, 0))
    attributes = termios.tcgetattr(process_side)
    attributes[1] &= ~termios.OPOST
    attributes[3] &= ~termios.ECHO
    termios.tcsetattr(process_side, termios.TCSANOW, attributes)
    return screen, process_side


def shown(text):
    """The lines that stand on the screen in the end, without colours. Knows how to return to the start of a line and
    to erase to its end, which is what a progress display does."""
    lines = []
    for line in text.split("\n"):
        cells, column = [], 0
        for part in re.findall(r"\x1b\[[0-9;?]*[A-Za-z]|[^\x1b]", line):
            if part == "\r":
                column = 0
            elif part == "\x1b[K":
                del cells[column:]
            elif len(part) == 1:
                cells[column : column + 1] = part
                column += 1
        lines.append("".join(cells).rstrip())
    while lines and not lines[-1]:
        lines.pop()
    return lines
