"""A local user that takes all it can of the object service. Each function runs as a worker of that user, until it is
told to stop, and gives a dictionary of what it did and how often; what was refused to it is counted by its error."""

import contextlib
import errno
import os
import resource
import select
import threading

from hostile.application import AgentGone, Application

REFUSED = "refused with "
# What past a share is refused with; anything else would be the service failing.
WITHIN_SHARES = {REFUSED + name for name in ("ENOBUFS", "ENFILE", "EDQUOT")}
HANG_UP = (errno.EPIPE, errno.EIO, errno.ENOTCONN)


class Counts(dict):
    """By name, from 0."""

    def add(self, name, number=1):
        self[name] = self.get(name, 0) + number

    def refused(self, error):
        self.add(REFUSED + errno.errorcode.get(error.errno, str(error.errno)))


def take_all_descriptors():
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))


def open_and_close(control, path):
    """Opens and closes as fast as it goes."""
    counts = Counts()
    while not control.is_stopped():
        try:
            for _ in range(32):
                counts.add("opens in a storm")
                os.close(os.open(path, os.O_RDWR | os.O_NONBLOCK))
        except OSError as error:
            counts.refused(error)
            control.is_stopped(0.001)
    return counts


def in_threads(control, counts, writers):
    """Runs each of the functions over and over, in a thread of its own, until the worker is told to stop."""
    ended = threading.Event()
    lock = threading.Lock()

    def go_on(write):
        while not ended.is_set():
            try:
                write()
            except OSError as error:
                with lock:
                    counts.refused(error)
                ended.wait(0.001)

    threads = [threading.Thread(target=go_on, args=(write,)) for write in writers]
    for thread in threads:
        thread.start()
    control.is_stopped(1e6)
    ended.set()
    for thread in threads:
        thread.join()


def write_objects(control, folder, count):
    """So many objects, each written over and over by a thread of its own."""
    counts = Counts()
    written = [0] * count

    def writer(number):
        file = os.open(f"{folder}/written{number}", os.O_RDWR | os.O_CREAT, 0o644)

        def write():
            os.write(file, f"n:n:{written[number]}\n".encode())
            written[number] += 1
        return write

    in_threads(control, counts, [writer(number) for number in range(count)])
    counts.add("writes of ordinary objects", sum(written))
    return counts


def poll_many(control, folder, count):
    """So many descriptors of one object that is written over and over, all polled and none ever read. Says how many are
    there."""
    take_all_descriptors()
    counts = Counts()
    path = f"{folder}/polled"
    changed = os.open(path, os.O_RDWR | os.O_CREAT, 0o644)
    written = 0

    def write():
        nonlocal written
        written += 1
        os.write(changed, f"n:n:{written}\n".encode())

    write()
    polled = select.epoll()
    files = []
    for _ in range(count):
        try:
            files.append(os.open(path, os.O_RDONLY))
        except OSError as error:
            counts.refused(error)
            continue
        polled.register(files[-1], select.EPOLLIN | select.EPOLLET)
    control.say(len(files))
    woken = 0
    ended = threading.Event()

    def ask_again():
        nonlocal woken
        while not ended.is_set():
            woken += len(polled.poll(0.1, count))

    asking = threading.Thread(target=ask_again)
    asking.start()
    in_threads(control, counts, [write])
    ended.set()
    asking.join()
    counts.add("polled descriptors", len(files))
    counts.add("changes of what they poll", written)
    counts.add("wakes of them", woken)
    return counts


def read_halves(control, folder, count):
    """So many descriptors of a large object, of each of which a little was read. Says how many are there."""
    take_all_descriptors()
    counts = Counts()
    path = f"{folder}/large"
    with open(path, "wb", buffering=0) as file:
        for number in range(16):
            file.write(f"a{number}::{'x' * 65000}\n".encode())
    files = []
    for _ in range(count):
        try:
            files.append(os.open(path, os.O_RDONLY))
            os.read(files[-1], 100)
        except OSError as error:
            counts.refused(error)
    control.say(len(files))
    while not control.is_stopped(0.01):
        with contextlib.suppress(BlockingIOError):
            os.read(files[0], 100)
        files.append(files.pop(0))
    counts.add("half-read descriptors", len(files))
    return counts


def ask_and_never_read(control, path, app):
    """Requests as fast as they are taken, with no answer ever read; when it is hung up on, it comes back."""
    text = f'msg::createSession\nid::1\ndat:json:{{"providerApplicationId":"{app}"}}\n'.encode()
    counts = Counts()
    application = Application(path)
    while not control.is_stopped():
        try:
            for _ in range(32):
                os.write(application.fileno(), text)
                counts.add("requests whose answers nobody read")
        except OSError as error:
            if error.errno in HANG_UP:
                application.close()
                application = Application(path)
                counts.add("came back after a hang-up")
            else:
                counts.refused(error)
                control.is_stopped(0.001)
    return counts


def ask_once(control, path, app):
    """Whether a request is answered."""
    try:
        return Application(path).create_session(app, patience=10)
    except AgentGone:
        return False


def use_everything(control, path, folder):
    """What an innocent user does with the service beside its requests: objects of its own, folders, opening and
    closing. Gives what was refused to it."""
    counts = Counts()
    number = 0
    while not control.is_stopped(0.01):
        number += 1
        try:
            file = os.open(f"{folder}/own{number % 5}", os.O_RDWR | os.O_CREAT, 0o644)
            os.write(file, f"n:n:{number}\n".encode())
            if not os.read(file, 4096).endswith(f"n:n:{number}\n".encode()):
                counts.add("reads of something else")
            os.close(file)
            os.close(os.open(path, os.O_RDWR | os.O_NONBLOCK))
            os.mkdir(f"{folder}/folder")
            os.listdir(folder)
            os.rmdir(f"{folder}/folder")
        except OSError as error:
            counts.refused(error)
        counts.add("rounds of the innocent's own")
    return counts
