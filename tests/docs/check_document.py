#!/usr/bin/python3
"""Does what a document says, on a sample device, and compares what comes of it word for word.

    check_document.py BUILD-DIRECTORY DOCUMENT

Runs the commands, replays the exchanges, and starts the device with the files that the document shows. Must run inside
`script/sandbox --private-network`. Exits with 1 when something comes out otherwise.
"""

import contextlib
import difflib
import pathlib
import re
import sys

import documents
from bus import Bus
from device import Device
from terminal import Terminal


def agrees(expected, actual):
    """Compares lines. "…" stands for any text, alone on a line for any lines; times are compared by their form."""
    return re.fullmatch("".join(map(_pattern, expected)), "".join(line + "\n" for line in actual)) is not None


_TIME = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}"
_MILLISECONDS = r"\d+\.\d+(?=(?:, \w+ \d+\.\d+)* ms)"


def _pattern(line):
    if line.strip() == "…":
        return "(?:.*\n)*"
    pieces = re.split(f"(…|{_TIME}|{_MILLISECONDS})", line)
    for i in range(0, len(pieces), 2):
        pieces[i] = re.escape(pieces[i])
    for i in range(1, len(pieces), 2):
        pieces[i] = ".+" if pieces[i] == "…" else _TIME if "T" in pieces[i] else _MILLISECONDS
    return "".join(pieces) + "\n"


class Checker:
    def __init__(self, document, build_directory):
        self._blocks = documents.read(document)
        files = {block.path: "\n".join(block.lines) + "\n" for block in self._blocks if block.kind == "file"}
        self._device = Device(build_directory, files)
        self._terminal = Terminal(self._device)
        self._bus = Bus(self._device)
        self._followers = []
        self.checks = 0
        self.failures = 0
        if files:
            complaints = re.findall(".* (?:error|warning) .*", self._device.log())
            self._compare(self._blocks[0], "log of the start with these files", [], complaints)

    def close(self):
        for part in (self._terminal, self._bus, self._device):
            part.close()

    def run(self):
        heading = None
        for block in self._blocks:
            if block.heading != heading:
                self._end_followers()
                heading = block.heading
            if block.kind == "console":
                self._run_commands(block)
            elif block.kind == "exchange":
                self._replay(block)
        self._end_followers()

    def _run_commands(self, block):
        for command, expected in documents.commands(block):
            if expected[-1:] == ["^C"]:
                self._followers.append((block, command, expected[:-1], self._terminal.follow(command)))
                continue
            actual, status = self._terminal.run(command)
            if status != 0 and not actual:
                actual = [f"(exit status {status}, and not a word)"]
            self._compare(block, command, expected, actual)

    def _end_followers(self):
        for block, command, expected, follower in self._followers:
            self._compare(block, command, expected, follower.end(len(expected)))
        self._followers.clear()

    def _replay(self, block):
        pending = []
        for mark, text in [*documents.messages(block), (">", None)]:
            if mark == ">" and pending:
                request, *answers = pending
                replies, notifications = self._bus.ask(request[1])
                self._compare(block, "reply to " + request[1], [text for mark, text in answers if mark == "<"], replies)
                self._compare(
                    block,
                    "notifications after " + request[1],
                    [text for mark, text in answers if mark == "*"],
                    notifications,
                )
                pending = []
            pending.append((mark, text))

    def _compare(self, block, what, expected, actual):
        self.checks += 1
        while actual and not actual[-1]:
            actual.pop()
        while expected and not expected[-1]:
            expected.pop()
        if not agrees(expected, actual):
            self.failures += 1
            print(f"{block.place}: {what}")
            print("\n".join(difflib.unified_diff(expected, actual, "document", "daemon", n=100, lineterm="")) + "\n")


def main():
    build_directory, document = (pathlib.Path(argument).resolve() for argument in sys.argv[1:])
    with contextlib.closing(Checker(document, build_directory)) as checker:
        checker.run()
    print(f"{document.name}: {checker.checks} checks, {checker.failures} failures")
    return 1 if checker.failures else 0


if __name__ == "__main__":
    sys.exit(main())
