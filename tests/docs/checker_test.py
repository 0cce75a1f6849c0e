#!/usr/bin/python3
"""That check_document.py finds what is wrong: checker_test.py BUILD-DIRECTORY."""

import re
import subprocess
import sys
import tempfile
import unittest

import terminal
from check_document import agrees
from documents import ROOT

BUILD_DIRECTORY = sys.argv.pop()

GET = '> {"method":"getV","param":"Audio.Volume"}'
SET = '> {"method":"setV","param":"Audio.Volume","value":"7"}'
ANSWER = '< {"param":"Audio.Volume","result":"5","status":"Ok"}'


class Check(unittest.TestCase):
    def failures(self, text):
        with tempfile.NamedTemporaryFile("w", suffix=".md") as document:
            document.write(text)
            document.flush()
            result = subprocess.run(
                [
                    ROOT / "script/sandbox",
                    "--private-network",
                    "--",
                    "/usr/bin/python3",
                    ROOT / "tests/docs/check_document.py",
                    BUILD_DIRECTORY,
                    document.name,
                ],
                check=False,
                capture_output=True,
                text=True,
            )
        failures = int(re.search(r"(\d+) failures", result.stdout)[1])
        self.assertEqual(result.returncode, 1 if failures else 0)
        return failures

    def block(self, *lines):
        return self.failures("```console\n" + "\n".join(lines) + "\n```\n")

    def exchange(self, *lines):
        return self.failures("```text\n" + "\n".join(lines) + "\n```\n")

    def test_passes_what_is_right(self):
        self.assertEqual(self.exchange(GET, ANSWER), 0)
        self.assertEqual(self.block("$ echo a", "a", "$ false || echo $?", "1"), 0)

    def test_finds_another_reply(self):
        self.assertEqual(self.exchange(GET, ANSWER.replace("5", "6")), 1)

    def test_finds_a_missing_reply(self):
        self.assertEqual(self.exchange(GET, ANSWER, ANSWER), 1)

    def test_finds_a_notification_that_the_document_lacks(self):
        self.assertEqual(self.exchange(SET, '< {"param":"Audio.Volume","status":"Ok"}'), 1)

    def test_finds_a_notification_that_does_not_come(self):
        self.assertEqual(self.exchange(GET, ANSWER, "* prop-service-groupnotify/any {}"), 1)

    def test_finds_another_output(self):
        self.assertEqual(self.block("$ echo a", "b"), 1)

    def test_finds_output_that_the_document_lacks(self):
        self.assertEqual(self.block("$ echo a"), 1)

    def test_finds_a_command_that_fails_without_a_word(self):
        self.assertEqual(self.block("$ false"), 1)

    def test_finds_another_announcement_to_a_follower(self):
        set_volume = """mosquitto_pub -t a/prop-service -m '{"method":"setV","param":"Audio.Volume","value":"7"}'"""
        follow = "$ mosquitto_sub -t prop-service-audio/any"

        self.assertEqual(self.block(follow, '{"param":"Audio.Volume","value":"7"}', "^C", "$ " + set_volume), 0)
        self.assertEqual(self.block(follow, '{"param":"Audio.Volume","value":"8"}', "^C", "$ " + set_volume), 1)

    def test_keeps_variables_from_one_command_to_the_next(self):
        self.assertEqual(self.block("$ a=1", "$ echo $a", "1"), 0)


class Comparison(unittest.TestCase):
    def test_is_word_for_word(self):
        self.assertTrue(agrees(["a.c"], ["a.c"]))
        self.assertFalse(agrees(["a.c"], ["abc"]))
        self.assertFalse(agrees(["a"], ["a", ""]))

    def test_takes_any_text_for_an_ellipsis(self):
        self.assertTrue(agrees(["at …: a"], ["at 12:00: a"]))
        self.assertFalse(agrees(["at …: a"], ["at 12:00: b"]))

    def test_takes_any_lines_for_an_ellipsis_alone(self):
        self.assertTrue(agrees(["a", "…", "d"], ["a", "b", "c", "d"]))
        self.assertFalse(agrees(["a", "…", "d"], ["a", "b", "c"]))

    def test_takes_any_time(self):
        self.assertTrue(agrees(["2026-11-21T08:15:30.123 a"], ["2027-01-02T03:04:05.678 a"]))
        self.assertFalse(agrees(["2026-11-21T08:15:30.123 a"], ["2027-01-02T03:04:05.678 b"]))
        self.assertTrue(agrees(["least 0.2, median 0.3, most 0.4 ms"], ["least 0.25, median 13.1, most 14.0 ms"]))
        self.assertFalse(agrees(["in 0.2 ms"], ["in no ms"]))


class Screen(unittest.TestCase):
    def test_shows_what_a_progress_display_leaves(self):
        self.assertEqual(terminal.shown("10 %\r\x1b[K50 %\r\x1b[Kdone\n"), ["done"])

    def test_shows_what_a_shorter_text_leaves_of_a_longer_one(self):
        self.assertEqual(terminal.shown("abcdef\rxyz\n"), ["xyzdef"])

    def test_shows_no_colours(self):
        self.assertEqual(terminal.shown("\x1b[1;31mred\x1b[0m\n"), ["red"])


if __name__ == "__main__":
    unittest.main()
