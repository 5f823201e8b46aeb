"""A million pushes, and what the agent's memory and descriptors do meanwhile."""

import csv
import os
import resource
import time

from hostile import svg
from hostile.device import Device, innocent_user, wait_until
from hostile.probes import make_channel
from hostile.scenario import Scenario, judge_findings
from hostile.workers import Worker

SESSIONS = 50
AT_ONCE = 100
WARM_UP_SHARE = 0.01
GROWTH = 1.10
FOLDER = "docs/reliability"


class Million(Scenario):
    name = "million-pushes"
    promise = ("A million pushes with and without answers over 50 sessions leave the agent's memory within 10 % of "
               "what it was behind the first hundredth, and its descriptors at the baseline.")

    def __init__(self, pushes=None):
        self.pushes = pushes or 1000000

    def run(self, context, result):
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 4096), hard))
        with Device(context) as device:
            apps = [f"app.{number}" for number in range(SESSIONS)]
            for app in apps:
                if not Worker(make_channel, device.ipc, app, device.url, user=innocent_user()).result(20):
                    raise RuntimeError(f"no channel for {app}")
            ports = device.ports()
            before = device.descriptors()
            samples, end = self.push(context, device, [f"{app}={ports[app]}" for app in apps])
            self.judge(context, result, device, before, samples, end)
            if context.preset == "release":
                self.write_down(context, result, samples)
            judge_findings(result, device)
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))

    def push(self, context, device, words):
        """Runs the load. Gives the samples (pushes, seconds, KiB, descriptors, processor seconds) and its last counts."""
        load = device.start("hostile_load", device.ipc, str(self.pushes), str(AT_ONCE), *words, log="load.log")
        started = shown = time.monotonic()
        samples = [(0, 0.0, device.memory_kib(), device.descriptors(), device.processor_seconds())]
        done = 0
        while load.poll() is None:
            time.sleep(0.2)
            lines = device.read("/load.log").splitlines()
            if lines and lines[-1].startswith("at "):
                done = int(lines[-1].split()[1])
                samples.append((done, time.monotonic() - started, device.memory_kib(), device.descriptors(),
                                device.processor_seconds()))
            if time.monotonic() - shown > 5:
                shown = time.monotonic()
                context.screen.detail(f"{done:,} of {self.pushes:,} pushes, {samples[-1][2]:,} KiB, "
                                      f"{samples[-1][3]} descriptors")
        lines = device.read("/load.log").splitlines()
        if not lines or not lines[-1].startswith("end "):
            raise RuntimeError(f"the load came to no end: {lines[-3:]}")
        end = [int(word) for word in lines[-1].split()[1:]]
        samples.append((end[0], time.monotonic() - started, device.memory_kib(), device.descriptors(),
                        device.processor_seconds()))
        return samples, end

    def judge(self, context, result, device, before, samples, end):
        done, delivered, acknowledged, refused = end
        result.tried = (f"{done:,} pushes to {SESSIONS} sessions in {samples[-1][1]:.0f} s, {delivered:,} delivered, "
                        f"{acknowledged:,} acknowledged")
        result.also_lost = max(0, self.pushes - delivered)
        result.check(f"pushes delivered: {self.pushes:,}", f"{delivered:,}", delivered == self.pushes)
        result.check("pushes that came back otherwise than they should: 0", refused, refused == 0)
        warm = next(sample for sample in samples if sample[0] >= done * WARM_UP_SHARE)
        most = max(sample[2] for sample in samples if sample[0] >= warm[0])
        result.check(f"memory behind the first hundredth, {warm[2]:,} KiB, and at the most: within 10 %",
                     f"{most:,} KiB, {most / warm[2] * 100 - 100:+.1f} %", most <= warm[2] * GROWTH, context.is_timed)
        is_back = wait_until(lambda: device.descriptors() == before, 3)
        result.check(f"descriptors at the end: {before}", device.descriptors(), is_back)
        seconds = samples[-1][4] - samples[0][4]
        result.notes.append(f"processor time of the agent: {seconds:.1f} s, {seconds / max(done, 1) * 1e6:.0f} us a push")

    def write_down(self, context, result, samples):
        folder = f"{context.source}/{FOLDER}"
        os.makedirs(folder, exist_ok=True)
        with open(f"{folder}/memory_over_pushes.csv", "w", encoding="utf-8", newline="") as file:
            writer = csv.writer(file, lineterminator="\n")
            writer.writerow(["pushes", "seconds", "resident_kib", "descriptors"])
            writer.writerows([pushes, f"{seconds:.1f}", kib, count] for pushes, seconds, kib, count, _ in samples)
        svg.draw(f"{folder}/memory_over_pushes.svg", f"The agent over {samples[-1][0]:,} pushes to {SESSIONS} sessions",
                 "pushes", [sample[0] for sample in samples],
                 svg.Axis("resident memory, KiB", "#1f5fa8", [sample[2] for sample in samples]),
                 svg.Axis("descriptors", "#b0452a", [sample[3] for sample in samples]))
        result.notes.append(f"written: {FOLDER}/memory_over_pushes.csv and .svg")
