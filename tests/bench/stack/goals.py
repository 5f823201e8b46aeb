"""What the figures are to be, and whether they are."""

from bench.stack.costs import AGENT_MEMORY, CALLS, MODES, START, cost_name
from bench.stack.figures import ANSWER, APPLICATION, CLOSES, FLOOR, REPLY, WAITS, name_of
from bench.stack.latencies import LOG_READ, TWO_CPUS, sessions_text

TO_APPLICATION, TO_ANSWER, TO_REPLY = 1.25, 1.35, 1.4
HUNDRED_SESSIONS = 1.3
READ_LOG = 1.5
SYSTEM_CALLS, SYSTEM_CALLS_OF_LOG = 14, 6
P99_TWO_CPUS = 3.0
START_MS = 50
MEMORY_MB = {1: 13, 200: 14}
BYTES_PER_MIB, BYTES_PER_MB = 1 << 20, 1000000


class Goal:
    """One figure and the most that it may be; nothing is judged that was not measured."""

    def __init__(self, text, value, limit, unit=""):
        self.text = text
        self.value = value
        self.limit = limit
        self.unit = unit

    @property
    def is_met(self):
        return None if self.value is None or self.limit is None else self.value <= self.limit

    @property
    def verdict(self):
        if self.is_met is None:
            return "not measured"
        return "met" if self.is_met else f"missed by {(self.value / self.limit - 1) * 100:.0f} %"

    def number(self, value):
        return "-" if value is None else f"{value:.2f}{' ' + self.unit if self.unit else ''}"

    def as_json(self):
        return {"text": self.text, "value": self.value, "limit": self.limit, "unit": self.unit, "met": self.is_met}


def most(values):
    """The largest, None when one is missing."""
    values = list(values)
    return None if None in values else max(values)


def agent(measure, sessions, *conditions):
    return name_of("agent", measure, sessions_text(sessions), *conditions)


def calls(figures, sessions, *conditions):
    return most(figures.cost(cost_name(CALLS, sessions_text(sessions), *conditions, mode)) for mode in MODES.values())


def spread_goals(figures, is_two_cpus):
    """On one CPU a wait also holds the turns of the others, so that only the floor can say what p99 is to be had."""
    for mode in (CLOSES, WAITS):
        row, floor = (figures.get(name) for name in (agent(APPLICATION, 1, mode), name_of(FLOOR, APPLICATION, mode)))
        if is_two_cpus:
            yield Goal(f"push to application, {mode}: p99 by its p50, two CPUs", row and row.spread, P99_TWO_CPUS)
            continue
        yield Goal(f"push to application, {mode}: p99 by its p50, one CPU; at most as the floor's", row and row.spread,
                   floor and floor.spread)
        row = figures.get(agent(APPLICATION, 1, TWO_CPUS, mode))
        yield Goal(f"push to application, {mode}: p99 by its p50, two CPUs", row and row.spread, P99_TWO_CPUS)


def session_goals(figures):
    for text, name in (("push to application", (APPLICATION, CLOSES)), ("push to application", (APPLICATION, WAITS)),
                       ("push to its 72nd byte", (ANSWER,)), ("request and reply", (REPLY,))):
        conditions = name[1:]
        yield Goal(", ".join([f"{text}, 100 sessions", *conditions]) + ", by 1 session",
                   figures.times(agent(name[0], 100, *conditions), agent(name[0], 1, *conditions)), HUNDRED_SESSIONS)


def goals(figures, is_two_cpus, is_log_read):
    """All of them; an agent is compared with the floor under the same load. Where every agent has a log that is read
    there is nothing to compare that with, and its system calls are among the others."""
    found = []
    for mode in (CLOSES, WAITS):
        found.append(Goal(f"push to application, {mode}, by the floor",
                          figures.times(agent(APPLICATION, 1, mode), name_of(FLOOR, APPLICATION, mode)),
                          TO_APPLICATION))
    found.append(Goal("push to application, sender waits, by mosquitto with a new connection",
                      figures.times(agent(APPLICATION, 1, WAITS),
                                    name_of("mosquitto", APPLICATION, "new connection")), 1.0))
    found.append(Goal("push to its 72nd byte, by the floor",
                      figures.times(agent(ANSWER, 1), name_of(FLOOR, ANSWER)), TO_ANSWER))
    found.append(Goal("request and reply, by the floor",
                      figures.times(agent(REPLY, 1), name_of(FLOOR, REPLY)), TO_REPLY))
    found += session_goals(figures)
    for mode in () if is_log_read else (CLOSES, WAITS):
        found.append(Goal(f"push to application, {mode}, log read, by no log",
                          figures.times(agent(APPLICATION, 1, LOG_READ, mode),
                                        agent(APPLICATION, 1, mode)), READ_LOG))
    for sessions in (1, 100):
        found.append(Goal(f"system calls a push, {sessions_text(sessions)}", calls(figures, sessions),
                          SYSTEM_CALLS + (SYSTEM_CALLS_OF_LOG if is_log_read else 0)))
    without, with_log = calls(figures, 1), calls(figures, 1, LOG_READ)
    if not is_log_read:
        found.append(Goal("system calls a push, more with a log that is read",
                          with_log - without if None not in (with_log, without) else None, SYSTEM_CALLS_OF_LOG))
    found += spread_goals(figures, is_two_cpus)
    found.append(Goal("start to listening, 100 saved sessions", figures.cost(cost_name(START, "100 saved sessions")),
                      START_MS, "ms"))
    for sessions, limit in MEMORY_MB.items():
        mib = figures.cost(cost_name(AGENT_MEMORY, sessions_text(sessions)))
        found.append(Goal(f"memory of the agent, {sessions_text(sessions)}",
                          mib * BYTES_PER_MIB / BYTES_PER_MB if mib is not None else None, limit, "MB"))
    return found
