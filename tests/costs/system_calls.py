"""How many system calls the agent and the object service make, by strace on the running programs."""

import os
import signal
import subprocess

from costs.unlogged_device import CannotCount, device_with_peer, need
from costs.peer import DEEDS, PATIENCE_SECONDS, repeat
from hostile.device import wait_until
from hostile.workers import die_with_parent

# Attaching and letting go add a call here and there, which then is a hundredth.
TIMES = 200


class Trace:
    """Counts the calls of one program, all threads, from now on."""

    def __init__(self, device, process, name):
        self.output = device.path(f"/{name}.calls")
        self.log = f"/{name}.strace"
        parent = os.getpid()
        with open(device.path(self.log), "wb") as log:
            self.tracer = subprocess.Popen(["strace", "-f", "-c", "-o", self.output, "-p", str(process.pid)],
                                           stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                           preexec_fn=lambda: die_with_parent(parent))
        wait_until(lambda: self.has_all_threads_of(process.pid) or self.tracer.poll() is not None)
        if self.tracer.poll() is not None or not self.has_all_threads_of(process.pid):
            self.abandon()
            raise CannotCount(f"strace: {device.read(self.log).strip()}")

    def has_all_threads_of(self, pid):
        for thread in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{thread}/status", encoding="ascii") as file:
                if f"TracerPid:\t{self.tracer.pid}\n" not in file:
                    return False
        return True

    def end(self):
        """The calls since it began, by name."""
        self.tracer.send_signal(signal.SIGINT)
        self.tracer.wait(PATIENCE_SECONDS)
        calls = {}
        with open(self.output, encoding="utf-8") as file:
            for line in file:
                fields = line.split()  # share, seconds, microseconds a call, calls, errors if there were any, name
                if len(fields) >= 5 and fields[3].isdigit() and fields[-1] != "total":
                    calls[fields[-1]] = int(fields[3])
        return calls

    def abandon(self):
        if self.tracer.poll() is None:
            self.tracer.kill()
            self.tracer.wait()


def count(context, sessions):
    """By deed and program: the calls of each name, for one of the deed."""
    need("strace")
    found = {}
    with device_with_peer(context, sessions) as (device, peer):
        for name, deed in DEEDS.items():
            traces = {}
            try:
                traces["agent"] = Trace(device, device.agent, "agent")
                traces["ppsd"] = Trace(device, device.ppsd, "ppsd")
                repeat(deed, peer, TIMES)
                found[name] = {program: {call: times / TIMES for call, times in trace.end().items()}
                               for program, trace in traces.items()}
            finally:
                for trace in traces.values():
                    trace.abandon()
    return found
