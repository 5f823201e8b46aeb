"""What is measured: the floor, the peers, and the agent with its object service. Each starts its own programs."""

import json
import os
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import time

from hostile.application import Application
from hostile.device import Device, DeviceFailed, listening_ports, wait_until
from hostile.log_socket import OwnLogSocket
from hostile.workers import Worker, die_with_parent

LOAD_SECONDS = 120


class LoadFailed(Exception):
    """A load program lost something, or came to no end."""


def run_load(context, program, *words, under=()):
    """Runs a load program to its end; gives what it printed."""
    parent = os.getpid()
    command = [*under, f"{context.programs}/{program}", *map(str, words)]
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=LOAD_SECONDS,
                          check=False, preexec_fn=lambda: die_with_parent(parent))
    if done.returncode != 0:
        raise LoadFailed(f"{' '.join(command[:6])} ...: exit status {done.returncode}: {done.stderr.strip()}")
    return json.loads(done.stdout)


class Program:
    """A program that runs beside a measurement, and ends with it."""

    def __init__(self, context, *command, output=subprocess.DEVNULL):
        parent = os.getpid()
        self.guard = context.guard
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.DEVNULL,
                                        text=True, preexec_fn=lambda: die_with_parent(parent))
        self.guard.add(self.process.pid)

    def end(self):
        self.process.terminate()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        if self.process.stdout:
            self.process.stdout.close()
        self.guard.remove(self.process.pid)


class Floor:
    """A bare relay over a minimal object service."""

    def __init__(self, context):
        self.context = context
        self.root = tempfile.mkdtemp(prefix="quilbench.")
        context.guard.add(self.root)
        self.folder = f"{self.root}/pps"  # where the guard looks for a mount
        os.mkdir(self.folder)
        self.programs = []

    def __enter__(self):
        try:
            self.programs.append(Program(self.context, f"{self.context.programs}/bench_floor_service", self.folder))
            if not wait_until(lambda: os.path.ismount(self.folder)):
                raise DeviceFailed("the floor's object service did not start")
            relay = Program(self.context, f"{self.context.programs}/bench_floor_relay", self.folder,
                            output=subprocess.PIPE)
            self.programs.append(relay)
            self.port = int(relay.process.stdout.readline())
        except BaseException:
            self.__exit__()
            raise
        return self

    def load(self, mode, count, size, senders=1, turn=0):
        """`turn` is for what lives longer than a round."""
        return run_load(self.context, "bench_load", f"{self.folder}/ipc", mode, count, size, "127.0.0.1",
                        *(f"a{number}={self.port}" for number in range(senders)))

    def __exit__(self, *_):
        for program in reversed(self.programs):
            program.end()
        if os.path.ismount(self.folder):
            subprocess.run(["fusermount3", "-u", "-z", "-q", self.folder], check=False)
        shutil.rmtree(self.root, ignore_errors=True)
        self.context.guard.remove(self.root)


class Mosquitto:
    """A broker that keeps nothing on disk and lets everybody in."""

    def __init__(self, context):
        self.context = context

    @staticmethod
    def program():
        return shutil.which("mosquitto") or shutil.which("mosquitto", path="/usr/sbin")

    def __enter__(self):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.port = probe.getsockname()[1]
        with tempfile.NamedTemporaryFile("w", prefix="quilbench.", suffix=".conf") as file:
            os.chmod(file.name, 0o644)
            file.write(f"listener {self.port} 127.0.0.1\nallow_anonymous true\nlog_dest none\n")
            file.flush()
            self.broker = Program(self.context, self.program(), "-c", file.name)
            if not wait_until(lambda: self.port in listening_ports()):
                self.broker.end()
                raise DeviceFailed("mosquitto did not start")
        return self

    def load(self, count, size, connection):
        return run_load(self.context, "bench_mqtt_load", self.port, count, size, connection)

    def __exit__(self, *_):
        self.broker.end()


class Bus:
    """A dbus-daemon of one's own for each run."""

    def __init__(self, context):
        self.context = context

    def is_there(self):
        return bool(shutil.which("dbus-run-session")) and os.path.exists(f"{self.context.programs}/bench_bus_load")

    def load(self, count, size):
        return run_load(self.context, "bench_bus_load", count, size, under=["dbus-run-session", "--"])


def read_log(control, log):
    """Takes lines as the log's service would, and gives their number."""
    count = 0
    log.setsockopt(socket.SOL_SOCKET, socket.SO_RCVTIMEO, struct.pack("ll", 0, 300000))
    while True:
        try:
            log.recv(65536)
            count += 1
        except BlockingIOError:
            if control.is_stopped():
                return count


class MeasuredDevice(Device):
    # The kernel shares the processor among sessions first: in one of their own, the programs would lose against the
    # rest of the machine where the floor does not.
    has_own_sessions = False


class Agent:
    """A device whose agent has sessions, each with a channel. Its system log is read, or not there."""

    def __init__(self, context, sessions, is_log_read=False):
        self.context = context
        self.sessions = sessions
        self.is_log_read = is_log_read
        self.log = self.reader = None
        # Where the machine has no log, nothing has to be hidden.
        if is_log_read or os.path.exists("/dev/log"):
            self.log = OwnLogSocket(context.guard, is_log_read)
        self.device = MeasuredDevice(context, before_agent=self.log.enter if self.log else None)
        self.apps = [f"a{number}" for number in range(sessions)]
        self.ports = {}

    def __enter__(self):
        try:
            if self.is_log_read:
                Worker.kept.add(self.log.socket.fileno())
                self.reader = Worker(read_log, self.log.socket)
            if not self.device.agent_under:
                # As an installed service has it; a program that runs the agent says there what it saw.
                os.symlink(os.devnull, self.device.path("/agent.log"))
            self.device.__enter__()
            application = Application(self.device.ipc)
            for app in self.apps:
                if not application.create_session(app) or not application.create_channel(app, self.device.url):
                    raise DeviceFailed(f"no channel for {app}")
            application.close()
            self.ports = self.device.ports()
            if not wait_until(self.is_listening):
                raise DeviceFailed("the agent does not listen on all ports")
        except BaseException:
            self.__exit__()
            raise
        return self

    def is_listening(self):
        return set(self.ports.values()) <= listening_ports()

    def load(self, mode, count, size, senders=1, turn=0):
        """`turn` gives each round an address of its own, as a port that a sender closed first is taken for a minute."""
        apps = self.apps[-senders:]
        return run_load(self.context, "bench_load", self.device.ipc, mode, count, size, f"127.0.0.{turn % 250 + 1}",
                        *(f"{app}={self.ports[app]}" for app in apps))

    def restart(self):
        """Starts the agent anew; gives the milliseconds until it listens on every port of the saved sessions."""
        self.device.stop(self.device.agent)
        wait_until(lambda: not set(self.ports.values()) & listening_ports())
        begin = time.monotonic()
        self.device.start_agent()
        if not wait_until(self.is_listening, pause=0.0005):
            raise DeviceFailed("the agent does not listen on the ports of its saved sessions")
        took = (time.monotonic() - begin) * 1000
        self.device.wait_for_agent()
        return took

    def end_agent(self):
        """Ends the agent, so that a program that runs it says what it saw; gives what stands in its log."""
        self.device.stop(self.device.agent, signal.SIGTERM)
        return self.device.read("/agent.log")

    def __exit__(self, *_):
        self.device.clean_up()
        if self.reader is not None:
            self.lines = self.reader.stop()
            self.reader = None
        if self.log is not None:
            if self.log.socket.fileno() in Worker.kept:
                Worker.kept.remove(self.log.socket.fileno())
            self.log.close()
