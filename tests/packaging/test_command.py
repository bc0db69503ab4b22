"""What ./package hands out: everything signed, told in the bill, and summed."""

import hashlib
import json
import subprocess

import command
import make_msi
import pytest
import sign
import spdx_rules
from conftest import BUILD, ROOT


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


@pytest.mark.parametrize("url", ["http://cp.example.com", "https://cp.example.com/api", "https://cp.example.com:"])
def test_a_control_plane_that_is_none_is_refused_before_anything_is_built(url):
    done = subprocess.run([ROOT / "package", "--control-plane", url], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True)
    assert done.returncode == 2 and "takes an https URL without a path" in done.stdout
