"""Power cuts of the object service's store."""

import json
import os
import random
import shutil
import signal
import time

from hostile.device import Device
from hostile.power_cut_model import Disk, JournalWriter, lay_out, read_back, read_journal
from hostile.scenario import Scenario, Skipped
from hostile.workers import Worker

WRITERS = 4
GONE = "gone"
EMPTY = "empty"  # made, and not yet written to


def payload(number):
    return f"{number:06}" * (number * 37 % 400 + 1)


def write_object(path, number):
    """One write of the whole object, as any application does it."""
    file = os.open(path, os.O_WRONLY | os.O_CREAT, 0o644)
    try:
        os.write(file, f"n::{number}\npayload::{payload(number)}\n".encode())
    finally:
        os.close(file)


def write_always(control, tree, journal, name):
    """Writes, makes, moves and removes objects in a folder of its own, and notes what it begins and what is done: a
    dictionary of paths and the numbers that the objects there hold afterwards."""
    notes = JournalWriter(journal)
    state = {}
    number = 0

    def change(then, *steps):
        notes.add("begin", name, then)
        for step in steps:
            step()
        notes.add("done", name, then)
        state.update(then)

    os.mkdir(f"{tree}/{name}")
    while not control.is_stopped():
        for letter in "abc":
            number += 1
            path = f"{name}/{letter}"
            change({path: number}, lambda: write_object(f"{tree}/{path}", number))
        # One object in the place of another.
        change({f"{name}/a": GONE, f"{name}/b": state[f"{name}/a"]},
               lambda: os.rename(f"{tree}/{name}/a", f"{tree}/{name}/b"))
        number += 1
        inner = f"{name}/folder{number % 3}"
        change({f"{inner}/x": number}, lambda: os.mkdir(f"{tree}/{inner}"),
               lambda: write_object(f"{tree}/{inner}/x", number))
        change({f"{inner}/x": GONE}, lambda: os.unlink(f"{tree}/{inner}/x"), lambda: os.rmdir(f"{tree}/{inner}"))
    return number


def promised_at(entries):
    """What each path has to hold according to what the writers noted: path to the numbers that are right there. More
    than one where a change was under way. And, for each move under way, the number that must not get lost with the
    paths that may hold it."""
    state, under_way = {}, {}
    for kind, who, what in entries:
        if kind == "begin":
            under_way[who] = json.loads(what)
        elif kind == "done":
            state.update(json.loads(what))
            under_way.pop(who, None)
    right = {path: {number} for path, number in state.items()}
    moves = []
    for then in under_way.values():
        for path, number in then.items():
            before = state.get(path, GONE)
            right[path] = {before, number} | ({EMPTY} if before == GONE else set())
        if len(then) == 2:
            source = next(path for path, number in then.items() if number == GONE)
            moves.append((state[source], sorted(then)))
    return right, moves


def parse_object(text):
    """The number in an object's text; EMPTY without one, and the text itself when it is a mixture."""
    lines = dict(line.split("::", 1) for line in text.splitlines() if "::" in line)
    if "n" not in lines and "payload" not in lines:
        return EMPTY
    number = lines.get("n", "")
    is_whole = number.isdecimal() and lines.get("payload") == payload(int(number))
    return int(number) if is_whole else f"a mixture: {text[:60]!r}"


def lost_of(right, moves, read):
    """What is not as promised, as texts; `read` gives an object's text, None when it is not there."""
    found = {path: GONE if (text := read(path)) is None else parse_object(text) for path in right}
    lost = [f"{path} holds {found[path]}, not {' or '.join(sorted(map(str, numbers)))}"
            for path, numbers in right.items() if found[path] not in numbers]
    lost += [f"{number} is in none of {paths}" for number, paths in moves
             if number not in [found.get(path) for path in paths]]
    return lost


def read_image(image):
    """Reads objects from a disk as it lies there, without a service."""
    def read(path):
        data = image.get(f"tree/{path}")
        return None if data is None else data.decode(errors="replace").partition("\n\n")[2]
    return read


def read_mount(folder):
    def read(path):
        try:
            with open(f"{folder}/{path}", encoding="utf-8") as file:
                return file.read()
        except FileNotFoundError:
            return None
    return read


def count_done(journal):
    """About how many writes have returned; the journal is still being written."""
    with open(journal, "rb") as file:
        return file.read().count(b"done ")


class PowerCuts(Scenario):
    name = "power-cuts"
    promise = ("After each of 100 power cuts that leave of the store only what was synced, every object whose write "
               "had returned holds its last complete write.")

    def run(self, context, result):
        preload = f"{context.library}/quil_preload_power_cut.so"
        if context.preset != "release":
            raise Skipped("no library can be preloaded before a sanitizer's; the preset release tries it")
        chance = random.Random(context.seed)
        device = Device(context)
        try:
            entries = self.record(context, result, device, preload)
            self.check_model(result, device, entries)
            self.check_controls(result, entries, random.Random(context.seed))
            self.cut(context, result, device, entries, chance)
        finally:
            device.clean_up()

    @staticmethod
    def record(context, result, device, preload):
        """A service at work, until it is killed in the middle of it. Gives the journal."""
        store, journal = device.path("/var/lib/ppsd"), device.path("/journal")
        device.preload = {"LD_PRELOAD": preload, "QUIL_JOURNAL": journal, "QUIL_JOURNAL_FOLDER": store}
        device.start_ppsd()
        writers = [Worker(write_always, device.path("/pps"), journal, f"writer{number}") for number in range(WRITERS)]
        started = time.monotonic()
        time.sleep(context.pick(4, 0.8))
        # As long as it takes where the disk is slow, within bounds.
        while count_done(journal) < context.pick(1000, 200) and time.monotonic() - started < 20:
            time.sleep(0.1)
        for writer in writers:
            writer.tell_to_stop()
        written = sum(writer.result(20) for writer in writers)
        device.stop(device.ppsd, signal.SIGKILL)
        entries = read_journal(journal)
        result.notes.append(f"{written:,} writes by {WRITERS} writers, {len(entries):,} entries in the journal, "
                            f"{sum(kind == 'sync' for kind, _, _ in entries):,} of them syncs")
        result.check("writes recorded: at least 100", written, written >= 100)
        return entries

    @staticmethod
    def check_model(result, device, entries):
        """Nothing may have changed the store unseen."""
        disk = Disk()
        disk.replay(entries)
        expected, seen = disk.now(), read_back(device.path("/var/lib/ppsd"))
        different = [path for path in {*expected, *seen} if expected.get(path, 0) != seen.get(path, 0)]
        result.check("files in which the journal and the disk differ: 0", f"{len(different)} {different[:3] or ''}".strip(),
                     not different)

    @staticmethod
    def check_controls(result, entries, chance):
        """On disks that forget syncs something has to get lost, or the cuts would prove nothing."""
        for honours, name in ((("file",), "folders"), (("folder",), "files")):
            with_losses = 0
            for _ in range(20):
                at = chance.randrange(len(entries) // 2, len(entries) + 1)
                disk = Disk(honours)
                disk.replay(entries[:at])
                with_losses += bool(lost_of(*promised_at(entries[:at]), read_image(disk.after_cut(chance))))
            result.check(f"control, cuts with losses on a disk that ignores syncs of {name}: at least 1",
                         f"{with_losses} of 20", with_losses > 0)

    @staticmethod
    def cut(context, result, device, entries, chance):
        cuts = context.pick(100, 10)
        first = next(number for number, (kind, _, _) in enumerate(entries) if kind == "done")
        store = device.path("/var/lib/ppsd")
        device.preload = None
        checked, with_losses, damaged, losses = 0, 0, 0, []
        for number in range(cuts):
            at = chance.randrange(first, len(entries) + 1)
            disk = Disk()
            disk.replay(entries[:at])
            shutil.rmtree(store)
            lay_out(disk.after_cut(chance), store)
            device.start_ppsd()
            right, moves = promised_at(entries[:at])
            lost = lost_of(right, moves, read_mount(device.path("/pps")))
            # The service has to go on on what is left.
            after = device.path(f"/pps/after{number}")
            write_object(after, number + 1)
            if parse_object(read_mount(device.path("/pps"))(f"after{number}") or "") != number + 1:
                lost.append("a new object, written after the cut")
            device.stop(device.ppsd)
            checked += len(right)
            with_losses += bool(lost)
            damaged += os.path.isdir(f"{store}/damaged")
            losses += [f"cut at entry {at}: {text}" for text in lost]
            if number % 25 == 24:
                context.screen.detail(f"{number + 1} of {cuts} cuts")
        result.tried = f"{cuts} power cuts, {checked:,} objects compared after them"
        result.check("cuts after which an object was lost, old, torn or mixed: 0",
                     f"{with_losses} of {cuts} {losses[:2] if losses else ''}".strip(), with_losses == 0)
        result.check("cuts after which a record was damaged: 0", damaged, damaged == 0)
