"""What a push costs that is counted rather than timed, and what the agent needs while nothing is pushed."""

import os
import re
import shutil
import signal
import statistics
import subprocess

from bench.stack.latencies import LOG_READ, SIZE, sessions_text
from bench.stack.subjects import Agent
from hostile.device import wait_until
from hostile.workers import die_with_parent

PUSHES = 500
FEW_PUSHES = 100
STARTS = 9
MODES = {"close": "sender closes", "wait": "sender waits"}

CALLS, INSTRUCTIONS = "system calls a push", "instructions a push"
START, AGENT_MEMORY, SERVICE_MEMORY = "start to listening", "memory of the agent", "memory of the object service"


def cost_name(what, *conditions):
    return f"{what}, {', '.join(conditions)}"


def is_traced(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as file:
        return any(line.startswith("TracerPid:") and line.split()[1] != "0" for line in file)


def calls_of(agent, mode):
    """System calls of the agent for each push; None where strace may not look."""
    output = agent.device.path("/calls")
    parent = os.getpid()
    pid = agent.device.agent.pid
    tracer = subprocess.Popen(["strace", "-f", "-c", "-o", output, "-p", str(pid)], stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              preexec_fn=lambda: die_with_parent(parent))
    try:
        if not wait_until(lambda: tracer.poll() is not None or is_traced(pid)) or tracer.poll() is not None:
            return None
        # To its last thread.
        wait_until(lambda: False, 0.5)
        agent.load(mode, PUSHES, SIZE)
    finally:
        tracer.send_signal(signal.SIGINT)
        tracer.wait(10)
    with open(output, encoding="utf-8") as file:
        calls = [int(line.split()[3]) for line in file if re.match(r"\s*[\d.]+\s+[\d.]+\s+\d+\s+\d+", line) and
                 line.split()[-1] != "total"]
    return sum(calls) / PUSHES if calls else None


def measure_calls(figures, agents, agent_with_log):
    if not shutil.which("strace"):
        figures.miss("system calls: strace is not installed (Debian package strace)")
        return
    chosen = [(agent, [sessions_text(agent.sessions)]) for agent in agents]
    if agent_with_log:
        chosen.append((agent_with_log, [sessions_text(agent_with_log.sessions), LOG_READ]))
    for agent, conditions in chosen:
        for mode, text in MODES.items():
            calls = calls_of(agent, mode)
            if calls is None:
                figures.miss("system calls: strace may not look at the agent here")
                return
            figures.add_cost(cost_name(CALLS, *conditions, text), calls, "")


def instructions_of(context, mode, pushes):
    """All instructions of an agent from its start to its end."""
    agent = Agent(context, 1)
    # There already, and everybody's to write: the agent changes its user between the begin of the file and its end.
    output = agent.device.path("/findings/instructions")
    open(output, "wb").close()
    os.chmod(output, 0o666)
    agent.device.agent_under = ["valgrind", "--vgdb=no", "--tool=callgrind", f"--callgrind-out-file={output}"]
    with agent:
        agent.load(mode, pushes, SIZE)
        found = re.search(r"Collected : (\d+)", agent.end_agent())
        return int(found.group(1)) if found else None


def measure_instructions(context, figures):
    if not shutil.which("valgrind"):
        figures.miss("instructions: valgrind is not installed (Debian package valgrind)")
        return
    for mode, text in MODES.items():
        few, many = (instructions_of(context, mode, count) for count in (FEW_PUSHES, FEW_PUSHES + PUSHES))
        if few is None or many is None:
            figures.miss("instructions: valgrind counted nothing")
            return
        figures.add_cost(cost_name(INSTRUCTIONS, sessions_text(1), text), (many - few) / PUSHES, "")


def measure_memory(figures, agent):
    conditions = sessions_text(agent.sessions)
    figures.add_cost(cost_name(AGENT_MEMORY, conditions), agent.device.memory_kib() / 1024, "MiB")
    figures.add_cost(cost_name(SERVICE_MEMORY, conditions), agent.device.memory_kib(agent.device.ppsd) / 1024, "MiB")


def measure_start(figures, agent):
    took = [agent.restart() for _ in range(STARTS)]
    figures.add_cost(cost_name(START, f"{agent.sessions} saved sessions"), statistics.median(took), "ms")
