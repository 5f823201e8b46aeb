"""What a disk may hold after a power cut, worked out from a journal of changes and syncs.

The strictest disk that still keeps its promises: data of a file is safe once that file was synced, an entry of a folder
once that folder was synced, and of everything else nothing, all, or any part is there. Only a rename within one folder
happens as a whole.
"""

import json
import os


def read_journal(path):
    """The entries as (kind, first text, second text); those of the writers are "begin" and "done"."""
    entries = []
    with open(path, "rb") as file:
        while line := file.readline():
            kind, first, second = line.decode().split()
            entries.append((kind, file.read(int(first)).decode(), file.read(int(second))))
    return entries


class JournalWriter:
    """Puts a writer's own entries between those of the service."""

    def __init__(self, path):
        self.file = os.open(path, os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o600)

    def add(self, kind, who, what):
        first, second = who.encode(), json.dumps(what).encode()
        os.write(self.file, f"{kind} {len(first)} {len(second)}\n".encode() + first + second)


class File:
    def __init__(self):
        self.data = b""
        self.synced = b""

    def survivor(self, chance):
        if self.data == self.synced:
            return self.data
        torn = self.data[:chance.randrange(len(self.data) + 1)]
        return chance.choice([self.synced, b"", torn, torn + b"\0" * (len(self.data) - len(torn)), self.data])


class Folder:
    def __init__(self):
        self.entries = {}
        self.synced = {}
        self.unsynced = []  # changes: (names taken away, name and node put there)

    def change(self, away, name=None, node=None):
        self.unsynced.append((away, name, node))
        self.apply(self.entries, self.unsynced[-1])

    @staticmethod
    def apply(entries, change):
        away, name, node = change
        for gone in away:
            entries.pop(gone, None)
        if name is not None:
            entries[name] = node

    def sync(self):
        self.synced = dict(self.entries)
        self.unsynced = []

    def survivor(self, chance, how):
        entries = dict(self.synced)
        kept = self.unsynced
        if how == "nothing":
            kept = []
        elif how == "first":
            kept = kept[:chance.randrange(len(kept) + 1)]
        elif how == "any":
            kept = [change for change in kept if chance.random() < 0.5]
        for change in kept:
            self.apply(entries, change)
        return entries


class Disk:
    """The store's folder, from its making on."""

    WAYS = ["nothing", "all", "first", "any"]

    def __init__(self, honours=("file", "folder")):
        self.root = Folder()
        self.honours = honours  # whose syncs count

    def find(self, path):
        node = self.root
        for name in path.split("/") if path != "." else []:
            node = node.entries[name]
        return node

    def place(self, path):
        folder, _, name = path.rpartition("/")
        return self.find(folder or "."), name

    def replay(self, entries):
        for kind, first, second in entries:
            if kind not in ("begin", "done"):
                getattr(self, kind)(first, second)

    def create(self, path, _):
        folder, name = self.place(path)
        if name not in folder.entries:
            folder.change((), name, File())

    def truncate(self, path, _):
        self.create(path, _)
        self.find(path).data = b""

    def write(self, path, data):
        self.find(path).data += data

    def sync(self, path, _):
        node = self.find(path)
        if isinstance(node, Folder):
            if "folder" in self.honours:
                node.sync()
        elif "file" in self.honours:
            node.synced = node.data

    def rename(self, path, target):
        folder, name = self.place(path)
        other, new_name = self.place(target.decode())
        node = folder.entries[name]
        if folder is other:
            folder.change((name,), new_name, node)
        else:
            other.change((), new_name, node)
            folder.change((name,))

    def mkdir(self, path, _):
        if path != ".":
            folder, name = self.place(path)
            folder.change((), name, Folder())

    def unlink(self, path, _):
        folder, name = self.place(path)
        folder.change((name,))

    rmdir = unlink

    def now(self):
        """Everything as the running system sees it: path to bytes, None for a folder."""
        found = {}

        def walk(node, path):
            for name, child in node.entries.items():
                found[path + name] = None if isinstance(child, Folder) else child.data
                if isinstance(child, Folder):
                    walk(child, f"{path}{name}/")

        walk(self.root, "")
        return found

    def after_cut(self, chance):
        """The same after a power cut, one of the many ways in which it can go."""
        found = {}
        how = chance.choice(self.WAYS)

        def walk(node, path):
            for name, child in sorted(node.survivor(chance, how).items()):
                if isinstance(child, Folder):
                    found[path + name] = None
                    walk(child, f"{path}{name}/")
                else:
                    found[path + name] = child.survivor(chance)

        walk(self.root, "")
        return found


def lay_out(image, folder):
    """Makes the folder with what is in the image."""
    os.makedirs(folder, mode=0o700)
    for path, data in image.items():
        if data is None:
            os.makedirs(f"{folder}/{path}", mode=0o700, exist_ok=True)
        else:
            with open(f"{folder}/{path}", "wb") as file:
                file.write(data)


def read_back(folder):
    found = {}
    for parent, folders, files in os.walk(folder):
        for name in folders:
            found[os.path.relpath(f"{parent}/{name}", folder)] = None
        for name in files:
            with open(f"{parent}/{name}", "rb") as file:
                found[os.path.relpath(f"{parent}/{name}", folder)] = file.read()
    return found
