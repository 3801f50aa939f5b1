"""What tests of other programs use."""

import os
import subprocess
import sys

import pytest
from conftest import PATIENCE

import tavix_settings
from tavix_settings.testing import RealDaemon

pytest_plugins = ["tavix_settings.testing.pytest_plugin"]


@pytest.fixture
def tavix_defaults():
    return {"Network/Eth0": {"dhcp": "true"}}


def test_the_fixtures_have_the_defaults_of_the_test(tavix_store, tavix_fake_store):
    for store in (tavix_store, tavix_fake_store):
        assert store.groups("*") == {"Network/Eth0": {"dhcp": "true"}}
        store.set("A", {"x": "1"})


def test_the_fixtures_begin_anew_for_each_test(tavix_store, tavix_fake_store):
    assert tavix_store.dump() == tavix_fake_store.dump() == ""


def test_a_daemon_keeps_its_address_and_its_settings(tavix_daemon):
    address = tavix_daemon.address
    with tavix_settings.connect(address, timeout=PATIENCE) as store:
        store.set("A", {"x": "1"})
        tavix_daemon.stop()
        tavix_daemon.start()
        assert tavix_daemon.address == address
        assert store.get("A", "x") == "1"


def test_a_daemon_leaves_no_files(tmp_path, monkeypatch):
    monkeypatch.setattr("tempfile.tempdir", str(tmp_path))
    with RealDaemon():
        assert os.listdir(tmp_path)
    assert not os.listdir(tmp_path)


def test_a_daemon_that_does_not_start_says_why(tmp_path):
    with pytest.raises(RuntimeError, match="no-such-option"):
        with RealDaemon(options=["--no-such-option"]):
            pass


def test_it_needs_no_pytest():
    script = "import sys; sys.modules['pytest'] = None; import tavix_settings.testing as t; t.FakeStore().close()"
    subprocess.run([sys.executable, "-c", script], check=True, timeout=PATIENCE)
