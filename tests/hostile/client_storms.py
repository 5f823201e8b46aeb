"""Applications that storm the agent's object."""

import time

from hostile.attackers import storm_unread, storm_with_opens, storm_with_writes
from hostile.device import Device
from hostile.probes import Innocents
from hostile.scenario import Scenario, attack, judge_findings, judge_waits, measure_alone, say_tried

STORMS = [storm_unread, storm_with_writes, storm_with_opens]


class ClientStorms(Scenario):
    name = "client-storms"
    promise = ("Applications that never read, write as fast as they can, or open and close in a storm leave the "
               "requests and pushes of others at a p99 under 20 ms.")

    def run(self, context, result):
        with Device(context) as device:
            innocents = Innocents(device)
            measure_alone(context, result, innocents, context.pick(3, 1))
            storms = [attack(function, device.ipc, f"storm.{number}.{function.__name__}")
                      for number in range(2) for function in STORMS]
            time.sleep(0.5)
            result.attacked = innocents.measure(context.pick(8, 2.5), grace=context.pick(5, 2))
            for storm in storms:
                storm.tell_to_stop()
            say_tried(result, *[storm.result(20) for storm in storms])
            judge_waits(context, result, at_least=100)
            judge_findings(result, device)
