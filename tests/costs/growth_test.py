#!/usr/bin/env python3
"""The guard against growing costs notices what has grown, and nothing else."""

import copy
import json
import os
import subprocess
import sys
import tempfile
import unittest

SOURCE = os.environ["QUIL_SOURCE"]
PROGRAMS = os.environ["QUIL_BIN"]
sys.path.insert(0, f"{SOURCE}/tests")
sys.dont_write_bytecode = True

from costs import judge  # noqa: E402

SKIPPED = 77
CALLS, INSTRUCTIONS = "push: agent, system calls", "push: agent, instructions"


def record_of(calls=13.0, instructions=1000, compiler="one"):
    return {"built with": {"compiler": compiler}, "figures": {CALLS: calls, INSTRUCTIONS: instructions}, "calls": {}}


def words(record, counted):
    return {verdict.name: verdict.word for verdict in judge.compare(record, counted)}


class Costs(unittest.TestCase):
    def setUp(self):
        with open(f"{SOURCE}/tests/costs/recorded.json", encoding="utf-8") as file:
            self.record = json.load(file)

    def test_EachFigureThatGrewIsNoticed(self):
        self.assertFalse(judge.is_failure(judge.compare(self.record, self.record)))
        for name, figure in self.record["figures"].items():
            lowered = copy.deepcopy(self.record)
            lowered["figures"][name] = figure * 0.8
            verdicts = judge.compare(lowered, self.record)
            self.assertTrue(judge.is_failure(verdicts), name)
            self.assertEqual([verdict.name for verdict in verdicts if verdict.word == "grew"], [name])

    def test_OneMoreSystemCallIsNoticed(self):
        self.assertEqual(words(record_of(calls=4.0), record_of(calls=4.98))[CALLS], "grew")
        self.assertEqual(words(record_of(calls=4.0), record_of(calls=4.3))[CALLS], "same")
        self.assertEqual(words(record_of(calls=10.02), record_of(calls=11.0))[CALLS], "grew")

    def test_ShrunkFigureIsSaidAndIsNoFailure(self):
        verdicts = judge.compare(record_of(), record_of(calls=11.0, instructions=890))
        self.assertEqual([verdict.word for verdict in verdicts], ["shrank", "shrank"])
        self.assertFalse(judge.is_failure(verdicts))

    def test_FigureWithoutRecordIsAFailure(self):
        record = record_of()
        del record["figures"][CALLS]
        self.assertTrue(judge.is_failure(judge.compare(record, record_of())))

    def test_OtherCompilerLeavesSystemCallsJudged(self):
        counted = record_of(calls=20.0, instructions=2000, compiler="other")
        self.assertEqual(words(record_of(), counted), {CALLS: "grew", INSTRUCTIONS: "not judged"})

    # All the way: real programs, counted, against a record that is a fifth too low.
    def test_RealProgramsAboveTheirRecordFail(self):
        lowered = copy.deepcopy(self.record)
        lowered["figures"] = {name: figure * 0.8 for name, figure in lowered["figures"].items()}
        with tempfile.NamedTemporaryFile("w", suffix=".json") as file:
            json.dump(lowered, file)
            file.flush()
            done = subprocess.run([f"{SOURCE}/scripts/costs", "--no-build", "--calls-only", "--against", file.name,
                                   "--programs", PROGRAMS], capture_output=True, text=True, check=False)
        if done.returncode == SKIPPED:
            print(done.stdout)
            sys.exit(SKIPPED)
        self.assertEqual(done.returncode, 1, done.stdout + done.stderr)
        calls = [line for line in done.stdout.splitlines() if "system calls" in line and line.endswith("  grew")]
        self.assertEqual(len(calls), sum(map(judge.is_call_count, lowered["figures"])), done.stdout)


if __name__ == "__main__":
    unittest.main()
