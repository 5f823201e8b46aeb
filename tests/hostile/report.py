"""What a run says while it goes on, and the table at its end."""

import json
import os
import sys
import textwrap
import time

from hostile.measure import short

VERDICTS = {"PASS": "32", "FAIL": "31", "SKIPPED": "33"}


class Screen:
    def __init__(self):
        self.colour = sys.stdout.isatty() and "NO_COLOR" not in os.environ
        self.started = time.monotonic()

    def paint(self, code, text):
        return f"\033[{code}m{text}\033[0m" if self.colour else text

    def say(self, text):
        print(f"[{time.monotonic() - self.started:6.1f} s] {text}", flush=True)

    def detail(self, text):
        self.say(f"    {text}")

    def verdict(self, result):
        text = self.paint(VERDICTS[result.verdict], result.verdict)
        self.say(f"{result.name}: {text} ({result.seconds:.1f} s)")
        for check in result.checks:
            if not check.is_kept:
                self.detail(str(check))


def wait_rows(result):
    """For each kind of innocent peer: kind, samples, the figures, p99 without attack, and how many times that."""
    rows = []
    for kind, waits in result.attacked.items():
        figures = waits.figures()
        base = result.baseline.get(kind) or result.baseline.get(kind.split(",")[0])
        base_p99 = base.figures()["p99"] if base else None
        ratio = f"{figures['p99'] / base_p99:.1f}" if base_p99 and figures["p99"] is not None else "-"
        rows.append([kind, f"{figures['count']:,}",
                     "/".join(short(figures[name]) for name in ("p50", "p99", "max")),
                     short(base_p99), ratio, str(figures["unanswered"]), str(figures["lost"])])
    return rows


def print_table(results, screen):
    width = 118
    print("\n" + "=" * width)
    print(f"{'scenario':<20}{'innocent peers':<30}{'samples':>8}  {'p50/p99/max ms':<20}{'p99 alone':>10}{'ratio':>7}"
          f"{'no answer':>11}{'lost':>6}  verdict")
    print("-" * width)
    for result in results:
        verdict = screen.paint(VERDICTS[result.verdict], result.verdict)
        rows = wait_rows(result) or [["-", "-", "-", "-", "-", "-", str(result.lost())]]
        for number, row in enumerate(rows):
            print(f"{result.name if number == 0 else '':<20}{row[0]:<30}{row[1]:>8}  {row[2]:<20}{row[3]:>10}{row[4]:>7}"
                  f"{row[5]:>11}{row[6]:>6}  {verdict if number == 0 else ''}")
    print("=" * width)
    for result in results:
        print(f"\n{result.name}: {screen.paint(VERDICTS[result.verdict], result.verdict)}")
        print(textwrap.fill(result.promise, width, initial_indent="  promised: ", subsequent_indent="            "))
        if result.tried:
            print(textwrap.fill(result.tried, width, initial_indent="  tried:    ", subsequent_indent="            "))
        if result.skipped:
            print(f"  NOT TESTED: {result.skipped}")
        for check in result.checks:
            print(textwrap.fill(str(check), width, initial_indent="  - ", subsequent_indent="    "))
        for note in result.notes:
            print(textwrap.indent(note, "  note: ", lambda line: line is not None and line == note.splitlines(True)[0])
                  if "\n" in note else textwrap.fill(note, width, initial_indent="  note: ", subsequent_indent="        "))


def print_summary(results, seconds, screen):
    count = {verdict: sum(result.verdict == verdict for result in results) for verdict in VERDICTS}
    lost = sum(result.lost() for result in results)
    unchecked = f", {count['SKIPPED']} NOT TESTED" if count["SKIPPED"] else ""
    print(f"\n{len(results)} promises: {screen.paint('32', str(count['PASS']) + ' kept')}, "
          f"{screen.paint('31', str(count['FAIL']) + ' broken') if count['FAIL'] else '0 broken'}{unchecked}; "
          f"lost pushes: {lost}; {seconds:.0f} seconds")


def write_json(path, results, facts):
    with open(path, "w", encoding="utf-8") as file:
        json.dump({**facts, "scenarios": [result.as_json() for result in results]}, file, indent=2)
        file.write("\n")


def write_markdown(path, results):
    """The table of docs/reliability.md."""
    with open(path, "w", encoding="utf-8") as file:
        file.write("| scenario | innocent peers, or what was tried | measured: samples | measured: p50/p99/max ms | measured: p99 alone, ms | "
                   "measured: lost | verdict |\n|---|---|---:|---:|---:|---:|---|\n")
        for result in results:
            for number, row in enumerate(wait_rows(result) or [[result.tried or "-", *5 * "-", str(result.lost())]]):
                unanswered = f", {row[5]} unanswered" if row[5] not in ("0", "-") else ""
                cells = [f"`{result.name}`" if number == 0 else "", row[0], row[1], row[2] + unanswered, row[3], row[6],
                         result.verdict if number == 0 else ""]
                file.write(f"| {' | '.join(cells)} |\n")
        file.write("\n")
        for result in results:
            for check in result.checks:
                if not check.is_kept and check.is_judged:
                    file.write(f"- `{result.name}`, broken: {check.text}: {check.value}\n")
