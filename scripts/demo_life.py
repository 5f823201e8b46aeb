"""The life of a channel, shown step by step: what `scripts/demo` runs once everything is built.

The application here speaks to the agent as any program can: it opens one file, writes requests and reads answers.
Nothing of the project is imported; what is shown is what a stranger's program would see.
"""

import base64
import json
import os
import select
import shlex
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
import zlib

APP = "com.example.demo"
PIN = "2a3b4c5d"
PATIENCE_SECONDS = 10
SHELL_FILE = "build/demo.sh"


class StepFailed(Exception):
    """Something was not as it should be; the text says what was expected and what was seen."""


def expect(condition, text):
    if not condition:
        raise StepFailed(text)


def wait_for(condition, what, seconds=PATIENCE_SECONDS):
    """Waits until `condition` gives something true, and returns that."""
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        found = condition()
        if found:
            return found
        time.sleep(0.01)
    raise StepFailed(f"{what}: not seen within {seconds} seconds")


class Screen:
    """Readable lines, coloured on a terminal."""

    def __init__(self):
        self.colour = sys.stdout.isatty() and "NO_COLOR" not in os.environ
        self.started = time.monotonic()
        self.steps = 0

    def paint(self, code, text):
        return f"\033[{code}m{text}\033[0m" if self.colour else text

    def step(self, text):
        self.steps += 1
        print(f"\n{self.paint('1', f'{self.steps:2}. {text}')}", flush=True)

    def line(self, who, text):
        print(f"      {self.paint('36', f'{who:>11}')}  {text}", flush=True)

    def good(self, text):
        print(f"      {self.paint('32', 'ok'):>11}  {text}" if self.colour else f"               ok  {text}", flush=True)


class Application:
    """An application: one open file, requests written to it, answers read from it."""

    def __init__(self, path, screen):
        self.file = os.open(path, os.O_RDWR | os.O_CLOEXEC)
        self.screen = screen
        self.pending = ""
        self.next_id = 1

    def close(self):
        os.close(self.file)

    def request(self, name, dat=None, request_id=None):
        if request_id is None:
            request_id = str(self.next_id)
            self.next_id += 1
        dat = {"providerApplicationId": APP, **(dat or {})}
        text = f"msg::{name}\nid::{request_id}\ndat:json:{json.dumps(dat)}\n"
        os.write(self.file, text.encode())
        self.screen.line("application", f"{name} {request_id.strip()}")
        return request_id

    def answer(self, seconds=PATIENCE_SECONDS):
        """The next object from the agent as a dictionary; "gone" is True when the agent went away."""
        end = time.monotonic() + seconds
        while "\n@" not in self.pending[1:] and not self.whole():
            left = end - time.monotonic()
            expect(left > 0, "the agent's answer did not come")
            if select.select([self.file], [], [], left)[0]:
                text = os.read(self.file, 1 << 20).decode()
                self.pending += text
        return self.take()

    def whole(self):
        # Each read gives whole objects, so what is there ends with one.
        return self.pending.endswith("\n")

    def take(self):
        cut = self.pending.find("\n@", 1)
        text = self.pending if cut == -1 else self.pending[: cut + 1]
        self.pending = self.pending[len(text):]
        lines = text.splitlines()
        if lines[0].startswith("-@"):
            return {"gone": True}
        answer = {}
        for line in lines[1:]:
            name, encoding, value = line.split(":", 2)
            answer[name] = json.loads(value) if encoding in ("json", "n") else value
        return answer

    def expect_answer(self, request_id, name):
        answer = self.answer()
        expect(answer.get("msg") == name and answer.get("id") == request_id,
               f"expected {name} for request {request_id}, got {answer}")
        expect("err" not in answer, f"{name} came with error {answer.get('err')}")
        return answer


class Demo:
    def __init__(self, programs, keep):
        self.programs = os.path.abspath(programs)
        self.keep = keep
        self.screen = Screen()
        self.root = tempfile.mkdtemp(prefix="quildemo.")
        os.chmod(self.root, 0o755)
        self.environment = {key: value for key, value in os.environ.items() if not key.lower().endswith("_proxy")}
        self.environment["QUIL_ROOT"] = self.root
        self.processes = []
        self.agent = None
        self.server = None
        self.server_port = 0  # the kernel chooses
        self.application = None

    # Processes and files

    def path(self, name):
        return self.root + name

    def start(self, name, *arguments, log):
        with open(self.path(f"/{log}"), "ab") as output:
            process = subprocess.Popen([f"{self.programs}/{name}", *arguments], env=self.environment,
                                       stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                                       start_new_session=True)
        self.processes.append((name, process))
        return process

    def stop(self, process, how=signal.SIGTERM):
        if process.poll() is None:
            process.send_signal(how)
            process.wait(PATIENCE_SECONDS)
        self.processes = [entry for entry in self.processes if entry[1] is not process]

    def read(self, name):
        try:
            with open(self.path(name), encoding="utf-8", errors="replace") as file:
                return file.read()
        except OSError:
            return ""

    def write_object(self, name, text):
        path = self.path(name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb", buffering=0) as file:
            file.write(text.encode())

    # The agent

    def credentials(self):
        return "65534:65534" if os.getuid() == 0 else str(os.getuid())

    def start_agent(self):
        self.agent = self.start("quilagent", "-v", "-v", "-U", self.credentials(), log="agent.log")
        wait_for(lambda: os.path.exists(self.path("/pps/services/push/ipc")) or self.agent.poll() is not None,
                 "the agent's client object")
        expect(self.agent.poll() is None, "the agent ended at once; see its log")

    def agent_user(self):
        status = self.read_absolute(f"/proc/{self.agent.pid}/status")
        return next(line.split()[1] for line in status.splitlines() if line.startswith("Uid:"))

    @staticmethod
    def read_absolute(path):
        with open(path, encoding="utf-8") as file:
            return file.read()

    def connect(self):
        self.application = Application(self.path("/pps/services/push/ipc?wait"), self.screen)

    def port(self):
        """The port that the push server gave to the application, 0 for none."""
        state = self.read("/push-server.json")
        return json.loads(state)["applications"].get(APP, 0) if state else 0

    def is_listening(self, port):
        wanted = f":{port:04X} "
        lines = self.read_absolute("/proc/net/tcp").splitlines()[1:]
        return any(wanted in line.split()[1] + " " and line.split()[3] == "0A" for line in lines)

    def server_log(self):
        return self.read("/push-server.log")

    # Pushes

    def send(self, push_id, data, content_type, wait):
        arguments = [f"{self.programs}/pushsim", "send", str(self.port()), "-", "--id", push_id,
                     "--header", f"Content-Type: {content_type}"]
        if wait:
            arguments += ["--wait", "--timeout", "20"]
        sender = subprocess.Popen(arguments, env=self.environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT)
        sender.stdin.write(data)
        sender.stdin.close()
        self.screen.line("sender", f"{len(data)} bytes of {content_type}" + (", waits" if wait else ", does not wait"))
        return sender

    def finish(self, sender, expected_status, meaning):
        status = sender.wait(PATIENCE_SECONDS * 2)
        output = sender.stdout.read().decode().strip()
        for line in output.splitlines():
            self.screen.line("sender", line)
        expect(status == expected_status, f"the sender's exit status is {status}, not {expected_status}: {output}")
        self.screen.good(f"sender: {meaning}")

    def receive(self, data, waits):
        answer = self.application.answer()
        expect(answer.get("msg") == "pushNotification", f"expected a push, got {answer}")
        dat = answer["dat"]
        received = base64.b64decode(dat["data"], validate=True)
        shown = received.decode() if len(received) < 200 else f"{len(received)} bytes, {received[:8]!r}..."
        self.screen.line("application", f"push [{answer['id']}] {dat['httpHeaders']}")
        self.screen.line("application", f"data: {shown}")
        expect(received == data, f"{len(received)} bytes arrived that are not the {len(data)} that were sent")
        expect(dat["appLevelAck"] == (1 if waits else 0), f"appLevelAck is {dat['appLevelAck']}")
        self.screen.good(f"application: the {len(received)} bytes that were sent"
                         + ("; the sender waits" if waits else "; nobody waits"))
        return answer["id"]

    # The steps

    def object_service(self):
        self.screen.step("The object service")
        service = self.start("ppsd", log="ppsd.log")
        wait_for(lambda: os.path.ismount(self.path("/pps")) or service.poll() is not None, "the mount")
        expect(service.poll() is None, f"ppsd ended: {self.read('/ppsd.log')}")
        self.screen.good("/pps is mounted")

    def device_identity(self):
        self.screen.step("The device's identity")
        self.write_object("/pps/system/nvram/deviceinfo", f"PIN::0x{PIN}\nHardwareID::0x0400\n")
        self.write_object("/pps/services/deviceproperties", "scmbundle::10.3.1\n")
        self.set_sim("001010000000001")
        os.makedirs(self.path("/pps/services/push"))
        if os.getuid() == 0:
            os.chown(self.path("/pps/services/push"), 65534, 65534)
        text = self.read("/pps/system/nvram/deviceinfo")
        self.screen.line("device", " ".join(text.split()))
        expect(f"PIN::0x{PIN}" in text, f"the object reads {text!r}")
        self.screen.good("PIN, model, OS version and SIM can be read")

    def set_sim(self, imsi):
        self.write_object("/pps/services/cellular/uicc/card0/status_private", f"imsi::{imsi}\n")
        self.screen.line("device", f"SIM {imsi}")

    def agent_up(self):
        self.screen.step("The agent, as an unprivileged user")
        os.makedirs(self.path("/etc"))
        with open(self.path("/etc/quilagent.conf"), "w", encoding="utf-8") as file:
            # Straight to the push server, without a proxy.
            file.write("proxy-port 0\nhttp-timeout 60\n")
        self.start_agent()
        wanted = "65534" if os.getuid() == 0 else str(os.getuid())
        wait_for(lambda: self.agent_user() == wanted, f"the agent as user {wanted}")
        self.screen.good(f"running as user {self.agent_user()}, process {self.agent.pid}")

    def push_server(self, delay="0"):
        """Starts the push server, on the port that it had before."""
        port_file = self.path("/push-server.port")
        if os.path.exists(port_file):
            os.remove(port_file)
        self.server = self.start("pushsim", "serve", "--log", "--state", self.path("/push-server.json"),
                                 "--port-file", port_file, "--listen", f"127.0.0.1:{self.server_port}",
                                 "--ports", "24400-24499", "--delay", delay, log="push-server.log")
        wait_for(lambda: os.path.exists(port_file) or self.server.poll() is not None, "the push server's port")
        expect(self.server.poll() is None, f"the push server ended: {self.server_log()}")
        self.server_port = int(self.read("/push-server.port"))

    def push_server_up(self):
        self.screen.step("The push server")
        self.push_server()
        self.screen.good(f"listening on 127.0.0.1:{self.server_port}")

    def ppg_url(self):
        return f"http://127.0.0.1:{self.server_port}"

    def create_channel(self):
        self.application.expect_answer(self.application.request("createSession"), "onCreateSessionComplete")
        self.screen.good("session")
        request = self.application.request("createChannel", {"ppgUrl": self.ppg_url()})
        answer = self.application.expect_answer(request, "onCreateChannelComplete")
        expect(answer["dat"]["token"] == PIN, f"the token is {answer['dat']['token']!r}, not the device PIN {PIN}")
        port = wait_for(self.port, "a port at the push server")
        wait_for(lambda: self.is_listening(port), f"somebody listening on port {port}")
        self.screen.good(f"channel: token {PIN}, pushes arrive on port {port}")

    def application_up(self):
        self.screen.step("An application: session and channel")
        self.connect()
        self.create_channel()

    def accepted_push(self):
        self.screen.step("A text, which the application accepts")
        data = "Grüße aus Zürich – 你好, push!".encode()
        sender = self.send("text-1", data, "text/plain; charset=utf-8", wait=True)
        self.application.request("acceptPush", request_id=self.receive(data, waits=True))
        self.finish(sender, 0, "accepted, by the 72 bytes of the acknowledgement")

    def rejected_push(self):
        self.screen.step("A JSON document, which the application rejects")
        data = json.dumps({"kind": "weather", "degrees": [21.5, 19, -3], "note": 'quote " and \\'}).encode()
        sender = self.send("json-1", data, "application/json", wait=True)
        self.application.request("rejectPush", request_id=self.receive(data, waits=True))
        self.finish(sender, 1, "rejected, by a close without a byte")

    def unanswered_push(self):
        self.screen.step("A picture, which needs no answer")
        data = make_picture()
        sender = self.send("png-1", data, "image/png", wait=False)
        self.receive(data, waits=False)
        self.finish(sender, 0, "sent")

    def restart(self):
        self.screen.step("The agent dies and comes back: the channel is still there")
        port = self.port()
        self.stop(self.agent, signal.SIGKILL)
        expect(self.application.answer() == {"gone": True}, "the application was not told that the agent is gone")
        self.application.close()
        self.screen.line("agent", "killed with SIGKILL; the application saw its connection end")
        wait_for(lambda: not self.is_listening(port), "the port closed")
        self.start_agent()
        wait_for(lambda: self.is_listening(port), f"port {port} open again")
        self.screen.good(f"started again; port {port} listens before any application is there")
        data = b"sent while nobody was there"
        sender = self.send("late-1", data, "text/plain", wait=True)
        self.connect()
        self.application.request("createSession")
        answers = [self.application.answer()]
        expect(answers[0].get("msg") == "onCreateSessionComplete", f"expected the session, got {answers[0]}")
        self.application.request("acceptPush", request_id=self.receive(data, waits=True))
        self.finish(sender, 0, "accepted once the application was back")

    def sim_change(self):
        self.screen.step("Another SIM: the channel is taken down")
        self.stop(self.server)
        self.push_server(delay="0.5")
        self.set_sim("262019999999999")
        self.stop(self.agent, signal.SIGKILL)
        self.application.close()
        before = len(self.server_log())
        self.start_agent()
        self.connect()
        answer = self.application.answer()
        expect(answer.get("msg") == "onSimChange", f"expected onSimChange, got {answer}")
        self.screen.line("application", f"onSimChange {answer}")
        self.expect_deregistration(before)

    def expect_deregistration(self, before):
        def deregistered():
            return [line for line in self.server_log()[before:].splitlines() if "dereg" in line.lower()]
        wait_for(lambda: self.port() == 0 and deregistered(), "the deregistration at the push server")
        for line in deregistered():
            self.screen.line("push server", line.strip())
        self.screen.good("deregistered at the push server")

    def anew(self):
        self.screen.step("The channel made anew, and destroyed")
        self.create_channel()
        port = self.port()
        before = len(self.server_log())
        request = self.application.request("destroyChannel")
        self.application.expect_answer(request, "onDestroyChannelComplete")
        self.expect_deregistration(before)
        wait_for(lambda: not self.is_listening(port), f"port {port} closed")
        self.screen.good(f"port {port} is closed")

    def run(self):
        print("The life of a channel, in the scratch folder", self.root)
        for step in (self.object_service, self.device_identity, self.agent_up, self.push_server_up,
                     self.application_up, self.accepted_push, self.rejected_push, self.unanswered_push,
                     self.restart, self.sim_change, self.anew):
            step()
        seconds = time.monotonic() - self.screen.started
        print(f"\n{self.screen.paint('1;32', 'All')} {self.screen.steps} steps were seen to be right "
              f"({seconds:.1f} seconds).")

    # The end

    def show_logs(self):
        for name in ("ppsd.log", "push-server.log", "agent.log"):
            text = [line for line in self.read(f"/{name}").splitlines() if line.strip()]
            print(f"\n--- the end of {name} ---")
            print("\n".join(text[-25:]))

    def clean_up(self):
        if self.application is not None:
            try:
                self.application.close()
            except OSError:
                pass  # it was closed by a step
        for _, process in reversed(list(self.processes)):
            try:
                self.stop(process)
            except subprocess.TimeoutExpired:
                process.kill()
        if os.path.ismount(self.path("/pps")):
            subprocess.run(["fusermount3", "-u", "-z", self.path("/pps")], check=False)
        shutil.rmtree(self.root, ignore_errors=True)

    def shell_file(self):
        """What a shell needs to go on with the device; the documents use these names."""
        processes = " ".join(str(process.pid) for _, process in reversed(self.processes))
        return f"""# The device that scripts/demo --keep left running. Into a shell with: . {SHELL_FILE}
export QUIL_ROOT={shlex.quote(self.root)}
export PATH={shlex.quote(self.programs)}:"$PATH"
export PPG_URL={self.ppg_url()}                  # the push data server
export PPG_STATE="$QUIL_ROOT/push-server.json"   # which application has which port, for pushsim send --state
end_demo() {{
    kill {processes}
    while [ -e "$QUIL_ROOT/pps/system" ]; do sleep 0.1; done   # until nothing is mounted
    rm -r "$QUIL_ROOT" {shlex.quote(os.path.abspath(SHELL_FILE))}
}}
"""

    def say_what_to_try(self):
        self.stop(self.server)
        self.push_server()
        os.makedirs(os.path.dirname(SHELL_FILE), exist_ok=True)
        with open(SHELL_FILE, "w", encoding="utf-8") as file:
            file.write(self.shell_file())
        print(f"""
Everything goes on running. This tells a shell where; say it in each terminal, at the top of the repository:

  . {SHELL_FILE}

Things to try then, the first in a terminal of its own:

  quilctl listen {APP} --ppg "$PPG_URL" --accept    # an application
  echo hello | pushsim send --app {APP} --state "$PPG_STATE" --wait
  cat "$QUIL_ROOT/pps/services/push/quilagent"                   # the saved sessions
  ppsctl watch services/push/quilagent                           # ... as they change
  tail -f "$QUIL_ROOT/agent.log"                                 # the agent's log
  quilctl status

To end it all:

  end_demo""")


def make_picture():
    """A PNG picture of about 10 KB: a gradient with a little noise, the same in every run."""
    width, height = 72, 48
    value = 12345
    rows = bytearray()
    for y in range(height):
        rows.append(0)
        for x in range(width):
            value = (value * 1103515245 + 12345) & 0x7FFFFFFF
            noise = value >> 16
            rows += bytes(((x * 3 + noise % 64) & 255, (y * 5 + (noise >> 4) % 128) & 255, (noise >> 3) & 255))

    def chunk(kind, body):
        return struct.pack(">I", len(body)) + kind + body + struct.pack(">I", zlib.crc32(kind + body))

    header = struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(bytes(rows), 9))
            + chunk(b"IEND", b""))


def main():
    demo = Demo(sys.argv[1], "--keep" in sys.argv[2:])
    try:
        demo.run()
        if demo.keep:
            demo.application.close()
            demo.say_what_to_try()
            return 0
        demo.clean_up()
        return 0
    except (StepFailed, OSError, subprocess.SubprocessError, ValueError, KeyError) as error:
        print(f"\nNOT as it should be, in step {demo.screen.steps}: {error or type(error).__name__}")
        demo.show_logs()
        demo.clean_up()
        return 1
    except KeyboardInterrupt:
        demo.clean_up()
        return 130


if __name__ == "__main__":
    sys.exit(main())
