"""Push data servers that take a registration and never bring it to an end."""

import time

from hostile.attackers import register_with_dead_servers, serve_badly
from hostile.device import Device
from hostile.probes import PUSHES, REGISTRATIONS, REQUESTS, Innocents
from hostile.scenario import REGISTRATION_MS, Scenario, attack, judge_findings, judge_waits, measure_alone, say_tried

APPS_PER_SERVER = 6


class DeadServers(Scenario):
    name = "dead-servers"
    promise = ("Three push data servers at once that stay silent, drip, or never come to an end, with six applications "
               "at each, leave an innocent registration under 200 ms, and requests and pushes at a p99 under 20 ms.")

    def run(self, context, result):
        with Device(context, ["http-timeout 5"]) as device:
            innocents = Innocents(device, (REQUESTS, PUSHES, REGISTRATIONS))
            measure_alone(context, result, innocents, context.pick(3, 1))
            servers = attack(serve_badly, [["silent"], ["drip"], ["headers", "body"]])
            urls = [f"http://127.0.0.1:{port}" for port in servers.hear(10)]
            victims = attack(register_with_dead_servers, device.ipc, urls, APPS_PER_SERVER)
            victims.hear(10)
            time.sleep(0.5)
            # Longer than a registration may take, so that those come in again that were given up.
            result.attacked = innocents.measure(context.pick(9, 2.5), grace=context.pick(6, 3))
            say_tried(result, servers.stop(), victims.stop())
            judge_waits(context, result, at_least=100)
            result.check_waits(REGISTRATIONS, context.pick(20, 5), max_ms=REGISTRATION_MS, is_judged=context.is_timed)
            judge_findings(result, device)
