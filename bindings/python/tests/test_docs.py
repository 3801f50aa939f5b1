"""What docs/python.md shows, and the examples."""

import itertools
import os
import re
import shlex
import subprocess
import sys
from pathlib import Path

import pytest
from conftest import PATIENCE
from peers import Peer, read_request, wait_for_end

from tavix_settings._text import decode_document, parse_text
from tavix_settings.testing import RealDaemon

ROOT = Path(__file__).parents[3]
BLOCK = re.compile(r"^```([a-z ]+)\n(.*?)^```$", re.MULTILINE | re.DOTALL)
BLOCKS = BLOCK.findall((ROOT / "docs" / "python.md").read_text(encoding="utf-8"))
DEFAULTS = decode_document(parse_text(BLOCKS[0][1].encode(), "docs/python.md"))
# A block, and what it prints: what the block behind it shows, if that is text.
PROGRAMS = [
    (code, following[1] if following[0] == "text" else "")
    for (kind, code), following in zip(BLOCKS, [*BLOCKS[1:], ("", "")])
    if kind == "python"
]
SESSIONS = [text for kind, text in BLOCKS if kind == "console"]
TESTS = [code for kind, code in BLOCKS if kind == "python pytest"]


# The page shows the default time-outs, which a machine of tests may need for nothing at all.
PATIENT = f"""\
import tavix_settings.aio
for connect in (tavix_settings.connect, tavix_settings.aio.connect):
    connect.__kwdefaults__["timeout"] = {PATIENCE}
"""


def count_up():
    return map(str, itertools.count())


def run(command, address, **options):
    environment = {**os.environ, "TAVIX_SETTINGS_SERVER": address, "PYTHONPATH": str(ROOT / "bindings" / "python")}
    return subprocess.run(
        command, env=environment, stdout=subprocess.PIPE, timeout=PATIENCE, check=True, text=True, **options
    ).stdout


@pytest.fixture
def address():
    with RealDaemon(DEFAULTS) as daemon:
        yield daemon.address


def test_the_page_has_blocks_of_each_kind():
    assert BLOCKS[0][0] == "ini defaults"
    assert (len(PROGRAMS), len(SESSIONS), len(TESTS)) == (7, 1, 1)


@pytest.mark.parametrize(["code", "output"], PROGRAMS, ids=count_up())
def test_programs_print_what_the_page_shows(code, output, address):
    assert run([sys.executable, "-W", "error", "-c", PATIENT + code], address) == output


@pytest.mark.parametrize("session", SESSIONS, ids=count_up())
def test_commands_print_what_the_page_shows(session, address):
    for command, output in re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", session, re.MULTILINE):
        program, *arguments = shlex.split(command)
        assert (program, *arguments[:2]) == ("python3", "-m", "tavix_settings")
        arguments[2:2] = ["--timeout", str(PATIENCE)]
        assert run([sys.executable, *arguments], address) == output


@pytest.mark.parametrize("code", TESTS, ids=count_up())
def test_tests_pass(code, tmp_path):
    (tmp_path / "test_page.py").write_text(code, encoding="utf-8")
    run([sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider"], "", cwd=tmp_path)


def test_the_example_prints_what_the_page_of_examples_promises():
    with RealDaemon(options=["--defaults", str(ROOT / "examples" / "device" / "defaults.d")]) as daemon:
        assert run([sys.executable, str(ROOT / "examples" / "read-value.py")], daemon.address) == "1920x1080\n"


FOLLOW = str(ROOT / "examples" / "follow.py")


def test_the_client_of_fifty_lines_waits_for_its_own_change_and_keeps_each_byte():
    def serve(connection, _):
        read_request(connection, b"get delimited\nA\n.\n")
        connection.sendall(b"async change\nA\n.\n[A]\nx=1\n.\n" b"data\n[A]\nx=\xff\n.\nasync change\n")
        assert read_request(connection) == b"merge\n[A]\nx=1\xfe\n.\n"
        connection.sendall(b"A\n.\n[A]\nx=2\n.\n")
        connection.sendall(b"async change\nA\n.\n[A]\nx=1\xfe\n.\n")
        wait_for_end(connection)

    with Peer(serve) as peer:
        output = run([sys.executable, FOLLOW, "A", "x", b"1\xfe"], peer.address)
    assert output == "{'x': '\\udcff'}\n{'x': '1\\udcfe'}\n"


def test_the_client_of_fifty_lines_does_not_wait_for_the_announcement_of_what_is_there(address):
    assert run([sys.executable, FOLLOW, "Network/Eth0", "dhcp", "true"], address).count("'dhcp': 'true'") == 2


# Connects to the port of a test in the place of the usual one, where a daemon may run.
SUBSTITUTE = """\
import runpy, socket, sys
connect = socket.create_connection
def connect_to_test(place):
    print(*place)
    return connect(("127.0.0.1", PORT))
socket.create_connection = connect_to_test
sys.argv[0:1] = []
runpy.run_path(sys.argv[0])
"""


@pytest.mark.parametrize(
    ["variable", "place"],
    [
        (None, "127.0.0.1 7211"),
        ("device", "device 7211"),
        ("device:80", "device 80"),
        ("[::1]", "::1 7211"),
        ("[::1]:80", "::1 80"),
    ],
)
def test_the_client_of_fifty_lines_connects_to_what_the_variable_says(address, variable, place, monkeypatch):
    monkeypatch.setenv("TAVIX_SETTINGS_SERVER", variable or "")
    if variable is None:
        monkeypatch.delenv("TAVIX_SETTINGS_SERVER")
    code = SUBSTITUTE.replace("PORT", address.rpartition(":")[2])
    command = [sys.executable, "-c", code, FOLLOW, "Network/Eth0", "dhcp", "false"]
    output = subprocess.run(command, stdout=subprocess.PIPE, timeout=PATIENCE, check=True, text=True).stdout
    assert output.splitlines()[0] == place
    assert "'dhcp': 'false'" in output.splitlines()[2]


def test_the_client_of_fifty_lines_connects_to_a_unix_socket(tmp_path):
    path = tmp_path / "socket"
    with RealDaemon(DEFAULTS, options=["--listen", f"unix:{path}"]):
        output = run([sys.executable, FOLLOW, "Network/Eth0", "dhcp", "false"], f"unix:{path}")
    assert "'dhcp': 'false'" in output.splitlines()[1]
