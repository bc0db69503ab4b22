"""What a package is called and dated by: the same for everyone who makes it from the same commit."""

import os
import pathlib
import subprocess
import sys
import uuid

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(1, str(ROOT))

from lab.product import version  # noqa: E402, F401

NAMESPACE = uuid.uuid5(uuid.NAMESPACE_DNS, "telvor.test")


def commit_time(root=ROOT):
    """Seconds since 1970: SOURCE_DATE_EPOCH if that is set, otherwise the time of the commit."""
    given = os.environ.get("SOURCE_DATE_EPOCH")
    if given:
        return int(given)
    # The tree may belong to another user than the one who packs.
    command = ["git", "-c", f"safe.directory={root}", "-C", str(root), "log", "-1", "--format=%ct"]
    return int(subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout)


def code(*parts):
    """A GUID that stands for these texts, as Windows Installer writes it but for the braces."""
    return str(uuid.uuid5(NAMESPACE, "\n".join(parts))).upper()
