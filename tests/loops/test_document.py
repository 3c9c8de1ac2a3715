# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The code for asyncio in docs/event-loops.md."""

import asyncio
import os
import pathlib
import runpy
import threading

import varnix


def test_the_code_for_asyncio_prints_the_rows_of_another_thread(capsys):
    run = runpy.run_path(pathlib.Path(os.environ["VARNIX_SNIPPET"]))["run"]
    table = varnix.table("table")
    writer = threading.Thread(target=lambda: (table.set("speed", "42"), table.set("end", "of rows")))
    writer.start()

    asyncio.run(asyncio.wait_for(run(table), 60))

    writer.join()
    assert capsys.readouterr().out == "speed is 42\nend is of rows\n"
