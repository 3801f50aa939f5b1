"""The kit tests clients; this tests the kit: python3 -m unittest discover conformance/tests

A right client passes, each mistake fails the case that is named for it, and the runner keeps to its own interface.
"""

import json
import os
import select
import shlex
import signal
import socket
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

FOLDER = Path(__file__).resolve().parent
sys.path.insert(0, str(FOLDER.parent))

from kit import text
from kit.byte_json import document_from_json, names_from_json
from kit.hub import Hub
from kit.requests import is_match

RUN = FOLDER.parent / "run"
LIMIT = 900  # seconds
DAEMON = os.environ.get("TAVIX_SETTINGS_SERVER_PROGRAM", "")

# Each mistake, and the case that is there to find it.
MISTAKES = {
    "notice-as-reply": "notice-is-no-reply",
    "read-before-subscribe": "subscribe-before-read",
    "resend-write": "write-is-sent-once",
    "first-bracket": "last-bracket-ends-a-name",
    "mixed-replies": "late-reply-is-dropped",
    "flush-at-once": "flush-waits-for-a-reply",
    "deaf-unwatch": "unwatched-is-silent",
}


def run(*arguments):
    words = [sys.executable, str(RUN), *arguments]
    pipe = subprocess.PIPE
    with subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=pipe, stderr=pipe, text=True) as process:
        try:
            output, errors = process.communicate(timeout=LIMIT)
        except BaseException:
            process.terminate()  # which clears away what it has begun; a kill would not
            raise
        return subprocess.CompletedProcess(words, process.returncode, output, errors)


def vectors(name):
    lines = (FOLDER.parent / name).read_text(encoding="utf-8").splitlines()
    assert lines
    return [json.loads(line) for line in lines]


def client(*arguments):
    return shlex.join([sys.executable, str(FOLDER / "plain_client.py"), *arguments])


def odd_client(*arguments):
    return shlex.join([sys.executable, str(FOLDER / "odd_client.py"), *arguments])


class Kit(unittest.TestCase):
    def test_a_right_client_passes(self):
        result = run("--client", client(), *(["--daemon", DAEMON] if DAEMON else []))
        self.assertEqual(result.returncode, 0, result.stdout)
        self.assertIn("\n# failed: none\n", result.stdout)

    def test_each_mistake_fails_the_case_that_is_named_for_it(self):
        for mistake, case in MISTAKES.items():
            with self.subTest(mistake):
                result = run("--client", client(mistake), "--only", case)
                self.assertEqual(result.returncode, 1, result.stdout)
                self.assertIn(f"\nnot ok 1 - {case}\n", result.stdout)
                self.assertIn(f"\n# failed: {case}\n", result.stdout)

    def test_a_case_that_a_mistake_fails_passes_without_it(self):
        for case in MISTAKES.values():
            with self.subTest(case):
                result = run("--client", client(), "--only", case)
                self.assertEqual((result.returncode, result.stdout.count("\nok 1 - ")), (0, 1), result.stdout)

    def test_a_failed_case_shows_the_bytes_of_both_sides_and_how_to_run_it_alone(self):
        words = ["--client", client("first-bracket"), "--only", "last-bracket-ends-a-name", "--seed", "7"]
        output = run(*words).stdout
        self.assertIn("# connection 1 to daemon: 'get delimited\\n*\\n.\\n'\n", output)
        self.assertIn("# daemon to connection 1: 'data\\n[a]b]\\n", output)
        self.assertIn(f"# alone: {shlex.join([str(RUN), *words])}\n", output)

    def test_features_that_the_client_does_not_name_are_skipped_and_counted(self):
        result = run("--client", client(), "--only", "old-daemon-lacks-amend")
        self.assertEqual(result.returncode, 0)
        self.assertIn("\nok 1 - old-daemon-lacks-amend # SKIP without amend\n", result.stdout)
        self.assertIn("\n# skipped for want of amend: 1\n", result.stdout)

    def test_only_features_that_cases_passed_with_are_proven(self):
        passed = run("--client", client(), "--only", "last-bracket-ends-a-name").stdout
        self.assertIn("\n# proven: get\n", passed)
        failed = run("--client", client("first-bracket"), "--only", "last-bracket-ends-a-name").stdout
        self.assertIn("\n# proven: none\n", failed)

    def test_live_cases_are_skipped_without_a_daemon(self):
        result = run("--client", client(), "--only", "reconnect")
        self.assertIn("\nok 1 - reconnect # SKIP without --daemon\n", result.stdout)

    def test_a_client_that_fails_at_its_end_does_not_pass(self):
        result = run("--client", odd_client("fails-at-its-end"), "--only", "ends-with-its-input")
        self.assertEqual(result.returncode, 1, result.stdout)
        self.assertIn("\n# the client ended with status 3\n", result.stdout)

    def test_a_daemon_that_the_system_can_not_run_fails_the_case_and_not_the_run(self):
        with tempfile.NamedTemporaryFile(delete=False) as program:
            program.write(b"\0")
        self.addCleanup(os.unlink, program.name)
        os.chmod(program.name, 0o700)
        result = run("--client", client(), "--daemon", program.name, "--only", "any-byte")
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertIn("\nnot ok 1 - any-byte\n", result.stdout)
        self.assertIn("\nok 2 - ends-with-its-input\n", result.stdout)

    @unittest.skipUnless(DAEMON, "TAVIX_SETTINGS_SERVER_PROGRAM names the daemon")
    def test_a_runner_that_is_terminated_leaves_nothing(self):
        with tempfile.TemporaryDirectory() as outer:
            fifo, inner = os.path.join(outer, "fifo"), os.path.join(outer, "inner")
            os.mkfifo(fifo)
            os.mkdir(inner)
            reader = os.open(fifo, os.O_RDONLY | os.O_NONBLOCK)
            self.addCleanup(os.close, reader)
            words = [sys.executable, str(RUN), "--client", odd_client("hangs", fifo)]
            words += ["--daemon", DAEMON, "--only", "any-byte"]
            with subprocess.Popen(words, stdout=subprocess.DEVNULL, env={**os.environ, "TMPDIR": inner}) as process:
                self.assertTrue(self.is_written(reader, process), "it is inside of the case")
                self.assertNotEqual(os.listdir(inner), [])
                process.terminate()
                self.assertEqual(process.wait(LIMIT), 128 + signal.SIGTERM)
            self.assertEqual(os.listdir(inner), [])

    def is_written(self, fifo, process):
        """Waits for it; False when the process ended without."""
        ended = os.pidfd_open(process.pid)
        self.addCleanup(os.close, ended)
        return fifo in select.select([fifo, ended], [], [], LIMIT)[0]

    def test_a_file_that_a_handler_has_closed_is_not_handled(self):
        hub = Hub()
        pairs = [socket.socketpair() for _ in range(2)]
        files = [near for near, _ in pairs]
        calls = []

        def close_both():
            calls.append(1)
            for file in files:
                hub.remove(file)
                file.close()

        for near, far in pairs:
            hub.add(near, close_both)
            far.send(b"x")
        hub.run_once(LIMIT)
        self.assertEqual(calls, [1])
        hub.close()
        for _, far in pairs:
            far.close()

    def test_the_runner_reads_settings_text_as_the_library_does(self):
        for vector in vectors("text.jsonl"):
            with self.subTest(vector["text"]):
                written = bytes.fromhex(vector["text"])
                if "error" in vector:
                    self.assertRaises(ValueError, text.parse, written)
                else:
                    document = text.parse(written)
                    self.assertEqual(document, document_from_json(vector["document"]))
                    self.assertEqual(text.parse(text.write(document)), document)

    def test_the_runner_matches_patterns_as_the_library_does(self):
        for vector in vectors("patterns.jsonl"):
            with self.subTest(vector):
                pattern, name = names_from_json([vector["pattern"], vector["name"]])
                self.assertEqual(is_match(name, [pattern]), vector["match"])

    def test_wrong_usage_ends_with_2(self):
        for arguments in (
            (),
            ("--client", client(), "--only", "nothing"),
            ("--client", "false"),
            ("--client", str(FOLDER / "gone")),
            ("--client", client(), "--daemon", str(FOLDER / "gone")),
            ("--client", client(), "--seed", "x"),
        ):
            with self.subTest(arguments):
                result = run(*arguments)
                self.assertEqual((result.returncode, result.stdout), (2, ""))
                self.assertNotIn("Traceback", result.stderr)
                self.assertTrue(result.stderr)


if __name__ == "__main__":
    unittest.main()
