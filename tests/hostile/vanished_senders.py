"""Senders that wait for an answer that never comes, and go."""

import time

from hostile.attackers import send_and_stay
from hostile.device import Device, wait_until
from hostile.measure import Waits
from hostile.probes import PUSHES, REQUESTS, Innocents
from hostile.scenario import Scenario, attack, judge_findings, judge_waits, say_tried, start_crowd

PUSH_TIMEOUT_SECONDS = 2
SLACK_SECONDS = 1.5


def vanish(context, result, label, limit, count, seconds):
    """The same with and without a descriptor limit. Gives the innocents' waits."""
    with Device(context, [f"push-timeout {PUSH_TIMEOUT_SECONDS}"], descriptor_limit=limit) as device:
        innocents = Innocents(device)
        crowd, ports = start_crowd(device, ["unanswering"])
        base = innocents.measure(context.pick(2, 0.7))
        for kind, waits in base.items():
            result.baseline.setdefault(kind, Waits()).add(waits)
        before = device.descriptors()
        innocents.begin(seconds, grace=3)
        senders = attack(send_and_stay, ports, count, 64, True)
        told = senders.hear(60) or {"pushes": 0, "failed": count, "seconds": 60.0}
        peak = device.descriptors()
        say_tried(result, {f"senders vanished after their push{label}": told["pushes"]})
        result.notes.append(f"{told['pushes']} pushes taken{label} in {told['seconds']:.1f} s, {told['failed']} not; "
                            f"descriptors {before} before, {peak} then")
        result.check(f"pushes of vanishing senders that were taken{label}: {count}", told["pushes"],
                     told["pushes"] == count)
        gone = time.monotonic()
        # The innocent sender has a few connections open at any moment.
        is_back = wait_until(lambda: 0 < device.descriptors() <= before + 8, PUSH_TIMEOUT_SECONDS + SLACK_SECONDS)
        found = innocents.finish()
        seconds_back = time.monotonic() - gone
        if not is_back:
            again = attack(send_and_stay, ports, 1, 1, True)
            again.hear(10)
            again.result(10)
            time.sleep(0.5)
            result.notes.append(f"after one more push to the same application{label}: {device.descriptors()} descriptors")
        at_end = device.descriptors()
        result.check(f"descriptors back at the baseline of {before} within {PUSH_TIMEOUT_SECONDS} s and a little{label}",
                     f"{at_end} after {seconds_back:.1f} s", is_back)
        senders.result(10)
        crowd.stop()
        judge_findings(result, device)
        return found


class VanishedSenders(Scenario):
    name = "vanished-senders"
    promise = ("Senders that vanish by the thousand after their push, which nobody answers, cost no descriptor longer "
               "than push-timeout, and others are served at a p99 under 20 ms meanwhile, also with 300 descriptors.")

    def run(self, context, result):
        count = context.pick(5000, 1000)
        found = vanish(context, result, "", None, count, context.pick(9, 5))
        low = vanish(context, result, " (300 descriptors)", 300, count, context.pick(9, 5))
        for kind in (REQUESTS, PUSHES):
            result.attacked[kind] = found[kind]
            result.attacked[f"{kind}, 300 descriptors"] = low[kind]
        judge_waits(context, result, 100, (REQUESTS, PUSHES))
        judge_waits(context, result, 100, (f"{REQUESTS}, 300 descriptors", f"{PUSHES}, 300 descriptors"))
