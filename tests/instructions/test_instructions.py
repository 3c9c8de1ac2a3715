# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""What fixed amounts of work cost in instructions: times depend on the machine and its mood, these hardly do.

The counts are those of one compiler and its standard library; with another, renew them first (see CMakeLists.txt).
"""

import json
import os
import pathlib
import re
import subprocess

import pytest

COUNTS = pathlib.Path(__file__).parent / "counts.json"
TOLERANCE = 1.05
# One instruction more for each row is seen.
TOLERANCES = {"set known rows among sets without a descriptor": 1.0002}
RENEW = "VARNIX_RENEW" in os.environ
SCENARIOS = ["set new rows", "set known rows among watchers of others",
             "set known rows among sets without a descriptor", "set known rows with the first logger",
             "take rows from a set", "write records", "write a burst of records", "read records into tables"]


def count(scenario):
    done = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null",
                           "--toggle-collect=Measured", os.environ["VARNIX_INSTRUCTIONS"], scenario],
                          capture_output=True, text=True, check=True)
    return int(re.search(r"Collected : (\d+)", done.stderr)[1])


@pytest.mark.parametrize("scenario", SCENARIOS)
def test_takes_no_more_instructions_than_before(scenario):
    counts = json.loads(COUNTS.read_text())

    now = count(scenario)

    print(f"{scenario}: {now}, was {counts.get(scenario)}")
    if RENEW:
        COUNTS.write_text(json.dumps(counts | {scenario: now}, indent=1, sort_keys=True) + "\n")
        return
    assert now <= counts[scenario] * TOLERANCES.get(scenario, TOLERANCE)
