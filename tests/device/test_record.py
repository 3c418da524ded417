# SPDX-License-Identifier: MIT
"""Recorded requests, and their replay."""
import os
import stat

import pytest

from conftest import add_program

REQUEST = ("curl --silent --cookie session=0123 --data sent=a+word http://127.0.0.1/cgi-bin/page")
ANSWER = '{"address":"192.168.1.1","sent":"a word","cookie":"session=0123"}'


@pytest.fixture
def recorded(device, www):
    """A function that records requests, and returns the directories."""
    def record(script):
        requests = device.directory / "requests"
        device.shell(script, "--www", www, "--record", requests)
        return sorted(path for path in requests.iterdir() if path.is_dir())

    return record


def test_request_and_answer_are_kept(recorded):
    (kept,) = recorded(REQUEST)
    assert kept.name == "00001-POST-page"
    variables = (kept / "environment").read_bytes().split(b"\0")
    assert {b"REQUEST_METHOD=POST", b"HTTP_COOKIE=session=0123", b"CONTENT_LENGTH=11"} <= set(variables)
    assert (kept / "body").read_text() == "sent=a+word"
    assert (kept / "answer").read_text().endswith(ANSWER)
    assert (kept / "status").read_text() == "3\n"
    assert "192.168.1.1" in (kept / "state/config/lan.conf").read_text()


def test_the_answer_arrives_unchanged(device, www, recorded):
    output = device.shell(REQUEST, "--www", www, "--record", "requests")
    assert output == ANSWER


def test_a_request_is_kept_completely_when_the_command_ends_with_its_answer(www, recorded):
    add_program(www, "slow", 'printf "Content-Length: 1\\r\\n\\r\\nx"; exec >&-; sleep 0.3; exit 6')
    (kept,) = recorded("curl --silent http://127.0.0.1/cgi-bin/slow")
    assert (kept / "status").read_text() == "6\n"
    assert (kept / "body").read_text() == ""


def test_errors_are_kept_and_shown(device, www):
    done = device.run("--www", www, "--record", "requests", "--", "sh", "-c",
                      "curl --silent http://127.0.0.1/cgi-bin/shell; sleep 1")
    assert (device.directory / "requests/00001-GET-shell/errors").read_text() == "seen\n"
    assert "seen\n" in done.errors


def test_only_the_owner_can_read_it(device, recorded):
    os.umask(0)
    recorded(REQUEST)
    root = device.directory / "requests"
    assert stat.S_IMODE(root.stat().st_mode) == 0o700
    for path in root.glob("0*/**/*"):
        assert stat.S_IMODE(path.stat().st_mode) & 0o077 == 0 or "state" in path.parts, path


def test_requests_at_the_same_time_have_directories_of_their_own(recorded):
    kept = recorded("for i in $(seq 20); do curl --silent http://127.0.0.1/cgi-bin/shell & done; wait")
    assert [path.name[:5] for path in kept] == [f"{number:05}" for number in range(1, 21)]


def test_a_large_body_and_a_large_answer_are_kept_whole(www, recorded):
    add_program(www, "echo", 'printf "Content-Type: text/plain\\r\\n\\r\\n"; cat')
    (kept,) = recorded("head -c 3000000 /dev/urandom >/tmp/sent;"
                       "curl --silent --data-binary @/tmp/sent http://127.0.0.1/cgi-bin/echo | cmp - /tmp/sent")
    assert (kept / "body").stat().st_size == 3_000_000
    assert (kept / "answer").read_bytes().endswith((kept / "body").read_bytes())


def test_a_program_may_answer_without_reading_the_body(www, recorded):
    add_program(www, "refuse", 'printf "Status: 413 Too Large\\r\\n\\r\\n"; exit 1')
    (kept,) = recorded("head -c 9000000 /dev/zero | curl --silent --output /dev/null --write-out '%{http_code}'"
                       " --header Expect: --data-binary @- http://127.0.0.1/cgi-bin/refuse | grep 413")
    assert (kept / "status").read_text() == "1\n"


def test_a_replay_gives_the_same_answer_from_the_same_settings(device, recorded):
    """The page saves another address: the second request finds it."""
    first, second = recorded(f"{REQUEST}; {REQUEST}")
    for kept, address in ((first, "192.168.1.1"), (second, "192.168.1.2"), (first, "192.168.1.1")):
        done = device.run("--replay", kept)
        assert done.status == 3
        assert done.output == (kept / "answer").read_text()
        assert f'"address":"{address}"' in done.output


def test_a_replay_finds_the_session_of_the_request(device, www, recorded):
    """The kit's sessions end after a time without use; the time of the last use is the file's."""
    add_program(www, "sessions", 'printf "Content-Type: text/plain\\r\\n\\r\\n"; cat /run/sessions/one;'
                                 '[ $(($(cut -d. -f1 /proc/uptime) - $(stat -c %Y /run/sessions/one))) -lt 60 ] && echo now')
    (kept,) = recorded("echo here >/run/sessions/one; touch -d @5 /run/sessions/one;"
                       "curl --silent http://127.0.0.1/cgi-bin/sessions")
    assert "now" not in (kept / "answer").read_text()
    assert device.run("--replay", kept).output.endswith("here\nnow\n")


def test_a_replay_by_valgrind(device, recorded):
    done = device.run("--replay", recorded(REQUEST)[0], "--", "valgrind", "--leak-check=full")
    assert done.status == 3
    assert done.output.endswith(ANSWER)
    assert "ERROR SUMMARY: 0 errors" in done.errors


def test_a_replay_by_gdb_stops_in_the_program(device, recorded):
    done = device.run("--replay", recorded(REQUEST)[0], "--", "gdb", "--batch", "-ex", "break respond", "-ex", "run",
                      "-ex", "bt", "-ex", "continue", "--args")
    assert "Breakpoint 1, respond" in done.output
    assert "in main" in done.output
    assert ANSWER in done.output


def test_a_replay_of_a_changed_program(device, www, recorded):
    (kept,) = recorded("curl --silent http://127.0.0.1/cgi-bin/shell")
    add_program(www, "shell", "echo mended")
    assert device.run("--replay", kept).output == "mended\n"


def test_other_files_are_not_mixed_with_requests(device, www):
    (device.directory / "mine").mkdir()
    (device.directory / "mine/file").touch()
    done = device.run("--www", www, "--record", "mine", "--", "true")
    assert done.status == 1
    assert "contains other files" in done.errors
