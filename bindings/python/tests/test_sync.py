"""What only a store that waits has: threads, signals, forks of a watch."""

import gc
import math
import os
import random
import signal
import threading
import time

import pytest
from conftest import DEFAULTS, PATIENCE
from peers import OTHER, SAME, EndlessLink, Peer, read_request, wait_for_end

import tavix_settings
from tavix_settings._address import find_address
from tavix_settings.testing import FakeStore


def count_descriptors():
    gc.collect()
    return len(os.listdir("/proc/self/fd"))


def run_in_threads(count, work):
    errors = []

    def run(number):
        try:
            work(number)
        except BaseException as error:
            errors.append(error)

    threads = [threading.Thread(target=run, args=(number,)) for number in range(count)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert errors == []


@pytest.fixture(params=["real", "fake"])
def store(request):
    if request.param == "fake":
        with FakeStore(DEFAULTS, timeout=PATIENCE) as made:
            yield made
    else:
        # A call may wait for those of fifty threads, each of which waits for the disk.
        with tavix_settings.connect(request.getfixturevalue("daemon").address, timeout=10 * PATIENCE) as made:
            yield made


def test_fifty_threads_take_turns(store):
    def work(number):
        for turn in range(20):
            store.set(f"Thread{number}", {"x": f"{number}-{turn}"})
            assert store.get(f"Thread{number}", "x") == f"{number}-{turn}"

    run_in_threads(50, work)


def test_close_ends_calls_of_other_threads():
    is_asked = threading.Event()

    def serve(connection, number):
        read_request(connection)
        is_asked.set()
        wait_for_end(connection)

    with Peer(serve) as peer:
        store = tavix_settings.connect(peer.address, timeout=None)
        closer = threading.Thread(target=lambda: (is_asked.wait(PATIENCE), store.close()))
        closer.start()
        with pytest.raises(tavix_settings.ClosedError):
            store.get("A", "x")
        closer.join()


def test_close_during_a_write_leaves_its_outcome_unknown():
    is_asked = threading.Event()

    def serve(connection, number):
        read_request(connection)
        is_asked.set()
        wait_for_end(connection)

    for call, is_unknown in ((lambda: store.set("A", {"x": "1"}), True), (lambda: store.get("A", "x"), False)):
        is_asked.clear()
        with Peer(serve) as peer:
            store = tavix_settings.connect(peer.address, timeout=None)
            closer = threading.Thread(target=lambda: (is_asked.wait(PATIENCE), store.close()))
            closer.start()
            with pytest.raises(tavix_settings.ClosedError) as caught:
                call()
            closer.join()
        assert caught.value.outcome_unknown == is_unknown


@pytest.fixture
def on_alarm():
    """Runs a function, once, as the handler of a signal."""
    previous = signal.getsignal(signal.SIGALRM)
    yield lambda function: signal.signal(signal.SIGALRM, lambda *_: function())
    signal.signal(signal.SIGALRM, previous)


def kill_and_wake(number, wake):
    """A signal that comes just before a wait begins does not end it, and the handler runs behind it: something else has
    to end it, too."""
    os.kill(os.getpid(), number)
    wake()


def alarm_when_asked(connection, _):
    read_request(connection)
    kill_and_wake(signal.SIGALRM, lambda: connection.sendall(b"r"))
    wait_for_end(connection)


@pytest.mark.parametrize("kind", [KeyboardInterrupt, RuntimeError])
def test_an_interrupt_of_a_store_that_is_closed_stays_what_it_is(on_alarm, kind):
    def interrupt():
        store.close()
        raise kind

    on_alarm(interrupt)
    with Peer(alarm_when_asked) as peer:
        store = tavix_settings.connect(peer.address, timeout=None)
        with pytest.raises(kind):
            store.set("A", {"x": "1"})


def test_a_handler_does_not_take_over_the_turn_of_the_call_that_it_interrupts(on_alarm):
    def ask():
        with pytest.raises(RuntimeError, match="can't use a store whose call it has interrupted"):
            store.get("B", "y")
        is_handled.set()

    def serve(connection, _):
        read_request(connection)
        kill_and_wake(signal.SIGALRM, lambda: connection.sendall(b"d"))
        assert is_handled.wait(PATIENCE)
        connection.sendall(b"ata\n[A]\nx=1\n.\n")
        wait_for_end(connection)

    is_handled = threading.Event()
    on_alarm(ask)
    with Peer(serve) as peer, tavix_settings.connect(peer.address, timeout=PATIENCE) as store:
        assert store.get("A", "x") == "1"
        assert peer.count == 1


def test_an_interrupt_of_a_watch_that_is_closed_stays_what_it_is(on_alarm):
    def interrupt():
        watch.close()
        raise KeyboardInterrupt

    def serve(connection, number):
        read_request(connection, b"get delimited\nA\n.\n")
        connection.sendall(b"data\n.\n")
        assert is_read.wait(PATIENCE)
        assert is_in_next.wait(PATIENCE)
        kill_and_wake(signal.SIGALRM, lambda: connection.sendall(b"a"))
        wait_for_end(connection)

    is_read = threading.Event()
    on_alarm(interrupt)
    with Peer(serve) as peer:
        store = tavix_settings.Store(find_address(peer.address), None)
        watch = store.watch("A")
        is_in_next = note_next(watch)
        is_read.set()
        with pytest.raises(KeyboardInterrupt):
            next(watch)


def test_a_store_that_is_closed_while_it_connects_stays_closed(daemon):
    class ClosedWhileConnecting(tavix_settings.Store):
        def _open_link(self, deadline, waker):
            link = super()._open_link(deadline, waker)
            self.close()
            return link

    before = count_descriptors()
    store = ClosedWhileConnecting(find_address(daemon.address), PATIENCE)
    with pytest.raises(tavix_settings.ClosedError):
        store.get("A", "x")
    assert count_descriptors() == before


def test_close_of_another_thread_ends_a_watch(store):
    before = count_descriptors()
    watch = store.watch("*")
    threads = [threading.Thread(target=watch.close) for _ in range(3)]
    for thread in threads:
        thread.start()
    assert list(watch) == []
    for thread in threads:
        thread.join()
    assert count_descriptors() == before


def test_leaving_the_loop_leaves_nothing_of_a_watch(store):
    store.get("A", "x", None)
    before = count_descriptors()
    for _ in store.watch("*", initial=True):
        break
    assert count_descriptors() == before
    assert threading.active_count() == 1


class NotedLock:
    """A lock that tells when it was taken."""

    def __init__(self, lock):
        self._lock = lock
        self.was_taken = threading.Event()

    def __enter__(self):
        self._lock.__enter__()
        self._note()

    def __exit__(self, *reason):
        self._lock.__exit__(*reason)

    def acquire(self, *how, **limit):
        is_taken = self._lock.acquire(*how, **limit)
        if is_taken:
            self._note()
        return is_taken

    def release(self):
        self._lock.release()

    def _note(self):
        if not self.was_taken.is_set():  # an interrupt inside of set() leaves a lock held, which the next takes
            self.was_taken.set()


def note_next(watch):
    """An event that is set once a thread is in next()."""
    watch._lock = NotedLock(watch._lock)
    return watch._lock.was_taken


@pytest.mark.parametrize("timeout", [30 * 24 * 60 * 60, math.inf])
def test_a_watch_may_have_more_time_than_the_system_waits_at_once(store, timeout):
    with store.watch("A", timeout=timeout) as watch:
        is_in_next = note_next(watch)
        writer = threading.Thread(target=lambda: (is_in_next.wait(PATIENCE), store.set("A", {"x": "1"})))
        writer.start()
        assert next(watch).new == "1"
        writer.join()


def test_ctrl_c_ends_a_watch(store):
    before = count_descriptors()
    watch = store.watch("*")
    is_in_next = note_next(watch)

    def interrupt():
        assert is_in_next.wait(PATIENCE)
        kill_and_wake(signal.SIGINT, lambda: store.set("A", {"x": "1"}))

    interrupter = threading.Thread(target=interrupt)
    interrupter.start()
    with pytest.raises(KeyboardInterrupt):
        next(watch)
    interrupter.join()
    assert list(watch) == []
    assert count_descriptors() == before


class EndlessStore(tavix_settings.Store):
    def __init__(self, notice):
        super().__init__(find_address("127.0.0.1:1"), PATIENCE)
        self.link = EndlessLink(notice)

    def _open_link(self, deadline, waker):
        return self.link


def test_a_writer_without_an_end_does_not_keep_a_watch_from_its_changes():
    store = EndlessStore(OTHER)
    with store.watch("A") as watch:
        assert next(watch) == tavix_settings.Change("A", "x", "1", "2")
        assert store.link.count == 1 + 16


def test_a_writer_without_an_end_does_not_keep_a_watch_from_its_time_out():
    with EndlessStore(SAME).watch("A", timeout=0.01) as watch:
        assert list(watch) == []


def test_a_child_can_close_a_watch_without_its_parent_noticing(store):
    with store.watch("A", timeout=PATIENCE) as watch:
        child = os.fork()
        if child == 0:
            try:
                next(watch)
            except tavix_settings.ClosedError:
                watch.close()
                os._exit(0)
            os._exit(1)
        assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
        store.set("A", {"x": "1"})
        assert next(watch).new == "1"


class Cut(Exception):
    pass


# An interrupt may come between a socket's making and the statement that keeps it; the socket is closed by its end then.
@pytest.mark.filterwarnings("ignore::pytest.PytestUnraisableExceptionWarning", "ignore::ResourceWarning")
def test_a_call_cut_short_anywhere_leaves_no_reply_to_others(daemon, nonce):
    rng = random.Random(20)
    is_armed = False

    def cut(*_):
        if is_armed:
            raise Cut

    previous = signal.signal(signal.SIGALRM, cut)
    try:
        with tavix_settings.connect(daemon.address, timeout=PATIENCE) as store:
            store.merge({"Big": {str(number): "v" * 100 for number in range(2000)}})
            cuts = 0
            for _ in range(1000):
                try:
                    is_armed = True
                    signal.setitimer(signal.ITIMER_REAL, rng.uniform(1e-6, 3e-3))
                    store.groups("Big")
                    store.set("A", {"x": "before"})
                except Cut:
                    cuts += 1
                finally:
                    is_armed = False
                    signal.setitimer(signal.ITIMER_REAL, 0)
                expected = nonce()
                store.set("Nonce", {"x": expected})
                assert store.get("Nonce", "x") == expected
            assert cuts > 0
    finally:
        signal.signal(signal.SIGALRM, previous)


def test_a_watch_comes_back_with_what_differs_and_one_mark(daemon):
    with tavix_settings.connect(daemon.address, timeout=PATIENCE) as store:
        store.set("A", {"x": "1", "y": "1"})
        with store.watch("A", timeout=PATIENCE) as watch:
            daemon.stop()
            daemon.start()
            store.set("A", {"x": "2"})
            changes = [next(watch)]
            while not changes[-1].resync or not any(change.new == "2" for change in changes):
                changes.append(next(watch))
            marks = [change for change in changes if change.resync]
            assert marks == [tavix_settings.Change(None, resync=True)]
            assert [change for change in changes if not change.resync] == [tavix_settings.Change("A", "x", "1", "2")]


def test_a_watch_marks_that_it_came_back_even_if_nothing_differs(daemon):
    with tavix_settings.connect(daemon.address, timeout=PATIENCE) as store, store.watch("*", timeout=PATIENCE) as watch:
        daemon.stop()
        daemon.start()
        assert next(watch) == tavix_settings.Change(None, resync=True)
