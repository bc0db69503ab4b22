"""Whoever builds the same commit gets the same bytes: in another folder, at another time, as another user."""

import os
import pathlib
import pwd
import subprocess
import tempfile

import command
import identity
import pytest
from conftest import BUILD, copy_tree

OTHER_USER = "nobody"
OTHER_CONTROL_PLANE = "https://vpn.example.net"
PRODUCTS = ("bin/telvor.exe", "bin/telvorctl.exe", f"package/unsigned/telvor-{identity.version()}.msi")


def build(tree, base_url, target):
    """Builds the target in the tree, as another user and at another time, for the control plane with this URL,
    or for the laboratory's if it is None."""
    user = pwd.getpwnam(OTHER_USER)
    environment = {**os.environ, "HOME": str(tree), "TZ": "Asia/Tokyo", "LANG": "C", "CCACHE_DISABLE": "1",
                   "SOURCE_DATE_EPOCH": str(identity.commit_time())}
    for words in (["cmake", "--preset", "windows", command.base_url_option(base_url)],
                  ["cmake", "--build", "--preset", "windows", "--target", target]):
        done = subprocess.run(words, cwd=tree, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              env=environment, umask=0o077, user=user.pw_uid, group=user.pw_gid,
                              extra_groups=[])
        assert done.returncode == 0, done.stdout[-4000:]


def base_url(folder):
    """Of the control plane that this build was made for."""
    cache = (folder / "CMakeCache.txt").read_text(encoding="utf-8")
    return next(line.partition("=")[2] for line in cache.splitlines()
                if line.startswith("TELVOR_CP_BASE_URL:"))


@pytest.fixture(scope="module")
def elsewhere():
    """The tree in another folder, which another user owns and has built."""
    with tempfile.TemporaryDirectory(prefix="somewhere-else-") as folder:
        tree = pathlib.Path(folder) / "with-a-longer-name" / "telvor"
        tree.mkdir(parents=True)
        copy_tree(tree)
        subprocess.run(["chown", "-R", OTHER_USER, folder], check=True)
        build(tree, base_url(BUILD), "installer")
        yield tree


def test_another_folder_time_and_user_give_the_same_bytes(elsewhere):
    for name in PRODUCTS:
        same = (elsewhere / "build" / "windows" / name).read_bytes() == (BUILD / name).read_bytes()
        assert same, f"{name} differs; is {BUILD} built from the sources as they are now?"


def test_a_package_s_control_plane_stays_in_no_later_build(elsewhere):
    folder = elsewhere / "build" / "windows"

    def built_for(control_plane):
        build(elsewhere, control_plane, "telvor")
        return (folder / "bin" / "telvor.exe").read_bytes()

    def names(executable, control_plane):
        return control_plane.encode("utf-16-le") in executable

    before = built_for(None)
    laboratory_s = base_url(folder)
    assert names(before, laboratory_s) and not names(before, OTHER_CONTROL_PLANE)
    packaged = built_for(OTHER_CONTROL_PLANE)
    assert names(packaged, OTHER_CONTROL_PLANE) and not names(packaged, laboratory_s)
    assert built_for(None) == before
