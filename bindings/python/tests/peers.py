"""Other ends of a connection: a script, and a daemon in memory behind a socket."""

import errno
import socket
import threading

from conftest import PATIENCE

from tavix_settings.testing._daemon import FakeDaemon


def shut_down(connection):
    """Ends it for who waits for it in another thread, unless the other side or that thread was faster."""
    try:
        connection.shutdown(socket.SHUT_RDWR)
    except OSError as error:
        if error.errno not in (errno.ENOTCONN, errno.EBADF):
            raise


class Peer:
    """Listens on a port of loopback and runs serve(connection, number) for one connection after the other, each in a
    thread of its own. What a script raises fails the test at the end."""

    def __init__(self, serve):
        self._serve = serve
        self._listener = socket.create_server(("127.0.0.1", 0))
        self._threads = []
        self._connections = []
        self._errors = []
        self.address = "127.0.0.1:%d" % self._listener.getsockname()[1]

    def __enter__(self):
        self._acceptor = threading.Thread(target=self._accept)
        self._acceptor.start()
        return self

    def __exit__(self, *_):
        shut_down(self._listener)
        self._acceptor.join()
        for connection in self._connections:
            shut_down(connection)
        for thread in self._threads:
            thread.join()
        self._listener.close()
        if self._errors:
            raise self._errors[0]

    def end_connections(self):
        for connection, thread in zip(self._connections, self._threads):
            shut_down(connection)
            thread.join()

    @property
    def count(self):
        return len(self._connections)

    def _accept(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            connection.settimeout(PATIENCE)
            self._connections.append(connection)
            thread = threading.Thread(target=self._run, args=(connection, len(self._connections) - 1))
            self._threads.append(thread)
            thread.start()

    def _run(self, connection, number):
        with connection:
            try:
                self._serve(connection, number)
            except (ConnectionError, TimeoutError):
                pass
            except Exception as error:
                self._errors.append(error)


def read_request(connection, end=b".\n"):
    """All bytes up to such an end; what was received before the peer's end of the connection."""
    received = b""
    while not received.endswith(end):
        byte = connection.recv(1)
        if not byte:
            break
        received += byte
    return received


def wait_for_end(connection):
    while connection.recv(65536):
        pass


READING = b"data\n[A]\nx=1\n.\n"
SAME = b"async change\nA\n.\n[A]\nx=1\n.\n"  # a notice that is no change of what was read
OTHER = b"async change\nA\n.\n[A]\nx=2\n.\n"
MAX_CHUNKS = 1_000_000  # by which anybody has stopped to read


class EndlessLink:
    """A link of a store that waits, to a daemon that writes faster than anybody reads."""

    def __init__(self, notice):
        self.count = 0
        self._notice = notice

    def send(self, data, deadline):
        pass

    def has_news(self):
        return True

    def receive(self, deadline):
        self.count += 1
        assert self.count < MAX_CHUNKS
        return READING if self.count == 1 else self._notice

    def close(self):
        pass


class EndlessSocket:
    """What an asyncio link reads from: chunks as large as it asks for, without an end."""

    def __init__(self):
        self.count = 0

    def recv(self, size):
        self.count += 1
        assert self.count < MAX_CHUNKS
        return bytes(size)


class EndlessAsyncLink:
    """EndlessLink for an event loop, which finds news in each round."""

    def __init__(self, loop, notice):
        self.count = 0
        self._loop = loop
        self._notice = notice
        self._on_data = None

    def start(self, on_data, on_end):
        self._on_data = on_data
        self._loop.call_soon(self._deliver, READING)

    def write(self, data):
        pass

    def receive_now(self):
        self._take(self._notice)
        return True

    def close(self):
        self._on_data = None

    def _deliver(self, data):
        if self._on_data is not None:
            self._loop.call_soon(self._deliver, self._notice)
            self._take(data)

    def _take(self, data):
        self.count += 1
        assert self.count < MAX_CHUNKS
        self._on_data(data)


class FakeServer(Peer):
    """A daemon in memory behind a socket. "requests" has all bytes that it got."""

    def __init__(self, features=("amend",)):
        self.daemon = FakeDaemon({b"A": {b"x": b"1"}}, {}, [feature.encode() for feature in features])
        self.requests = b""
        self._lock = threading.Lock()
        super().__init__(self._serve_client)

    def _serve_client(self, connection, _):
        with self._lock:
            session = self.daemon.open_session(connection.sendall)
        while True:
            data = connection.recv(65536)
            with self._lock:
                if not data:
                    return session.close()
                self.requests += data
                session.receive(data)
