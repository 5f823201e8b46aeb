"""Measures the floor, the peers and the agent side by side, and says what came of it."""

import argparse
import contextlib
import os
import signal
import subprocess
import sys
import time

from bench.stack import costs, report
from bench.stack.documents import Documents
from bench.stack.figures import Figures
from bench.stack.goals import goals
from bench.stack.latencies import SENDERS, Rounds
from bench.stack.subjects import Agent
from hostile.device import Context
from hostile.report import Screen
from hostile.workers import Guard, kill_all

SESSIONS = [1, 10, 50, 100, 200]
QUICK_SESSIONS = [1, 100]
SAVED_SESSIONS = 100
# Many short rounds: what is compared is measured within a few seconds.
ROUNDS, QUICK_ROUNDS = 21, 5
COUNT, QUICK_COUNT = 600, 500


def arguments_of(words):
    parser = argparse.ArgumentParser(prog="scripts/bench stack", description="Measures pushes and requests through "
                                     "agent and object service, side by side with a floor and with peers.")
    parser.add_argument("--quick", action="store_true", help="a shorter form, under a minute")
    parser.add_argument("--two-cpus", action="store_true", help="let the kernel place the programs; otherwise all of "
                        "them share one CPU, where figures repeat")
    parser.add_argument("--log", action="store_true", help="give every agent a system log that is read")
    parser.add_argument("--rounds", type=int, metavar="N", help="how often everything is measured")
    parser.add_argument("--count", type=int, metavar="N", help="how many pushes of each kind and round")
    parser.add_argument("--json", metavar="FILE", help="write all figures to FILE")
    parser.add_argument("--docs", action="store_true", help="write the tables and charts of docs/performance/")
    parser.add_argument("--no-build", action="store_true", help="use what is built")
    return parser.parse_args(words)


class Run:
    def __init__(self, arguments, context):
        self.context = context
        self.figures = Figures()
        self.is_quick = arguments.quick
        self.is_two_cpus = arguments.two_cpus
        self.is_log_read = arguments.log
        self.rounds = max(1, arguments.rounds or (QUICK_ROUNDS if arguments.quick else ROUNDS))
        # At least one push of each of the most senders.
        self.count = max(max(SENDERS), arguments.count or (QUICK_COUNT if arguments.quick else COUNT))
        self.sessions = QUICK_SESSIONS if arguments.quick else SESSIONS
        self.cpus = os.sched_getaffinity(0)

    def measure(self):
        if not self.is_two_cpus:
            os.sched_setaffinity(0, {min(self.cpus)})
        rounds = Rounds(self.context, self.count, self.figures)
        with contextlib.ExitStack() as stack:
            self.context.screen.say(f"starting agents with {', '.join(map(str, self.sessions))} sessions")
            agents = [stack.enter_context(Agent(self.context, count, self.is_log_read)) for count in self.sessions]
            agent_with_log = self.agent_with_log(stack)
            for turn in range(self.rounds):
                self.context.screen.say(f"round {turn + 1} of {self.rounds}")
                rounds.measure(turn, agents, agent_with_log)
            self.context.screen.say("memory and system calls")
            for agent in (agents[0], agents[-1]):
                costs.measure_memory(self.figures, agent)
            by_count = {agent.sessions: agent for agent in agents}
            costs.measure_calls(self.figures, [by_count[1], by_count[SAVED_SESSIONS]], agent_with_log)
            self.context.screen.say("starts")
            costs.measure_start(self.figures, by_count[SAVED_SESSIONS])
        if not self.is_quick:
            self.context.screen.say("instructions")
            costs.measure_instructions(self.context, self.figures)
        else:
            self.figures.miss("instructions: not with --quick")
        self.measure_two_cpus(rounds)

    def agent_with_log(self, stack):
        try:
            return stack.enter_context(Agent(self.context, 1, True))
        except subprocess.SubprocessError as error:
            self.figures.miss(f"a log that is read: no mount namespace with a /dev/log of its own here: {error}")
            return None

    def measure_two_cpus(self, rounds):
        if self.is_two_cpus:
            return
        if len(self.cpus) < 2:
            self.figures.miss("two CPUs: there is one")
            return
        os.sched_setaffinity(0, self.cpus)
        self.context.screen.say("on two CPUs")
        with Agent(self.context, 1, self.is_log_read) as agent:
            for turn in range(self.rounds):
                rounds.measure_two_cpus(turn, agent)


def main(words, source):
    arguments = arguments_of(words)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    guard = Guard()
    screen = Screen()
    context = Context(os.path.join(source, "build", "release", "bin"), None, "release", arguments.quick, guard, screen)
    run = Run(arguments, context)
    screen.say(f"{os.cpu_count()} processors, load {os.getloadavg()[0]:.1f}")
    facts = {"date": time.strftime("%-d %B %Y"), "rounds": run.rounds, "count": run.count, "two_cpus": run.is_two_cpus,
             "log": run.is_log_read, "processors": os.cpu_count(), "load": os.getloadavg()[0]}
    try:
        run.measure()
    except KeyboardInterrupt:
        return 130
    finally:
        kill_all()
        guard.end()
    judged = goals(run.figures, run.is_two_cpus, run.is_log_read)
    report.print_table(run.figures, judged, screen)
    if arguments.json:
        report.write_json(arguments.json, run.figures, judged, facts)
    if arguments.docs:
        Documents(os.path.join(source, "docs", "performance"), run.figures, judged, facts, run.sessions).write()
    screen.say("done")
    return 0
