"""A log socket that nobody reads."""

import contextlib
import subprocess
import time

from hostile.device import Device, DeviceFailed
from hostile.log_socket import OwnLogSocket
from hostile.probes import Innocents
from hostile.scenario import Scenario, Skipped, judge_findings, judge_waits, measure_alone


class SilentLog(Scenario):
    name = "silent-log"
    promise = "A log socket that nobody reads leaves requests and pushes at a p99 under 20 ms."

    def run(self, context, result):
        log = OwnLogSocket(context.guard)
        try:
            self.attack(context, result, log)
        finally:
            log.close()

    def attack(self, context, result, log):
        # Everything is logged, so that the socket is full at once.
        with Device(context, agent_arguments=["-v", "-v"]) as device:
            innocents = Innocents(device)
            measure_alone(context, result, innocents, context.pick(3, 1))
        with contextlib.ExitStack() as stack:
            try:
                device = stack.enter_context(Device(context, agent_arguments=["-v", "-v"], before_agent=log.enter))
            except subprocess.SubprocessError as error:
                raise Skipped(f"no mount namespace with a /dev/log of its own here: {error}") from error
            except DeviceFailed:
                result.tried = f"a log socket full with {log.lines_waiting()} unread lines"
                result.check("the agent starts", "no", False)
                return
            # Full before anybody is timed, and never read.
            time.sleep(0.3)
            innocents = Innocents(device)
            result.attacked = innocents.measure(context.pick(6, 2.5), grace=context.pick(4, 3))
            waiting = log.lines_waiting()
            result.tried = f"a log socket full with {waiting} unread lines"
            result.check("lines in the log socket: at least 1", waiting, waiting > 0)
            judge_waits(context, result, at_least=100)
            judge_findings(result, device)
