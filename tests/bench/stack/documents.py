"""The tables and charts of docs/performance/."""

import re

from bench.stack.costs import INSTRUCTIONS
from bench.stack.figures import ANSWER, APPLICATION, CLOSES, FLOOR, MEASURES, RATE, REPLY, WAITS, name_of
from bench.stack.latencies import LOG_READ, SENDERS, SIZES, TWO_CPUS, senders_text, sessions_text, size_text
from hostile import svg

BLUE, RED, GREEN, GREY = "#1f5fa8", "#b0452a", "#2f7d4f", "#777777"


def table(head, rows):
    """The first column is text, the others are numbers."""
    lines = [f"| {' | '.join(head)} |", f"|---{'|---:' * (len(head) - 1)}|"]
    return "\n".join([*lines, *(f"| {' | '.join(row)} |" for row in rows)])


def times_text(value):
    return "-" if value is None else f"{value:.2f}"


def time_text(row):
    return "-" if row is None else f"{row.value:,.0f}"


class Documents:
    def __init__(self, folder, figures, goals, facts, sessions):
        self.folder = folder
        self.figures = figures
        self.goals = goals
        self.facts = facts
        self.sessions = sessions

    def write(self):
        path = f"{self.folder}/README.md"
        with open(path, encoding="utf-8") as file:
            text = file.read()
        for name, part in self.parts().items():
            marker = re.compile(rf"(<!-- measured: {name} -->\n).*?(<!-- end -->)", re.DOTALL)
            text, count = marker.subn(lambda match, part=part: f"{match[1]}\n{part}\n\n{match[2]}", text)
            if count != 1:
                raise ValueError(f"{path}: not one place for {name}")
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        self.draw_sessions()
        self.draw_sizes()
        self.draw_senders()

    def parts(self):
        return {"run": self.run_text(), "goals": self.goals_table(), "floor": self.floor_table(),
                "sessions": self.sessions_table(), "conditions": self.conditions_table(), "sizes": self.sizes_table(),
                "senders": self.senders_table(), "costs": self.costs_table()}

    def run_text(self):
        facts = self.facts
        where = "as many CPUs as there are" if facts["two_cpus"] else "one CPU"
        return (f"Measured on {facts['date']} by `scripts/bench`: {facts['rounds']} rounds of {facts['count']:,} of "
                f"each kind, on {where} of a machine with {facts['processors']}.")

    def goals_table(self):
        met = sum(goal.is_met is True for goal in self.goals)
        rows = [[goal.text, f"at most {goal.number(goal.limit)}", goal.number(goal.value), goal.verdict]
                for goal in self.goals]
        return f"{met} of {len(self.goals)} are met.\n\n" + table(["goal", "limit", "measured", "verdict"], rows)

    def floor_table(self):
        names = [name_of(FLOOR, APPLICATION, CLOSES), name_of(FLOOR, APPLICATION, WAITS), name_of(FLOOR, ANSWER),
                 name_of(FLOOR, REPLY), name_of("mosquitto", APPLICATION, "new connection"),
                 name_of("mosquitto", APPLICATION, "kept connection"), name_of("dbus-daemon", REPLY)]
        rows = []
        for name in names:
            row = self.figures.get(name)
            if row:
                times = 1 if row.floor is None else self.figures.times_floor(name)
                rows.append([name, f"{row.value:.1f}", f"{row.p99:.1f}", times_text(times)])
        return table(["", "p50, us", "p99, us", "times the floor"], rows)

    def measures(self):
        return [(f"{MEASURES[APPLICATION]}, {CLOSES}", APPLICATION, [CLOSES]),
                (f"{MEASURES[APPLICATION]}, {WAITS}", APPLICATION, [WAITS]),
                (MEASURES[ANSWER], ANSWER, []), (MEASURES[REPLY], REPLY, [])]

    def sessions_table(self):
        rows = []
        for text, measure, conditions in self.measures():
            names = [name_of("agent", measure, sessions_text(count), *conditions) for count in self.sessions]
            rows.append([text, *(times_text(self.figures.times_floor(name)) for name in names)])
        return table(["times the floor", *map(sessions_text, self.sessions)], rows)

    def conditions_table(self):
        rows = []
        for text, measure, conditions in self.measures()[:3]:
            names = [name_of("agent", measure, sessions_text(1), *more, *conditions)
                     for more in ([], [LOG_READ], [TWO_CPUS])]
            rows.append([text, *(times_text(self.figures.times_floor(name) if self.figures.get(name) else None)
                                 for name in names)])
        return table(["times the floor, 1 session", "no log", "a log that is read", "two CPUs"], rows)

    def sizes_table(self):
        rows = []
        for measure in (APPLICATION, ANSWER):
            for subject in (FLOOR, "agent"):
                found = [self.figures.get(name_of(subject, measure, size_text(size))) for size in SIZES]
                rows.append([f"{subject}: {MEASURES[measure]}, us", *map(time_text, found)])
            names = [name_of("agent", measure, size_text(size)) for size in SIZES]
            rows.append(["times the floor", *(times_text(self.figures.times_floor(name)) for name in names)])
        return table(["", *map(size_text, SIZES)], rows)

    def senders_table(self):
        rows = [[subject, *(time_text(self.figures.get(name_of(subject, RATE, senders_text(count))))
                            for count in SENDERS)] for subject in (FLOOR, "agent")]
        names = [name_of("agent", RATE, senders_text(count)) for count in SENDERS]
        rows.append(["times the floor", *(times_text(self.figures.times_floor(name)) for name in names)])
        return table(["pushes a second", *map(senders_text, SENDERS)], rows)

    def costs_table(self):
        rows = []
        for name, (value, unit) in self.figures.costs.items():
            digits = 0 if name.startswith(INSTRUCTIONS) else 1
            rows.append([name, f"{value:,.{digits}f} {unit}".strip()])
        return table(["what", "measured"], rows)

    # Charts

    def draw_sessions(self):
        lines = []
        for colour, (text, measure, conditions) in zip((BLUE, GREEN, RED, GREY), self.measures()):
            names = [name_of("agent", measure, sessions_text(count), *conditions) for count in self.sessions]
            lines.append(svg.Line(text, colour, [self.figures.times_floor(name) for name in names]))
        svg.draw_lines(f"{self.folder}/sessions.svg", "Latency by sessions", "sessions",
                       [str(count) for count in self.sessions], "times the floor", lines)

    def draw_sizes(self):
        lines = [svg.Line(MEASURES[measure], colour, [
            self.figures.times_floor(name_of("agent", measure, size_text(size))) for size in SIZES])
            for colour, measure in ((BLUE, APPLICATION), (RED, ANSWER))]
        svg.draw_lines(f"{self.folder}/sizes.svg", "Latency by the size of a push", "bytes of data",
                       [f"{size:,}" for size in SIZES], "times the floor of the same size", lines)

    def draw_senders(self):
        lines = [svg.Line(subject, colour, [
            self.figures.get(name_of(subject, RATE, senders_text(count))).value for count in SENDERS])
            for colour, subject in ((GREY, FLOOR), (BLUE, "agent"))]
        svg.draw_lines(f"{self.folder}/senders.svg", "Throughput by senders", "senders at once",
                       [str(count) for count in SENDERS], "pushes a second", lines)
