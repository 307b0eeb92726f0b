"""Folders as values: what lies in them, for comparing the two sides of a mount."""

import os
import time


def read_tree(top):
    """The bytes of the files and None for folders, by their paths below `top`, each beginning
    with "/". What goes while it is read has it read once more."""
    for _ in range(10):
        try:
            return _read_tree(top)
        except FileNotFoundError:
            if not os.path.isdir(top):
                raise
    return _read_tree(top)


def _read_tree(top):
    tree = {}
    for folder, folders, files in os.walk(os.fsencode(top), onerror=_raise):
        below = folder[len(os.fsencode(top)):]
        for name in folders:
            tree[os.fsdecode(below + b"/" + name)] = None
        for name in files:
            with open(os.path.join(folder, name), "rb") as file:
                tree[os.fsdecode(below + b"/" + name)] = file.read()
    return tree


def _raise(error):
    raise error


def shown(contents):
    """A file's bytes for a person."""
    if contents is None:
        return "a folder"
    return repr(contents if len(contents) <= 60 else contents[:57] + b"...")


def differences(first, second):
    """What two trees differ in, a line for each path."""
    return [f"{path}: {shown(first[path]) if path in first else 'nothing'} / "
            f"{shown(second[path]) if path in second else 'nothing'}"
            for path in sorted(first.keys() | second.keys())
            if path not in first or path not in second or first[path] != second[path]]


def wait_until_same(first, second, seconds=60):
    """Waits until two folders have the same in them, as they have in the end when what was
    changed on one side has been listed on the other."""
    deadline = time.monotonic() + seconds
    while found := differences(read_tree(first), read_tree(second)):
        assert time.monotonic() < deadline, found
        time.sleep(0.2)
