"""Child processes that run one function each: attackers, applications, senders and the probes that measure.

Attackers and probes must not share an interpreter, or the load of the one would show as the other's wait. A worker is
forked, not executed, so that it needs nothing that its user cannot read.
"""

import ctypes
import os
import pickle
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import time
import traceback

PR_SET_PDEATHSIG = 1
LIBC = ctypes.CDLL(None, use_errno=True)


class WorkerFailed(Exception):
    """A worker ended with an error of its own; the text is its traceback."""


def die_with_parent(parent):
    """For a child: to be killed when the process `parent` ends. Behind every change of user, which undoes it."""
    LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
    if os.getppid() != parent:
        os._exit(1)


class Control:
    """The worker's end: whether it shall stop, and what it has to say before its result."""

    def __init__(self, connection):
        self.connection = connection
        self.stopped = False

    def fileno(self):
        return self.connection.fileno()

    def is_stopped(self, wait=0.0):
        """Whether the worker shall stop now; waits so many seconds for it."""
        if not self.stopped and select.select([self.connection], [], [], max(0.0, wait))[0]:
            self.stopped = True
        return self.stopped

    def next_round(self):
        """Waits for what Worker.begin_round() was given; None when the worker shall stop."""
        kind = self.connection.recv(1)
        if kind != b"r":
            return None
        return struct.unpack("=dd", self.connection.recv(16, socket.MSG_WAITALL))

    def say(self, what):
        self.send("said", what)

    def send(self, kind, what):
        text = pickle.dumps((kind, what))
        self.connection.sendall(struct.pack("=I", len(text)) + text)


class Worker:
    """One running child."""

    running = set()
    kept = set()  # descriptors that a worker keeps beside its own

    def __init__(self, function, *arguments, niceness=0, user=None):
        self.name = function.__name__
        self.connection, theirs = socket.socketpair()
        self.said = []
        self.outcome = None
        parent = os.getpid()
        sys.stdout.flush()
        self.pid = os.fork()
        if self.pid == 0:
            self.run(theirs, parent, function, arguments, niceness, user)
        theirs.close()
        Worker.running.add(self)

    @staticmethod
    def run(theirs, parent, function, arguments, niceness, user):
        status = 1
        try:
            signal.signal(signal.SIGINT, signal.SIG_IGN)
            signal.signal(signal.SIGTERM, signal.SIG_DFL)
            # What the parent has open is not this one's to keep open.
            for descriptor in map(int, os.listdir("/proc/self/fd")):
                if descriptor > 2 and descriptor != theirs.fileno() and descriptor not in Worker.kept:
                    try:
                        os.close(descriptor)
                    except OSError:
                        pass  # that of the listing itself
            os.nice(niceness)
            if user is not None:
                os.setgroups([])
                os.setgid(user)
                os.setuid(user)
            die_with_parent(parent)
            control = Control(theirs)
            try:
                control.send("result", function(control, *arguments))
                status = 0
            except BaseException:  # whatever it was, the parent shall know
                control.send("error", traceback.format_exc())
        finally:
            os._exit(status)

    def receive(self, seconds):
        """One message of the worker as (kind, what), None when none comes in time."""
        end = time.monotonic() + seconds
        head = self.exactly(4, end)
        body = self.exactly(struct.unpack("=I", head)[0], end + 5) if head else None
        return pickle.loads(body) if body else None

    def exactly(self, count, end):
        text = b""
        while len(text) < count:
            left = max(0.0, end - time.monotonic())
            if not select.select([self.connection], [], [], left)[0]:
                return None
            part = self.connection.recv(count - len(text))
            if not part:
                raise WorkerFailed(f"{self.name} ended without a word")
            text += part
        return text

    def take(self, message):
        kind, what = message
        if kind == "error":
            self.kill()
            raise WorkerFailed(f"{self.name}: {what}")
        if kind == "result":
            self.outcome = (what,)
        else:
            self.said.append(what)

    def hear(self, seconds):
        """What the worker says next; None when it says nothing in time, or has come to its result."""
        while not self.said and self.outcome is None:
            message = self.receive(seconds)
            if message is None:
                return None
            self.take(message)
        return self.said.pop(0) if self.said else None

    def result(self, seconds):
        """The function's result. Raises when it does not come in time."""
        end = time.monotonic() + seconds
        while self.outcome is None:
            message = self.receive(max(0.0, end - time.monotonic()))
            if message is None:
                self.kill()
                raise WorkerFailed(f"{self.name}: no result within {seconds:.0f} seconds")
            self.take(message)
        self.reap()
        return self.outcome[0]

    def begin_round(self, first, second):
        self.connection.send(b"r" + struct.pack("=dd", first, second))

    def tell_to_stop(self):
        try:
            self.connection.send(b"s")
        except OSError:
            pass  # it has ended; its result says how

    def stop(self, seconds=20.0):
        self.tell_to_stop()
        return self.result(seconds)

    def reap(self):
        if self in Worker.running:
            Worker.running.discard(self)
            os.waitpid(self.pid, 0)
            self.connection.close()

    def kill(self):
        if self in Worker.running:
            os.kill(self.pid, signal.SIGKILL)
            self.reap()


def kill_all():
    for worker in list(Worker.running):
        worker.kill()


class Guard:
    """A child that cleans up when the driver is killed: ends the programs that are left, takes away the mounts, and
    removes the scratch folders; each by its own number or path, since other runs may go on beside this one.

    The agent changes its user, so the kernel does not end it together with the driver.
    """

    def __init__(self):
        reader, self.writer = os.pipe()
        os.set_inheritable(self.writer, False)
        pid = os.fork()
        if pid == 0:
            os.close(self.writer)
            os.setsid()
            for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
                signal.signal(number, signal.SIG_IGN)
            try:
                self.watch(reader)
            finally:
                os._exit(0)
        os.close(reader)
        self.pid = pid
        Worker.kept.add(self.writer)

    @staticmethod
    def watch(reader):
        left = []
        with os.fdopen(reader, encoding="utf-8") as lines:
            for line in lines:
                sign, what = line[0], line[1:].rstrip("\n")
                if sign == "+":
                    left.append(what)
                elif what in left:
                    left.remove(what)
        for what in left:
            if what.isdigit():
                try:
                    os.kill(int(what), signal.SIGKILL)
                except OSError:
                    pass
        for what in left:
            if what.startswith("/"):
                subprocess.run(["fusermount3", "-u", "-z", "-q", f"{what}/pps"], check=False)
                # Never into a mount: what lies behind it would go as well.
                if not os.path.ismount(f"{what}/pps"):
                    shutil.rmtree(what, ignore_errors=True)

    def add(self, what):
        os.write(self.writer, f"+{what}\n".encode())

    def remove(self, what):
        os.write(self.writer, f"-{what}\n".encode())

    def end(self):
        os.close(self.writer)
        os.waitpid(self.pid, 0)
