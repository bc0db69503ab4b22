"""The bill of materials names everything that is in the package, and keeps the rules of its format."""

import copy
import hashlib
import json
import subprocess

import bill_of_materials
import components
import pytest
import spdx_rules
from conftest import BUILD


@pytest.fixture(scope="module")
def bill(files, msi):
    target = msi.with_suffix(".spdx.json")
    bill_of_materials.write(BUILD, files, msi, target)
    return json.loads(target.read_text(encoding="utf-8"))


def package(bill, name):
    return next(each for each in bill["packages"] if each["name"] == name)


def sha256(element):
    return next(each["checksumValue"] for each in element["checksums"] if each["algorithm"] == "SHA256")


def test_bill_keeps_the_rules(bill):
    assert spdx_rules.breaches(bill) == []


@pytest.mark.parametrize("spoil, told", [
    (lambda bill: bill.pop("dataLicense"), "lacks dataLicense"),
    (lambda bill: bill["creationInfo"].update(created="today"), "time of creation"),
    (lambda bill: bill["packages"][1].pop("licenseDeclared"), "lacks licenseDeclared"),
    (lambda bill: bill["packages"][1].update(licenseDeclared="Mine-1.0"), "unknown licence Mine-1.0"),
    (lambda bill: bill["files"][0]["checksums"][0].update(checksumValue="12"), "a sum that is none"),
    (lambda bill: bill["files"][0]["checksums"][0].update(checksumValue="0" * 40), "verification code"),
    (lambda bill: bill["files"][0].update(SPDXID=bill["files"][1]["SPDXID"]), "more than one element"),
    (lambda bill: bill["relationships"][0].update(relatedSpdxElement="SPDXRef-Nobody"), "does not exist"),
    (lambda bill: bill["packages"][0].update(filesAnalyzed=False), "were not looked at"),
])
def test_rules_notice_a_breach(bill, spoil, told):
    spoiled = copy.deepcopy(bill)
    spoil(spoiled)
    assert any(told in breach for breach in spdx_rules.breaches(spoiled))


def test_every_installed_file_stands_with_its_sum(bill, files, msi):
    product = package(bill, "TELVOR")
    assert product["packageFileName"] == msi.name
    assert product["comment"] == "For the control plane https://cp.telvor.test:8443."
    assert sha256(product) == hashlib.sha256(msi.read_bytes()).hexdigest()
    listed = {each["fileName"]: sha256(each) for each in bill["files"]}
    for path in files.iterdir():
        assert listed[f"./{path.name}"] == hashlib.sha256(path.read_bytes()).hexdigest()


def test_everything_that_is_built_in_is_told(bill):
    names = {each["name"] for each in bill["packages"]}
    assert names == {"TELVOR", "Monocypher", "mingw-w64 runtime", "winpthreads", "libgcc", "libssp",
                     "libstdc++", "JSON for Modern C++", "CLI11"}
    for name in ("libgcc", "libssp", "libstdc++"):
        assert package(bill, name)["licenseDeclared"] == "GPL-3.0-or-later WITH GCC-exception-3.1"
    for each in bill["packages"]:
        assert each.get("checksums") or each["packageVerificationCode"], each["name"]
    linked = {(each["spdxElementId"], each["relatedSpdxElement"]) for each in bill["relationships"]
              if each["relationshipType"] == "STATIC_LINK"}
    service, tool = "SPDXRef-File-telvor.exe", "SPDXRef-File-telvorctl.exe"
    assert (service, package(bill, "Monocypher")["SPDXID"]) in linked
    assert (tool, package(bill, "Monocypher")["SPDXID"]) not in linked
    assert (tool, package(bill, "CLI11")["SPDXID"]) in linked
    assert (service, package(bill, "CLI11")["SPDXID"]) not in linked


def test_versions_are_those_that_are_installed(bill):
    for name, debian in (("libstdc++", "g++-mingw-w64-x86-64-posix"), ("CLI11", "libcli11-dev"),
                         ("mingw-w64 runtime", "mingw-w64-x86-64-dev")):
        version = subprocess.run(["dpkg-query", "-W", "-f=${Version}", debian], check=True,
                                 stdout=subprocess.PIPE, text=True).stdout
        assert package(bill, name)["versionInfo"] == version


def test_monocypher_stands_with_the_hash_of_what_was_fetched(bill):
    lines = (BUILD / "monocypher" / "origin.txt").read_text(encoding="utf-8").splitlines()
    noted = dict(line.split(" ", 1) for line in lines)
    monocypher = package(bill, "Monocypher")
    assert sha256(monocypher) == noted["sha256"] and monocypher["versionInfo"] == noted["version"]
    fetched = [hashlib.sha256(path.read_bytes()).hexdigest() for path in (BUILD / "monocypher").glob("*gz")]
    assert noted["sha256"] in fetched


def test_what_nobody_knows_does_not_get_in():
    with pytest.raises(LookupError, match="libmystery"):
        components.owner("/usr/lib/libmystery.a")
