"""An application, as any program can be one: one open file, requests written, answers and pushes read."""

import json
import os
import select
import time


class AgentGone(Exception):
    """The agent, or the object service, has closed this end."""


class Message:
    """One object from the agent."""

    def __init__(self, text):
        self.attributes = {}
        for line in text.split("\n")[1:]:
            parts = line.split(":", 2)
            if len(parts) == 3:
                self.attributes[parts[0]] = parts[2]

    @property
    def msg(self):
        return self.attributes.get("msg", "")

    @property
    def id(self):
        return self.attributes.get("id", "")

    @property
    def failure(self):
        return int(self.attributes.get("err", "0"))

    @property
    def dat(self):
        return json.loads(self.attributes.get("dat", "{}"))

    @property
    def sender_waits(self):
        return '"appLevelAck":1' in self.attributes.get("dat", "")


class Application:
    def __init__(self, path, patience=5.0):
        """Opens the agent's object; waits as long for it to be there."""
        self.path = path
        end = time.monotonic() + patience
        while True:
            try:
                self.file = os.open(path, os.O_RDWR | os.O_NONBLOCK | os.O_CLOEXEC)
                break
            except OSError as error:
                if time.monotonic() > end:
                    raise AgentGone(f"cannot open the agent's object: {error}") from error
                time.sleep(0.005)
        self.rest = ""

    def fileno(self):
        return self.file

    def close(self):
        if self.file >= 0:
            os.close(self.file)
            self.file = -1

    def request(self, name, app, request_id, **dat):
        text = json.dumps({"providerApplicationId": app, **dat}, separators=(",", ":"))
        try:
            os.write(self.file, f"msg::{name}\nid::{request_id}\ndat:json:{text}\n".encode())
        except OSError as error:
            raise AgentGone(str(error)) from error

    def messages(self):
        """What is there now, without waiting."""
        try:
            text = os.read(self.file, 1 << 20)
        except BlockingIOError:
            return []
        except OSError as error:
            raise AgentGone(str(error)) from error
        self.rest += text.decode(errors="replace")
        if not self.rest.endswith("\n"):
            return []
        parts = ("\n" + self.rest).split("\n@")[1:]
        is_end = "\n-@" in "\n" + self.rest
        self.rest = ""
        if is_end and not parts:
            raise AgentGone("the agent is gone")
        return [Message("@" + part) for part in parts if not part.startswith("-")]

    def wait(self, seconds):
        """What comes within so many seconds, as soon as something does."""
        poll = select.poll()
        poll.register(self.file, select.POLLIN)
        return self.messages() if poll.poll(max(0.0, seconds) * 1000) else []

    def ask(self, name, app, request_id, patience=5.0, **dat):
        """Sends a request and gives its answer, None when it does not come. Everything else that comes is dropped."""
        self.request(name, app, request_id, **dat)
        end = time.monotonic() + patience
        while time.monotonic() < end:
            for message in self.wait(end - time.monotonic()):
                if message.id == request_id and message.msg != "pushNotification":
                    return message
        return None

    def create_session(self, app, request_id="s", patience=5.0):
        message = self.ask("createSession", app, request_id, patience)
        return message is not None and message.failure == 0

    def create_channel(self, app, url, request_id="c", patience=5.0):
        """True when the channel stands."""
        message = self.ask("createChannel", app, request_id, patience, ppgUrl=url)
        return message is not None and message.failure == 0 and bool(message.dat.get("token"))
