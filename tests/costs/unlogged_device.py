"""A device that has no log service: whether the machine has one, and how fast it reads, changes no figure."""

import contextlib
import os
import shutil
import subprocess

from costs.peer import make_peers, warm_up
from hostile.device import Device
from hostile.log_socket import OwnLogSocket

FIRST_PORT = 5000
PORTS_APART = 150  # more than there are sessions


class CannotCount(Exception):
    """A tool is missing, or may not do its work on this machine."""


def need(tool):
    if not shutil.which(tool):
        raise CannotCount(f"{tool} is not there; scripts/setup installs it")


@contextlib.contextmanager
def device_with_peer(context, sessions, prepare=lambda device: None):
    """Gives a warm device, and the one application of so many that will do something."""
    log = OwnLogSocket(context.guard, is_there=False)
    try:
        device = Device(context, before_agent=log.enter)
        # Below those of the other tests, which run beside this one.
        device.first_port = FIRST_PORT + (os.getpid() % 5 * 4 + Device.corner % 4) * PORTS_APART
        prepare(device)
        with contextlib.ExitStack() as stack:
            try:
                stack.enter_context(device)
            except subprocess.SubprocessError as error:
                raise CannotCount(f"the agent cannot have a /dev of its own: {error}") from error
            peer = make_peers(device, sessions)[-1]
            warm_up(peer)
            yield device, peer
    finally:
        log.close()
