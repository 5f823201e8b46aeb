"""What all scenarios have in common."""

from hostile.attackers import NICENESS, run_crowd
from hostile.device import Device, attacker_user
from hostile.measure import Waits
from hostile.probes import PUSHES, REQUESTS, Innocents
from hostile.workers import Worker

P99_MS = 20  # promised to innocent requests and pushes
REGISTRATION_MS = 200  # promised to an innocent registration


class Skipped(Exception):
    """The scenario cannot be tried on this machine; the text says why."""


class Scenario:
    name = ""
    promise = ""  # in one sentence
    runs_beside = False  # its device has to be left alone for a long time: it runs beside all others

    def run(self, context, result):
        raise NotImplementedError


def measure_alone(context, result, innocents, seconds):
    """The innocents' waits before the attack. A machine that is too busy with other things to tell anything gets a few
    chances to calm down; whatever it then is, promises are judged in full."""
    for _ in range(context.pick(4, 2)):
        found = innocents.measure(seconds)
        worst = max(waits.figures()["p99"] or 0 for waits in found.values())
        if worst < P99_MS / 2 or not context.is_timed:
            break
    else:
        result.notes.append(f"slow before the attack already: a p99 of {worst:.1f} ms with nobody attacking")
    for kind, waits in found.items():
        result.baseline.setdefault(kind, Waits()).add(waits)


def attack(function, *arguments):
    return Worker(function, *arguments, niceness=NICENESS, user=attacker_user())


def start_crowd(device, apps):
    """Applications of the attacker, with channels; the worker and their ports."""
    crowd = attack(run_crowd, device.ipc, device.url, apps)
    if crowd.hear(30) is not True:
        raise RuntimeError("the attacked applications got no channels")
    given = device.ports()
    return crowd, [given[app] for app in apps]


def say_tried(result, *counts):
    """Adds what attackers counted, dictionaries of name and number, to what was tried."""
    total = {}
    for count in counts:
        for name, number in (count or {}).items():
            total[name] = total.get(name, 0) + number
    text = ", ".join(f"{number:,} {name}" for name, number in total.items() if number)
    result.tried = ", ".join(filter(None, [result.tried, text]))


def judge_waits(context, result, at_least, kinds=(REQUESTS, PUSHES)):
    """The promise that most scenarios share."""
    for kind in kinds:
        result.check_waits(kind, at_least, p99_ms=P99_MS, is_judged=context.is_timed)
    if PUSHES in kinds:
        result.check_lost()


def judge_findings(result, device):
    """What a sanitizer found breaks any promise."""
    found = device.findings()
    if found:
        result.notes.append("the first finding of a sanitizer: " + found[0][:3000])
        result.check("findings of the sanitizers: 0", len(found), False)


__all__ = ["Device", "Innocents", "Scenario", "Skipped", "attack", "judge_findings", "judge_waits", "measure_alone", "say_tried",
           "start_crowd", "P99_MS", "REGISTRATION_MS"]
