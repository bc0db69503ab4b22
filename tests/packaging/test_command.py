"""What ./package hands out: everything signed, told in the bill, and summed."""

import dataclasses
import hashlib
import json
import os
import shutil
import subprocess

import command
import identity
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


def tree_with(folder, cmake):
    """A tree of its own in which this script is cmake: (its folder, what runs a command there)."""
    tree, programs = folder / "tree", folder / "programs"
    copy_tree(tree)
    programs.mkdir()
    (programs / "cmake").write_text(cmake)
    (programs / "cmake").chmod(0o755)

    def run(*words, **variables):
        environment = {**os.environ, "PATH": f"{programs}:{os.environ['PATH']}", **variables}
        return subprocess.run(words, cwd=tree, env=environment, text=True, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)

    return tree, run


@pytest.fixture(scope="module")
def first_configuration(tmp_path_factory):
    """Begins a command in a tree of its own; gives the configurations that it came to, the first at most, and
    what it said."""
    folder = tmp_path_factory.mktemp("first-configuration")
    notes = folder / "notes"
    _, run = tree_with(folder, FIRST_CONFIGURATION.format(cmake=shutil.which("cmake"), notes=notes))

    def begin(*words):
        notes.unlink(missing_ok=True)
        done = run(*words)
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


# Whose certificate signs


# Of a build: what the installer and the bill are made from.
BUILT = ("bin", "build.ninja", "CMakeFiles", ".ninja_deps", "CMakeCache.txt", "monocypher")


@pytest.fixture
def built_tree(tmp_path):
    """A tree in which cmake finds everything built already."""
    tree, run = tree_with(tmp_path, "#!/bin/sh\n")
    folder = tree / "build" / "windows"
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    for name in BUILT:
        (folder / name).symlink_to(BUILD / name)
    return tree, run


def locked(key, password, target):
    subprocess.run(["openssl", "pkey", "-in", key, "-aes256", "-passout", f"pass:{password}", "-out", target],
                   check=True)
    return target


def test_a_certificate_with_a_locked_key_of_its_own_and_a_time_server_sign_the_package(
        signer, time_stamps, built_tree, tmp_path):
    tree, run = built_tree
    url, root = time_stamps
    key = locked(signer.key, "open it", tmp_path / "locked.pem")
    done = run("./package", "--certificate", signer.certificate, "--key", key, "--roots", signer.certificate,
               "--time-server", url, "--time-roots", root,
               **{sign.PASSWORD_VARIABLE: "open it", "SOURCE_DATE_EPOCH": str(identity.commit_time())})
    assert done.returncode == 0, done.stdout
    folder = tree / "build" / "windows" / "package"
    msi = folder / f"telvor-{identity.version()}.msi"
    assert f"  {msi.relative_to(tree)}\n" in done.stdout and "test certificate" not in done.stdout
    stamped = dataclasses.replace(signer, time_server=url, time_roots=root)
    for path in (msi, *(folder / "files" / name for name in make_msi.PROGRAMS)):
        sign.verify(stamped, path)
    assert not (tree / "build" / "test-certificate").exists()


@pytest.mark.parametrize("option", ["--key", "--password-file"])
def test_what_is_missing_to_sign_with_is_told_before_anything_is_built(first_configuration, signer, option):
    words = ["./package", "--certificate", signer.certificate, option, "/nowhere"]
    configured, said = first_configuration(*words)
    assert configured == [] and said == "./package: there is no file /nowhere\n"


def test_a_key_without_its_certificate_is_refused(first_configuration, signer):
    configured, said = first_configuration("./package", "--key", signer.certificate)
    assert configured == [] and said == "./package: --key without --certificate: whose key is it?\n"


def test_without_a_certificate_it_is_said_that_no_windows_trusts_the_package(built_tree):
    tree, run = built_tree
    done = run("./package", SOURCE_DATE_EPOCH=str(identity.commit_time()))
    assert done.returncode == 0, done.stdout
    assert done.stdout.endswith(
        "Signed with a test certificate that no Windows trusts; ./package --help tells of others.\n")
    sign.verify(sign.trial_signer(tree / "build" / "test-certificate"),
                tree / "build" / "windows" / "package" / f"telvor-{identity.version()}.msi")
