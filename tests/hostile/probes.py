"""Innocent peers that measure how long they wait. Each runs as a worker of its own.

A probe keeps to a timetable, whether it is answered or not, and counts each wait from the moment at which its turn was
due. So a second in which nobody is served counts for everybody who came in it, not for one.
"""

import select
import socket
import time

from hostile.application import AgentGone, Application
from hostile.device import innocent_user
from hostile.measure import Waits
from hostile.workers import Worker, WorkerFailed

ACKNOWLEDGEMENT_BYTES = 72
MOST_AT_ONCE = 32
REQUEST_INTERVAL_SECONDS = 0.005
PUSH_INTERVAL_SECONDS = 0.010
REGISTRATION_INTERVAL_SECONDS = 0.25


def make_push(push_id, data=b"hello"):
    head = f"POST /x HTTP/1.1\r\nContent-Length: {len(data)}\r\nPush-Message-ID: {push_id}\r\n\r\n"
    return head.encode() + data


class Timetable:
    """When turns are due, and how long those took that are over."""

    def __init__(self, seconds, interval):
        self.started = time.monotonic()
        self.end = self.started + seconds
        self.interval = interval
        self.turns = 0
        self.waits = Waits()

    def next_due(self):
        return self.started + self.turns * self.interval

    def is_due(self, now):
        return self.next_due() <= now and self.next_due() < self.end

    def is_over(self):
        """Whether no turn is left. One whose moment was slept through is taken all the same."""
        return self.next_due() >= self.end

    def take_turn(self):
        due = self.next_due()
        self.turns += 1
        return due

    def served(self, due, now):
        self.waits.answered.append((now - due) * 1000)

    def not_served(self, due, now):
        self.waits.unanswered.append((now - due) * 1000)

    def pause(self, now, pending):
        """How long to wait for events, in milliseconds: until the next turn, where there can be one."""
        if pending >= MOST_AT_ONCE or self.is_over():
            return 100
        return min(max(0.0, self.next_due() - now), 0.1) * 1000 + 0.1

    def close(self, now):
        """Whoever's turn never came has waited until now."""
        while self.next_due() < min(self.end, now):
            self.not_served(self.take_turn(), now)
        return self.waits


def rounds(control, measure):
    """A probe's life: it is ready, and then measures as often as it is told to."""
    control.say(True)
    while (told := control.next_round()) is not None:
        control.say(measure(*told))


class RequestProbe:
    """Round trips of "createSession"."""

    def __init__(self, control, path, app):
        self.control = control
        self.app = app
        self.application = Application(path)
        self.poll = select.poll()
        self.poll.register(self.application, select.POLLIN)
        self.poll.register(control, select.POLLIN)
        self.asked = 0

    def measure(self, seconds, grace):
        table = Timetable(seconds, REQUEST_INTERVAL_SECONDS)
        pending = {}
        try:
            self.ask_until_over(table, pending, grace)
        except AgentGone as gone:
            table.waits.note = str(gone)
        now = time.monotonic()
        for due in pending.values():
            table.not_served(due, now)
        return table.close(now)

    def ask_until_over(self, table, pending, grace):
        while not self.control.is_stopped():
            now = time.monotonic()
            if now > table.end + grace or (table.is_over() and not pending):
                return
            while table.is_due(now) and len(pending) < MOST_AT_ONCE:
                self.asked += 1
                pending[f"r{self.asked}"] = table.take_turn()
                self.application.request("createSession", self.app, f"r{self.asked}")
            self.poll.poll(table.pause(now, len(pending)))
            for message in self.application.messages():
                if message.id in pending:
                    (table.not_served if message.failure else table.served)(pending.pop(message.id), time.monotonic())


class PushProbe:
    """Pushes to one application, which accepts them: from the moment of sending to the last byte of the
    acknowledgement."""

    def __init__(self, control, path, app, port):
        self.control = control
        self.app = app
        self.port = port
        self.table = None
        self.application = Application(path)
        if not self.application.create_session(app, patience=10):
            raise AgentGone("no session for the innocent application")
        self.poll = select.poll()
        self.poll.register(self.application, select.POLLIN)
        self.poll.register(control, select.POLLIN)
        self.sent = 0  # in all rounds: an id that an earlier round left behind must not come again
        self.pending = {}  # descriptor: [socket, due, push id, whether it was written, bytes that came back]
        self.prefix = f"{app}.{time.monotonic_ns()}"

    def send(self):
        due = self.table.take_turn()
        connection = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        connection.setblocking(False)
        connection.connect_ex(("127.0.0.1", self.port))
        self.poll.register(connection, select.POLLOUT)
        self.sent += 1
        self.pending[connection.fileno()] = [connection, due, f"{self.prefix}.{self.sent}", False, 0]

    def end(self, descriptor, is_served):
        connection, due, _, is_written, _ = self.pending.pop(descriptor)
        self.poll.unregister(descriptor)
        connection.close()
        if is_served:
            self.table.served(due, time.monotonic())
        else:
            self.table.not_served(due, time.monotonic())
            self.table.waits.lost += 1 if is_written else 0

    def serve_sender(self, descriptor, events):
        entry = self.pending[descriptor]
        try:
            if not entry[3] and events & select.POLLOUT and not events & (select.POLLERR | select.POLLHUP):
                entry[0].send(make_push(entry[2]))
                entry[3] = True
                self.poll.modify(descriptor, select.POLLIN)
                return
            part = entry[0].recv(256)
        except BlockingIOError:
            return
        except OSError:
            part = b""
        entry[4] += len(part)
        if entry[4] >= ACKNOWLEDGEMENT_BYTES or not part:
            self.end(descriptor, entry[4] == ACKNOWLEDGEMENT_BYTES)

    def measure(self, seconds, grace):
        self.table = Timetable(seconds, PUSH_INTERVAL_SECONDS)
        try:
            self.push_until_over(grace)
        except AgentGone as gone:
            self.table.waits.note = str(gone)
        for descriptor in list(self.pending):
            self.end(descriptor, False)
        return self.table.close(time.monotonic())

    def push_until_over(self, grace):
        table = self.table
        while not self.control.is_stopped():
            now = time.monotonic()
            if now > table.end + grace or (table.is_over() and not self.pending):
                return
            while table.is_due(now) and len(self.pending) < MOST_AT_ONCE:
                self.send()
            for descriptor, events in self.poll.poll(table.pause(now, len(self.pending))):
                if descriptor == self.application.fileno():
                    self.accept_all()
                elif descriptor in self.pending:
                    self.serve_sender(descriptor, events)

    def accept_all(self):
        for message in self.application.messages():
            if message.msg == "pushNotification" and message.sender_waits:
                self.application.request("acceptPush", self.app, message.id)


class RegistrationProbe:
    """Registrations with a push data server that answers at once."""

    def __init__(self, control, path, app, url):
        self.control = control
        self.app = app
        self.url = url
        self.asked = 0
        self.application = Application(path)
        if not self.application.create_session(app, patience=10):
            raise AgentGone("no session for the innocent application")

    def measure(self, seconds, grace):
        table = Timetable(seconds, REGISTRATION_INTERVAL_SECONDS)
        try:
            while table.next_due() < table.end and not self.control.is_stopped(table.next_due() - time.monotonic()):
                due = table.take_turn()
                patience = max(0.1, table.end + grace - time.monotonic())
                self.asked += 1
                is_served = self.application.create_channel(self.app, self.url, f"c{self.asked}", patience)
                (table.served if is_served else table.not_served)(due, time.monotonic())
        except AgentGone as gone:
            table.waits.note = str(gone)
        return table.close(time.monotonic())


def run_probe(control, kind, *arguments):
    rounds(control, kind(control, *arguments).measure)


REQUESTS, PUSHES, REGISTRATIONS = "requests", "pushes", "registrations"


class Innocents:
    """The innocent peers of one device: an application that asks, one that is pushed to, and one that registers. They
    have their sessions before anybody attacks."""

    APPS = {REQUESTS: "innocent.requests", PUSHES: "innocent.pushes", REGISTRATIONS: "innocent.registrations"}

    def __init__(self, device, kinds=(REQUESTS, PUSHES)):
        path, url, apps = device.ipc, device.url, self.APPS
        starts = {}
        if REQUESTS in kinds:
            starts[REQUESTS] = (RequestProbe, path, apps[REQUESTS])
        if PUSHES in kinds:
            if not Worker(make_channel, path, apps[PUSHES], url, user=innocent_user()).result(20):
                raise AgentGone("no channel for the innocent application")
            starts[PUSHES] = (PushProbe, path, apps[PUSHES], device.ports()[apps[PUSHES]])
        if REGISTRATIONS in kinds:
            starts[REGISTRATIONS] = (RegistrationProbe, path, apps[REGISTRATIONS], url)
        self.probes = {kind: Worker(run_probe, *start, user=innocent_user()) for kind, start in starts.items()}
        for probe in self.probes.values():
            probe.hear(15)
        self.limit = 0

    def begin(self, seconds, grace=5.0):
        """Starts to measure; goes on by itself. Whoever is not served then gets so many more seconds."""
        self.limit = seconds + grace + 20
        for probe in self.probes.values():
            probe.begin_round(seconds, grace)

    def finish(self):
        """Their waits, by kind."""
        found = {}
        for kind, probe in self.probes.items():
            found[kind] = probe.hear(self.limit)
            if found[kind] is None:
                raise WorkerFailed(f"the innocent peer for {kind} came to no end")
        return found

    def measure(self, seconds, grace=5.0):
        self.begin(seconds, grace)
        return self.finish()


def make_channel(control, path, app, url):
    application = Application(path)
    return application.create_session(app) and application.create_channel(app, url)
