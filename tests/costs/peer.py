"""An application with a channel, and those who send to it: what is counted, one at a time.

The next one begins only when the connection of the one before is closed and the agent has come to rest. So a pass of a
loop never finds two things to do, and what it costs does not depend on the moment.
"""

import os
import socket
import time

from hostile.application import Application
from hostile.probes import ACKNOWLEDGEMENT_BYTES, make_push

PATIENCE_SECONDS = 20
REST_SECONDS = 0.002


class Peer:
    def __init__(self, device, name):
        self.name = name
        self.count = 0
        self.application = Application(device.ipc + "?wait", PATIENCE_SECONDS)
        if not (self.application.create_session(name, patience=PATIENCE_SECONDS) and
                self.application.create_channel(name, device.url, patience=PATIENCE_SECONDS)):
            raise RuntimeError(f"no channel for {name}")
        # A read that waits is one request to the object service, whether something is there already or not.
        os.set_blocking(self.application.file, True)
        self.port = device.ports()[name]

    def message(self):
        messages = self.application.messages()
        if len(messages) != 1:
            raise RuntimeError(f"{self.name}: {len(messages)} messages at once")
        return messages[0]

    def ask(self, wanted="createSession", failure=0, **dat):
        self.count += 1
        self.application.request(wanted, self.name, f"r{self.count}", **dat)
        message = self.message()
        if message.id != f"r{self.count}" or message.failure != failure:
            raise RuntimeError(f"{wanted} was answered with {message.attributes}")

    def push(self, sender_waits):
        self.count += 1
        with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as sender:
            sender.settimeout(PATIENCE_SECONDS)
            # The connection stands for the agent when its first bytes come, never before them, and the end of a stream
            # comes with them. So the agent finds either nothing or all.
            sender.setsockopt(socket.IPPROTO_TCP, socket.TCP_QUICKACK, 0)
            sender.connect(("127.0.0.1", self.port))
            sender.sendall(make_push(f"m{self.count}"), 0 if sender_waits else socket.MSG_MORE)
            if not sender_waits:
                sender.shutdown(socket.SHUT_WR)
            message = self.message()
            if message.sender_waits != sender_waits:
                raise RuntimeError(f"the push came as {message.attributes}")
            if sender_waits:
                self.application.request("acceptPush", self.name, message.id)
            came = 0
            while part := sender.recv(4096):
                came += len(part)
            if came != (ACKNOWLEDGEMENT_BYTES if sender_waits else 0):
                raise RuntimeError(f"{came} bytes came back")

    def accepted_push(self):
        self.push(True)

    def closed_push(self):
        self.push(False)


# What is counted, by the name in the record.
DEEDS = {"accepted push": Peer.accepted_push, "push of a sender that closes": Peer.closed_push, "request": Peer.ask}


def repeat(deed, peer, count):
    for _ in range(count):
        deed(peer)
        time.sleep(REST_SECONDS)


def make_peers(device, sessions):
    """So many applications with a channel each; only the last of them does something afterwards."""
    return [Peer(device, f"app.{number}") for number in range(sessions)]


def warm_up(peer):
    for deed in DEEDS.values():
        repeat(deed, peer, 20)
