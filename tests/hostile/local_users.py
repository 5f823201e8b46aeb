"""A local user that takes all it can of the object service, in every way at once."""

import os
import resource
import time

from hostile.device import ATTACKER_USER, INNOCENT_USER, Device, is_root
from hostile.local_attackers import (REFUSED, WITHIN_SHARES, ask_and_never_read, ask_once, open_and_close, poll_many,
                                     read_halves, use_everything, write_objects)
from hostile.probes import REQUESTS, Innocents
from hostile.scenario import Scenario, Skipped, attack, judge_findings, measure_alone, say_tried
from hostile.workers import Worker

REQUEST_MS = 10
RESIDENT_MIB = 150
SYNC_MS = 10
STORMS = 3
WRITERS = 10
POLLED = 10000
HALF_READ = 2000


class LocalUsers(Scenario):
    name = "local-users"
    promise = ("A local user that opens and closes in three loops, writes ten objects on a slow disk, polls 10,000 "
               "descriptors of an object that changes, never reads its answers and keeps 2,000 half-read descriptors of a "
               "large object, all at once, leaves the requests of another user at a p99 under 10 ms; the object "
               "service stays under 150 MiB, and refuses nothing but the attacker what is past its share.")

    def run(self, context, result):
        if not is_root():
            raise Skipped("only root can be two other users, and root itself has no share")
        if context.preset != "release":
            raise Skipped("no library can be preloaded before a sanitizer's; the preset release tries it")
        if resource.getrlimit(resource.RLIMIT_NOFILE)[1] < POLLED + 100:
            raise Skipped(f"a process may not have the {POLLED:,} descriptors that are to be polled")
        slow = {"LD_PRELOAD": f"{context.library}/quil_preload_slow_sync.so", "QUIL_SYNC_MILLISECONDS": str(SYNC_MS)}
        with Device(context, preload=slow) as device:
            self.attack(context, result, device)

    def attack(self, context, result, device):
        folders = {user: self.make_folder(device, user) for user in (ATTACKER_USER, INNOCENT_USER)}
        innocents = Innocents(device, (REQUESTS,))
        measure_alone(context, result, innocents, context.pick(3, 1))
        its_own = folders[ATTACKER_USER]
        holders = [attack(poll_many, its_own, POLLED), attack(read_halves, its_own, HALF_READ)]
        held = [holder.hear(60) or 0 for holder in holders]
        attackers = [*holders, attack(write_objects, its_own, WRITERS), attack(ask_and_never_read, device.ipc, "unread"),
                     *[attack(open_and_close, device.ipc) for _ in range(STORMS)]]
        bystander = Worker(use_everything, device.ipc, folders[INNOCENT_USER], user=INNOCENT_USER)
        time.sleep(context.pick(2, 0.5))
        result.attacked = innocents.measure(context.pick(10, 2.5), grace=context.pick(5, 2))
        its_users = bystander.stop(60)
        for attacker in attackers:
            attacker.tell_to_stop()
        counts = [attacker.result(60) for attacker in attackers]
        is_answered = attack(ask_once, device.ipc, "unread").result(20)

        say_tried(result, *counts, its_users)
        result.check(f"descriptors that the attacker holds: {POLLED:,} polled, {HALF_READ:,} half-read",
                     f"{held[0]:,}, {held[1]:,}", held == [POLLED, HALF_READ])
        result.check_waits(REQUESTS, 100, p99_ms=REQUEST_MS, is_judged=context.is_timed)
        peak = device.peak_memory_mib(device.ppsd)
        result.check(f"memory of the object service at the most: under {RESIDENT_MIB} MiB", f"{peak:.0f} MiB",
                     peak < RESIDENT_MIB)
        refused = {name: number for name, number in its_users.items() if not name.startswith("rounds")}
        result.check("refused to the innocent: nothing", refused or "nothing", not refused)
        result.check("the innocent's own: at least 3 rounds", its_users["rounds of the innocent's own"],
                     its_users["rounds of the innocent's own"] >= 3)
        others = {name for count in counts for name in count if name.startswith(REFUSED)} - WITHIN_SHARES
        result.check("refused to the attacker: only what is past its share", ", ".join(sorted(others)) or "only that",
                     not others)
        result.check("a request of the attacker's is answered afterwards", "yes" if is_answered else "no", is_answered)
        judge_findings(result, device)

    @staticmethod
    def make_folder(device, user):
        folder = device.path(f"/pps/user{user}")
        os.mkdir(folder, 0o755)
        os.chown(folder, user, user)
        return folder
