#!/usr/bin/python3
"""script/run as somebody sees it who has read the README: it starts, what it says works, and Ctrl-C ends it.

In namespaces of its own. What is written to the source tree meanwhile is dropped, the sample device starts empty.
"""

import os
import re
import signal
import subprocess
import sys
import unittest
import urllib.request

from documents import ROOT

UNSHARE = ["unshare", "--mount", "--net"]
if os.geteuid() != 0:
    UNSHARE += ["--user", "--map-root-user"]


DEVICE = ROOT / "build/device"


def isolate():
    for command in (
        ["ip", "link", "set", "lo", "up"],
        ["mount", "-t", "tmpfs", "tree", "/mnt"],
        ["mkdir", "/mnt/upper", "/mnt/work"],
        ["mount", "-t", "overlay", "-o", f"lowerdir={ROOT},upperdir=/mnt/upper,workdir=/mnt/work", "tree", ROOT],
        ["mkdir", "-p", DEVICE],
        ["mount", "-t", "tmpfs", "device", DEVICE],
    ):
        subprocess.run(command, check=True)
    os.chdir(ROOT)


class Run(unittest.TestCase):
    command = ["script/run"]

    def setUp(self):
        for entry in DEVICE.iterdir():
            subprocess.run(["rm", "-rf", entry], check=True)
        self.run = subprocess.Popen(self.command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.said = ""
        while "script/run --" not in self.said:
            line = self.run.stdout.readline()
            self.assertTrue(line, self.said)
            self.said += line

    def tearDown(self):
        self.run.send_signal(signal.SIGINT)
        self.run.communicate(timeout=60)

    def test_answers_as_it_says(self):
        commands = re.findall(r"(?m)^    (mosquitto_rr .*|script/run .*)$", self.said)

        answers = [
            subprocess.run(command, shell=True, check=True, capture_output=True, text=True, timeout=60).stdout
            for command in commands
        ]

        self.assertEqual(answers[0], '{"param":"Audio.Volume","result":"5","status":"Ok"}\n\n')
        self.assertEqual(answers[1], '{"param":"Audio.Volume","status":"Ok"}\n\n')
        self.assertIn("Audio.Volume|7\n", answers[2])

    def test_has_built_the_command_line_that_the_readme_uses(self):
        answer = subprocess.check_output(["build/release/propctl", "get", "Audio.Volume"], text=True)

        self.assertEqual(answer, "5\n")

    def test_ends_with_everything_at_ctrl_c(self):
        self.run.send_signal(signal.SIGINT)
        self.run.wait(60)

        self.assertEqual(self.run.returncode, 0)
        sockets = subprocess.run(["ss", "--no-header", "--tcp", "--listening"], check=True, capture_output=True)
        self.assertEqual(sockets.stdout, b"")


class RunWithPage(Run):
    command = ["script/run", "--web"]

    def test_prints_the_address_of_the_page(self):
        while "The page: " not in self.said:
            self.said += self.run.stdout.readline()
        address = re.search(r"The page: (http://\S+)", self.said).group(1)

        with urllib.request.urlopen(address, timeout=20) as page:
            self.assertIn(b"<title>", page.read())


if __name__ == "__main__":
    if "--inside" not in sys.argv:
        os.execvp(UNSHARE[0], [*UNSHARE, sys.executable, *sys.argv, "--inside"])
    sys.argv.remove("--inside")
    isolate()
    unittest.main()
