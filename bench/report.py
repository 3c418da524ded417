#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Runs the benchmarks and prints a table of jobs: the library, its peers, the limit, the goal.

    bench/run                              times
    bench/run --only PATTERN               times of the matching benchmarks (job/side/size)
    bench/run --instructions               instruction counts (callgrind), which hardly vary
    bench/run --profile BENCHMARK          instructions of one benchmark by function
    bench/run --check                      run each benchmark once and check that it has a row

All sides of a job run one after the other, in several rounds. A time is the median of the rounds. A
ratio is the median of the ratios within each round, where the machine's speed is the same for both
sides. Times are processor times, except for the start of a program, which is wall-clock time. Sizes
are numbers of fields, lines, pairs, variables, leases, neighbours, addresses or processes, and of
bytes for conversions; for uploads, upgrade images and CRCs they are in KiB. For a missed goal a
profile follows, except for a job that spends its time in the kernel and in other programs.
"""

import argparse
import json
import math
import os
import pathlib
import re
import statistics
import subprocess
import sys
import tempfile
from collections import defaultdict

OURS = "corvel"
START_UP_JOB = "start a CGI program"
START_UP_GOAL = 1.15
FEW_ROWS, MANY_ROWS = "1000/10", "1000/200"
SEARCH_JOB = "find a process"
SEARCH_CALLS_GOAL = 20  # in addition to three for each process
UPLOAD_JOBS = "parse an upload, random", "parse an upload, near-boundaries"
UPLOAD_SIZE = 15 * 1024  # KiB
UPLOAD_REST_GOAL = 512  # KiB

# Time is assumed to grow as size^e. For linear growth e is slightly below 1, since opening a file
# has a constant cost; a quadratic part increases e towards 2.
LINEAR_EXPONENT = 1.15
LINEAR_JOBS = {"load a property file", "save changed rows", "read leases, text",
               "read leases, binary", "read neighbours", "read neighbours of one maker"}

# Suffix of jobs that report their own time, because part of it is spent in other processes.
OWN_CLOCK_SUFFIX = "/manual_time"


class Goal:
    """A goal of a job at one size: a description, a ratio of the sides, and a test of the ratio."""

    def __init__(self, text, ratio, met):
        self.text, self.ratio, self.met = text, ratio, met

    def judge(self, sides):
        ratio = self.ratio(sides)
        return f"{self.text}: {'met' if self.met(ratio) else 'MISSED'} ({ratio:.2f})"


def is_limit(side):
    return side.startswith("limit")


def ratio_of(sides, side, other=OURS):
    """The median over the rounds of one side's time divided by another's."""
    return statistics.median(a / b for a, b in zip(sides[side], sides[other]))


def best_peer(sides):
    return min(ratio_of(sides, side) for side in sides if side != OURS and not is_limit(side))


def times_as_fast(factor):
    return Goal(f"{factor} times as fast as each peer", best_peer, lambda ratio: ratio >= factor)


def faster():
    return Goal("faster than each peer", best_peer, lambda ratio: ratio > 1)


def as_fast():
    return Goal("as fast as each peer", best_peer, lambda ratio: ratio >= 1)


def as_fast_as_limit():
    return Goal("as fast as the limit", lambda sides: ratio_of(sides, "limit"),
                lambda ratio: ratio >= 1)


def within(factor):
    return Goal(f"at most {factor} times the limit", lambda sides: ratio_of(sides, OURS, "limit"),
                lambda ratio: ratio <= factor)


GOALS = {
    ("decode a form", "1000"): [times_as_fast(6)],
    ("load a property file", "100"): [times_as_fast(2)],
    ("load a property file", "1000"): [times_as_fast(2)],
    ("load a property file", "10000"): [times_as_fast(2)],
    ("save changed rows", FEW_ROWS): [within(2)],
    ("save changed rows", MANY_ROWS): [within(2)],
    ("fill a page, list order", "2000"): [within(1.5)],
    ("fill a page, shuffled", "2000"): [within(1.5)],
    ("write a list as JSON", "1000"): [faster()],
    ("write a table as JSON", "1000"): [faster()],
    **{(job, str(UPLOAD_SIZE)): [times_as_fast(12), within(1.3)] for job in UPLOAD_JOBS},
    **{("compute a CRC-32", size): [as_fast()] for size in ("64", "1024", "16384")},
    ("check an upgrade image", "15360"): [faster()],
    (SEARCH_JOB, "1000"): [times_as_fast(10), within(1.2)],
    ("read leases, text", "1000"): [as_fast_as_limit()],
    ("read leases, binary", "1000"): [as_fast_as_limit()],
    ("read neighbours", "1000"): [as_fast_as_limit()],
    ("read neighbours of one maker", "1000"): [as_fast_as_limit()],
    ("bytes to hexadecimal", "1024"): [within(1.5)],
    ("hexadecimal to bytes", "1024"): [within(1.5)],
    ("hexadecimal to characters", "1024"): [within(1.5)],
    ("convert hardware addresses", "1000"): [within(1.5)],
}


# --- Measuring ----------------------------------------------------------------------------------


def run_benchmarks(arguments):
    with tempfile.NamedTemporaryFile("r", suffix=".json") as output:
        finished = subprocess.run(
            [arguments.program, f"--benchmark_min_time={arguments.min_time}",
             f"--benchmark_filter={arguments.only}", str(arguments.rounds), output.name],
            stderr=subprocess.PIPE, text=True, check=False)
        if finished.returncode != 0:
            sys.exit(finished.stderr)
        return list(runs_of(output.read()))


def runs_of(text):
    """The runs in concatenated JSON documents."""
    decoder = json.JSONDecoder()
    text = text.lstrip()
    while text:
        document, end = decoder.raw_decode(text)
        yield from document["benchmarks"]
        text = text[end:].lstrip()


def collect_times(runs):
    """{job: {size: {side: [microseconds in each round]}}}"""
    jobs = defaultdict(lambda: defaultdict(lambda: defaultdict(list)))
    for run in runs:
        name = run["name"].removesuffix(OWN_CLOCK_SUFFIX)
        if not name.startswith(START_UP_JOB):
            job, side, size = name.split("/", 2)
            clock = "cpu_time" if name == run["name"] else "real_time"
            jobs[job][size][side].append(run[clock] / 1e3)
    return jobs


def size_order(size):
    return [int(number) for number in size.split("/")]


# --- Checking -----------------------------------------------------------------------------------


def all_names(arguments):
    listed = subprocess.run([arguments.program, "--benchmark_list_tests",
                             f"--benchmark_filter={arguments.only}"],
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=True)
    return [name for name in listed.stdout.splitlines() if "/" in name]


def check(arguments):
    """Runs all benchmarks in one process, as for the table, but once and for the shortest time.
    A failing benchmark ends the process; one without a row or without a time is reported."""
    arguments.rounds, arguments.min_time = 1, 1e-9
    runs = run_benchmarks(arguments)
    print_times(runs, arguments.program)
    jobs = collect_times(runs)
    missing = []
    for name in all_names(arguments):
        if name.startswith(START_UP_JOB):
            present = len(start_up_rows(runs)) == 2
        else:
            job, side, size = name.removesuffix(OWN_CLOCK_SUFFIX).split("/", 2)
            present = (any(row[:2] == [job, size] for row in time_rows({job: jobs[job]}))
                       and len(jobs[job][size][side]) == 1)
        if not present:
            missing.append(name)
    if missing or not runs:
        sys.exit("no row for: " + (", ".join(missing) or "any benchmark"))


# --- The tables ---------------------------------------------------------------------------------


def print_table(heads, rows):
    widths = [max(len(cell) for cell in column) for column in zip(heads, *rows)]
    for cells in [heads, ["-" * width for width in widths], *rows]:
        print("  ".join(cell.ljust(width) for cell, width in zip(cells, widths)).rstrip())


def number(value):
    return f"{value:,.0f}" if value >= 1000 else f"{value:.1f}"


def median(times):
    return number(statistics.median(times))


def compared(names, sides):
    return ", ".join(f"{side} {median(sides[side])} ({ratio_of(sides, side):.2f})"
                     for side in sorted(names))


def time_rows(jobs):
    rows = []
    for job in sorted(jobs):
        for size in sorted(jobs[job], key=size_order):
            sides = jobs[job][size]
            if OURS not in sides:
                continue
            limits = {side for side in sides if is_limit(side)}
            peers = set(sides) - limits - {OURS}
            goals = GOALS.get((job, size), []) if len(sides) > 1 else []
            rows.append([job, size, median(sides[OURS]), compared(peers, sides),
                         compared(limits, sides),
                         "; ".join(goal.judge(sides) for goal in goals)])
    return rows


def start_up_rows(runs):
    runs = [run for run in runs if run["name"].startswith(START_UP_JOB)]
    rows = []
    for program in ("shared", "static") if runs else ():
        ratio = statistics.median(run[program] / run["plain"] for run in runs)
        goal = Goal(f"at most {START_UP_GOAL} times the limit", lambda _, value=ratio: value,
                    lambda value: value <= START_UP_GOAL)
        plain = f"plain C {median([run['plain'] for run in runs])} ({1 / ratio:.2f})"
        rows.append([START_UP_JOB, f"{program} library", median([run[program] for run in runs]), "",
                     plain, goal.judge(runs)])
    return rows


def exponent(series, side):
    """The exponent e of time ~ size^e between the two largest sizes."""
    (small, small_sides), (large, large_sides) = series[-2:]
    growth = statistics.median(b / a for a, b in zip(small_sides[side], large_sides[side]))
    return math.log(growth) / math.log(size_order(large)[0] / size_order(small)[0])


def growth_rows(jobs):
    rows = []
    for job in sorted(jobs):
        # The size with few changed rows is not part of the series.
        series = [(size, jobs[job][size]) for size in sorted(jobs[job], key=size_order)
                  if size != FEW_ROWS and OURS in jobs[job][size]]
        if len(series) < 3:
            continue
        first = series[0][1][OURS]
        steps = (statistics.median(b / a for a, b in zip(first, sides[OURS])) for _, sides in series)
        ours = exponent(series, OURS)
        others = ", ".join(f"{side} {exponent(series, side):.2f}"
                           for side in sorted(series[0][1]) if side != OURS)
        verdict = "met" if ours <= LINEAR_EXPONENT else "MISSED"
        rows.append([job, ", ".join(size for size, _ in series),
                     ", ".join(f"{step:.1f}" for step in steps), f"{ours:.2f}", others,
                     f"linear: {verdict}" if job in LINEAR_JOBS else ""])
    return rows


def print_times(runs, program):
    jobs = collect_times(runs)
    print_table(["job", "size", "us", "peers: us (times ours)", "limit: us (times ours)", "goal"],
                time_rows(jobs) + start_up_rows(runs))
    growth = growth_rows(jobs)
    if growth:
        print()
        print_table(["growth", "sizes", "times the first", "exponent", "others", "goal"], growth)
    saves = jobs.get("save changed rows", {})
    if OURS in saves.get(FEW_ROWS, {}) and OURS in saves.get(MANY_ROWS, {}):
        few, many = saves[FEW_ROWS][OURS], saves[MANY_ROWS][OURS]
        ratio = statistics.median(b / a for a, b in zip(few, many))
        print(f"\nSaving 20 times the rows into the same file takes {ratio:.2f} times as long.")
    searches = [run for run in runs if run["name"].startswith(f"{SEARCH_JOB}/{OURS}/")]
    if searches:
        print_system_calls(searches[-1])
    if any(job in jobs for job in UPLOAD_JOBS):
        print_upload_memory(program)


def print_system_calls(search):
    """A process ruled out by its short name costs three calls: open, read and close a file."""
    calls, processes = int(search["system calls"]), int(search["processes"])
    rest = calls - 3 * processes
    verdict = "met" if 0 <= rest <= SEARCH_CALLS_GOAL else "MISSED"
    print(f"\nA search among {processes:,} processes makes {calls:,} system calls: three for each and"
          f" {rest:,} (at most {SEARCH_CALLS_GOAL}: {verdict}).")


# --- Memory -------------------------------------------------------------------------------------


def upload_body(boundary, content):
    return (f'--{boundary}\r\nContent-Disposition: form-data; name="image"; filename="image.bin"\r\n'
            "Content-Type: application/octet-stream\r\n\r\n").encode() + content + \
        f"\r\n--{boundary}--\r\n".encode()


def print_upload_memory(program):
    """Prints the peak memory of a CGI program during an upload, compared with that at its start."""
    boundary = "----WebKitFormBoundary7MA4YWxkTrZu0gW5"
    body = upload_body(boundary, os.urandom(UPLOAD_SIZE * 1024))
    finished = subprocess.run(
        [pathlib.Path(program).with_name("upload_memory")], input=body, capture_output=True,
        check=True, env={"REQUEST_METHOD": "POST", "CONTENT_LENGTH": str(len(body)),
                         "CONTENT_TYPE": f"multipart/form-data; boundary={boundary}"})
    before, peak, file_size = map(int, finished.stdout.split())
    rest = peak - before - (len(body) + file_size) / 1024
    verdict = "met" if rest <= UPLOAD_REST_GOAL else "MISSED"
    print(f"\nAn upload of {UPLOAD_SIZE:,} KiB uses at most {peak - before:,} KiB: its body, one copy"
          f" of its file and {rest:,.0f} KiB (at most {UPLOAD_REST_GOAL}: {verdict}); the program"
          f" itself uses {before:,}.")


# --- Counting instructions ----------------------------------------------------------------------


def benchmark_names(arguments):
    return [name for name in all_names(arguments)
            if name.count("/") >= 2 and not name.endswith(("/real_time", OWN_CLOCK_SUFFIX))]


def count_instructions(arguments, name, output):
    """Counts the instructions of the measured part of one benchmark in one iteration."""
    command = ["valgrind", "--tool=callgrind", f"--callgrind-out-file={output}",
               "--collect-atstart=no", "--toggle-collect=*measured_part*", arguments.program,
               f"--benchmark_filter=^{name}$", "--benchmark_min_time=0.000000001"]
    finished = subprocess.run(command, capture_output=True, text=True, check=False,
                              env={**os.environ, "LD_BIND_NOW": "1"})
    counted = re.search(r"Collected : (\d+)", finished.stderr)
    if finished.returncode != 0 or counted is None:
        sys.exit(finished.stderr)
    return int(counted.group(1))


def print_instructions(arguments):
    jobs = defaultdict(dict)
    with tempfile.TemporaryDirectory() as directory:
        for name in benchmark_names(arguments):
            job, side, size = name.split("/", 2)
            jobs[job, size][side] = count_instructions(arguments, name, f"{directory}/out")
    rows = [[job, size, side, f"{count:,}", f"{count / sides.get(OURS, count):.2f}"]
            for (job, size), sides in sorted(jobs.items(),
                                             key=lambda item: (item[0][0], size_order(item[0][1])))
            for side, count in sorted(sides.items())]
    print_table(["job", "size", "side", "instructions", "times ours"], rows)


def print_profile(arguments, name, percent):
    """Prints the functions that together execute this percentage of the instructions."""
    with tempfile.TemporaryDirectory() as directory:
        total = count_instructions(arguments, name, f"{directory}/out")
        annotated = subprocess.run(
            ["callgrind_annotate", f"--threshold={percent}", "--auto=no", f"{directory}/out"],
            stdout=subprocess.PIPE, text=True, check=True).stdout
    print(f"\n{name}: {total:,} instructions in one run, of which in")
    for count, function in re.findall(r"^ *([\d,]+) \([ \d.]+%\)  [^:\n]*:(.*?)(?: \[|$)", annotated,
                                      re.MULTILINE):
        print(f"  {100 * int(count.replace(',', '')) / total:5.1f}%  {function}")


def print_profiles_of_missed(arguments, runs):
    for job, sizes in sorted(collect_times(runs).items()):
        for size in sorted(sizes, key=size_order):
            goals, sides = GOALS.get((job, size), []), sizes[size]
            if job == SEARCH_JOB:
                continue
            if OURS in sides and len(sides) > 1 and not all(goal.met(goal.ratio(sides))
                                                            for goal in goals):
                print_profile(arguments, f"{job}/{OURS}/{size}", 90)


def main():
    parser = argparse.ArgumentParser(prog="bench/run", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("program", help=argparse.SUPPRESS)
    parser.add_argument("--rounds", type=int, default=15)
    parser.add_argument("--min-time", type=float, default=0.01, help="seconds of one side in one round")
    parser.add_argument("--only", default=".", metavar="PATTERN")
    parser.add_argument("--instructions", action="store_true")
    parser.add_argument("--profile", metavar="BENCHMARK")
    parser.add_argument("--check", action="store_true")
    arguments = parser.parse_args()
    if arguments.check:
        check(arguments)
    elif arguments.profile:
        print_profile(arguments, arguments.profile, 98)
    elif arguments.instructions:
        print_instructions(arguments)
    else:
        runs = run_benchmarks(arguments)
        print_times(runs, arguments.program)
        print_profiles_of_missed(arguments, runs)


if __name__ == "__main__":
    main()
