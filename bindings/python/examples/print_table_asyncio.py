# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Prints a table as it changes, and who comes and goes, while other tasks of the same loop do their work."""

import asyncio

import varnix


async def print_rows(table: varnix.Table) -> None:
    async for change in varnix.WatcherSet([table.watch_all()]):
        print(change.key.decode(), "is", change.value.decode(), flush=True)


async def print_peers(peers: varnix.Table) -> None:
    async for change in varnix.WatcherSet([peers.watch_all()]):
        print(change.key.decode(), "is at " + change.value.decode() if change.value else "has gone", flush=True)


async def count(table: varnix.Table) -> None:
    for number in range(1, 1000):
        table.set("count", str(number))
        await asyncio.sleep(1)


async def main() -> None:
    table = varnix.shared_table("plant", "status")
    varnix.share("plant", group="line-4", device="press", process="asyncio", broadcast="127.255.255.255")
    await asyncio.gather(print_rows(table), print_peers(varnix.peer_table("plant")), count(table))


if __name__ == "__main__":
    try:
        asyncio.run(main())
    except KeyboardInterrupt:
        pass
