"""Senders, applications and push data servers that do what they should not. Each function runs as a worker, at the
lowest priority, until it is told to stop, and gives a dictionary of what it did and how often."""

import errno
import os
import select
import socket
import struct
import time

from hostile.application import AgentGone, Application
from hostile.probes import make_push

NICENESS = 19
RESET_AT_CLOSE = struct.pack("ii", 1, 0)


def run_crowd(control, path, url, apps, accepts=False):
    """Applications with a channel each, that read what comes and, unless told otherwise, never answer it. Says True
    when all channels stand."""
    poll = select.poll()
    poll.register(control, select.POLLIN)
    members = {}
    received = 0
    for app in apps:
        application = Application(path)
        if not application.create_session(app) or not application.create_channel(app, url):
            raise AgentGone(f"no channel for {app}")
        members[application.fileno()] = (application, app)
        poll.register(application, select.POLLIN)
    control.say(True)
    while not control.is_stopped():
        for descriptor, _ in poll.poll(500):
            if descriptor not in members:
                continue
            application, app = members[descriptor]
            try:
                for message in application.messages():
                    received += message.msg == "pushNotification"
                    if accepts and message.sender_waits:
                        application.request("acceptPush", app, message.id)
            except AgentGone:
                poll.unregister(descriptor)
    return {"pushes received by the crowd": received}


class Connections:
    """Connections to several ports that are kept in number: what ends is opened again, a little later."""

    PAUSE_SECONDS = 0.5

    def __init__(self, ports, count, kinds):
        self.ports = ports
        self.slots = [{"kind": kinds[number % len(kinds)], "port": ports[number // len(kinds) % len(ports)],
                       "connection": None, "at": 0.0, "since": 0.0, "step": 0} for number in range(count)]
        self.poll = select.poll()
        self.by_descriptor = {}
        self.counts = dict.fromkeys(kinds, 0)
        self.established = 0
        self.most = 0

    def open(self, slot, now):
        connection = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        connection.setblocking(False)
        connection.connect_ex(("127.0.0.1", slot["port"]))
        slot.update(connection=connection, since=now, step=0, established=False)
        self.by_descriptor[connection.fileno()] = slot
        self.poll.register(connection, select.POLLOUT)
        self.counts[slot["kind"]] += 1

    def close(self, slot, now, with_reset=False):
        connection = slot["connection"]
        self.poll.unregister(connection)
        del self.by_descriptor[connection.fileno()]
        if with_reset:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET_AT_CLOSE)
        connection.close()
        self.established -= slot["established"]
        slot.update(connection=None, at=now + self.PAUSE_SECONDS)

    def is_up(self, slot):
        slot["established"] = True
        self.established += 1
        self.most = max(self.most, self.established)
        self.poll.modify(slot["connection"], select.POLLIN)


HEAD = b"POST /x HTTP/1.1\r\nContent-Length: 5000\r\nPush-Message-ID: "


def begin_attack(attack, slot, now):
    """What each kind of sender does once its connection stands."""
    number = attack.counts[slot["kind"]]
    if slot["kind"] == "dripping":
        # Its header lines and first byte are there, so that the rest is waited for.
        slot["connection"].send(HEAD + f"drip{number}\r\n\r\nx".encode())
    elif slot["kind"] == "half-closing":
        slot["connection"].send(HEAD + f"half{number}\r\n\r\nx".encode())
        slot["connection"].shutdown(socket.SHUT_WR)
    elif slot["kind"] == "resetting":
        slot["connection"].send(HEAD + f"reset{number}\r\n\r\nx".encode())
    slot["at"] = now + 0.1


def hold_slow_senders(control, ports, count):
    """Connections that never become a push: silent ones, ones that drip a byte now and then, ones that close their
    half in the middle, and ones that end in the middle with a reset."""
    # Most of them stay, so that about as many as asked for are open at any moment.
    attack = Connections(ports, count, ["silent"] * 5 + ["dripping"] * 3 + ["half-closing", "resetting"])
    attack.poll.register(control, select.POLLIN)
    started = time.monotonic()
    while not control.is_stopped():
        now = time.monotonic()
        for number, slot in enumerate(attack.slots):
            if slot["connection"] is None:
                # Not all in one moment, but all within the first half second.
                if slot["at"] <= now and now - started >= number / len(attack.slots) * 0.5:
                    attack.open(slot, now)
            elif slot["established"] and slot["at"] <= now:
                if slot["kind"] == "resetting":
                    attack.close(slot, now, with_reset=True)
                elif slot["kind"] == "dripping":
                    slot["at"] = now + 0.2
                    try:
                        slot["connection"].send(b"d")
                    except OSError:
                        attack.close(slot, now)
        for descriptor, events in attack.poll.poll(20):
            slot = attack.by_descriptor.get(descriptor)
            if slot is None:
                continue
            now = time.monotonic()
            try:
                if not slot["established"]:
                    if events & (select.POLLERR | select.POLLHUP):
                        attack.close(slot, now)
                        continue
                    attack.is_up(slot)
                    begin_attack(attack, slot, now)
                elif not slot["connection"].recv(4096):
                    attack.close(slot, now)
            except BlockingIOError:
                pass
            except OSError:
                if slot["connection"] is not None:
                    attack.close(slot, now)
    return {**{f"{kind} senders": number for kind, number in attack.counts.items()}, "open at once": attack.most}


BACKLOG = 4  # pushes to one port at a time that are on their way; beyond six the kernel lets senders wait for a second


UNANSWERED_PER_SECOND = 600  # well below what a device takes at all: it is the leftovers that are to hurt


class UnansweredPushes:
    """Pushes whose senders wait, to applications that never answer."""

    def __init__(self, control, path, url, apps, ports_of):
        self.poll = select.poll()
        self.applications = {}
        for app in apps:
            application = Application(path)
            if not application.create_session(app) or not application.create_channel(app, url):
                raise AgentGone(f"no channel for {app}")
            self.applications[application.fileno()] = application
            self.poll.register(application, select.POLLIN)
        given = ports_of()
        self.ports = [given[app] for app in apps]
        self.on_way = {}  # push id: its connection
        self.unsent = {}  # descriptor: push id
        self.delivered = []  # (when, connection)
        self.begun = 0

    def begin(self):
        connection = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        connection.setblocking(False)
        connection.connect_ex(("127.0.0.1", self.ports[self.begun % len(self.ports)]))
        self.begun += 1
        push_id = f"u{self.begun}"
        self.on_way[push_id] = connection
        self.unsent[connection.fileno()] = push_id
        self.poll.register(connection, select.POLLOUT)

    def serve(self, milliseconds):
        """Takes what happens within so much time; True when a push was delivered."""
        before = len(self.delivered)
        for descriptor, _ in self.poll.poll(milliseconds):
            if descriptor in self.unsent:
                push_id = self.unsent.pop(descriptor)
                self.poll.unregister(descriptor)
                try:
                    self.on_way[push_id].send(make_push(push_id))
                except OSError:
                    self.on_way.pop(push_id).close()
            elif descriptor in self.applications:
                now = time.monotonic()
                for message in self.applications[descriptor].messages():
                    connection = self.on_way.pop(message.id.strip(), None)
                    if connection is not None:
                        self.delivered.append((now, connection))
        return len(self.delivered) > before


def leave_unanswered(control, path, url, apps, ports_of, count, vanishes):
    """So many unanswered pushes. Each sender then vanishes, or stays until the end. Says True when the applications are
    ready, waits for a round to begin, which may name another number, and says how many pushes came to their application once all did, or none
    does any more."""
    pushes = UnansweredPushes(control, path, url, apps, ports_of)
    control.say(True)
    while (told := control.next_round()) is not None:
        count = int(told[0]) or count
        started = last = time.monotonic()
        begun = delivered = 0
        while delivered < count and time.monotonic() - last < (3 if vanishes else 1.2):
            due = min(count, int((time.monotonic() - started) * UNANSWERED_PER_SECOND) + 1)
            while begun < due and len(pushes.on_way) < BACKLOG * len(pushes.ports):
                pushes.begin()
                begun += 1
            if pushes.serve(100 if begun == count else 2):
                last = time.monotonic()
            now = time.monotonic()
            if vanishes:
                while pushes.delivered and now - pushes.delivered[0][0] > 0.1:
                    pushes.delivered.pop(0)[1].close()
                    delivered += 1
            else:
                delivered = len(pushes.delivered)
        control.say({"pushes": delivered, "seconds": time.monotonic() - started})
    return {"pushes that nobody answered": pushes.begun - len(pushes.on_way)}


def push_once(control, ports):
    """One push to each of the ports, of senders that do not wait. Gives how many were taken."""
    taken = 0
    for port in ports:
        with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as connection:
            connection.settimeout(5)
            connection.connect(("127.0.0.1", port))
            # The end goes out together with the last byte.
            connection.send(make_push(f"once.{os.getpid()}.{port}"), socket.MSG_MORE)
            connection.shutdown(socket.SHUT_WR)
            taken += connection.recv(1) == b""
    return taken


# Push data servers

def serve_badly(control, behaviours):
    """Push data servers on ports of their own, which it says first: "silent" ones, ones that "drip" their answer, ones
    whose "headers" and ones whose "body" never end. Takes all connections, and gives how many there were."""
    poll = select.poll()
    poll.register(control, select.POLLIN)
    listeners, connections = {}, {}
    for behaviour in behaviours:
        listener = socket.create_server(("127.0.0.1", 0), backlog=512)
        listener.setblocking(False)
        listeners[listener.fileno()] = (listener, behaviour)
        poll.register(listener, select.POLLIN)
    control.say([listener.getsockname()[1] for listener, _ in listeners.values()])
    taken = 0
    while not control.is_stopped():
        for descriptor, _ in poll.poll(20):
            if descriptor in listeners:
                listener, behaviour = listeners[descriptor]
                try:
                    connection = listener.accept()[0]
                except OSError:
                    continue
                connection.setblocking(False)
                taken += 1
                kind = behaviour[taken % len(behaviour)]
                connections[connection.fileno()] = [connection, kind, 0, 0.0]
                poll.register(connection, select.POLLIN)
            elif descriptor in connections:
                entry = connections[descriptor]
                try:
                    is_gone = not entry[0].recv(65536)
                except BlockingIOError:
                    continue
                except OSError:
                    is_gone = True
                if is_gone:
                    poll.unregister(descriptor)
                    entry[0].close()
                    del connections[descriptor]
        now = time.monotonic()
        for entry in list(connections.values()):
            say_a_little(entry, now)
    return {"registrations swallowed": taken}


DRIPPED = b"HTTP/1.1 200 OK\r\nContent-Length: 500\r\nContent-Type: text/plain\r\n\r\n" + b"rc=200\n" * 80


def say_a_little(entry, now):
    connection, kind, step, at = entry
    if kind == "silent" or at > now:
        return
    if kind == "drip":
        text, pause = DRIPPED[step:step + 1], 0.1
    elif kind == "headers":
        text = b"HTTP/1.1 200 OK\r\n" if step == 0 else f"X-Endless-{step}: {'y' * 200}\r\n".encode()
        pause = 0.02
    else:
        text = b"HTTP/1.1 200 OK\r\n\r\n" if step == 0 else b"z" * 32768
        pause = 0.02
    try:
        connection.send(text)
    except OSError as error:
        if error.errno != errno.EAGAIN:
            return  # its end is seen by the next read
    entry[2], entry[3] = step + 1, now + pause


def register_with_dead_servers(control, path, urls, apps_each):
    """Applications that ask for a channel with each of these servers, again and again, not waiting for answers."""
    members = []
    for number in range(len(urls) * apps_each):
        application = Application(path)
        app = f"unlucky.{number}"
        application.request("createSession", app, "s")
        members.append((application, app, urls[number % len(urls)]))
    asked = 0
    poll = select.poll()
    poll.register(control, select.POLLIN)
    for application, app, url in members:
        poll.register(application, select.POLLIN)
        application.request("createChannel", app, "c", ppgUrl=url)
        asked += 1
    control.say(True)
    by_descriptor = {member[0].fileno(): member for member in members}
    while not control.is_stopped():
        for descriptor, _ in poll.poll(200):
            if descriptor in by_descriptor:
                application, app, url = by_descriptor[descriptor]
                for message in application.messages():
                    if message.msg == "onCreateChannelComplete":
                        application.request("createChannel", app, "c", ppgUrl=url)
                        asked += 1
    return {"registrations with dead servers": asked}


# Applications that storm

def storm_with_writes(control, path, app):
    """Requests as fast as they are taken, with the answers read."""
    return storm(control, path, app, reads=True)


def storm_unread(control, path, app):
    """Requests as fast as they are taken, with no answer ever read; when it is hung up on, it comes back."""
    return storm(control, path, app, reads=False)


def storm(control, path, app, reads):
    text = (f'msg::createSession\nid::1\ndat:json:{{"providerApplicationId":"{app}"}}\n').encode()
    unknown = (f'msg::nonsense\nid::2\ndat:json:{{"providerApplicationId":"{app}","x":"{"y" * 4000}"}}\n').encode()
    application = Application(path)
    written = refused = reopened = 0
    while True:
        if written % 64 == 0 and control.is_stopped():
            break
        try:
            os.write(application.fileno(), unknown if written % 8 == 7 else text)
            written += 1
        except OSError as error:
            refused += 1
            if error.errno in (errno.EPIPE, errno.EIO, errno.ENOTCONN):
                application.close()
                application = Application(path)
                reopened += 1
            elif control.is_stopped(0.001):
                break
        if reads and written % 16 == 0:
            try:
                application.messages()
            except AgentGone:
                application.close()
                application = Application(path)
                reopened += 1
    return {"requests " + ("written in a storm" if reads else "whose answers nobody read"): written,
            "refused to the storm": refused, "came back after a hang-up": reopened}


def storm_with_opens(control, path, app):
    """Opens and closes as fast as it goes, with a request now and then."""
    text = (f'msg::createSession\nid::1\ndat:json:{{"providerApplicationId":"{app}"}}\n').encode()
    opened = 0
    while opened % 32 or not control.is_stopped():
        try:
            file = os.open(path, os.O_RDWR | os.O_NONBLOCK)
            if opened % 4 == 0:
                os.write(file, text)
            os.close(file)
        except OSError:
            if control.is_stopped(0.001):
                break
        opened += 1
    return {"opens in a storm": opened}
