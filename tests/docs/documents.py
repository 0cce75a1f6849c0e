"""Takes out of a document what can be held against the daemon: commands, exchanges and files.

How they are marked, in Markdown and in manual pages, is told in CONTRIBUTING.md under "Documents".
"""

import dataclasses
import pathlib
import re
import subprocess

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent


@dataclasses.dataclass
class Block:
    kind: str  # "console", "exchange", "file"; "sh" has commands that are not run, "text" is all else
    place: str  # document and line
    heading: str
    path: str  # of a file: where it belongs
    lines: list


def all_documents():
    """Returns the documents for users and developers. The notes on decisions show no commands."""
    pages = [path for path in ROOT.glob("docs/man/*") if is_manual_page(path)]
    return sorted([*ROOT.glob("*.md"), *ROOT.glob("docs/*.md"), *pages])


def is_manual_page(path):
    return path.suffix[1:].isdigit()


def read(path):
    """The blocks of a document in their order."""
    lines = path.read_text().splitlines()
    return list(_manual_page_blocks(path, lines) if is_manual_page(path) else _markdown_blocks(path, lines))


def rendered(path):
    """A manual page as its readers see it."""
    shown = subprocess.run(["mandoc", "-T", "utf8", path], check=True, capture_output=True, text=True)
    return re.sub(".\b", "", shown.stdout)


def commands(block):
    """The commands of a console block, each with the lines that it prints."""
    found = []
    for line in block.lines:
        if line.startswith("$ "):
            found.append((line[2:], []))
        elif line.startswith("> ") and not found[-1][1]:  # how the shell asks for the rest of a command
            found[-1] = (found[-1][0] + "\n" + line[2:], [])
        else:
            found[-1][1].append(line)
    return found


def messages(block):
    """The messages of an exchange: (">", request), ("<", reply) and ("*", notification)."""
    found = []
    for line in block.lines:
        if line.startswith(" "):
            found[-1] = (found[-1][0], found[-1][1] + line.strip())
        else:
            found.append((line[0], line[2:]))
    return found


def _markdown_blocks(path, lines):
    fence, heading, before = None, "", ""
    for number, line in enumerate(lines, 1):
        mark = re.match(r"( *)```(\w*)$", line)
        if mark and fence is None:
            fence = Block(mark[2], f"{path.name}:{number}", heading, _path_at_the_end(before), [])
            indentation = len(mark[1])
        elif mark:
            yield _classified(fence)
            fence = None
        elif fence is not None:
            fence.lines.append(line[indentation:])
        elif line.startswith("#"):
            heading = line
        elif line.strip():
            before = line


def _manual_page_blocks(path, lines):
    block, heading, before = None, "", ""
    for number, line in enumerate(lines, 1):
        if line.startswith(".Bd -literal"):
            block = Block("", f"{path.name}:{number}", heading, _path_at_the_end(before), [])
        elif line == ".Ed" and block is not None:
            yield _classified(block)
            block = None
        elif block is not None:
            block.lines.append(_unescaped(line))
        elif re.match(r"\.S[hs] ", line):
            heading = line
        else:
            before = line


_ESCAPES = {r"\e": "\\", r"\-": "-", r"\(aq": "'", r"\(ga": "`", r"\(ha": "^", r"\(ti": "~", r"\&": ""}


def _unescaped(line):
    return re.sub(r"\\(\(..|.)", lambda escape: _ESCAPES[escape[0]], line)


def _path_at_the_end(line):
    path = re.search(r"`?(/[^\s`]+)`?\s*:$", line)
    return path[1] if path else ""


def _classified(block):
    if block.lines[0].startswith("$ "):
        kind = "console"
    elif re.match("[>*] ", block.lines[0]):
        kind = "exchange"
    elif block.path:
        kind = "file"
    else:
        kind = "sh" if block.kind == "sh" else "text"
    if block.kind not in ("", "text", "json", "sql", kind):
        raise ValueError(f"{block.place}: marked as {block.kind}, but begins like {kind}")
    block.kind = kind
    return block
