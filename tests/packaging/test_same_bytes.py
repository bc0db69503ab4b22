"""Whoever builds the same commit gets the same bytes: in another folder, at another time, as another user."""

import os
import pathlib
import pwd
import subprocess
import tempfile

import identity
import pytest
from conftest import BUILD, copy_tree

OTHER_USER = "nobody"
PRODUCTS = ("bin/telvor.exe", "bin/telvorctl.exe", f"package/unsigned/telvor-{identity.version()}.msi")


def build(tree, **options):
    """Builds the installer in the tree; its build directory."""
    folder = tree / "build" / "windows"
    define = [f"-DTELVOR_CP_BASE_URL={base_url()}"]
    for command in (["cmake", "--preset", "windows", *define],
                    ["cmake", "--build", "--preset", "windows", "--target", "installer"]):
        done = subprocess.run(command, cwd=tree, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              **options)
        assert done.returncode == 0, done.stdout[-4000:]
    return folder


def base_url():
    """Of the control plane that the build under test was made for."""
    cache = (BUILD / "CMakeCache.txt").read_text(encoding="utf-8")
    return next(line.partition("=")[2] for line in cache.splitlines()
                if line.startswith("TELVOR_CP_BASE_URL:"))


@pytest.fixture
def elsewhere():
    """The tree in another folder, which another user owns."""
    with tempfile.TemporaryDirectory(prefix="somewhere-else-") as folder:
        tree = pathlib.Path(folder) / "with-a-longer-name" / "telvor"
        tree.mkdir(parents=True)
        copy_tree(tree)
        subprocess.run(["chown", "-R", OTHER_USER, folder], check=True)
        yield tree


def test_another_folder_time_and_user_give_the_same_bytes(elsewhere):
    user = pwd.getpwnam(OTHER_USER)
    environment = {**os.environ, "HOME": str(elsewhere), "TZ": "Asia/Tokyo", "LANG": "C",
                   "CCACHE_DISABLE": "1", "SOURCE_DATE_EPOCH": str(identity.commit_time())}
    other = build(elsewhere, env=environment, umask=0o077, user=user.pw_uid, group=user.pw_gid,
                  extra_groups=[])
    for name in PRODUCTS:
        same = (other / name).read_bytes() == (BUILD / name).read_bytes()
        assert same, f"{name} differs; is {BUILD} built from the sources as they are now?"
