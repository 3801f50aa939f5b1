#!/usr/bin/env python3
# Sets KEY of GROUP to VALUE and prints what the group holds before and after: follow.py GROUP KEY VALUE
import os, re, socket, sys, time

def escape(text):  # a name between brackets, a key or a value
    return re.sub(r"[\x00-\x20\x7f\\=\[\]#;]", lambda byte: "\\x%02x" % ord(byte[0]), text)
def unescape(text):
    letters = {"n": "\n", "r": "\r", "t": "\t", "s": " ", "\\": "\\"}
    return re.sub(r"\\(?:x([0-9a-fA-F]{2})|([nrts\\]))", lambda e: chr(int(e[1], 16)) if e[1] else letters[e[2]], text)

class Client:
    def __init__(self, address):  # HOST, HOST:PORT, [V6]:PORT or unix:PATH
        if address.startswith("unix:"): (link := socket.socket(socket.AF_UNIX)).connect(address[5:])
        else: link = socket.create_connection(re.fullmatch(r"\[?(.*?)\]?(?::(\d+))?", address).groups("7211"))
        self.file, self.notices = link.makefile("rwb"), []
    def send(self, *lines):
        self.file.write("".join(line + "\n" for line in lines).encode(errors="surrogateescape"))
        self.file.flush()
    def line(self):
        line = self.file.readline().decode(errors="surrogateescape")  # each byte survives
        if not line.endswith("\n"): raise ConnectionError("the daemon has ended the connection; its log says why")
        return line[:-1]
    def document(self):
        groups = {}
        for line in iter(self.line, "."):
            if line.startswith("["): keys = groups.setdefault(unescape(line[1:-1]), {})
            else: keys[unescape(line.partition("=")[0])] = unescape(line.partition("=")[2])
        return groups
    def begin(self):  # the first line of a reply, or a whole notice: one may come before any reply
        line = self.line()
        if line == "async change": self.notices.append((list(iter(self.line, ".")), self.document()))
        return line
    def get(self, *groups):
        self.send("get delimited", *groups, ".")
        while self.begin() != "data": pass
        self.notices.clear()  # older than what is read now
        return self.document()

group, key, value = sys.argv[1:]
while True:
    try:
        client = Client(os.environ.get("TAVIX_SETTINGS_SERVER", "127.0.0.1"))
        client.send("subscribe", group, ".")
        values = client.get(group).get(group, {})
        print(values)
        client.send("merge", f"[{escape(group)}]", escape(key) + "=" + escape(value), ".")
        while values.get(key) != value:  # other clients' changes may be announced first
            while not client.notices: client.begin()
            values = client.notices.pop(0)[1].get(group, {})
        sys.exit(print(values))
    except OSError as error:  # no daemon, or no longer: once it is there, everything begins anew
        print(error, file=sys.stderr)
        time.sleep(1)
