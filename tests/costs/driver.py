"""Counts everything, compares it with the record, or writes the record anew."""

import argparse
import json
import os
import platform
import re
import signal
import statistics
import subprocess
import sys
import time

from costs import instructions, judge, system_calls
from costs.unlogged_device import CannotCount
from hostile.device import Context
from hostile.workers import Guard

SESSIONS = (1, 100)
MOST_SECONDS = 150
SKIPPED = 77
# What seems to have grown is counted again: a pass of the loop more or less is 5 % of the dearest figures.
TRIES = 3


def arguments_of(words, source):
    parser = argparse.ArgumentParser(prog="scripts/costs", description="Counts what a push and a request cost.")
    parser.add_argument("--record", action="store_true", help="write the record anew instead of comparing with it")
    parser.add_argument("--against", metavar="FILE", default=f"{source}/tests/costs/recorded.json",
                        help="the record; that of the sources by default")
    parser.add_argument("--programs", metavar="FOLDER", default=f"{source}/build/release/bin",
                        help="where the programs are; those of the preset release by default")
    parser.add_argument("--calls-only", action="store_true", help="leave out the instructions")
    parser.add_argument("--no-build", action="store_true", help="use what is built")
    return parser.parse_args(words)


def first_line(*command):
    try:
        return subprocess.run(command, capture_output=True, text=True, check=True).stdout.splitlines()[0].strip()
    except (OSError, subprocess.CalledProcessError, IndexError):
        return "unknown"


def built_with(programs):
    """What the number of instructions depends on besides the sources."""
    try:
        comment = subprocess.run(["readelf", "-p", ".comment", f"{programs}/quilagent"], capture_output=True, text=True,
                                 check=True).stdout
    except (OSError, subprocess.CalledProcessError):
        comment = ""
    return {"compiler": "; ".join(re.findall(r"\] +(.*\S)", comment)) or "unknown",
            "libc": first_line("ldd", "--version"), "valgrind": first_line("valgrind", "--version"),
            "machine": platform.machine()}


def sessions_text(sessions):
    return "1 session" if sessions == 1 else f"{sessions} sessions"


def count_calls(context, counted):
    for sessions in SESSIONS:
        for deed, programs in system_calls.count(context, sessions).items():
            for program, calls in programs.items():
                name = f"{deed}, {sessions_text(sessions)}: {program}, system calls"
                counted["figures"][name] = round(sum(calls.values()), 2)
                counted["calls"][name] = {call: round(times, 2) for call, times in sorted(calls.items())
                                          if times >= 0.05}


def count_instructions(context, counted):
    for sessions in SESSIONS:
        for deed, found in instructions.count(context, sessions).items():
            counted["figures"][f"{deed}, {sessions_text(sessions)}: agent, {judge.INSTRUCTIONS}"] = round(found)


def count(arguments, source):
    """What was counted, and why the rest could not be."""
    counted = {"built with": built_with(arguments.programs), "figures": {}, "calls": {}}
    reasons = []
    guard = Guard()
    context = Context(arguments.programs, None, "release", False, guard, None)
    try:
        for part in (count_calls, *(() if arguments.calls_only else (count_instructions,))):
            try:
                part(context, counted)
            except CannotCount as reason:
                reasons.append(str(reason))
    finally:
        guard.end()
    return counted, reasons


def choose(choice, counts):
    """One of several counts of the same figures, figure by figure."""
    chosen = dict(counts[0], figures={}, calls={})
    for name in counts[0]["figures"]:
        best = choice([count["figures"][name] for count in counts if name in count["figures"]])
        chosen["figures"][name] = best
        calls = [count["calls"][name] for count in counts
                 if count["figures"].get(name) == best and name in count["calls"]]
        if calls:
            chosen["calls"][name] = calls[0]
    return chosen


def too_long(*_):
    raise TimeoutError(f"not done after {MOST_SECONDS} seconds")


def main(words, source):
    arguments = arguments_of(words, source)
    if not os.access("/dev/fuse", os.R_OK | os.W_OK):
        print("costs: SKIPPED, the object service needs a /dev/fuse that it may open")
        return SKIPPED
    signal.signal(signal.SIGALRM, too_long)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    signal.alarm(MOST_SECONDS)
    started = time.monotonic()
    counted, reasons = count(arguments, source)
    if arguments.record:
        counts = [counted, *(count(arguments, source)[0] for _ in range(1, TRIES))]
        return write_record(arguments, choose(statistics.median_low, counts), reasons)
    with open(arguments.against, encoding="utf-8") as file:
        record = json.load(file)
    counts = [counted]
    verdicts = judge.compare(record, counted)
    while judge.is_failure(verdicts) and len(counts) < TRIES:
        counts.append(count(arguments, source)[0])
        counted = choose(min, counts)
        verdicts = judge.compare(record, counted)
    judge.show(record, counted, verdicts)
    print(f"\n{len(counted['figures'])} figures, {len(counts)} time{'s' * (len(counts) > 1)}, in "
          f"{time.monotonic() - started:.0f} s")
    for reason in reasons:
        print(f"costs: SKIPPED in part: {reason}")
    return 1 if judge.is_failure(verdicts) else SKIPPED if reasons else 0


def write_record(arguments, counted, reasons):
    if reasons or arguments.calls_only:
        print(f"costs: nothing recorded, since not all could be counted: {'; '.join(reasons)}", file=sys.stderr)
        return 1
    with open(arguments.against, "w", encoding="utf-8") as file:
        json.dump(counted, file, indent=2)
        file.write("\n")
    print(f"costs: {len(counted['figures'])} figures recorded in {arguments.against}")
    return 0
