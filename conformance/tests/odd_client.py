#!/usr/bin/env python3
"""Clients under test that are none: odd_client.py fails-at-its-end | hangs FIFO

    fails-at-its-end   answers hello, and ends with status 3 when its input does
    hangs FIFO         answers hello, and nothing else: it opens the FIFO at the next request
"""

import json
import sys

word, *arguments = sys.argv[1:]
for line in sys.stdin:
    request = json.loads(line)
    if request["do"] == "hello":
        answer = {"id": request["id"], "ok": True, "features": ["get", "merge"]}
        print(json.dumps(answer), flush=True)
    elif word == "hangs":
        open(arguments[0], "w").close()
sys.exit(3 if word == "fails-at-its-end" else 0)
