"""What was measured: for each thing some rounds, of which the medians count. One thing by another is the median of what
it is in each round: a machine that gets slower for some seconds does so for both."""

import statistics

APPLICATION, ANSWER, REPLY, RATE = "application", "answer", "reply", "a_second"
MEASURES = {APPLICATION: "push to application", ANSWER: "push to its 72nd byte", REPLY: "request and reply",
            RATE: "pushes a second"}
WAITS, CLOSES = "sender waits", "sender closes"
FLOOR = "floor"


def name_of(subject, measure, *conditions):
    """How the table calls a thing: who, under which conditions, and what of it."""
    return ": ".join([", ".join([subject, *conditions]), MEASURES[measure]])


class Row:
    """One thing that was measured; its floor is the name of the row that it is a multiple of."""

    def __init__(self, name, floor):
        self.name = name
        self.floor = floor
        self.rounds = []

    @property
    def value(self):
        """Microseconds, or pushes a second."""
        return statistics.median(one["p50"] for one in self.rounds)

    @property
    def p99(self):
        values = [one["p99"] for one in self.rounds if "p99" in one]
        return statistics.median(values) if values else None

    @property
    def is_rate(self):
        return self.p99 is None

    @property
    def spread(self):
        """How many times its p50 the p99 is."""
        return None if self.is_rate else self.p99 / self.value


class Figures:
    def __init__(self):
        self.rows = {}
        self.costs = {}  # name: (value, unit)
        self.missing = []  # what could not be measured here, and why

    def add(self, name, figures, floor=None):
        """One round of one thing, as a load program printed it."""
        row = self.rows.setdefault(name, Row(name, floor))
        row.rounds.append(figures if isinstance(figures, dict) else {"p50": figures})

    def add_cost(self, name, value, unit):
        self.costs[name] = (value, unit)

    def miss(self, text):
        if text not in self.missing:
            self.missing.append(text)

    def get(self, name):
        return self.rows.get(name)

    def times_floor(self, name):
        """How many times the floor a thing takes, or which part of the floor's rate it reaches."""
        return self.times(name, self.rows[name].floor) if name in self.rows else None

    def times(self, name, other):
        """The one by the other; None where one of them was not measured."""
        if name not in self.rows or other not in self.rows:
            return None
        return statistics.median(mine["p50"] / others["p50"]
                                 for mine, others in zip(self.rows[name].rounds, self.rows[other].rounds))

    def cost(self, name):
        return self.costs[name][0] if name in self.costs else None

    def as_json(self):
        rows = [{"name": row.name, "median": row.value, "p99": row.p99, "floor": row.floor,
                 "times_floor": self.times_floor(row.name), "rounds": row.rounds} for row in self.rows.values()]
        costs = [{"name": name, "value": value, "unit": unit} for name, (value, unit) in self.costs.items()]
        return {"rows": rows, "costs": costs, "missing": self.missing}
