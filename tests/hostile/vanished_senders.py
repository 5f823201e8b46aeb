"""Senders that wait for an answer that never comes, and go."""

import time

from hostile.attackers import leave_unanswered
from hostile.device import Device, wait_until
from hostile.probes import PUSHES, REQUESTS, Innocents
from hostile.scenario import Scenario, attack, judge_findings, judge_waits, measure_alone, say_tried

SLACK_SECONDS = 1.5


def vanish(context, result, label, limit, count, seconds):
    """The same with and without a descriptor limit. Gives the innocents' waits."""
    timeout = context.pick(2, 1)
    with Device(context, [f"push-timeout {timeout}"], descriptor_limit=limit) as device:
        innocents = Innocents(device)
        # One application may take half of the descriptors, so with few of them there is one.
        apps = [f"unanswering.{number}" for number in range(4 if limit is None else 1)]
        senders = attack(leave_unanswered, device.ipc, device.url, apps, device.ports, count, True)
        senders.hear(20)
        measure_alone(context, result, innocents, context.pick(2, 0.5))
        before = device.descriptors()
        innocents.begin(seconds, grace=3)  # to the end: it is at a push that the dead are let go
        senders.begin_round(0, 0)
        told = senders.hear(40)
        peak = device.descriptors()
        result.notes.append(f"{told['pushes']} pushes came to their application{label} in {told['seconds']:.1f} s; "
                            f"descriptors {before} before, {peak} then")
        result.check(f"pushes of vanishing senders that came to their application{label}: {count}", told["pushes"],
                     told["pushes"] == count)
        gone = time.monotonic()
        # The innocent sender has a few connections open at any moment.
        is_back = wait_until(lambda: 0 < device.descriptors() <= before + 8, timeout + SLACK_SECONDS)
        seconds_back = time.monotonic() - gone
        at_end = device.descriptors()
        result.check(f"descriptors back at the baseline of {before} within {timeout} s and a little{label}",
                     f"{at_end} after {seconds_back:.1f} s", is_back)
        found = innocents.finish()
        say_tried(result, {f"senders vanished after their push{label}": told["pushes"]})
        judge_findings(result, device)
        return found


class VanishedSenders(Scenario):
    name = "vanished-senders"
    promise = ("Senders that vanish by the thousand after their push, which nobody answers, cost no descriptor longer "
               "than push-timeout, and others are served at a p99 under 20 ms meanwhile, also with 300 descriptors.")

    def run(self, context, result):
        count = context.pick(3000, 1000)
        found = vanish(context, result, "", None, count, context.pick(12, 6))
        low = vanish(context, result, " (300 descriptors)", 300, count, context.pick(12, 6))
        for kind in (REQUESTS, PUSHES):
            result.attacked[kind] = found[kind]
            result.attacked[f"{kind}, 300 descriptors"] = low[kind]
        judge_waits(context, result, 100, (REQUESTS, PUSHES))
        judge_waits(context, result, 100, (f"{REQUESTS}, 300 descriptors", f"{PUSHES}, 300 descriptors"))
