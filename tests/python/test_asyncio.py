# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""async for, by the descriptor and the running loop."""

import asyncio
import os
import threading

import pytest

import programs
import varnix


def run(coroutine):
    return asyncio.run(asyncio.wait_for(coroutine, programs.DEADLINE))


@pytest.fixture
def changes(table):
    return varnix.WatcherSet([table.watch_all()])


async def turn_of_the_others():
    """Every other task that is ready runs once: no time passes."""
    await asyncio.sleep(0)


async def take(changes, count):
    taken = []
    async for change in changes:
        taken.append((change.key, change.value))
        if len(taken) == count:
            return taken


def test_changes_come_in_their_order_and_other_tasks_run_meanwhile(table, changes):
    async def write():
        for i in range(1000):
            table.set(str(i), "v")
            await turn_of_the_others()

    async def both():
        taken, _ = await asyncio.gather(take(changes, 1000), write())
        return taken

    assert run(both()) == [(str(i).encode(), b"v") for i in range(1000)]


def test_other_tasks_have_their_turn_while_more_changes_are_pending(table, changes):
    for i in range(1000):
        table.set(str(i), "v")

    async def main():
        task = asyncio.ensure_future(take(changes, 1000))
        turns = 0
        while not task.done():
            turns += 1
            await turn_of_the_others()
        return turns, await task

    turns, taken = run(main())

    assert turns >= 10
    assert len(taken) == 1000


def test_a_task_can_be_cancelled_while_more_changes_are_pending_and_loses_none(table, changes):
    for i in range(1000):
        table.set(str(i), "v")
    taken = []

    async def take_all():
        async for change in changes:
            taken.append(change)

    async def main():
        task = asyncio.ensure_future(take_all())
        await turn_of_the_others()
        task.cancel()
        with pytest.raises(asyncio.CancelledError):
            await task

    run(main())

    assert 0 < len(taken) < 1000
    while change := changes.wait(0):
        taken.append(change)
    assert [change.key for change in taken] == [str(i).encode() for i in range(1000)]


def test_a_row_of_another_thread_wakes_the_loop_and_no_thread_is_started(table, changes):
    writer = threading.Timer(0.05, table.set, ("k", "v"))
    before = set(threading.enumerate())

    async def main():
        writer.start()
        taken = await take(changes, 1)
        return taken, set(threading.enumerate()) - before - {writer}

    assert run(main()) == ([(b"k", b"v")], set())


def test_several_tasks_of_one_set_get_each_change_once(table, changes):
    async def main():
        tasks = [asyncio.ensure_future(take(changes, 100)) for _ in range(5)]
        for i in range(500):
            table.set(str(i), "v")
            await turn_of_the_others()
        return sum(await asyncio.gather(*tasks), [])

    assert sorted(int(key) for key, _ in run(main())) == list(range(500))


def test_loops_of_several_threads_wait_for_one_set(table, changes):
    taken = []
    threads = [threading.Thread(target=lambda: taken.extend(run(take(changes, 50)))) for _ in range(3)]
    for thread in threads:
        thread.start()
    for i in range(150):
        table.set(str(i), "v")
    for thread in threads:
        thread.join()

    assert sorted(int(key) for key, _ in taken) == list(range(150))


def test_cancelling_loses_no_change(table, changes):
    taken = []

    async def collect():
        async for change in changes:
            taken.append(int(change.key))

    async def main():
        for i in range(2000):
            task = asyncio.ensure_future(collect())
            await turn_of_the_others()  # It waits.
            table.set(str(i), "v")
            if i % 3:
                await turn_of_the_others()  # The loop may have seen the descriptor, or also woken the task.
            if i % 3 == 2:
                await turn_of_the_others()
            task.cancel()
            with pytest.raises(asyncio.CancelledError):
                await task
        while (change := changes.wait(0)) is not None:
            taken.append(int(change.key))

    run(main())
    assert taken == list(range(2000))


def test_a_wait_with_a_deadline_loses_no_change(table, changes):
    async def main():
        taken = []
        for i in range(200):
            threading.Timer(0.001, table.set, (str(i), "v")).start()
            while len(taken) == i:
                try:
                    taken.append(int((await asyncio.wait_for(changes.__anext__(), 0.0005)).key))
                except asyncio.TimeoutError:
                    pass
        return taken

    assert run(main()) == list(range(200))


def test_a_cancelled_task_leaves_no_descriptor_behind(changes):
    async def main():
        counts = []
        for _ in range(3):
            task = asyncio.ensure_future(take(changes, 1))
            await turn_of_the_others()
            task.cancel()
            await asyncio.gather(task, return_exceptions=True)
            counts.append(len(os.listdir("/proc/self/fd")))
        return counts

    assert len(set(run(main()))) == 1


def test_a_cancelled_task_leaves_the_loop_as_it_was(changes, monkeypatch):
    async def main():
        loop, watched = asyncio.get_running_loop(), []
        add_reader = loop.add_reader
        monkeypatch.setattr(loop, "add_reader", lambda fd, *rest: (watched.append(fd), add_reader(fd, *rest)))
        task = asyncio.ensure_future(take(changes, 1))
        await turn_of_the_others()
        task.cancel()
        await asyncio.gather(task, return_exceptions=True)
        return [loop.remove_reader(fd) for fd in watched]

    assert run(main()) == [False]
