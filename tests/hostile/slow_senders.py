"""Senders whose push never comes in."""

import time

from hostile.attackers import hold_slow_senders
from hostile.device import Device
from hostile.probes import Innocents
from hostile.scenario import Scenario, attack, judge_findings, judge_waits, measure_alone, say_tried, start_crowd

PORTS = 20
CONNECTIONS = 1000


class SlowSenders(Scenario):
    name = "slow-senders"
    promise = ("1,000 silent, dripping, half-closing and resetting senders at once on 20 ports leave the requests and "
               "pushes of others at a p99 under 20 ms.")

    def run(self, context, result):
        # Short enough for silent senders to be put out, and to come back, while it is measured.
        with Device(context, ["push-timeout 3"]) as device:
            innocents = Innocents(device)
            crowd, ports = start_crowd(device, [f"attacked.{number}" for number in range(PORTS)])
            measure_alone(context, result, innocents, context.pick(3, 1))
            attackers = attack(hold_slow_senders, ports, CONNECTIONS)
            time.sleep(1)
            result.attacked = innocents.measure(context.pick(10, 2.5), grace=context.pick(6, 3))
            counts = attackers.stop()
            say_tried(result, counts, crowd.stop())
            opened = counts["open at once"]
            result.check("connections that were open at once: at least 500", opened, opened >= 500)
            judge_waits(context, result, at_least=100)
            judge_findings(result, device)
