"""What goes on while the agent or the object service is killed again and again: applications that accept pushes,
senders that wait for the acknowledgement, and saves of the sessions. Who accepts or is acknowledged writes it down, so
that both lists can be compared at the end."""

import random
import socket
import time

from hostile.application import AgentGone, Application
from hostile.attackers import RESET_AT_CLOSE
from hostile.device import innocent_user, listening_ports, wait_until
from hostile.probes import ACKNOWLEDGEMENT_BYTES, make_push
from hostile.workers import Worker

APPS = [f"lasting.{number}" for number in range(4)]


def accept_all(control, path, app):
    """An application that accepts each push, comes back whenever the agent is gone, and gives a list of the ids in the
    order of their coming, and how often it came back."""
    accepted = []
    connections = 0
    while not control.is_stopped():
        application = None
        try:
            application = Application(path, patience=0.05)
            application.request("createSession", app, "s")
            connections += 1
            while not control.is_stopped():
                for message in application.wait(0.05):
                    if message.msg == "pushNotification" and message.sender_waits:
                        # First written down, then accepted: acknowledged is then never more than accepted.
                        accepted.append(message.id.strip())
                        application.request("acceptPush", app, message.id)
        except AgentGone:
            control.is_stopped(0.005)
        finally:
            if application is not None:
                application.close()
    return accepted, connections


def send_in_turn(control, port, name, patience):
    """A sender that sends one push after the other, each under an id of its own and once only. Gives those ids that
    were acknowledged, and how many were sent."""
    acknowledged = []
    sent = 0
    while not control.is_stopped():
        sent += 1
        push_id = f"{name}-{sent}"
        try:
            with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as connection:
                connection.settimeout(patience)
                connection.connect(("127.0.0.1", port))
                connection.sendall(make_push(push_id))
                answer = b""
                while len(answer) < ACKNOWLEDGEMENT_BYTES:
                    part = connection.recv(128)
                    if not part:
                        break
                    answer += part
                if len(answer) == ACKNOWLEDGEMENT_BYTES:
                    acknowledged.append(push_id)
                else:
                    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET_AT_CLOSE)
        except OSError:
            control.is_stopped(0.003)
    return acknowledged, sent


def save_always(control, path, apps):
    """An application that has the sessions saved, over and over, by changing launch strings. Gives how often that was
    answered."""
    saved = number = 0
    while not control.is_stopped():
        application = None
        try:
            application = Application(path, patience=0.05)
            while not control.is_stopped():
                number += 1
                answer = application.ask("registerToLaunch", apps[number % len(apps)], f"l{number}", 0.2,
                                         launchString=f"run {number}")
                saved += answer is not None
        except AgentGone:
            control.is_stopped(0.005)
        finally:
            if application is not None:
                application.close()
    return saved


class Life:
    """All of it, on one device."""

    def __init__(self, device, patience):
        self.device = device
        user = innocent_user()
        for app in APPS:
            if not Worker(make_lasting_channel, device.ipc, app, device.url, user=user).result(20):
                raise AgentGone(f"no channel for {app}")
        self.ports = {app: device.ports()[app] for app in APPS}
        self.applications = {app: Worker(accept_all, device.ipc, app, user=user) for app in APPS}
        self.senders = {f"{app}.{number}": Worker(send_in_turn, self.ports[app], f"{app}.{number}", patience, user=user)
                        for app in APPS for number in range(2)}
        self.saver = Worker(save_always, device.ipc, APPS, user=user)

    def all_listen(self, seconds):
        wanted = set(self.ports.values())
        return wait_until(lambda: wanted <= listening_ports(), seconds, 0.002)

    def saved_sessions(self):
        """Application and port of each saved session, as text to be compared; empty when there is nothing to read."""
        text = self.device.read("/pps/services/push/quilagent")
        return {app: (app in text and str(port) in text) for app, port in self.ports.items()}

    def end(self, result, is_twice_judged=True):
        """Stops everything and compares the lists."""
        time.sleep(0.5)  # what is on its way comes in
        for worker in [*self.senders.values(), self.saver]:
            worker.tell_to_stop()
        sent = acknowledged = accepted = 0
        lost, twice = [], []
        acknowledged_of = {}
        for name, worker in self.senders.items():
            ids, count = worker.result(20)
            sent += count
            acknowledged += len(ids)
            acknowledged_of.setdefault(name.rsplit(".", 1)[0], []).extend(ids)
        saved = self.saver.result(20)
        time.sleep(0.2)
        for app, worker in self.applications.items():
            ids, _ = worker.stop()
            accepted += len(ids)
            known = set(ids)
            lost += [push_id for push_id in acknowledged_of[app] if push_id not in known]
            twice += sorted({push_id for push_id in known if ids.count(push_id) > 1}) if len(ids) != len(known) else []
        result.notes.append(f"{sent:,} pushes tried, {accepted:,} accepted by their application, {acknowledged:,} "
                            f"acknowledged to their sender; {saved:,} saves answered")
        result.also_lost = len(lost)
        result.check("pushes that were acknowledged and are lost: 0", f"{len(lost)} {lost[:3] if lost else ''}".strip(),
                     not lost)
        result.check("pushes that were delivered twice: 0", f"{len(twice)} {twice[:3] if twice else ''}".strip(),
                     not twice, is_twice_judged)
        return sent, acknowledged


def make_lasting_channel(control, path, app, url):
    application = Application(path)
    return application.create_session(app) and application.create_channel(app, url)


def random_moment(seed, number):
    """Seconds to wait before a kill: mostly short, so that starts are hit as well."""
    chance = random.Random(seed * 1000 + number)
    return chance.uniform(0, 0.03) if chance.random() < 0.3 else chance.uniform(0.03, 0.15)
