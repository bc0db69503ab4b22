"""What ./package hands out: everything signed, told in the bill, and summed."""

import hashlib
import json
import os
import shutil
import subprocess

import command
import make_msi
import pytest
import sign
import spdx_rules
from conftest import BUILD, copy_tree


@pytest.fixture(scope="module")
def signer(tmp_path_factory):
    return sign.trial_signer(tmp_path_factory.mktemp("certificate"))


@pytest.fixture(scope="module")
def handed_out(signer, tmp_path_factory):
    folder = tmp_path_factory.mktemp("package")
    return folder, command.make(signer, BUILD, folder)


def test_sums_are_those_of_the_package_and_its_bill(handed_out):
    folder, (msi, bill, sums) = handed_out
    told = subprocess.run(["sha256sum", "--check", "--strict", sums.name], cwd=folder, check=True,
                          stdout=subprocess.PIPE, text=True).stdout
    assert told == f"{msi.name}: OK\n{bill.name}: OK\n"


def test_package_and_the_executables_inside_are_signed(signer, handed_out, tmp_path):
    _, (msi, _, _) = handed_out
    sign.verify(signer, msi)
    subprocess.run(["msiextract", "-C", str(tmp_path), str(msi)], check=True, stdout=subprocess.DEVNULL)
    inside = {path.name: path for path in tmp_path.rglob("*") if path.is_file()}
    assert set(inside) == {*make_msi.PROGRAMS, make_msi.SEED, make_msi.NOTICES}
    for name in make_msi.PROGRAMS:
        sign.verify(signer, inside[name])
        assert inside[name].read_bytes() != (BUILD / "bin" / name).read_bytes()


def test_bill_tells_of_the_signed_files(handed_out):
    folder, (msi, bill, _) = handed_out
    document = json.loads(bill.read_text(encoding="utf-8"))
    assert spdx_rules.breaches(document) == []
    sums = {each["fileName"]: each["checksums"][1]["checksumValue"] for each in document["files"]}
    sums["msi"] = document["packages"][0]["checksums"][1]["checksumValue"]
    for path in [msi, *(folder / "files").iterdir()]:
        wanted = hashlib.sha256(path.read_bytes()).hexdigest()
        assert wanted == sums["msi" if path == msi else f"./{path.name}"]


# What decides for which control plane is built


# Lets a URL be judged, notes a configuration, and ends there.
FIRST_CONFIGURATION = """#!/bin/sh
case " $* " in *' -P '*) exec {cmake} "$@" ;; esac
echo "$@" >>{notes}
exit 1
"""


@pytest.fixture(scope="module")
def first_configuration(tmp_path_factory):
    """Begins a command in a tree of its own; gives the configurations that it came to, the first at most, and
    what it said."""
    folder = tmp_path_factory.mktemp("first-configuration")
    tree, programs, notes = (folder / name for name in ("tree", "programs", "notes"))
    copy_tree(tree)
    programs.mkdir()
    (programs / "cmake").write_text(FIRST_CONFIGURATION.format(cmake=shutil.which("cmake"), notes=notes))
    (programs / "cmake").chmod(0o755)

    def begin(*words):
        notes.unlink(missing_ok=True)
        environment = {**os.environ, "PATH": f"{programs}:{os.environ['PATH']}"}
        done = subprocess.run(words, cwd=tree, env=environment, text=True, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        assert done.returncode != 0
        return notes.read_text().splitlines() if notes.exists() else [], done.stdout

    return begin


@pytest.mark.parametrize("words, configuration", [
    (["./package", "--control-plane", "https://vpn.example.net:444"],
     "--preset windows -DTELVOR_CP_BASE_URL=https://vpn.example.net:444"),
    (["./package"], "--preset windows -UTELVOR_CP_BASE_URL"),
    (["./run"], "--preset windows -UTELVOR_CP_BASE_URL"),
    (["./bench"], "--preset windows -UTELVOR_CP_BASE_URL"),
    (["./test", "--quick"], "--preset native -UTELVOR_CP_BASE_URL"),
])
def test_every_command_says_for_which_control_plane_it_builds(first_configuration, words, configuration):
    assert first_configuration(*words)[0] == [configuration]


NO_HTTPS_URL = ("The control plane's base URL must be an https URL without a path, such as "
                "https://cp.example.com:8443, but it is '{url}'.")
NO_PORT = "The control plane's base URL names port {port}; a port lies between 1 and 65535."
REFUSED = {
    **{url: NO_HTTPS_URL.format(url=url) for url in (
        "", "nonsense", "http://cp.example.com", "https://", "https://cp.example.com/api",
        "https://cp.example.com:", "https://cp.example.com;x", "https://$cp.example.com",
        'https://cp."example".com',
    )},
    **{f"https://cp.example.com:{port}": NO_PORT.format(port=port) for port in (0, 65536, 123456)},
}


@pytest.mark.parametrize("url", REFUSED)
def test_a_control_plane_that_is_none_is_refused_before_anything_is_built(first_configuration, url):
    configured, said = first_configuration("./package", "--control-plane", url)
    assert configured == [] and said.endswith(f"\n./package: error: {REFUSED[url]}\n")
