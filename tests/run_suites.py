#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Builds suites of tests, runs them, and counts the results.

usage: tests/run_suites.py [--verbose] SUITE,PRESET,TARGET,LABEL...

For each suite, the target is built with the preset of CMake, and CTest runs the tests of that build
whose label matches. The output is in build/logs/SUITE.log; with --verbose it is printed.

A test that did not run, was skipped, or was stopped has failed. A suite that could not be built, ran
no test, was stopped, or exited with a status that no test explains has one more failed test, and so
has each process that it left running.

The last line is "N passed, M failed"; the exit status is 0 if M is 0 and N is not.
"""
import os
import signal
import subprocess
import sys
import time
import xml.etree.ElementTree as ElementTree
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
LOGS = ROOT / "build" / "logs"
JOBS = str(len(os.sched_getaffinity(0)))
COMMAND_LIMIT = 1200  # seconds
LINES_SHOWN = 100


def commands(preset, target, label, results):
    """Yields the commands that build and run a suite."""
    if preset == "mips":
        yield ["cmake/mips-sysroot"]
    yield ["cmake", "--preset", preset]
    yield ["cmake", "--build", "--preset", preset, "--target", target, "--parallel", JOBS]
    yield ["ctest", "--preset", preset, "--label-regex", f"^({label})$", "--parallel", JOBS,
           "--output-junit", results / "ctest.xml"]


def end(process):
    """Ends the process group of a command."""
    for number in (signal.SIGTERM, signal.SIGKILL):
        os.killpg(process.pid, number)
        try:
            process.wait(20)
            return
        except subprocess.TimeoutExpired:
            pass


def run(command, log, variables):
    """Runs a command and returns what is wrong with its exit, or None."""
    process = subprocess.Popen(command, cwd=ROOT, env=variables, stdin=subprocess.DEVNULL, stdout=log,
                               stderr=subprocess.STDOUT, start_new_session=True)
    try:
        status = process.wait(COMMAND_LIMIT)
    except subprocess.TimeoutExpired:
        end(process)
        return f"{command[0]} was stopped after {COMMAND_LIMIT} seconds"
    except BaseException:
        end(process)
        raise
    return f"{command[0]} exited with status {status}" if status else None


def cases(junit):
    return list(ElementTree.parse(junit).getroot().iter("testcase"))


def has_passed(case):
    """CTest reports a status; pytest reports only what went wrong."""
    return case.get("status", "run") == "run" and all(
        case.find(fault) is None for fault in ("failure", "error", "skipped"))


def output_of(case):
    return "\n".join(text for text in (each.text for each in case) if text)


def count(results):
    """Returns the number of tests that passed, and the name and the output of each other one.

    If a test of CTest has written its own results, the tests in them count in its place.
    """
    passed, failed = 0, []
    for test in cases(results / "ctest.xml"):
        own = results / f"{test.get('name')}.xml"
        inner = cases(own) if own.exists() else []
        if not inner or (not has_passed(test) and all(map(has_passed, inner))):
            inner.append(test)
        passed += sum(map(has_passed, inner))
        failed += [(f"{case.get('classname')}.{case.get('name')}" if case is not test else
                    case.get("name"), output_of(case)) for case in inner if not has_passed(case)]
    return passed, failed


def left_running(mark):
    """Returns the processes that have the mark in their environment."""
    found = []
    for path in Path("/proc").glob("[0-9]*"):
        try:
            if mark.encode() in (path / "environ").read_bytes().split(b"\0"):
                found.append(int(path.name))
        except OSError:  # it has ended, or is another user's
            pass
    return found


def processes_left(mark):
    """Kills the processes that a suite has left running, and returns a failed test for each."""
    if left_running(mark):
        time.sleep(1)  # a process that was stopped may take a moment to end
    failed = []
    for process in left_running(mark):
        try:
            name = Path(f"/proc/{process}/cmdline").read_bytes().replace(b"\0", b" ").decode()
            os.kill(process, signal.SIGKILL)
            failed.append(("left running", name))
        except OSError:
            pass
    return failed


def last_lines(text):
    return "\n".join(text.rstrip("\n").split("\n")[-LINES_SHOWN:])


def run_suite(name, preset, target, label, verbose):
    """Runs a suite, prints its counts and failed tests, and returns the counts."""
    start = time.monotonic()
    results = ROOT / "build" / preset / "results"
    results.mkdir(parents=True, exist_ok=True)
    for old in results.glob("*.xml"):
        old.unlink()
    mark = f"CORVEL_TEST_RUN={os.getpid()}-{name}"
    variables = {**os.environ, **dict([mark.split("=", 1)])}
    path = LOGS / f"{name}.log"
    path.parent.mkdir(parents=True, exist_ok=True)
    fault = None
    with path.open("w") as log:
        for command in commands(preset, target, label, results):
            fault = run(command, None if verbose else log, variables)
            if fault:
                break
    passed, failed = count(results) if (results / "ctest.xml").exists() else (0, [])
    if not failed and (fault or not passed):
        failed.append((fault or "no test has run", path.read_text(errors="replace")))
    failed += processes_left(mark)
    print(f"{name:12} {passed:5} passed, {len(failed)} failed  {time.monotonic() - start:4.0f} s")
    for title, output in failed:
        print(f"--- {name}: {title}\n{last_lines(output)}")
    sys.stdout.flush()
    return passed, len(failed)


def main():
    arguments = sys.argv[1:]
    verbose = arguments[:1] == ["--verbose"]
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    counts = [run_suite(*suite.split(","), verbose) for suite in arguments[verbose:]]
    passed, failed = (sum(column) for column in zip(*counts)) if counts else (0, 0)
    print(f"{passed} passed, {failed} failed")
    return 0 if passed and not failed else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
