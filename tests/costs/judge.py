"""Compares what was counted with what was recorded. Knows nothing of how it was counted.

The record is one object: "figures" by their names, "calls" by name of the same figures for whoever wonders what grew,
and "built with", without which instructions say nothing.
"""

PERCENT = 10
INSTRUCTIONS = "instructions"


def is_call_count(name):
    return not name.endswith(INSTRUCTIONS)


class Verdict:
    """What came of one figure."""

    def __init__(self, name, recorded, now, is_judged):
        self.name = name
        self.recorded = recorded
        self.now = now
        self.word = self.judge() if is_judged else "not judged"

    def change_that_counts(self):
        """Calls are whole ones, but for what a count of many catches from its edges."""
        if is_call_count(self.name):
            return max(1, PERCENT * round(self.recorded) / 100)
        return PERCENT * self.recorded / 100

    def judge(self):
        if self.recorded is None:
            return "no record"
        if self.now is None:
            return "not counted"
        change = self.now - self.recorded
        if is_call_count(self.name):
            change = round(change)
            return ("grew" if change >= self.change_that_counts() else
                    "shrank" if -change >= self.change_that_counts() else "same")
        return ("grew" if change > self.change_that_counts() else
                "shrank" if -change > self.change_that_counts() else "same")

    def row(self):
        def text(figure):
            return "-" if figure is None else f"{figure:,.1f}" if is_call_count(self.name) else f"{figure:,.0f}"

        ratio = f"{self.now / self.recorded:.2f}" if self.recorded and self.now is not None else "-"
        return f"{self.name:<62}{text(self.recorded):>10}{text(self.now):>10}{ratio:>7}  {self.word}"


def compare(record, counted):
    """A verdict for each figure of either."""
    are_same_tools = record["built with"] == counted["built with"]
    old, new = record["figures"], counted["figures"]
    # The order in which they were counted, and behind them what was not.
    names = [*new, *(name for name in old if name not in new)]
    return [Verdict(name, old.get(name), new.get(name), is_call_count(name) or are_same_tools) for name in names]


def is_failure(verdicts):
    """A figure without a record is one that nobody guards."""
    return any(verdict.word in ("grew", "no record") for verdict in verdicts)


def show(record, counted, verdicts):
    print(f"{'for one of each':<62}{'recorded':>10}{'now':>10}{'ratio':>7}")
    for verdict in verdicts:
        print(verdict.row())
        if verdict.word in ("grew", "shrank") and is_call_count(verdict.name):
            show_calls(record["calls"].get(verdict.name, {}), counted["calls"].get(verdict.name, {}))
    if any(verdict.word == "not judged" for verdict in verdicts):
        print("\nINSTRUCTIONS WERE NOT JUDGED, only system calls: they were recorded with other tools.")
        for tool in sorted({*record["built with"], *counted["built with"]}):
            print(f"  {tool}: recorded {record['built with'].get(tool)}, now {counted['built with'].get(tool)}")
    if any(verdict.word == "shrank" for verdict in verdicts):
        print("\nSomething became cheaper: bring the record down with `scripts/costs --record`.")
    if any(verdict.word == "no record" for verdict in verdicts):
        print("\nSomething is counted of which there is no record: `scripts/costs --record`.")
    if any(verdict.word == "grew" for verdict in verdicts):
        print("\nSomething became dearer. If that is worth it, `scripts/costs --record` and say why in the commit.")


def show_calls(old, new):
    for call in sorted({*old, *new}):
        if round(new.get(call, 0) - old.get(call, 0)):
            print(f"    {call:<58}{old.get(call, 0):>10.1f}{new.get(call, 0):>10.1f}")
