"""python3 -m tavix_settings: gets, sets and watches settings from scripts, with JSON as output."""

from __future__ import annotations

import argparse
import json
import os
import sys
from typing import Dict, List, Optional

from ._errors import (
    ConditionFailedError,
    ConnectionLostError,
    ParseError,
    RefusedError,
    SettingsError,
    SettingsTimeoutError,
)
from ._json import change_to_json, document_to_json
from ._sync import DEFAULT_TIMEOUT, Store, connect

# As those of the command tavix-settings.
_EXIT_NO = 1
_EXIT_USAGE = 2
_EXIT_NO_SERVER = 3
_EXIT_CONDITION = 4
_EXIT_REFUSED = 5
_EXIT_BAD_TEXT = 6
_EXIT_INTERRUPTED = 130
_STATUSES = (
    (ConnectionLostError, _EXIT_NO_SERVER),
    (SettingsTimeoutError, _EXIT_NO_SERVER),
    (ConditionFailedError, _EXIT_CONDITION),
    (RefusedError, _EXIT_REFUSED),
    (ParseError, _EXIT_BAD_TEXT),
)


def main(arguments: Optional[List[str]] = None) -> int:
    """Returns the exit status. Errors go to standard error, with one line."""
    options = _make_parser().parse_args(arguments)
    try:
        with connect(options.server, timeout=options.timeout) as store:
            status: int = options.run(store, options)
        return status
    except KeyboardInterrupt:
        return _EXIT_INTERRUPTED
    except BrokenPipeError:
        # The reader has seen enough. What is still buffered is not to be written at the end, either.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 0
    except SettingsError as error:
        print(f"tavix_settings: {error}", file=sys.stderr)
        return next((status for kind, status in _STATUSES if isinstance(error, kind)), _EXIT_NO)
    except ValueError as error:
        print(f"tavix_settings: {error}", file=sys.stderr)
        return _EXIT_USAGE


def _get(store: Store, options: argparse.Namespace) -> int:
    found = store.groups([os.fsencode(name) for name in options.groups], raw=True)
    print(json.dumps(document_to_json(found), indent=2, ensure_ascii=False))
    return 0 if found else _EXIT_NO


def _set(store: Store, options: argparse.Namespace) -> int:
    expected = _split(options.expect) if options.expect else None
    store.set(os.fsencode(options.group), _split(options.values), expect=expected)
    return 0


def _watch(store: Store, options: argparse.Namespace) -> int:
    names = [os.fsencode(name) for name in options.groups]
    with store.watch(names, initial=options.initial, timeout=options.silence, raw=True) as watch:
        for change in watch:
            print(json.dumps(change_to_json(change), ensure_ascii=False), flush=True)
    return 0


def _split(settings: List[str]) -> Dict[bytes, bytes]:
    """KEY=VALUE, as dictionary."""
    split = {}
    for setting in settings:
        key, separator, value = os.fsencode(setting).partition(b"=")
        if not separator:
            raise ValueError(f"expected KEY=VALUE, found {setting!r}")
        split[key] = value
    return split


def _make_parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog="python3 -m tavix_settings", description="The settings of a device, as JSON.")
    parser.add_argument("-s", "--server", metavar="ADDRESS", help="HOST[:PORT] or unix:PATH")
    parser.add_argument("-t", "--timeout", type=float, default=DEFAULT_TIMEOUT, metavar="SECONDS", help="for each call")
    words = parser.add_subparsers(required=True, metavar="get|set|watch")

    get = words.add_parser("get", help="print groups; exit status 1 if there are none")
    get.add_argument("groups", nargs="+", metavar="GROUP", help="a name, or a pattern with *")
    get.set_defaults(run=_get)

    change = words.add_parser("set", help="set values of a group")
    change.add_argument("group", metavar="GROUP")
    change.add_argument("values", nargs="+", metavar="KEY=VALUE")
    change.add_argument("--if", dest="expect", action="append", metavar="KEY=VALUE", help="if the group holds this")
    change.set_defaults(run=_set)

    watch = words.add_parser("watch", help="print a line for each change")
    watch.add_argument("groups", nargs="+", metavar="GROUP", help="a name, or a pattern with *")
    watch.add_argument("--initial", action="store_true", help="begin with what there is")
    watch.add_argument("--silence", type=float, metavar="SECONDS", help="end after so long without a change")
    watch.set_defaults(run=_watch)
    return parser


if __name__ == "__main__":
    sys.exit(main())
