#!/usr/bin/env python3
"""An application with the client library in Python that does what it is told on its standard input, and tells on its
standard output what its handlers were told. application.cpp is the same in C++, and says which commands there are.

Usage: application.py APP PPG-URL
"""
import collections
import os
import signal
import sys
import threading

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../../python"))

import quilclient  # noqa: E402: the path comes first
from quilclient import Answer, Error  # noqa: E402

ANSWERS = {"accept": Answer.ACCEPT, "reject": Answer.REJECT, "later": Answer.LATER}


def tell(line):
    os.write(1, line.encode("utf-8", "surrogateescape") + b"\n")


class Application:
    def __init__(self, app_id, url):
        self.answer = "accept"
        self.commands = collections.deque()
        self.is_terminated = False
        self.client = quilclient.PushClient(
            app_id, url, on_push=self.on_push,
            on_channel=lambda result, token: tell(f"channel {result.code} {token}"),
            on_connection=lambda result: tell(f"connection {result.code}"),
            on_sim_change=lambda: tell("sim change"),
            on_launch=lambda result: tell(f"launch {result.code}"),
            on_channel_destroyed=lambda result: tell(f"destroyed {result.code}"),
            on_notice=lambda text: tell(f"notice {text}"))

    def on_push(self, push):
        line = f"push {push.id}{' waits' if push.sender_waits else ''}{' duplicate' if push.is_duplicate else ''} "
        line += f"[{push.data.decode('utf-8', 'surrogateescape')}]"
        tell(line + "".join(f" {name}={value}" for name, value in push.headers))
        if self.answer == "throw":
            raise RuntimeError("no disk")
        return ANSWERS[self.answer]

    def on_terminate(self, *_):
        self.is_terminated = True
        self.client.stop()

    def read_commands(self):
        with open(0, "rb", buffering=0) as lines:
            for line in lines:
                self.commands.append(line.rstrip(b"\n").decode("utf-8", "surrogateescape"))
                self.client.stop()

    def carry_out(self, line):
        """What the words before and behind the first blank ask for. False for "stop"."""
        verb, _, argument = line.partition(" ")
        try:
            if verb == "answer":
                self.answer = argument
            elif verb == "accept":
                self.client.accept(argument)
            elif verb == "reject":
                self.client.reject(argument)
            elif verb == "launch":
                self.client.set_launch_string(argument)
            elif verb == "unlaunch":
                self.client.clear_launch_string()
            elif verb == "destroy":
                self.client.destroy_channel()
            elif verb == "create":
                self.client.create_channel()
            tell(f"done {verb}")
        except Error as error:
            tell(f"refused {error.code}")
        return verb != "stop"

    def live(self):
        while not self.is_terminated:
            try:
                self.client.run()
            except RuntimeError as thrown:
                tell(f"thrown {thrown}")
            while self.commands:
                if not self.carry_out(self.commands.popleft()):
                    return


application = Application(*sys.argv[1:])
signal.signal(signal.SIGTERM, application.on_terminate)
threading.Thread(target=application.read_commands, daemon=True).start()
application.live()
os._exit(0)  # not by return: the thread waits for a line that may never come
