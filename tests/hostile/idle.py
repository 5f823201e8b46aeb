"""An agent that nobody asks for anything."""

import os
import shutil
import subprocess
import time

from hostile.device import Device
from hostile.probes import Innocents
from hostile.scenario import Scenario, judge_findings
from hostile.workers import die_with_parent

SETTLE_SECONDS = 1.0  # for what the last peers left, and for what attaching itself does


def switches(pid):
    """How often each thread has waited or was put aside: a thread that makes a call which waits does so."""
    found = {}
    for thread in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{thread}/status", encoding="ascii") as file:
            found[thread] = [line for line in file if "ctxt_switches" in line]
    return found


def calls_by_trace(device, seconds):
    """The system calls in so many seconds, as strace shows them; None where it may not look."""
    output = device.path("/calls")
    parent = os.getpid()
    tracer = subprocess.Popen(["strace", "-f", "-ttt", "-o", output, "-p", str(device.agent.pid)],
                              stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
                              preexec_fn=lambda: die_with_parent(parent))
    try:
        # The lines for what is under way while it attaches belong to nobody.
        time.sleep(SETTLE_SECONDS)
        if tracer.poll() is not None:
            return None
        begin = time.time()
        time.sleep(seconds)
        end = time.time()
    finally:
        tracer.terminate()
        tracer.communicate(timeout=10)
    with open(output, encoding="utf-8", errors="replace") as file:
        lines = [line.rstrip() for line in file]
    if not lines:
        return None
    return [line for line in lines if begin <= float(line.split()[1]) <= end]


class Idle(Scenario):
    name = "idle"
    promise = "An agent with a session, a channel and a connected application that nobody asks anything makes no system call."
    runs_beside = True

    def run(self, context, result):
        seconds = context.pick(60, 5)
        # The thread sanitizer has a thread of its own, which wakes ten times a second.
        is_judged = context.preset != "tsan"
        with Device(context) as device:
            innocents = Innocents(device)
            innocents.measure(0.3)
            time.sleep(SETTLE_SECONDS)
            calls = calls_by_trace(device, seconds) if shutil.which("strace") else None
            if calls is not None:
                result.tried = f"{seconds} s under strace, all threads"
                result.check(f"system calls in {seconds} s: 0", f"{len(calls)} {calls[:2] if calls else ''}".strip(),
                             not calls, is_judged)
            else:
                before = switches(device.agent.pid)
                time.sleep(seconds)
                after = switches(device.agent.pid)
                changed = sum(before.get(thread) != lines for thread, lines in after.items())
                result.tried = f"{seconds} s by the context switches of all {len(after)} threads; strace is not to be had"
                result.check(f"threads that ran in {seconds} s: 0", changed, changed == 0, is_judged)
            # It was idle and not dead.
            alive = innocents.measure(0.3)
            result.attacked = {f"{kind} afterwards": waits for kind, waits in alive.items()}
            for kind in result.attacked:
                result.check_waits(kind, 5)
            result.check_lost()
            judge_findings(result, device)
