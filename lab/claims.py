"""Which laboratories there are, whose they are, and clearing away those that nobody owns any more.

Each has a number and a folder. A living owner holds a lock on the folder; a laboratory that was left up on
purpose has a marker in it instead. Needs nothing that would have to be installed first.
"""

import contextlib
import fcntl
import os
import pathlib
import shutil
import subprocess

from lab import network, requirements
from lab.steps import CannotRun

# The same for all, whatever TMPDIR says: the namespaces are the same for all too.
PARENT = pathlib.Path("/tmp")
HIGHEST_NUMBER = 99
KEPT = "kept"  # the marker's name; it holds the path of the build that the laboratory was made from


def folder_of(number):
    return PARENT / f"telvor-lab-{number}"


def _folders():
    """The numbers of all laboratories that have a folder."""
    words = [folder.name.rpartition("-")[2] for folder in PARENT.glob("telvor-lab-*")]
    return {int(word) for word in words if word.isdigit()}


@contextlib.contextmanager
def _one_at_a_time():
    """By a lock on a folder that is there anyway: between a folder and its lock there is a moment."""
    handle = os.open(PARENT, os.O_RDONLY)
    try:
        fcntl.flock(handle, fcntl.LOCK_EX)
        yield
    finally:
        os.close(handle)


def claim(tell):
    """Makes the folder of a new laboratory; its number, and the handle that owns it until it is closed."""
    with _one_at_a_time():
        _clear_abandoned(tell)
        for number in range(1, HIGHEST_NUMBER + 1):
            with contextlib.suppress(FileExistsError):
                folder_of(number).mkdir(mode=0o700)
                handle = os.open(folder_of(number), os.O_RDONLY)
                fcntl.flock(handle, fcntl.LOCK_EX)
                return number, handle
    raise CannotRun(f"all {HIGHEST_NUMBER} laboratory numbers are taken: see {folder_of('*')}")


def keep(number, build):
    """Marks a laboratory as left up on purpose."""
    (folder_of(number) / KEPT).write_text(str(build))


def kept(build):
    """The number of this build's laboratory that was left up, or None. Only root sees into a laboratory's
    folder: whoever is not may be asked by sudo."""
    for number in sorted(_folders()):
        look = requirements.as_root(["cat", str(folder_of(number) / KEPT)])
        marker = subprocess.run(look, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True).stdout
        if marker == str(build):
            return number
    return None


def _is_owned(number):
    """Whether a living process holds the laboratory, or it was left up on purpose."""
    folder = folder_of(number)
    if (folder / KEPT).exists():
        return True
    try:
        handle = os.open(folder, os.O_RDONLY)
    except FileNotFoundError:
        return False
    try:
        fcntl.flock(handle, fcntl.LOCK_EX | fcntl.LOCK_NB)
        return False
    except BlockingIOError:
        return True
    finally:
        os.close(handle)


def remove(number):
    """Takes down whatever there is of a laboratory, by its number alone."""
    network.destroy(number)
    shutil.rmtree(folder_of(number), ignore_errors=True)


def _clear_abandoned(tell):
    abandoned = [number for number in sorted(network.numbers() | _folders()) if not _is_owned(number)]
    for number in abandoned:
        tell(f"clearing away laboratory {number}, whose owner was killed")
        remove(number)
    return abandoned


def clear_abandoned(tell):
    """Removes the laboratories whose owner was killed; their numbers."""
    with _one_at_a_time():
        return _clear_abandoned(tell)
