"""A whole device in a scratch folder: object service, identity, configuration, push data server and agent."""

import json
import os
import resource
import shutil
import signal
import subprocess
import tempfile
import time

from hostile.workers import die_with_parent

PATIENCE_SECONDS = 20
AGENT_START_SECONDS = 8
# As root, so that every program runs as it would on a device: nobody but the object service as root.
AGENT_USER = 65534
ATTACKER_USER = 54321
INNOCENT_USER = 54322


class DeviceFailed(Exception):
    """The device did not come up as it should."""


def wait_until(condition, seconds=PATIENCE_SECONDS, pause=0.005):
    """Waits until `condition` gives something true, and returns that, or the last thing it gave."""
    end = time.monotonic() + seconds
    while True:
        found = condition()
        if found or time.monotonic() > end:
            return found
        time.sleep(pause)


def is_root():
    return os.getuid() == 0


def attacker_user():
    return ATTACKER_USER if is_root() else None


def innocent_user():
    return INNOCENT_USER if is_root() else None


def listening_ports():
    """All TCP ports of this machine on which somebody listens. The kernel names them before all other sockets."""
    ports = set()
    with open("/proc/net/tcp", encoding="ascii") as table:
        next(table)
        for line in table:
            fields = line.split()
            if fields[3] != "0A":
                break
            ports.add(int(fields[1].split(":")[1], 16))
    return ports


class Context:
    """What all scenarios share."""

    def __init__(self, programs, library, preset, is_short, guard, screen):
        self.programs = programs
        self.library = library
        self.preset = preset
        self.is_short = is_short
        self.guard = guard
        self.screen = screen
        self.source = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))

    @property
    def is_timed(self):
        """Whether waits are judged: a sanitizer makes the programs several times slower than what people run."""
        return self.preset == "release"

    def pick(self, full, short):
        return short if self.is_short else full


class Device:
    has_own_sessions = True  # each program its own: what is typed at the terminal does not end it
    corner = 0  # of the range of ports, another one for each device of this process

    def __init__(self, context, configuration=(), descriptor_limit=None, agent_arguments=(), before_agent=None,
                 preload=None, agent_under=()):
        self.context = context
        self.descriptor_limit = descriptor_limit
        self.agent_arguments = list(agent_arguments)
        self.before_agent = before_agent
        self.preload = preload  # for the object service
        self.agent_under = list(agent_under)  # the command that runs the agent, where it is not run by itself
        self.configuration = ["proxy-port 0", *configuration]
        self.root = tempfile.mkdtemp(prefix="quilhostile.")
        context.guard.add(self.root)
        os.chmod(self.root, 0o755)
        self.processes = []
        self.ppsd = self.agent = self.server = None
        self.environment = {key: value for key, value in os.environ.items() if not key.lower().endswith("_proxy")}
        self.environment["QUIL_ROOT"] = self.root
        self.set_sanitizer_options()
        self.server_port = 0
        Device.corner += 1
        # Below the range from which the system takes ports by itself.
        self.first_port = 10000 + (os.getpid() % 28 * 4 + Device.corner) % 110 * 200

    def set_sanitizer_options(self):
        folder = self.path("/findings")
        os.mkdir(folder)
        os.chmod(folder, 0o777)
        rules = f"{self.context.source}/tests/sanitizers"
        # Findings are read from the files; the programs go on, so that one finding does not hide the next.
        self.environment.update(
            ASAN_OPTIONS=f"detect_leaks=0:halt_on_error=1:verify_asan_link_order=0:log_path={folder}/asan",
            UBSAN_OPTIONS=f"print_stacktrace=1:halt_on_error=1:log_path={folder}/ubsan",
            TSAN_OPTIONS=f"halt_on_error=0:suppressions={rules}/tsan.supp:log_path={folder}/tsan")

    # Files

    def path(self, name):
        return self.root + name

    @property
    def ipc(self):
        return self.path("/pps/services/push/ipc")

    def read(self, name):
        try:
            with open(self.path(name), encoding="utf-8", errors="replace") as file:
                return file.read()
        except OSError:
            return ""

    def write_object(self, name, text):
        path = self.path("/pps/" + name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb", buffering=0) as file:
            file.write(text.encode())

    def findings(self):
        """What the sanitizers found, as text."""
        found = []
        for name in sorted(os.listdir(self.path("/findings"))):
            found.append(self.read(f"/findings/{name}"))
        return found

    # Programs

    def start(self, name, *arguments, log, prepare=None, under=()):
        parent = os.getpid()

        def in_child():
            if prepare is not None:
                prepare()
            die_with_parent(parent)

        with open(self.path(f"/{log}"), "ab") as output:
            process = subprocess.Popen([*under, f"{self.context.programs}/{name}", *arguments],
                                       env=self.environment, stdin=subprocess.DEVNULL, stdout=output,
                                       stderr=subprocess.STDOUT, start_new_session=self.has_own_sessions,
                                       preexec_fn=in_child)
        self.context.guard.add(process.pid)
        self.processes.append(process)
        return process

    def stop(self, process, how=signal.SIGTERM):
        if process.poll() is None:
            process.send_signal(how)
            try:
                process.wait(PATIENCE_SECONDS / 2)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait(PATIENCE_SECONDS)
        if process in self.processes:
            self.processes.remove(process)
            self.context.guard.remove(process.pid)

    def start_ppsd(self):
        def limits():
            # Attackers share a user with innocents where nobody is root; the service's files are not what is tested.
            soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
            resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard) if hard != resource.RLIM_INFINITY else (soft, hard))

        environment = self.environment
        if self.preload is not None:
            self.environment = {**environment, **self.preload}
        before = len(self.read("/ppsd.log"))
        self.ppsd = self.start("ppsd", log="ppsd.log", prepare=limits)
        self.environment = environment
        wait_until(lambda: "serving" in self.read("/ppsd.log")[before:] or self.ppsd.poll() is not None)
        if self.ppsd.poll() is not None or "serving" not in self.read("/ppsd.log")[before:]:
            raise DeviceFailed(f"ppsd did not start: {self.read('/ppsd.log')}")

    def make_identity(self):
        self.write_object("system/nvram/deviceinfo", "PIN::0x2a3b4c5d\nHardwareID::0x0400\n")
        self.write_object("services/deviceproperties", "scmbundle::10.3.1\n")
        self.write_object("services/cellular/uicc/card0/status_private", "imsi::001010000000001\n")
        os.makedirs(self.path("/pps/services/push"))
        if is_root():
            os.chown(self.path("/pps/services/push"), AGENT_USER, AGENT_USER)
        os.makedirs(self.path("/etc"))
        with open(self.path("/etc/quilagent.conf"), "w", encoding="utf-8") as file:
            file.write("".join(line + "\n" for line in self.configuration))

    def start_agent(self):
        """Starts the agent, not waiting for anything."""
        def limits():
            limit = self.descriptor_limit
            if limit is not None:
                resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))
            if self.before_agent is not None:
                self.before_agent()

        user = f"{AGENT_USER}:{AGENT_USER}" if is_root() else str(os.getuid())
        self.agent = self.start("quilagent", *self.agent_arguments, "-U", user, log="agent.log", prepare=limits,
                                under=self.agent_under)

    def wait_for_agent(self):
        wait_until(lambda: os.path.exists(self.ipc) or self.agent.poll() is not None, AGENT_START_SECONDS)
        if self.agent.poll() is not None or not os.path.exists(self.ipc):
            raise DeviceFailed(f"the agent did not start: {self.read('/agent.log')[-2000:]}")

    def start_server(self):
        self.server = self.start("pushsim", "serve", "--state", self.path("/server.json"), "--port-file",
                                 self.path("/server.port"), "--listen", f"127.0.0.1:{self.server_port}", "--ports",
                                 f"{self.first_port}-{self.first_port + 199}", log="server.log")
        text = wait_until(lambda: self.read("/server.port").strip())
        if not text:
            raise DeviceFailed(f"the push server did not start: {self.read('/server.log')}")
        self.server_port = int(text)

    @property
    def url(self):
        return f"http://127.0.0.1:{self.server_port}"

    def ports(self):
        """Application: port, as the push data server gave them out."""
        text = self.read("/server.json")
        return json.loads(text)["applications"] if text else {}

    # The agent from outside

    def descriptors(self):
        """How many the agent has open; 0 when it is not there."""
        try:
            return len(os.listdir(f"/proc/{self.agent.pid}/fd"))
        except OSError:
            return 0

    def memory_kib(self, process=None):
        """Of the agent, or another program of the device."""
        try:
            with open(f"/proc/{(process or self.agent).pid}/status", encoding="ascii") as file:
                return next((int(line.split()[1]) for line in file if line.startswith("VmRSS:")), 0)
        except OSError:
            return 0

    @staticmethod
    def peak_memory_mib(process):
        """The most that a program of the device ever had in memory."""
        with open(f"/proc/{process.pid}/status", encoding="ascii") as file:
            return next(int(line.split()[1]) for line in file if line.startswith("VmHWM:")) / 1024

    def processor_seconds(self):
        with open(f"/proc/{self.agent.pid}/stat", encoding="ascii") as file:
            fields = file.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    # The whole

    def __enter__(self):
        try:
            self.start_ppsd()
            self.make_identity()
            self.start_server()
            self.start_agent()
            self.wait_for_agent()
        except BaseException:
            self.clean_up()
            raise
        return self

    def __exit__(self, *_):
        self.clean_up()

    def clean_up(self):
        if self.agent is not None:
            self.stop(self.agent)
        for process in reversed(list(self.processes)):
            self.stop(process)
        if os.path.ismount(self.path("/pps")) or self.is_dead_mount():
            subprocess.run(["fusermount3", "-u", "-z", "-q", self.path("/pps")], check=False)
        if not os.path.ismount(self.path("/pps")):
            shutil.rmtree(self.root, ignore_errors=True)
        self.context.guard.remove(self.root)

    def is_dead_mount(self):
        try:
            os.stat(self.path("/pps"))
        except FileNotFoundError:
            return False
        except OSError:
            return True
        return False
