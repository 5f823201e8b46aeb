"""An agent with 300 descriptors and more peers than that."""

import time

from hostile.attackers import hold_slow_senders, leave_unanswered
from hostile.device import Device, innocent_user, wait_until
from hostile.probes import PUSHES, REGISTRATIONS, REQUESTS, Innocents, make_channel
from hostile.scenario import Scenario, attack, judge_findings, measure_alone, say_tried, start_crowd
from hostile.workers import Worker

LIMIT = 300
# After an accept that failed for want of descriptors the agent pauses for 100 ms.
WAIT_MS = 250


class ScarceDescriptors(Scenario):
    name = "scarce-descriptors"
    promise = ("With 300 descriptors, more senders than that who stay, and silent ones beside them, requests go on "
               "being served within 250 ms, and once the senders have gone everything works again by itself.")

    def run(self, context, result):
        with Device(context, ["push-timeout 2"], descriptor_limit=LIMIT) as device:
            innocents = Innocents(device, (REQUESTS,))
            crowd, ports = start_crowd(device, ["silent.1", "silent.2"])
            stayers = attack(leave_unanswered, device.ipc, device.url, ["hoarding.1", "hoarding.2"], device.ports, 800,
                             False)
            stayers.hear(20)
            measure_alone(context, result, innocents, context.pick(2, 0.7))
            before = device.descriptors()
            stayers.begin_round(0, 0)
            told = stayers.hear(20)
            slow = attack(hold_slow_senders, ports, 200)
            time.sleep(0.5)
            result.attacked = innocents.measure(context.pick(6, 2), grace=3)
            peak = device.descriptors()
            say_tried(result, stayers.stop(), slow.stop())
            result.notes.append(f"{told['pushes']} of 800 unanswered pushes came to their application")
            result.check_waits(REQUESTS, 50, p99_ms=WAIT_MS, is_judged=context.is_timed)
            result.check("descriptors at the most: 300", peak, 0 < peak <= LIMIT)

            gone = time.monotonic()
            is_back = wait_until(lambda: 0 < device.descriptors() <= before + 8, 2 + 1.5)
            result.notes.append(f"descriptors: {before} before, {peak} under attack, {device.descriptors()} "
                                f"{time.monotonic() - gone:.1f} s after the senders went")
            try:
                made = Worker(make_channel, device.ipc, "latecomer", device.url, user=innocent_user()).result(15)
            except Exception as error:  # whatever kept it from its channel
                made = False
                result.notes.append(f"the latecomer: {str(error)[-200:]}")
            result.check("a new application gets its channel afterwards", "yes" if made else "no", made)
            if made:
                after = Innocents(device, (REQUESTS, PUSHES, REGISTRATIONS))
                result.attacked.update({f"{kind} afterwards": waits for kind, waits in after.measure(1, 3).items()})
                for kind in (REQUESTS, PUSHES, REGISTRATIONS):
                    result.check_waits(f"{kind} afterwards", 3)
                result.check_lost()
            is_back = is_back or wait_until(lambda: 0 < device.descriptors() <= before + 16, 1)
            result.check(f"descriptors afterwards: those of before, {before}, and of the new channels",
                         device.descriptors(), is_back)
            crowd.stop()
            judge_findings(result, device)
