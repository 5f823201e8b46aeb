"""Every kind of peer at once, and then nobody."""

import time

from hostile.attackers import (hold_slow_senders, leave_unanswered, push_once, register_with_dead_servers, serve_badly,
                               storm_unread, storm_with_opens)
from hostile.device import Device, wait_until
from hostile.probes import Innocents
from hostile.scenario import Scenario, attack, judge_findings, say_tried, start_crowd

PUSH_TIMEOUT_SECONDS = 1
HTTP_TIMEOUT_SECONDS = 1


class AllGone(Scenario):
    name = "all-gone"
    promise = ("When all peers have gone, their time-outs are over and each application got one more push, the agent "
               "has exactly the descriptors of before.")

    def run(self, context, result):
        settings = [f"push-timeout {PUSH_TIMEOUT_SECONDS}", f"http-timeout {HTTP_TIMEOUT_SECONDS}"]
        with Device(context, settings) as device:
            innocents = Innocents(device)
            crowd, ports = start_crowd(device, ["attacked.1", "attacked.2"])
            count = context.pick(1000, 300)
            unanswered = attack(leave_unanswered, device.ipc, device.url, ["unanswered"], device.ports, count, True)
            unanswered.hear(20)
            innocents.measure(0.3)
            before = device.descriptors()
            servers = attack(serve_badly, [["silent"], ["drip"], ["headers", "body"]])
            urls = [f"http://127.0.0.1:{port}" for port in servers.hear(10)]
            attackers = [attack(hold_slow_senders, ports, 100),
                         attack(register_with_dead_servers, device.ipc, urls, 2),
                         attack(storm_unread, device.ipc, "storm.1"), attack(storm_with_opens, device.ipc, "storm.2")]
            unanswered.begin_round(0, 0)
            unanswered.hear(20)
            time.sleep(context.pick(4, 1))
            peak = device.descriptors()
            for worker in attackers:
                worker.tell_to_stop()
            say_tried(result, *[worker.result(20) for worker in attackers], servers.stop())
            time.sleep(PUSH_TIMEOUT_SECONDS + 0.5)
            taken = attack(push_once, [*ports, device.ports()["unanswered"]]).result(30)
            result.check("one more push to each application was taken: 3", taken, taken == 3)
            say_tried(result, unanswered.stop(), crowd.stop())
            innocents.measure(0.2)
            gone = time.monotonic()
            is_back = wait_until(lambda: device.descriptors() == before,
                                 2 * PUSH_TIMEOUT_SECONDS + 2 * HTTP_TIMEOUT_SECONDS + 1)
            result.check(f"descriptors when all have gone: {before}",
                         f"{device.descriptors()} after {time.monotonic() - gone:.1f} s; {peak} under attack", is_back)
            after = innocents.measure(0.5)
            result.attacked = {f"{kind} afterwards": waits for kind, waits in after.items()}
            for kind in result.attacked:
                result.check_waits(kind, 5)
            result.check_lost()
            judge_findings(result, device)
