"""A log socket that nobody reads."""

import contextlib
import ctypes
import os
import shutil
import socket
import subprocess
import tempfile
import time

from hostile.device import Device, DeviceFailed, is_root
from hostile.probes import Innocents
from hostile.scenario import Scenario, Skipped, judge_findings, judge_waits, measure_alone
from hostile.workers import LIBC

CLONE_NEWNS, CLONE_NEWUSER = 0x20000, 0x10000000
MS_BIND, MS_REC, MS_PRIVATE = 4096, 16384, 1 << 18
DEVICES = ["null", "zero", "full", "random", "urandom", "fuse"]


def call(result):
    if result != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


class OwnLogSocket:
    """A /dev of the agent's own, in which "log" is a socket of this process."""

    def __init__(self, guard):
        self.guard = guard
        self.folder = tempfile.mkdtemp(prefix="quilhostile-dev.")
        guard.add(self.folder)
        os.chmod(self.folder, 0o755)
        for name in DEVICES:
            open(f"{self.folder}/{name}", "wb").close()
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(f"{self.folder}/log")
        os.chmod(f"{self.folder}/log", 0o666)

    def enter(self):
        """In the child that becomes the agent: puts the folder in the place of /dev, for it alone."""
        user, group = os.getuid(), os.getgid()
        call(LIBC.unshare(CLONE_NEWNS if is_root() else CLONE_NEWNS | CLONE_NEWUSER))
        if user != 0:
            for name, text in (("setgroups", "deny"), ("uid_map", f"{user} {user} 1"), ("gid_map", f"{group} {group} 1")):
                with open(f"/proc/self/{name}", "w", encoding="ascii") as file:
                    file.write(text)
        call(LIBC.mount(b"none", b"/", None, MS_REC | MS_PRIVATE, None))
        for name in DEVICES:
            if os.path.exists(f"/dev/{name}"):
                call(LIBC.mount(f"/dev/{name}".encode(), f"{self.folder}/{name}".encode(), None, MS_BIND, None))
        call(LIBC.mount(self.folder.encode(), b"/dev", None, MS_BIND, None))

    def lines_waiting(self):
        """What the agent has written and nobody read; reads it."""
        count = 0
        self.socket.setblocking(False)
        try:
            while self.socket.recv(65536):
                count += 1
        except BlockingIOError:
            return count

    def close(self):
        self.socket.close()
        shutil.rmtree(self.folder, ignore_errors=True)
        self.guard.remove(self.folder)


class SilentLog(Scenario):
    name = "silent-log"
    promise = "A log socket that nobody reads leaves requests and pushes at a p99 under 20 ms."

    def run(self, context, result):
        log = OwnLogSocket(context.guard)
        try:
            self.attack(context, result, log)
        finally:
            log.close()

    def attack(self, context, result, log):
        # Everything is logged, so that the socket is full at once.
        with Device(context, agent_arguments=["-v", "-v"]) as device:
            innocents = Innocents(device)
            measure_alone(context, result, innocents, context.pick(3, 1))
        with contextlib.ExitStack() as stack:
            try:
                device = stack.enter_context(Device(context, agent_arguments=["-v", "-v"], before_agent=log.enter))
            except subprocess.SubprocessError as error:
                raise Skipped(f"no mount namespace with a /dev/log of its own here: {error}") from error
            except DeviceFailed:
                result.tried = f"a log socket full with {log.lines_waiting()} unread lines"
                result.check("the agent starts", "no", False)
                return
            # Full before anybody is timed, and never read.
            time.sleep(0.3)
            innocents = Innocents(device)
            result.attacked = innocents.measure(context.pick(6, 2.5), grace=context.pick(4, 3))
            waiting = log.lines_waiting()
            result.tried = f"a log socket full with {waiting} unread lines"
            result.check("lines in the log socket: at least 1", waiting, waiting > 0)
            judge_waits(context, result, at_least=100)
            judge_findings(result, device)
