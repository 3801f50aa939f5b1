"""What only an asyncio store has: tasks, cancellation, one loop."""

import asyncio
import gc
import os
import random

import pytest
from conftest import DEFAULTS, PATIENCE
from peers import OTHER, SAME, EndlessAsyncLink, EndlessSocket, Peer, read_request, wait_for_end

import tavix_settings
from tavix_settings import aio
from tavix_settings._address import find_address
from tavix_settings._async_link import AsyncLink
from tavix_settings.testing import AsyncFakeStore


def count_descriptors():
    gc.collect()
    return len(os.listdir("/proc/self/fd"))


def test_calls_of_many_tasks_are_answered_each_with_its_own(loop, daemon):
    async def work(store, number):
        for turn in range(20):
            await store.set(f"Task{number}", {"x": f"{number}-{turn}"})
            assert await store.get(f"Task{number}", "x") == f"{number}-{turn}"

    async def main():
        async with aio.connect(daemon.address, timeout=PATIENCE) as store:
            await asyncio.gather(*(work(store, number) for number in range(50)))

    loop.run_until_complete(main())


def test_calls_are_sent_without_waiting_for_each_other(loop):
    def serve(connection, number):
        assert read_request(connection, b"get delimited\nC\n.\n").count(b"get") == 3
        connection.sendall(b"data\n[A]\nx=1\n.\ndata\n[B]\nx=2\n.\ndata\n[C]\nx=3\n.\n")
        wait_for_end(connection)

    async def main(address):
        async with aio.connect(address, timeout=PATIENCE) as store:
            assert await asyncio.gather(*(store.get(group, "x") for group in "ABC")) == ["1", "2", "3"]

    with Peer(serve) as peer:
        loop.run_until_complete(main(peer.address))


def test_tasks_that_connect_at_once_share_the_connection(loop):
    def serve(connection, number):
        while read_request(connection):
            connection.sendall(b"data\n[A]\nx=1\n.\n")

    async def main(address):
        store = aio.connect(address, timeout=PATIENCE)
        assert await asyncio.gather(*(store.get("A", "x") for _ in range(20))) == ["1"] * 20
        await store.close()

    with Peer(serve) as peer:
        loop.run_until_complete(main(peer.address))
        assert peer.count == 1


def test_the_reply_of_a_cancelled_call_is_dropped_and_the_others_stay_theirs(loop):
    def serve(connection, number):
        read_request(connection, b"get delimited\nC\n.\n")
        connection.sendall(b"data\n[A]\nx=1\n.\ndata\n[B]\nx=2\n.\ndata\n[C]\nx=3\n.\n")
        wait_for_end(connection)

    async def main(address):
        async with aio.connect(address, timeout=PATIENCE) as store:
            first, second = (asyncio.ensure_future(store.get(group, "x")) for group in "AB")
            await asyncio.sleep(0)
            second.cancel()
            assert await store.get("C", "x") == "3"
            assert await first == "1"
            assert second.cancelled()

    with Peer(serve) as peer:
        loop.run_until_complete(main(peer.address))
        assert peer.count == 1


def test_cancelled_calls_leave_no_reply_to_others(loop, daemon, nonce):
    rng = random.Random(21)

    async def main():
        cancelled = 0
        async with aio.connect(daemon.address, timeout=PATIENCE) as store:
            await store.merge({"Big": {str(number): "v" * 100 for number in range(2000)}})
            for _ in range(1000):
                tasks = [asyncio.ensure_future(each) for each in (store.groups("Big"), store.set("A", {"x": "before"}))]
                await asyncio.sleep(rng.uniform(0, 3e-3))
                for task in tasks:
                    task.cancel()
                outcomes = await asyncio.gather(*tasks, return_exceptions=True)
                cancelled += sum(isinstance(outcome, asyncio.CancelledError) for outcome in outcomes)
                expected = nonce()
                await store.set("Nonce", {"x": expected})
                assert await store.get("Nonce", "x") == expected
        return cancelled

    assert loop.run_until_complete(main()) > 0


def test_a_call_out_of_time_behind_others_gets_the_error(loop):
    def serve(connection, number):
        read_request(connection, b"get delimited\nB\n.\n")
        connection.sendall(b"data\n[A]\nx=1\n.\n")
        wait_for_end(connection)

    async def main(address):
        async with aio.connect(address, timeout=0.2) as store:
            calls = [store.get(group, "x") for group in "AB"]
            return await asyncio.gather(*calls, return_exceptions=True)

    with Peer(serve) as peer:
        outcomes = loop.run_until_complete(main(peer.address))
    assert isinstance(outcomes[1], tavix_settings.SettingsTimeoutError)


def test_close_ends_calls_of_other_tasks(loop):
    async def main(address):
        store = await aio.connect(address, timeout=None)
        calls = [asyncio.ensure_future(store.get(group, "x")) for group in "AB"]
        await asyncio.sleep(0)
        await store.close()
        return await asyncio.gather(*calls, return_exceptions=True)

    with Peer(lambda connection, number: wait_for_end(connection)) as peer:
        outcomes = loop.run_until_complete(main(peer.address))
    assert [type(outcome) for outcome in outcomes] == [tavix_settings.ClosedError] * 2


def test_a_store_that_is_closed_while_it_connects_stays_closed(loop, daemon):
    class ClosedWhileConnecting(aio.AsyncStore):
        async def _open_link(self, deadline):
            link = await super()._open_link(deadline)
            await self.close()
            return link

    before = count_descriptors()
    store = ClosedWhileConnecting(find_address(daemon.address), PATIENCE)
    with pytest.raises(tavix_settings.ClosedError):
        loop.run_until_complete(store.get("A", "x"))
    assert count_descriptors() == before


def test_a_store_belongs_to_one_loop(loop):
    store = AsyncFakeStore(DEFAULTS)
    loop.run_until_complete(store.get("Network/Eth0", "dhcp"))
    with pytest.raises(RuntimeError, match="another event loop"):
        asyncio.run(store.get("Network/Eth0", "dhcp"))
    loop.run_until_complete(store.close())


@pytest.fixture(params=["real", "fake"])
def make_store(request):
    if request.param == "fake":
        return lambda: AsyncFakeStore(DEFAULTS, timeout=PATIENCE)
    address = request.getfixturevalue("daemon").address
    return lambda: aio.connect(address, timeout=PATIENCE)


def test_leaving_the_loop_leaves_nothing_of_a_watch(loop, make_store):
    async def main():
        async with make_store() as store:
            before = count_descriptors()
            async for _ in store.watch("*", initial=True):
                break
            assert count_descriptors() == before
            assert len(asyncio.all_tasks()) == 1

    loop.run_until_complete(main())


def test_cancellation_ends_a_watch(loop, make_store):
    async def main():
        async with make_store() as store, store.watch("*") as watch:
            before = count_descriptors()
            waiting = asyncio.ensure_future(watch.__anext__())
            await asyncio.sleep(0)
            waiting.cancel()
            with pytest.raises(asyncio.CancelledError):
                await waiting
            assert [change async for change in watch] == []
            assert count_descriptors() <= before

    loop.run_until_complete(main())


def test_close_of_another_task_ends_a_watch(loop, make_store):
    async def main():
        async with make_store() as store, store.watch("*") as watch:
            waiting = asyncio.ensure_future(watch.__anext__())
            await asyncio.sleep(0)
            await watch.close()
            with pytest.raises(StopAsyncIteration):
                await waiting

    loop.run_until_complete(main())


def test_a_watch_with_much_to_say_lets_others_have_their_turn(loop, make_store):
    async def main():
        turns = 0

        async def take_turns():
            nonlocal turns
            while True:
                turns += 1
                await asyncio.sleep(0)

        async with make_store() as store:
            await store.merge({"Many": {str(number): "v" for number in range(1000)}})
            await store.flush()
            async with store.watch("Many", initial=True) as watch:
                other = asyncio.ensure_future(take_turns())
                for _ in range(1000):
                    await watch.__anext__()
                other.cancel()
        return turns

    assert loop.run_until_complete(main()) > 10


class EndlessStore(aio.AsyncStore):
    def __init__(self, notice):
        super().__init__(find_address("127.0.0.1:1"), PATIENCE)
        self.notice = notice

    async def _open_link(self, deadline):
        return EndlessAsyncLink(asyncio.get_running_loop(), self.notice)


def test_a_link_takes_a_bounded_part_of_what_a_writer_without_an_end_sends(loop):
    async def main():
        link = AsyncLink(find_address("127.0.0.1:1"))
        link._socket = EndlessSocket()
        assert link.receive_now()
        return link._socket.count

    assert loop.run_until_complete(main()) == 16


def test_a_writer_without_an_end_does_not_keep_a_watch_from_its_changes_nor_others_from_their_turn(loop):
    async def main():
        turns = []
        async with EndlessStore(OTHER).watch("A") as watch:
            asyncio.get_running_loop().call_soon(turns.append, 1)
            assert await watch.__anext__() == tavix_settings.Change("A", "x", "1", "2")
            return list(turns)

    assert loop.run_until_complete(main()) == [1]


def test_a_writer_without_an_end_does_not_keep_a_watch_from_its_time_out(loop):
    async def main():
        async with EndlessStore(SAME).watch("A", timeout=0.01) as watch:
            return [change async for change in watch]

    assert loop.run_until_complete(main()) == []


def test_a_watch_comes_back_with_what_differs_and_one_mark(loop, daemon):
    async def main():
        async with aio.connect(daemon.address, timeout=PATIENCE) as store:
            await store.set("A", {"x": "1", "y": "1"})
            async with store.watch("A", timeout=PATIENCE) as watch:
                daemon.stop()
                daemon.start()
                await store.set("A", {"x": "2"})
                changes = []
                async for change in watch:
                    changes.append(change)
                    if any(each.resync for each in changes) and any(each.new == "2" for each in changes):
                        break
        return changes

    changes = loop.run_until_complete(main())
    assert [change for change in changes if not change.resync] == [tavix_settings.Change("A", "x", "1", "2")]
    assert [change for change in changes if change.resync] == [tavix_settings.Change(None, resync=True)]
