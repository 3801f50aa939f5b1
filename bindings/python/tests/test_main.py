"""python3 -m tavix_settings."""

import json
import os
import signal
import subprocess
import sys

import pytest
from conftest import PATIENCE

import tavix_settings


@pytest.fixture
def run(daemon):
    def run_module(*arguments):
        command = [sys.executable, "-m", "tavix_settings", "--server", daemon.address, "-t", str(PATIENCE), *arguments]
        done = subprocess.run(command, capture_output=True, timeout=PATIENCE)
        return done.returncode, done.stdout.decode(), done.stderr.decode()

    return run_module


def test_gets_groups_as_json(run):
    status, output, _ = run("get", "Network/W*", "Device/*")
    expected = {"Device/Identity": {"model": "NC-240", "name": "Camera"}, "Network/Wlan0": {"enabled": "false"}}
    assert (status, json.loads(output)) == (0, expected)
    assert run("get", "Nothing") == (1, "{}\n", "")


def test_sets_if_the_group_holds_what_is_expected(run):
    assert run("set", "Network/Eth0", "mtu=9000", "a==b", "--if", "dhcp=true") == (0, "", "")
    status, _, problem = run("set", "Network/Eth0", "mtu=1500", "--if", "dhcp=false")
    assert (status, problem) == (4, "tavix_settings: condition failed: group 'Network/Eth0' holds something else\n")
    assert json.loads(run("get", "Network/Eth0")[1])["Network/Eth0"]["mtu"] == "9000"


def test_has_the_exit_statuses_of_the_command(run):
    assert run("set", "Secure/Wlan0", "x=1")[0] == 5
    assert run("set", "A", "x")[0] == 2
    assert run("set", "two\nlines", "x=1")[0] == 2
    assert run("--server", "unix:/nowhere/at/all", "get", "A")[0] == 3


def test_bytes_that_are_no_text_are_base64(run):
    run("set", b"G\xff", b"k\xff=v\xff", b"base64:=x")
    group = {"base64:a/8=": {"base64": "dv8="}, "base64:YmFzZTY0Og==": "x"}
    assert json.loads(run("get", "G*")[1]) == {"base64:R/8=": group}


def test_watches_a_line_for_each_change(daemon):
    command = [sys.executable, "-m", "tavix_settings", "-s", daemon.address, "-t", str(PATIENCE)]
    command += ["watch", "Network/W*", "--initial"]
    with subprocess.Popen(command, stdout=subprocess.PIPE) as watcher:
        first = {"group": "Network/Wlan0", "key": "enabled", "old": None, "new": "false", "gone": False}
        assert json.loads(watcher.stdout.readline()) == first
        with tavix_settings.connect(daemon.address, timeout=PATIENCE) as store:
            store.erase("Network/Wlan0")
            store.flush()
            assert json.loads(watcher.stdout.readline()) == {**first, "old": "false", "new": None, "gone": True}
            os.kill(watcher.pid, signal.SIGINT)
            store.set("Network/Wlan0", {"enabled": "true"})  # ends a wait that the signal came just too early for
        assert watcher.wait(PATIENCE) == 130


def test_silence_ends_it(run):
    assert run("watch", "*", "--silence", "0.05") == (0, "", "")
