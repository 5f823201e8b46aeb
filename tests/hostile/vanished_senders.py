"""Senders that wait for an answer that never comes, and go."""

from hostile.attackers import leave_unanswered, push_once
from hostile.device import Device, wait_until
from hostile.probes import PUSHES, REQUESTS, Innocents
from hostile.scenario import Scenario, attack, judge_findings, judge_waits, measure_alone, say_tried

SLACK_SECONDS = 0.5
AT_ANY_MOMENT = 8  # descriptors for the pushes of the innocents that are on their way


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
        innocents.begin(seconds, grace=3)
        senders.begin_round(0, 0)
        told = senders.hear(40)
        peak = device.descriptors()
        result.notes.append(f"{told['pushes']} pushes came to their application{label} in {told['seconds']:.1f} s; "
                            f"descriptors {before} before, {peak} then")
        result.check(f"pushes of vanishing senders that came to their application{label}: {count}", told["pushes"],
                     told["pushes"] == count)
        # The innocent sender has a few connections open at any moment.
        is_back = wait_until(lambda: 0 < device.descriptors() <= before + AT_ANY_MOMENT, timeout + SLACK_SECONDS)
        result.check(f"descriptors back at the baseline of {before} without any further push{label}",
                     device.descriptors(), is_back, is_judged=False)
        attack(push_once, [device.ports()[app] for app in apps]).result(20)
        # That push waits as well, and its connection is kept.
        most = before + len(apps) + AT_ANY_MOMENT
        is_back = wait_until(lambda: 0 < device.descriptors() <= most, SLACK_SECONDS)
        result.check(f"descriptors back at the baseline of {before}, push-timeout after the senders went and one more "
                     f"push to each application{label}", device.descriptors(), is_back)
        found = innocents.finish()
        say_tried(result, {f"senders vanished after their push{label}": told["pushes"]})
        judge_findings(result, device)
        return found


class VanishedSenders(Scenario):
    name = "vanished-senders"
    promise = ("Senders that vanish by the thousand after their push, which nobody answers, cost no descriptor beyond "
               "push-timeout and the next push to their application, and others are served at a p99 under 20 ms "
               "meanwhile, also with 300 descriptors.")

    def run(self, context, result):
        count = context.pick(3000, 1000)
        found = vanish(context, result, "", None, count, context.pick(9, 3.5))
        low = vanish(context, result, " (300 descriptors)", 300, count, context.pick(9, 3.5))
        for kind in (REQUESTS, PUSHES):
            result.attacked[kind] = found[kind]
            result.attacked[f"{kind}, 300 descriptors"] = low[kind]
        judge_waits(context, result, 100, (REQUESTS, PUSHES))
        judge_waits(context, result, 100, (f"{REQUESTS}, 300 descriptors", f"{PUSHES}, 300 descriptors"))
