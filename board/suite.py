# SPDX-License-Identifier: MIT
"""Runs the tests inside the machine, and compares them by name with the run in single emulated
processes."""
import fnmatch
import json
import re
import subprocess
import xml.etree.ElementTree as ElementTree

import machine
from flash import Flash, ROOT

RESULTS = machine.SYSTEM / "results"
STATE = machine.SYSTEM / "test-state"
LEFT_OUT = ROOT / "board/left-out"
# The results of the run in single processes.
JUNIT = ROOT / "build/mips/results/ctest.xml"
MINUTES = 60


def left_out():
    """Returns the tests that one of the runs leaves out, by the run: patterns of the tests' program
    and filter, each with the reason."""
    patterns = {"board": {}, "single": {}}
    for line in LEFT_OUT.read_text().splitlines():
        if line.strip() and not line.startswith("#"):
            run, test, reason = re.fullmatch(r"(board|single)  (\S+ \S+)  (.+)", line).groups()
            patterns[run][test] = reason
    return patterns


def matching(tests, patterns):
    return {test for test in tests if any(fnmatch.fnmatchcase(test, each) for each in patterns)}


def single_process_tests():
    """Returns the tests that passed in single emulated processes: program and filter."""
    listed = json.loads(subprocess.run(["ctest", "--preset", "mips", "--show-only=json-v1"], cwd=ROOT,
                                       check=True, stdout=subprocess.PIPE).stdout)["tests"]
    status = {case.get("name"): case.get("status")
              for case in ElementTree.parse(JUNIT).getroot().iter("testcase")}
    tests = set()
    for test in listed:
        words = [word for word in test["command"] if word.startswith("--gtest_filter=")]
        program = next((word for word in test["command"] if word.endswith("_test")), "")
        if program and words and status.get(test["name"]) == "run":
            tests.add(f"{program.rpartition('/')[2]} {words[0].partition('=')[2]}")
    return tests


def read(name):
    """Returns the tests in a file of results, with their time in seconds."""
    path = RESULTS / name
    lines = path.read_text().splitlines() if path.exists() else []
    return {test: int(time) / 100 for test, _, time in (line.rpartition(" ") for line in lines)}


def run_inside(programs):
    """Runs the tests in a new machine. Returns whether it came to the end."""
    flash = Flash(STATE)
    machine.fill_factory_set(flash, "test")
    subprocess.run(["rm", "-rf", RESULTS], check=True)
    RESULTS.mkdir(parents=True)
    options = f"quiet host_script=board/suite project={ROOT} programs={programs}"
    with machine.Machine(flash, machine.LogFile(machine.SYSTEM / "suite.log"), memory=512,
                         options=options, share=ROOT) as board:
        board.wait(MINUTES * 60)
    return (RESULTS / "complete").exists()


def matches(test, programs):
    return any(fnmatch.fnmatchcase(test.partition(" ")[0], each) for each in programs.split(","))


def run(report, programs, *, short=False):
    """Runs the test programs with such names, patterns separated by commas. A short run is compared
    with a run in single processes only if there is one."""
    complete = run_inside(programs)
    passed, failed = read("passed"), read("failed")
    output = (RESULTS / "output").read_text(errors="replace") if failed else ""
    print(output + f"inside the machine: {len(passed)} passed, {len(failed)} failed")
    for test in passed:
        report.add(True, test)
    for test in failed:
        report.add(False, test, output)
    report.check(complete, "the machine has run every test (its console is in suite.log)")
    if not short or JUNIT.exists():
        compare(report, set(passed) | set(failed), programs)


def compare(report, inside, programs):
    """Compares the tests by name with the other run, and both with the list of tests that are left
    out. Any difference that the list does not explain is a fault."""
    if not JUNIT.exists():
        report.check(False, "there is a run in single processes to compare with (./dev target)")
        return
    single = {test for test in single_process_tests() if matches(test, programs)}
    patterns = left_out()
    only_single, only_inside = single - inside, inside - single
    explained = matching(only_single, patterns["board"]) | matching(only_inside, patterns["single"])
    for test in sorted((only_single | only_inside) - explained):
        report.check(False, f"only {'in single processes' if test in single else 'inside'}: {test}")
    wrong = {each for each in patterns["board"] if matching(inside, [each])}
    if programs == "*":
        wrong |= {each for each in patterns["board"] if not matching(single, [each])}
        wrong |= {each for each in patterns["single"] if not matching(inside, [each])}
    for each in sorted(wrong):
        report.check(False, f"the list of tests left out is wrong: {each}")
    report.check(True, f"the runs are compared: {len(single)} in single processes, "
                 f"{len(single & inside)} in both, {len(only_single)} only in single processes, "
                 f"{len(only_inside)} only inside")
