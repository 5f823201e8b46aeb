"""A system log of the agent's own, whatever the machine has."""

import ctypes
import os
import shutil
import socket
import tempfile

from hostile.device import is_root
from hostile.workers import LIBC

CLONE_NEWNS, CLONE_NEWUSER = 0x20000, 0x10000000
MS_BIND, MS_REC, MS_PRIVATE = 4096, 16384, 1 << 18
DEVICES = ["null", "zero", "full", "random", "urandom", "fuse"]


def call(result):
    if result != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


class OwnLogSocket:
    """A /dev of the agent's own, in which "log" is a socket of this process, or is not there at all."""

    def __init__(self, guard, is_there=True):
        self.guard = guard
        self.folder = tempfile.mkdtemp(prefix="quilhostile-dev.")
        guard.add(self.folder)
        os.chmod(self.folder, 0o755)
        for name in DEVICES:
            open(f"{self.folder}/{name}", "wb").close()
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(f"{self.folder}/log")
        os.chmod(f"{self.folder}/log", 0o666)
        if not is_there:
            os.unlink(f"{self.folder}/log")

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
