#!/usr/bin/python3
"""Draws the README's session, which its own test compares with what really comes out, as a picture of a terminal.

    draw_session.py >docs/session.svg
"""

from xml.sax.saxutils import escape

import documents
from documents import ROOT

HEADING = "## A session"

COLUMN, LINE, MARGIN, TITLE = 8.43, 20, 20, 34  # of a monospaced font of 14 px
SECONDS_BETWEEN_COMMANDS = 1.2

STYLE = (
    """
    text { font: 14px ui-monospace, "DejaVu Sans Mono", Menlo, Consolas, monospace; fill: #c9d1d9; white-space: pre }
    .prompt { fill: #7ee787 } .command { fill: #ffffff; font-weight: 600 } .error { fill: #ffa198 }
    @media (prefers-reduced-motion: no-preference) {
      g { animation: appear 0.2s both; animation-delay: calc(var(--step) * %gs) }
      @keyframes appear { from { opacity: 0 } }
    }
"""
    % SECONDS_BETWEEN_COMMANDS
)


def session():
    """Returns the commands of the first terminal: [(command, output lines)]"""
    blocks = documents.read(ROOT / "README.md")
    first = next(block for block in blocks if block.heading == HEADING and block.kind == "console")
    return [(command, output) for command, output in documents.commands(first) if command.startswith("propctl")]


def draw(entries):
    height, groups = TITLE, []
    width = max(len(line) for command, output in entries for line in [f"$ {command}", *output])
    for step, (command, output) in enumerate(entries):
        texts = []
        for number, line in enumerate([*command.split("\n"), *output]):
            height += LINE
            if number == 0:
                body = f'<tspan class="prompt">$ </tspan><tspan class="command">{escape(line)}</tspan>'
            elif line.startswith("propctl: "):
                body = f'<tspan class="error">{escape(line)}</tspan>'
            else:
                body = escape(line)
            texts.append(f'    <text x="{MARGIN}" y="{height}">{body}</text>\n')
        groups.append(f'  <g style="--step: {step}">\n{"".join(texts)}  </g>\n')
    width = round(width * COLUMN) + 2 * MARGIN
    height += MARGIN + LINE // 2
    buttons = "".join(
        f'  <circle cx="{MARGIN + 18 * i}" cy="18" r="6" fill="{colour}"/>\n'
        for i, colour in enumerate(("#ff5f56", "#ffbd2e", "#27c93f"))
    )
    return (
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
        f'viewBox="0 0 {width} {height}" role="img" aria-label="A session with propctl; README.md has its text">\n'
        f"  <style>{STYLE}  </style>\n"
        f'  <rect width="{width}" height="{height}" rx="8" fill="#0d1117"/>\n{buttons}{"".join(groups)}</svg>\n'
    )


if __name__ == "__main__":
    print(draw(session()), end="")
