"""The rounds: everything that is timed, one after the other, and that over again, so that what the machine does beside
it meets all of them."""

from bench.stack.figures import ANSWER, APPLICATION, CLOSES, FLOOR, RATE, REPLY, WAITS, name_of
from bench.stack.subjects import Bus, Floor, Mosquitto

SIZE = 1024
SIZES = (0, 1024, 4096, 11517)
SENDERS = (1, 4, 16)
LOG_READ, TWO_CPUS = "log read", "two CPUs"


def sessions_text(count):
    return f"{count} session{'' if count == 1 else 's'}"


def size_text(size):
    return f"{size:,} bytes"


def senders_text(count):
    return f"{count} sender{'' if count == 1 else 's'}"


def add_pushes(figures, subject, *conditions, waiting=None, closing=None, has_floor=True):
    """Notes down one round of pushes, as multiples of the floor under the same load."""
    for mode, got in ((CLOSES, closing), (WAITS, waiting)):
        if got:
            figures.add(name_of(subject, APPLICATION, *conditions, mode), got[APPLICATION],
                        name_of(FLOOR, APPLICATION, mode) if has_floor else None)
    if waiting:
        figures.add(name_of(subject, ANSWER, *conditions), waiting[ANSWER],
                    name_of(FLOOR, ANSWER) if has_floor else None)


class Rounds:
    def __init__(self, context, count, figures):
        self.context = context
        self.count = count  # of pushes, of each kind and round
        self.figures = figures
        self.mosquitto = bool(Mosquitto.program())
        self.bus = Bus(context)
        if not self.mosquitto:
            figures.miss("mosquitto: not installed (Debian package mosquitto)")
        if not self.bus.is_there():
            figures.miss("dbus-daemon: not installed (Debian packages dbus, libsystemd-dev)")

    def measure(self, turn, agents, agent_with_log):
        """One round. `agents` are those of which each has another number of sessions, the smallest first."""
        self.measure_floor()
        self.measure_peers()
        for agent in agents:
            add_pushes(self.figures, "agent", sessions_text(agent.sessions),
                       closing=agent.load("close", self.count, SIZE, turn=turn),
                       waiting=agent.load("wait", self.count, SIZE, turn=turn))
            self.figures.add(name_of("agent", REPLY, sessions_text(agent.sessions)),
                             agent.load("request", self.count, SIZE, turn=turn)[REPLY], name_of(FLOOR, REPLY))
        if agent_with_log:
            add_pushes(self.figures, "agent", sessions_text(agent_with_log.sessions), LOG_READ,
                       closing=agent_with_log.load("close", self.count, SIZE, turn=turn),
                       waiting=agent_with_log.load("wait", self.count, SIZE, turn=turn))
        self.measure_sizes(agents[0], turn)
        self.measure_senders(agents[-1], turn)

    def measure_two_cpus(self, turn, agent):
        """One round in which the kernel may place the programs where it likes."""
        with Floor(self.context) as floor:
            for subject, where, conditions in ((FLOOR, floor, ()), ("agent", agent, (sessions_text(agent.sessions),))):
                for mode, word in ((CLOSES, "close"), (WAITS, "wait")):
                    got = where.load(word, self.count, SIZE, turn=turn)
                    self.figures.add(name_of(subject, APPLICATION, *conditions, TWO_CPUS, mode), got[APPLICATION],
                                     name_of(FLOOR, APPLICATION, TWO_CPUS, mode) if subject != FLOOR else None)

    def measure_floor(self):
        with Floor(self.context) as floor:
            add_pushes(self.figures, FLOOR, has_floor=False, closing=floor.load("close", self.count, SIZE),
                       waiting=floor.load("wait", self.count, SIZE))
            self.figures.add(name_of(FLOOR, REPLY), floor.load("request", self.count, SIZE)[REPLY])

    def measure_peers(self):
        if self.mosquitto:
            for connection in ("new", "kept"):
                with Mosquitto(self.context) as broker:
                    self.figures.add(name_of("mosquitto", APPLICATION, f"{connection} connection"),
                                     broker.load(self.count, SIZE, connection)[APPLICATION],
                                     name_of(FLOOR, APPLICATION, WAITS))
        if self.bus.is_there():
            self.figures.add(name_of("dbus-daemon", REPLY), self.bus.load(self.count, SIZE)[REPLY],
                             name_of(FLOOR, REPLY))

    def measure_sizes(self, agent, turn):
        for size in SIZES:
            with Floor(self.context) as floor:
                for subject, got in ((FLOOR, floor.load("wait", self.count, size)),
                                     ("agent", agent.load("wait", self.count, size, turn=turn))):
                    for measure in (APPLICATION, ANSWER):
                        self.figures.add(name_of(subject, measure, size_text(size)), got[measure],
                                         name_of(FLOOR, measure, size_text(size)) if subject != FLOOR else None)

    def measure_senders(self, agent, turn):
        for senders in SENDERS:
            with Floor(self.context) as floor:
                for subject, got in ((FLOOR, floor.load("senders", self.count, SIZE, senders)),
                                     ("agent", agent.load("senders", self.count, SIZE, senders, turn))):
                    self.figures.add(name_of(subject, RATE, senders_text(senders)), got[RATE],
                                     name_of(FLOOR, RATE, senders_text(senders)) if subject != FLOOR else None)
