# SPDX-License-Identifier: MIT
"""How run_suites.py counts."""
import os
import subprocess
import sys
import time

import pytest

import run_suites


def write(path, *tests):
    """Writes results; a test is a name, attributes and content."""
    path.write_text("<testsuite>" + "".join(
        f'<testcase classname="{name}" name="{name}" {attributes}>{content}</testcase>'
        for name, attributes, content in tests) + "</testsuite>")


PASSED = 'status="run"', "<system-out>good</system-out>"
FAILED = 'status="fail"', '<failure message="Failed"/><system-out>bad</system-out>'


@pytest.fixture
def results(tmp_path_factory):
    return tmp_path_factory.mktemp("results")


def names(failed):
    return [name for name, _ in failed]


def test_passed_and_failed_tests(results):
    write(results / "ctest.xml", ("a", *PASSED), ("b", *FAILED), ("c", *PASSED))
    assert run_suites.count(results) == (2, [("b", "bad")])


@pytest.mark.parametrize("status", ("notrun", "disabled", "fail"))
def test_a_test_that_did_not_run_has_failed(results, status):
    write(results / "ctest.xml", ("a", f'status="{status}"', ""))
    assert run_suites.count(results) == (0, [("a", "")])


def test_the_tests_of_pytest_count_instead_of_that_of_ctest(results):
    write(results / "ctest.xml", ("tools", *FAILED), ("other", *PASSED))
    write(results / "tools.xml", ("a", "", ""), ("b", "", "<failure>why</failure>"), ("c", "", ""))
    assert run_suites.count(results) == (3, [("b.b", "why")])


@pytest.mark.parametrize("fault", ("failure", "error", "skipped"))
def test_a_test_of_pytest_with_any_fault_has_failed(results, fault):
    write(results / "ctest.xml", ("tools", *PASSED))
    write(results / "tools.xml", ("a", "", f"<{fault}/>"))
    passed, failed = run_suites.count(results)
    assert (passed, names(failed)) == (0, ["a.a"])


def test_a_failure_that_no_test_of_pytest_explains_is_one_more(results):
    write(results / "ctest.xml", ("tools", *FAILED))
    write(results / "tools.xml", ("a", "", ""))
    assert run_suites.count(results) == (1, [("tools", "bad")])


def test_pytest_without_tests_has_failed(results):
    write(results / "ctest.xml", ("tools", *FAILED))
    write(results / "tools.xml")
    assert run_suites.count(results) == (0, [("tools", "bad")])


@pytest.fixture
def suite(tmp_path_factory, monkeypatch):
    """A function that runs a suite of one command, whose results were written before."""
    root = tmp_path_factory.mktemp("root")
    monkeypatch.setattr(run_suites, "ROOT", root)
    monkeypatch.setattr(run_suites, "LOGS", root / "logs")

    def run(script, *tests, limit=60):
        def commands(_preset, _target, _label, directory):
            if tests:
                write(directory / "ctest.xml", *tests)
            return [["sh", "-c", script]]
        monkeypatch.setattr(run_suites, "commands", commands)
        monkeypatch.setattr(run_suites, "COMMAND_LIMIT", limit)
        return run_suites.run_suite("suite", "preset", "target", "label", False)

    return run


def test_a_suite_that_passes(suite):
    assert suite("true", ("a", *PASSED)) == (1, 0)


def test_a_suite_without_tests_has_failed(suite, capsys):
    assert suite("true") == (0, 1)
    assert "no test has run" in capsys.readouterr().out


def test_a_suite_that_could_not_be_built_has_failed(suite, capsys):
    assert suite("echo no compiler; exit 3") == (0, 1)
    assert "sh exited with status 3\nno compiler" in capsys.readouterr().out


def test_results_of_an_earlier_run_do_not_count(suite):
    suite("true", ("a", *PASSED))
    assert suite("true") == (0, 1)


def test_a_status_that_no_test_explains_is_a_failure(suite):
    assert suite("exit 3", ("a", *PASSED)) == (1, 1)
    assert suite("exit 8", ("a", *PASSED), ("b", *FAILED)) == (1, 1)


def test_a_suite_that_does_not_end_is_stopped(suite, capsys):
    assert suite("sleep 600 & wait", limit=0.5) == (0, 1)
    assert "was stopped" in capsys.readouterr().out


def test_a_process_left_running_is_a_failure_and_is_killed(suite, capsys, tmp_path_factory):
    file = tmp_path_factory.mktemp("left") / "process"
    script = f"setsid sleep 600 >/dev/null 2>&1 & echo $! >'{file}'"
    assert suite(script, ("a", *PASSED)) == (1, 1)
    assert "left running\nsleep 600" in capsys.readouterr().out
    end = time.monotonic() + 10
    while os.path.exists(f"/proc/{file.read_text().strip()}") and time.monotonic() < end:
        time.sleep(0.01)
    assert not run_suites.left_running("CORVEL_TEST_RUN=suite")


def test_without_suites_the_run_fails():
    done = subprocess.run([sys.executable, run_suites.__file__], stdout=subprocess.PIPE, text=True)
    assert (done.returncode, done.stdout) == (1, "0 passed, 0 failed\n")
