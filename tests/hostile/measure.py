"""Waits, and what is promised of them."""

import math


def percentile(sorted_values, share):
    """The smallest value that at least that share of the values does not exceed."""
    return sorted_values[max(0, math.ceil(share * len(sorted_values)) - 1)]


class Waits:
    """How long peers waited, in milliseconds, each from the moment at which its turn was due: one stall is counted for
    all whose turn fell into it. Who got no answer is there with the time that was waited for it, so a figure can be too
    small there, never too large."""

    def __init__(self, answered=(), unanswered=(), lost=0, note=""):
        self.answered = list(answered)
        self.unanswered = list(unanswered)
        self.lost = lost  # pushes that were sent whole and never acknowledged
        self.note = note

    def __len__(self):
        return len(self.answered) + len(self.unanswered)

    def add(self, other):
        self.answered += other.answered
        self.unanswered += other.unanswered
        self.lost += other.lost

    def figures(self):
        values = sorted(self.answered + self.unanswered)
        if not values:
            return {"count": 0, "unanswered": 0, "p50": None, "p99": None, "max": None, "lost": self.lost}
        return {"count": len(values), "unanswered": len(self.unanswered), "p50": percentile(values, 0.5),
                "p99": percentile(values, 0.99), "max": values[-1], "lost": self.lost}

    def __str__(self):
        figures = self.figures()
        if not figures["count"]:
            return "no samples"
        text = "/".join(short(figures[name]) for name in ("p50", "p99", "max"))
        return text + (f" ({len(self.unanswered)} of {len(self)} unanswered)" if self.unanswered else "")


def short(milliseconds):
    if milliseconds is None:
        return "-"
    return f"{milliseconds:.1f}" if milliseconds < 100 else f"{milliseconds:.0f}"


class Check:
    """One figure, and what it may be."""

    def __init__(self, text, value, is_kept, is_judged=True):
        self.text = text
        self.value = value
        self.is_kept = bool(is_kept)
        self.is_judged = is_judged

    def __str__(self):
        sign = "kept" if self.is_kept else "BROKEN"
        return f"{sign if self.is_judged else 'not judged'}: {self.text}: {self.value}"


class Result:
    """What came of one scenario."""

    slack = 1.0  # waits are judged by so many times what is promised

    def __init__(self, name, promise):
        self.name = name
        self.promise = promise
        self.tried = ""
        self.baseline = {}  # kind of peer: Waits without an attack
        self.attacked = {}  # kind of peer: Waits under attack
        self.checks = []
        self.notes = []
        self.skipped = ""
        self.seconds = 0.0
        self.also_lost = 0  # pushes that no probe sent

    def check(self, text, value, is_kept, is_judged=True):
        self.checks.append(Check(text, value, is_kept, is_judged))
        return bool(is_kept)

    def check_waits(self, kind, at_least, p99_ms=None, max_ms=None, is_judged=True):
        """Judges the waits under attack of one kind of peer; too few samples prove nothing and break the promise."""
        waits = self.attacked[kind]
        figures = waits.figures()
        self.check(f"{kind}: measured at least {at_least} times", figures["count"], figures["count"] >= at_least)
        self.check(f"{kind}: none without an answer", figures["unanswered"], figures["unanswered"] == 0)
        for name, limit in (("p99", p99_ms), ("max", max_ms)):
            if limit is not None and figures["count"]:
                judged = limit * Result.slack
                self.check(f"{kind}: {name} under {judged:g} ms", f"{short(figures[name])} ms", figures[name] < judged,
                           is_judged)

    def check_lost(self):
        lost = self.lost()
        self.check("lost pushes: 0", lost, lost == 0)

    def lost(self):
        return self.also_lost + sum(waits.lost for waits in self.attacked.values())

    @property
    def verdict(self):
        if self.skipped:
            return "SKIPPED"
        judged = [check for check in self.checks if check.is_judged]
        return "PASS" if judged and all(check.is_kept for check in judged) else "FAIL"

    def as_json(self):
        return {
            "name": self.name, "promise": self.promise, "verdict": self.verdict, "tried": self.tried,
            "seconds": round(self.seconds, 1), "skipped": self.skipped, "lost": self.lost(),
            "baseline": {kind: waits.figures() for kind, waits in self.baseline.items()},
            "attacked": {kind: waits.figures() for kind, waits in self.attacked.items()},
            "checks": [{"text": check.text, "value": str(check.value), "kept": check.is_kept,
                        "judged": check.is_judged} for check in self.checks],
            "notes": self.notes,
        }
