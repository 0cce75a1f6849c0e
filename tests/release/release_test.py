#!/usr/bin/python3
"""script/release in a small tree of its own, in which the making of packages only says that it was asked for."""

import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

SOURCES = pathlib.Path(__file__).resolve().parents[2]
PERSON = {
    f"GIT_{role}_{field}": value
    for role in ("AUTHOR", "COMMITTER")
    for field, value in (("NAME", "Somebody"), ("EMAIL", "somebody@example.org"))
}
CHANGES = "# Changelog\n\n## [Unreleased]\n\n### Added\n\n- A thing.\n\n## [0.1.0] - 2026-01-01\n\n- The first.\n"


class Release(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.tree = pathlib.Path(directory.name)
        (self.tree / "script").mkdir()
        shutil.copy(SOURCES / "script/release", self.tree / "script")
        shutil.copy(SOURCES / "CMakeLists.txt", self.tree)
        self.write("script/package", "#!/bin/sh\necho packages of $(git describe)\n")
        (self.tree / "script/package").chmod(0o755)
        self.write("CHANGELOG.md", CHANGES)
        self.git("init", "--quiet")
        self.commit()

    def write(self, name, text):
        (self.tree / name).write_text(text)

    def git(self, *arguments):
        return subprocess.run(
            ["git", *arguments], cwd=self.tree, env=os.environ | PERSON, check=True, capture_output=True, text=True
        ).stdout

    def commit(self):
        self.git("add", ".")
        self.git("commit", "--quiet", "--message", "State")

    def release(self, version):
        return subprocess.run(
            [self.tree / "script/release", version], env=os.environ | PERSON, capture_output=True, text=True
        )

    def test_gives_version_and_date_commits_tags_and_makes_packages(self):
        outcome = self.release("7.0.10")

        self.assertEqual((outcome.returncode, outcome.stderr), (0, ""))
        self.assertIn("packages of v7.0.10\n", outcome.stdout)
        self.assertIn("  set(PROPERTYSERVICE_VERSION 7.0.10)\n", self.git("show", "v7.0.10:CMakeLists.txt"))
        self.assertRegex(
            self.git("show", "v7.0.10:CHANGELOG.md"),
            r"## \[Unreleased\]\n\n## \[7\.0\.10\] - \d{4}-\d\d-\d\d\n\n### Added\n\n- A thing\.\n\n## \[0\.1\.0\]",
        )
        self.assertEqual(self.git("cat-file", "-t", "v7.0.10"), "tag\n")
        self.assertEqual(self.git("status", "--porcelain"), "")

    def test_refuses_and_changes_nothing(self):
        def dirty():
            self.write("CHANGELOG.md", CHANGES + "- More.\n")

        def nothing_to_release():
            self.write("CHANGELOG.md", CHANGES.replace("### Added\n\n- A thing.\n\n", ""))
            self.commit()

        def tagged():
            self.git("tag", "v7.0.0")

        for prepare, version, complaint in (
            (lambda: None, "0.0.9", "has to be greater"),
            (lambda: None, "seven", "script/release VERSION"),
            (tagged, "7.0.0", "There is a tag v7.0.0 already"),
            (dirty, "7.0.1", "changes that are not committed"),
            (nothing_to_release, "7.0.1", 'nothing below "## [Unreleased]"'),
        ):
            with self.subTest(complaint):
                prepare()
                before = self.git("rev-parse", "HEAD")

                outcome = self.release(version)

                self.assertNotEqual(outcome.returncode, 0)
                self.assertIn(complaint, outcome.stderr)
                self.assertEqual(self.git("rev-parse", "HEAD"), before)


if __name__ == "__main__":
    unittest.main()
