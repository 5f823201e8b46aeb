"""How many instructions the agent needs, by callgrind.

The agent itself says where a part begins: callgrind writes down what it has counted whenever a function is entered that
only one request leads to, which is asked here for nothing else. A part of N and one of 2 N differ by N, and by nothing
that the marks cost. Of each there are several, and the middle one counts: what the agent does once a second, as looking
for a log service, falls into some of them.
"""

import os
import re
import statistics

from costs.unlogged_device import device_with_peer, need
from costs.peer import DEEDS, repeat
from hostile.device import wait_until

TIMES = 10
PARTS = 7
MARK_FUNCTION = "quilRegisterToLaunch"
EMPTY_LAUNCH_STRING = 10101


def mark(peer):
    peer.ask("registerToLaunch", failure=EMPTY_LAUNCH_STRING, launchString="")


class Parts:
    def __init__(self):
        self.folder = ""
        self.count = 0

    def prepare(self, device):
        self.folder = device.path("/parts")
        os.mkdir(self.folder)
        os.chmod(self.folder, 0o777)  # the agent is another user when it writes there
        device.agent_under = ["valgrind", "--tool=callgrind", "--vgdb=no", f"--dump-before={MARK_FUNCTION}*",
                              f"--callgrind-out-file={self.folder}/part"]

    def next(self, peer):
        """Ends a part, and gives its instructions."""
        mark(peer)
        self.count += 1
        path = f"{self.folder}/part.{self.count}"
        found = wait_until(lambda: os.path.exists(path) and self.total(path), 5)
        if not found:
            raise RuntimeError(f"callgrind wrote no part {self.count}: is there still a function {MARK_FUNCTION}?")
        return found

    @staticmethod
    def total(path):
        with open(path, encoding="utf-8") as file:
            match = re.search(r"^totals: (\d+)$", file.read(), re.MULTILINE)
        return int(match.group(1)) if match else 0


def count(context, sessions):
    """By deed: the instructions for one of it."""
    need("valgrind")
    found = {}
    parts = Parts()
    with device_with_peer(context, sessions, parts.prepare) as (_, peer):
        parts.next(peer)
        for name, deed in DEEDS.items():
            short, long = [], []
            for _ in range(PARTS):
                repeat(deed, peer, TIMES)
                short.append(parts.next(peer))
                repeat(deed, peer, 2 * TIMES)
                long.append(parts.next(peer))
            found[name] = (statistics.median(long) - statistics.median(short)) / TIMES
    return found
