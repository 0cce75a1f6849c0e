#!/usr/bin/python3
"""Runs script/audit against a registry that knows of a vulnerability, of none, or does not answer such questions."""

import gzip
import http.server
import json
import os
import pathlib
import subprocess
import threading
import unittest

SOURCES = pathlib.Path(__file__).resolve().parents[2]
ADVISORY = {
    "id": 1,
    "url": "https://example.org/1",
    "title": "A hole",
    "severity": "low",
    "vulnerable_versions": "*",
    "cwe": [],
    "cvss": {"score": 1, "vectorString": None},
}


class Registry(http.server.BaseHTTPRequestHandler):
    def do_POST(self):
        content = self.rfile.read(int(self.headers["Content-Length"]))
        if self.headers.get("Content-Encoding") == "gzip":
            content = gzip.decompress(content)
        self.server.asked = json.loads(content)
        self.answer(self.server.advisories)

    def do_GET(self):
        self.answer(None)

    def answer(self, content):
        self.send_response(405 if content is None else 200)
        self.end_headers()
        self.wfile.write(json.dumps(content).encode())

    def log_message(self, *arguments):
        pass


def audit(advisories):
    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Registry) as registry:
        registry.advisories = advisories
        registry.asked = {}
        threading.Thread(target=registry.serve_forever, daemon=True).start()
        outcome = subprocess.run(
            [SOURCES / "script/audit"],
            capture_output=True,
            text=True,
            timeout=60,
            env=os.environ
            | {"NPM_CONFIG_REGISTRY": f"http://127.0.0.1:{registry.server_port}/", "NPM_CONFIG_FETCH_RETRIES": "0"},
        )
        registry.shutdown()
        return outcome, registry.asked


class Audit(unittest.TestCase):
    def test_finds_nothing_where_nothing_is_known(self):
        outcome, asked = audit({})

        self.assertEqual(outcome.returncode, 0, outcome.stderr)
        self.assertIn("mqtt", asked)

    def test_fails_at_a_vulnerability(self):
        outcome, _ = audit({"mqtt": [ADVISORY]})

        self.assertEqual(outcome.returncode, 1, outcome.stderr)
        self.assertIn("mqtt", outcome.stderr)

    def test_says_that_the_registry_does_not_answer(self):
        outcome, _ = audit(None)

        self.assertEqual(outcome.returncode, 3)
        self.assertIn("NOT AUDITED", outcome.stderr)
        self.assertIn("405", outcome.stderr)


if __name__ == "__main__":
    unittest.main()
