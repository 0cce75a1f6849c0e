#!/usr/bin/python3
"""Checks the documents without a device: that links lead somewhere, that no command escapes the tests, and
that manual pages show their examples as they are."""

import re
import unittest

import documents
import draw_session
from documents import ROOT

# Commands that no document's test runs, and why.
NOT_RUN = {
    "script/release 0.2.0": "tests/release/release_test.py runs it",
    "script/run": "tests/docs/run_test.py runs it",
    "script/run --web": "tests/docs/run_test.py runs it",
    "cmake --install build/release --prefix /opt/propertyservice": "tests/install/install_test.py runs it",
    "cmake --preset debug": "builds",
    "cmake --build --preset debug": "builds",
    "ninja -C build/debug record_test && build/debug/record_test": "builds",
    "ctest --preset debug": "runs this very test",
    "tests/fleet/private-network bench/fleet_cost.py 5000": "measures for half a minute",
    "journalctl -u propsrv -p warning": "a namespace has no journal",
    "journalctl -u propsrv -f": "a namespace has no journal",
}

# Commands of the documents that tests/fleet/ runs.
RUN_IN_A_FLEET = r"(openssl|sed|propctl|mosquitto_rr|mosquitto_pub) .*\$(centre|serial|controller)|openssl .*-ca\.key"

PROGRAMS = (
    "script/[a-z]|propctl|PropertyService|mosquitto|systemctl|journalctl|sqlite3|cmake -|ninja -|ctest -|apt|" "man "
)


def each(condition=lambda path: True):
    return [path for path in documents.all_documents() if condition(path)]


def is_markdown(path):
    return not documents.is_manual_page(path)


def without_blocks(path):
    return re.sub(r"(?ms)^ *```.*?^ *```$", "", path.read_text())


def anchors(path):
    """As code hosts make them of headings."""
    headings = re.findall(r"(?m)^#+ (.*)$", without_blocks(path))
    return [re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-") for heading in headings]


class Commands(unittest.TestCase):
    def test_are_run_or_listed_with_a_reason(self):
        for path in each():
            for block in documents.read(path):
                if block.kind == "sh":
                    for line in (line for line in block.lines if not re.match(RUN_IN_A_FLEET, line)):
                        self.assertIn(line.split("  #")[0].strip(), NOT_RUN, block.place)

    def test_do_not_hide_in_blocks_of_text(self):
        for path in each():
            for block in documents.read(path):
                if block.kind in ("text", "file"):
                    for line in block.lines:
                        self.assertNotRegex(line, rf"^\s*([$#] |({PROGRAMS}))", block.place)

    def test_do_not_hide_in_indented_blocks(self):
        for path in each(is_markdown):
            self.assertIsNone(re.search(r"\n\n {4}.*", without_blocks(path)), path)

    def test_listed_as_not_run_are_in_a_document(self):
        shown = "".join(path.read_text() for path in each())
        for command in NOT_RUN:
            self.assertIn(command, shown)

    def test_named_in_the_text_exist(self):
        propctl = (ROOT / "docs/man/propctl.1").read_text()
        for path in each(is_markdown):
            for script in re.findall(r"`(script/[a-z]+)", path.read_text()):
                self.assertTrue((ROOT / script).exists(), f"{path.name}: {script}")
            for verb, rest in re.findall(r"`propctl ([a-z]+)([^`]*)`", without_blocks(path)):
                self.assertRegex(propctl, rf"(?m)^\.It Cm {verb}\b", path)
                for option in re.findall(r"--([a-z-]+)", rest):
                    self.assertIn(rf"Fl \-{option}", propctl, path)


class Links(unittest.TestCase):
    def test_lead_to_files_and_headings(self):
        for path in each(is_markdown):
            for target, anchor in re.findall(r"\]\((?!https?:)([^)#]*)#?([^)]*)\)", without_blocks(path)):
                file = path.parent / target if target else path
                self.assertTrue(file.exists(), f"{path.name}: {target}")
                if anchor:
                    self.assertIn(anchor, anchors(file), f"{path.name}: {target}#{anchor}")

    def test_lead_to_manual_pages_of_the_same_section(self):
        own = {page.stem: page.suffix[1:] for page in each(documents.is_manual_page)}
        for path in each(documents.is_manual_page):
            for name, section in re.findall(r"(?m)^\.Xr (\S+) (\d)", path.read_text()):
                self.assertEqual(own.get(name, section), section, f"{path.name}: {name}({section})")

    def test_of_the_readme_reach_every_document(self):
        readme = (ROOT / "README.md").read_text()
        for path in each(lambda path: path.name != "README.md"):
            self.assertIn(path.name, readme)


class Picture(unittest.TestCase):
    def test_shows_the_session_as_it_is_now(self):
        picture = draw_session.draw(draw_session.session())

        self.assertEqual((ROOT / "docs/session.svg").read_text(), picture, "tests/docs/draw_session.py draws it anew")


class Complaints(unittest.TestCase):
    def test_that_are_explained_are_made(self):
        sources = "".join(path.read_text() for path in ROOT.glob("src/**/*.cpp"))
        entries = re.findall(r"(?m)^\| `([^`]+)` \|", (ROOT / "docs/operations.md").read_text())
        self.assertTrue(entries)
        for entry in entries:
            self.assertIn(re.split('[…"]', entry.removeprefix("propctl: "))[0], sources)


class ManualPages(unittest.TestCase):
    def test_show_their_blocks_as_they_are_typed(self):
        for path in each(documents.is_manual_page):
            shown = [line.strip() for line in documents.rendered(path).splitlines()]
            for block in documents.read(path):
                for line in block.lines:
                    self.assertIn(line.strip(), shown, block.place)


if __name__ == "__main__":
    unittest.main()
