#!/usr/bin/python3
"""Installs below a prefix of its own with "cmake --install", as an ordinary user who has built what script/run builds.

In a mount namespace of its own, in which the build tree is that user's. Argument: the build tree.
"""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

SOURCES = pathlib.Path(__file__).resolve().parents[2]
NOBODY = 65534
# Reads what the tree's owner may, wherever the tree is, and writes what everybody may.
AS_NOBODY = [
    "setpriv",
    f"--reuid={NOBODY}",
    f"--regid={NOBODY}",
    "--clear-groups",
    "--inh-caps=-all,+dac_read_search",
    "--ambient-caps=+dac_read_search",
    "--bounding-set=-all,+dac_read_search",
    "--",
]


def run(*command, **options):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True, **options).stdout


def install(prefix, *options):
    as_user = AS_NOBODY if os.geteuid() == 0 else []
    return run(*as_user, "cmake", "--install", BUILD, "--prefix", prefix, *options)


def files(directory):
    return {str(path.relative_to(directory)) for path in directory.rglob("*") if not path.is_dir()}


def outputs(target):
    return set(re.findall(r" (?:-o|qc|>) (\S+)", run("ninja", "-C", BUILD, "-t", "commands", target)))


def isolate():
    """Hides what only the tests and the whole build make. The tree itself stays as it is."""
    run("mount", "-t", "tmpfs", "-o", "mode=777", "tree", "/mnt")
    os.makedirs("/mnt/upper")
    os.makedirs("/mnt/work")
    run("mount", "-t", "overlay", "-o", f"lowerdir={BUILD},upperdir=/mnt/upper,workdir=/mnt/work", "build", BUILD)
    if os.environ["CALLER"] == "0":
        os.chown(BUILD, NOBODY, NOBODY)
    for path in [*(outputs("all") - outputs("src/all")), *BUILD.glob("install_manifest*.txt")]:
        (BUILD / path).unlink(missing_ok=True)


class Installation(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        os.chmod(directory.name, 0o777)
        self.prefix = pathlib.Path(directory.name) / "telephone"

    def test_has_programs_library_and_manual_pages(self):
        install(self.prefix)

        self.assertLessEqual(
            {
                "bin/PropertyService",
                "bin/propctl",
                "include/propclient/Client.h",
                "share/man/man1/propctl.1",
                "share/man/man8/PropertyService.8",
                "etc/mosquitto/conf.d/propsrv.conf",
                "share/bash-completion/completions/propctl",
            },
            files(self.prefix),
        )
        self.assertTrue(list(self.prefix.glob("lib/**/libpropclient.a")))
        for program in ("PropertyService", "propctl"):
            self.assertRegex(run(self.prefix / "bin" / program, "--version"), rf"^{program} \d+\.\d+\.\d+\n$")

    def test_has_the_page_if_it_was_put_together(self):
        said = install(self.prefix)

        page = files(self.prefix / "share/propertyservice/page")
        if (SOURCES / "build/web/mqtt.js").exists():
            self.assertLessEqual({"index.html", "main.js", "mqtt.js", "mqtt.LICENSE.md"}, page)
        else:
            self.assertEqual(page, set())
            self.assertIn("The page is left out", said)

    def test_has_the_sample_device_only_when_it_is_asked_for(self):
        install(self.prefix)
        self.assertFalse((self.prefix / "etc/propsrv.d").exists())

        install(self.prefix, "--component", "sample")
        self.assertIn("etc/propsrv.d/nvminit.sql", files(self.prefix))

    def test_has_components_that_come_alone(self):
        install(self.prefix, "--component", "propctl")

        installed = files(self.prefix)
        self.assertIn("bin/propctl", installed)
        self.assertNotIn("bin/PropertyService", installed)

    def test_writes_below_the_prefix_alone(self):
        said = install(self.prefix) + install(self.prefix, "--component", "sample")

        places = [line.split(": ", 1)[1] for line in said.splitlines() if line.startswith("-- Installing: ")]
        self.assertTrue(places)
        for place in places:
            self.assertTrue(place.startswith(f"{self.prefix}/"), place)


class InstallationForTheSystem(unittest.TestCase):
    def test_refuses_another_prefix(self):
        """Its places outside of the prefix would be those of this computer."""
        with tempfile.TemporaryDirectory() as build:
            run("cmake", "--preset", "package", "-B", build, cwd=SOURCES)

            outcome = subprocess.run(
                ["cmake", "--install", build, "--prefix", f"{build}/telephone"], capture_output=True, text=True
            )

            self.assertNotEqual(outcome.returncode, 0)
            self.assertIn("This build is for the prefix /usr", outcome.stderr)
            self.assertFalse(os.path.exists(f"{build}/telephone"))


if __name__ == "__main__":
    if "CALLER" not in os.environ:
        os.environ["CALLER"] = str(os.geteuid())
        namespaces = ["--mount"] if os.geteuid() == 0 else ["--mount", "--user", "--map-root-user"]
        os.execvp("unshare", ["unshare", *namespaces, sys.executable, *sys.argv])
    BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
    isolate()
    unittest.main()
