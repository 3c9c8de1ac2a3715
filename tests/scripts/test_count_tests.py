# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""scripts/count-tests tells how many single tests passed, failed and were skipped in a run of ctest."""

import subprocess

import pytest

import scripts


def counted(tmp_path, *tests):
    """Of a run of ctest with these tests, each a command of the shell and what stands in set_tests_properties."""
    lines = []
    for number, (command, *properties) in enumerate(tests):
        program = command if command.startswith("/") else f'sh" "-c" "{command}'
        lines.append(f'add_test(t{number} "{program}")')
        lines += [f"set_tests_properties(t{number} PROPERTIES {text})" for text in properties]
    (tmp_path / "CTestTestfile.cmake").write_text("\n".join(lines) + "\n", encoding="ascii")
    subprocess.run(["ctest", "-j2"], cwd=tmp_path, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    log = tmp_path / "Testing" / "Temporary" / "LastTest.log"
    done = subprocess.run([scripts.SOURCE / "scripts" / "count-tests", log], check=True, stdout=subprocess.PIPE,
                          text=True)
    return tuple(map(int, done.stdout.split()))


OK = "echo '[       OK ] A.B (1 ms)'"
BAD = "echo '[  FAILED  ] A.C (1 ms)'"


@pytest.mark.parametrize("what, test, counts", [
    ("a program that passes", ("true",), (1, 0, 0)),
    ("a program that fails", ("false",), (0, 1, 0)),
    ("a program that is killed", ("kill -KILL $$",), (0, 1, 0)),
    ("a program that is not there", ("/nowhere",), (0, 1, 0)),
    ("a program that takes too long", ("exec sleep 60", "TIMEOUT 1"), (0, 1, 0)),
    ("GoogleTest", (f"{OK}; {OK}; echo '[  PASSED  ] 2 tests.'",), (2, 0, 0)),
    ("GoogleTest with failures, which it lists again", (
        f"{OK}; {BAD}; echo '[  FAILED  ] A.D/1, where GetParam() = 7 (12 ms)'; "
        "echo '[  FAILED  ] 2 tests, listed below:'; echo '[  FAILED  ] A.C'; "
        "echo '[  FAILED  ] A.D/1, where GetParam() = 7'; exit 1",), (1, 2, 0)),
    ("GoogleTest that dies in its second test", (f"{OK}; kill -SEGV $$",), (1, 1, 0)),
    ("pytest", ("echo '12 passed in 322.98s (0:05:22)'",), (12, 0, 0)),
    ("pytest with failures", ("echo '1 failed, 12 passed in 2.98s'; exit 1",), (12, 1, 0)),
    ("pytest with errors", ("echo '2 passed, 1 error in 2.98s'; exit 1",), (2, 1, 0)),
    ("pytest that skips", ("echo 'needs tea'; echo '2 passed, 3 skipped in 0.01s'",
                           'SKIP_REGULAR_EXPRESSION "needs tea"'), (2, 0, 3)),
    ("pytest that skips everything", ("echo 'needs tea'; echo '3 skipped in 0.01s'",
                                      'SKIP_REGULAR_EXPRESSION "needs tea"'), (0, 0, 3)),
    ("pytest that finds no test", ("echo 'no tests ran in 0.01s'; exit 5",), (0, 1, 0)),
])
def test_counts(what, test, counts, tmp_path):
    assert counted(tmp_path, test) == counts


def test_all_programs_are_added_up(tmp_path):
    assert counted(tmp_path, (OK,), ("true",), (f"{BAD}; exit 1",), ("echo '3 passed in 1s'",)) == (5, 1, 0)
