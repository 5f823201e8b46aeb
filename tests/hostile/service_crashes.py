"""kill -9 of the object service under a running agent."""

import signal
import time

from hostile.application import AgentGone, Application
from hostile.crashes import APPS, Life, random_moment
from hostile.device import Device, innocent_user
from hostile.scenario import Scenario, judge_findings, say_tried
from hostile.workers import Worker

BACK_SECONDS = 2
MOST_FAILURES = 3


def wait_to_be_served(control, path, seconds):
    """Asks until the agent answers. Gives the seconds that it took, None when it did not answer in time."""
    started = time.monotonic()
    while time.monotonic() - started < seconds:
        try:
            application = Application(path, patience=0.02)
        except AgentGone:
            continue
        try:
            if application.create_session("service.crash.witness", patience=0.2):
                return time.monotonic() - started
        except AgentGone:
            pass
        finally:
            application.close()
    return None


class ServiceCrashes(Scenario):
    name = "service-crashes"
    promise = ("After each of 200 kill -9 of the object service and its restart the same agent process serves again "
               "within 2 s with the same sessions and ports, and no push that was acknowledged is lost.")

    def run(self, context, result):
        rounds = context.pick(200, 20)
        with Device(context) as device:
            life = Life(device, patience=0.5)
            pid = device.agent.pid
            times, failures, killed, changed, unlistening = [], 0, 0, 0, 0
            for number in range(rounds):
                time.sleep(random_moment(context.seed, number))
                device.stop(device.ppsd, signal.SIGKILL)
                killed += 1
                device.start_ppsd()
                seconds = Worker(wait_to_be_served, device.ipc, BACK_SECONDS, user=innocent_user()).result(30)
                if seconds is None:
                    failures += 1
                else:
                    times.append(seconds)
                    changed += not all(life.saved_sessions().values())
                    unlistening += not life.all_listen(0)
                if failures >= MOST_FAILURES or device.agent.poll() is not None:
                    break
                if number % 50 == 49:
                    context.screen.detail(f"{number + 1} of {rounds} kills")
            time.sleep(0.3)
            sent, acknowledged = life.end(result, is_twice_judged=False)
            say_tried(result, {"kills of the object service": killed, "pushes meanwhile": sent})
            slowest = f", slowest {max(times) * 1000:.0f} ms" if times else ""
            result.check(f"restarts of the object service after which the agent served within {BACK_SECONDS} s: {rounds}",
                         f"{len(times)} of {killed}{slowest}", killed == rounds and len(times) == rounds)
            result.check(f"of these, without all {len(APPS)} sessions saved: 0", changed, bool(times) and changed == 0)
            result.check("of these, with a port that did not listen: 0", unlistening, bool(times) and unlistening == 0)
            result.check("the agent is the same process", "yes" if device.agent.poll() is None else "no",
                         device.agent.poll() is None and device.agent.pid == pid)
            result.check(f"pushes acknowledged meanwhile: at least {rounds}", acknowledged, acknowledged >= rounds)
            judge_findings(result, device)
