"""Runs the scenarios that were asked for, one after the other, and says what came of them."""

import argparse
import os
import signal
import sys
import time

from hostile import report, scenarios
from hostile.device import Context, Device
from hostile.measure import Result
from hostile.scenario import Skipped
from hostile.workers import Guard, Worker, kill_all


def arguments_of(words):
    parser = argparse.ArgumentParser(prog="scripts/hostile", description="Attacks a real agent with its real peers, "
                                     "and says whether others had to wait.")
    parser.add_argument("names", nargs="*", metavar="NAME", help="scenarios to run; all when none is named")
    parser.add_argument("--short", action="store_true", help="a shorter form, of at most a minute")
    parser.add_argument("--list", action="store_true", help="name the scenarios and what each checks")
    parser.add_argument("--preset", default="release", choices=["release", "asan", "tsan"])
    parser.add_argument("--json", metavar="FILE", help="write all figures to FILE")
    parser.add_argument("--markdown", metavar="FILE", help="write the table of docs/reliability.md to FILE")
    parser.add_argument("--million", action="store_true", help="instead: the memory of an agent over a million pushes")
    parser.add_argument("--pushes", type=int, metavar="N", help="with --million: so many instead")
    parser.add_argument("--slack", type=float, default=1.0, metavar="FACTOR",
                        help="judge waits by so many times what is promised, where the machine is not one's own")
    parser.add_argument("--no-build", action="store_true", help="use what is built")
    parser.add_argument("--seed", type=int, help="for what is chosen at random")
    return parser.parse_args(words)


def run_one(scenario, context):
    """A scenario's result; an exception is a broken promise, with the exception as its reason."""
    result = Result(scenario.name, scenario.promise)
    started = time.monotonic()
    try:
        scenario.run(context, result)
    except Skipped as skipped:
        result.skipped = str(skipped)
    except Exception as error:  # a broken agent must not keep the others from being tried
        result.check("the scenario came to its end", f"{type(error).__name__}: {str(error)[-1500:]}", False)
    result.seconds = time.monotonic() - started
    return result


def run_beside(control, scenario, context):
    """In a worker of its own, with ports of its own."""
    Worker.running.clear()
    Device.corner = 50
    return run_one(scenario, context)


def run_all(chosen, context, screen):
    beside = {}
    results = {}
    for scenario in chosen:
        if scenario.runs_beside and len(chosen) > 1:
            screen.say(f"{scenario.name}: goes on beside the others")
            beside[scenario] = Worker(run_beside, scenario, context)
    for scenario in chosen:
        if scenario in beside:
            continue
        screen.say(f"{scenario.name}: {scenario.promise}")
        before = set(Worker.running)
        results[scenario] = run_one(scenario, context)
        for worker in set(Worker.running) - before:
            worker.kill()
        screen.verdict(results[scenario])
    for scenario, worker in beside.items():
        results[scenario] = worker.result(120)
        screen.verdict(results[scenario])
    return [results[scenario] for scenario in chosen]


def main(words, source):
    arguments = arguments_of(words)
    known = scenarios.ALL
    if arguments.list:
        for scenario in known:
            print(f"{scenario.name:<20}{scenario.promise}")
        return 0
    unknown = set(arguments.names) - {scenario.name for scenario in known}
    if unknown:
        print(f"hostile: no such scenario: {', '.join(sorted(unknown))}; --list names them", file=sys.stderr)
        return 2
    chosen = [scenario for scenario in known if not arguments.names or scenario.name in arguments.names]
    if arguments.million:
        chosen = [scenarios.million(arguments.pushes)]

    build = os.path.join(source, "build", arguments.preset)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    seed = arguments.seed if arguments.seed is not None else time.time_ns() % 1000000
    guard = Guard()
    screen = report.Screen()
    context = Context(os.path.join(build, "bin"), os.path.join(build, "lib"), arguments.preset, arguments.short, guard,
                      screen)
    context.seed = seed
    Result.slack = arguments.slack
    screen.say(f"preset {arguments.preset}, {os.cpu_count()} processors, load {os.getloadavg()[0]:.1f}, seed {seed}")
    started = time.monotonic()
    try:
        results = run_all(chosen, context, screen)
    except KeyboardInterrupt:
        return 130
    finally:
        kill_all()
        guard.end()
    seconds = time.monotonic() - started
    report.print_table(results, screen)
    report.print_summary(results, seconds, screen)
    if arguments.json:
        report.write_json(arguments.json, results, {
            "preset": arguments.preset, "short": arguments.short, "seed": seed, "seconds": round(seconds, 1),
            "processors": os.cpu_count(), "load": os.getloadavg()[0]})
    if arguments.markdown:
        report.write_markdown(arguments.markdown, results)
    return 0 if all(result.verdict != "FAIL" for result in results) else 1
