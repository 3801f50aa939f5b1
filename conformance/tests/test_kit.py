"""The kit tests clients; this tests the kit: python3 -m unittest discover conformance/tests

A right client passes, each mistake fails the case that is named for it, and the runner keeps to its own interface.
"""

import os
import subprocess
import sys
import unittest
from pathlib import Path

FOLDER = Path(__file__).resolve().parent
RUN = FOLDER.parent / "run"
DAEMON = os.environ.get("TAVIX_SETTINGS_SERVER_PROGRAM", "")

# Each mistake, and the case that is there to find it.
MISTAKES = {
    "notice-as-reply": "notice-is-no-reply",
    "read-before-subscribe": "subscribe-before-read",
    "resend-write": "write-is-sent-once",
    "first-bracket": "last-bracket-ends-a-name",
    "mixed-replies": "late-reply-is-dropped",
}


def run(*arguments):
    words = [sys.executable, str(RUN), *arguments]
    return subprocess.run(words, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=300)


def client(*arguments):
    return " ".join([sys.executable, str(FOLDER / "plain_client.py"), *arguments])


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
        output = run("--client", client("first-bracket"), "--only", "last-bracket-ends-a-name", "--seed", "7").stdout
        self.assertIn("# connection 1 to daemon: 'get delimited\\n*\\n.\\n'\n", output)
        self.assertIn("# daemon to connection 1: 'data\\n[a]b]\\n", output)
        self.assertRegex(output, "# alone: .*run --client '.*first-bracket' --only last-bracket-ends-a-name --seed 7\n")

    def test_features_that_the_client_does_not_name_are_skipped_and_counted(self):
        result = run("--client", client(), "--only", "old-daemon-lacks-amend")
        self.assertEqual(result.returncode, 0)
        self.assertIn("\nok 1 - old-daemon-lacks-amend # SKIP without amend\n", result.stdout)
        self.assertIn("\n# skipped for want of amend: 1\n", result.stdout)

    def test_live_cases_are_skipped_without_a_daemon(self):
        result = run("--client", client(), "--only", "reconnect")
        self.assertIn("\nok 1 - reconnect # SKIP without --daemon\n", result.stdout)

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
