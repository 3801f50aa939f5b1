"""The sources themselves."""

import ast
import inspect
import re
from pathlib import Path

import pytest

import tavix_settings
from tavix_settings import aio
from tavix_settings.testing import AsyncFakeStore, FakeStore

FOLDER = Path(__file__).parents[1]
SOURCES = sorted(FOLDER.glob("tavix_settings/**/*.py"))
TESTS = sorted(FOLDER.glob("tests/*.py"))


def read(path):
    return path.read_text(encoding="utf-8")


def name_of(path):
    return str(path.relative_to(FOLDER))


def test_there_are_sources():
    assert FOLDER / "tavix_settings" / "_protocol.py" in SOURCES


@pytest.mark.parametrize("path", SOURCES, ids=name_of)
def test_parses_as_the_oldest_python_that_is_promised(path):
    ast.parse(read(path), feature_version=(3, 9))


@pytest.mark.parametrize("path", SOURCES + TESTS, ids=name_of)
def test_begins_with_what_it_is_for_and_has_no_line_too_wide(path):
    text = read(path)
    assert ast.get_docstring(ast.parse(text))
    assert max(map(len, text.splitlines())) <= 120


@pytest.mark.parametrize("name", ["_protocol", "_text", "_watching", "_calls", "_names", "_writes"])
def test_the_core_knows_no_socket_and_no_clock(name):
    tree = ast.parse(read(FOLDER / "tavix_settings" / f"{name}.py"))
    imported = {alias.name for node in ast.walk(tree) if isinstance(node, ast.Import) for alias in node.names}
    imported |= {node.module for node in ast.walk(tree) if isinstance(node, ast.ImportFrom)}
    assert not imported & {"socket", "select", "time", "asyncio", "threading", "os", "_link"}


def interface_of(kind):
    """Names of calls, each with what it takes."""
    calls = {name: call for name, call in inspect.getmembers(kind, inspect.isfunction) if not name.startswith("_")}
    return {
        name: [(each.name, each.kind, each.default) for each in inspect.signature(call).parameters.values()]
        for name, call in calls.items()
    }


@pytest.mark.parametrize("kind", [aio.AsyncStore, FakeStore, AsyncFakeStore])
def test_all_stores_have_the_same_calls(kind):
    names = "get groups set merge test_and_merge amend overwrite erase restore watch flush dump close".split()
    wanted = interface_of(tavix_settings.Store)
    assert set(names) <= set(wanted)
    assert {name: interface_of(kind)[name] for name in wanted} == wanted


@pytest.mark.parametrize("connect", [tavix_settings.connect, aio.connect])
def test_a_call_takes_ten_seconds_at_most_unless_the_program_has_other_wishes(connect):
    assert inspect.signature(connect).parameters["timeout"].default == 10.0


def test_the_version_is_that_of_the_project():
    project = re.search(r"^project\(.* VERSION ([0-9.]+) ", read(FOLDER.parents[1] / "CMakeLists.txt"), re.MULTILINE)
    assert tavix_settings.__version__ == project.group(1)
    assert f'version = "{project.group(1)}"' in read(FOLDER / "pyproject.toml")
