"""The unsigned package of the build under test, made once."""

import os
import pathlib
import shutil
import subprocess
import sys

import pytest
import time_server

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "packaging"))

import make_msi  # noqa: E402

BUILD = pathlib.Path(os.environ.get("TELVOR_LAB_BUILD", ROOT / "build" / "windows"))


def copy_tree(target):
    """The sources without a history, and what cannot be fetched everywhere."""
    names = subprocess.run(["git", "-c", f"safe.directory={ROOT}", "-C", str(ROOT), "ls-files", "-z",
                            "--cached", "--others", "--exclude-standard"],
                           check=True, stdout=subprocess.PIPE).stdout
    for name in filter(None, names.decode().split("\0")):
        if (ROOT / name).exists():
            (target / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(ROOT / name, target / name)
    for archive in (BUILD / "monocypher").glob("*gz"):
        kept = target / "build" / "windows" / "monocypher"
        kept.mkdir(parents=True)
        shutil.copy(archive, kept)


@pytest.fixture(scope="session")
def files(tmp_path_factory):
    """The package's files as they are laid out."""
    folder = tmp_path_factory.mktemp("package") / "files"
    make_msi.lay_out(folder, BUILD)
    return folder


@pytest.fixture(scope="session")
def msi(files):
    made = files.parent / "telvor.msi"
    make_msi.make(files, made)
    return made


@pytest.fixture(scope="session")
def time_stamps(tmp_path_factory):
    """(URL of a time stamp server, its root certificate)."""
    with time_server.running(tmp_path_factory.mktemp("time-server")) as url_and_root:
        yield url_and_root


@pytest.fixture(scope="session")
def table(msi):
    """Reads a table of the MSI: its rows, each a dictionary by column."""
    def read(name):
        done = subprocess.run(["msiinfo", "export", str(msi), name], check=True, stdout=subprocess.PIPE)
        lines = done.stdout.decode("cp1252").split("\r\n")
        columns, _, _, *rows = (line.split("\t") for line in lines if line)
        return [dict(zip(columns, row)) for row in rows]

    return read
