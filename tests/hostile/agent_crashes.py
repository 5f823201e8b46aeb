"""kill -9 of the agent."""

import signal
import time

from hostile.crashes import Life, random_moment
from hostile.device import Device
from hostile.scenario import Scenario, judge_findings, say_tried

BACK_SECONDS = 2
MOST_FAILURES = 3


class AgentCrashes(Scenario):
    name = "agent-crashes"
    promise = ("After each of 200 kill -9 of the agent at random moments every saved session listens again, no push "
               "is delivered twice, and none is lost whose sender was acknowledged.")

    def run(self, context, result):
        rounds = context.pick(200, 20)
        with Device(context) as device:
            life = Life(device, patience=0.5)
            slowest, failures, killed = 0.0, 0, 0
            for number in range(rounds):
                time.sleep(random_moment(context.seed, number))
                device.stop(device.agent, signal.SIGKILL)
                killed += 1
                started = time.monotonic()
                device.start_agent()
                is_back = life.all_listen(BACK_SECONDS)
                slowest = max(slowest, time.monotonic() - started)
                failures += not is_back
                if failures >= MOST_FAILURES:
                    break
                if number % 50 == 49:
                    context.screen.detail(f"{number + 1} of {rounds} kills")
            time.sleep(0.3)
            sent, acknowledged = life.end(result)
            say_tried(result, {"kills of the agent": killed, "pushes meanwhile": sent})
            result.check(f"restarts after which all {len(life.ports)} saved sessions listened within {BACK_SECONDS} s: "
                         f"{rounds}", f"{killed - failures} of {killed}, slowest {slowest * 1000:.0f} ms",
                         killed == rounds and failures == 0)
            result.check(f"pushes acknowledged meanwhile: at least {rounds}", acknowledged, acknowledged >= rounds)
            judge_findings(result, device)
