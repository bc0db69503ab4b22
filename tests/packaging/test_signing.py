"""Signing: what is signed verifies, with its time stamp; what was changed afterwards does not."""

import dataclasses
import os
import shutil
import struct
import subprocess
import sys

import pytest
import sign
from conftest import BUILD, ROOT

PASSWORD = "a blank and 'quotes' too"
SIGNATURE_STREAM = "\5DigitalSignature".encode("utf-16-le")
# As the MSI calls telvor.cab: two letters stand in one.
CABINET_NAME = "\u4237\u466f\u4572\u41be\u4164".encode("utf-16-le")


@pytest.fixture(scope="module")
def signer(tmp_path_factory):
    return sign.trial_signer(tmp_path_factory.mktemp("certificate"))


@pytest.fixture
def program(tmp_path):
    return shutil.copy(BUILD / "bin" / "telvorctl.exe", tmp_path / "telvorctl.exe")


@pytest.fixture
def package(msi, tmp_path):
    return shutil.copy(msi, tmp_path / "telvor.msi")


@pytest.fixture(params=["program", "package"])
def path(request):
    """Of each kind of file that is signed."""
    return request.getfixturevalue(request.param)


@pytest.fixture(scope="module")
def stamping(signer, time_stamps):
    url, root = time_stamps
    return dataclasses.replace(signer, time_server=url, time_roots=root)


@pytest.fixture(scope="module")
def pkcs12(signer, tmp_path_factory):
    target = tmp_path_factory.mktemp("pkcs12") / "signer.p12"
    subprocess.run(["openssl", "pkcs12", "-export", "-in", signer.certificate, "-inkey", signer.key, "-passout",
                    f"pass:{PASSWORD}", "-out", target], check=True)
    return target


def run_sign(*words, **variables):
    environment = {key: value for key, value in os.environ.items() if key != sign.PASSWORD_VARIABLE}
    return subprocess.run([sys.executable, "-B", ROOT / "packaging" / "sign.py", *words],
                          env={**environment, **variables}, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True)


def test_it_verifies_once_signed(signer, path):
    with pytest.raises(sign.NotSigned):
        sign.verify(signer, path)
    sign.sign(signer, path)
    sign.verify(signer, path)


def without_check_sum(data):
    """The field of the optional header that signing fills in is emptied."""
    place = struct.unpack_from("<I", data, 60)[0] + 24 + 64
    return data[:place] + bytes(4) + data[place + 4:]


def test_without_its_signature_it_is_what_was_built(signer, program, tmp_path):
    built = without_check_sum(program.read_bytes())
    sign.sign(signer, program)
    bare = tmp_path / "bare"
    sign.run("osslsigncode", "remove-signature", "-in", str(program), "-out", str(bare))
    left = without_check_sum(bare.read_bytes())
    assert left[:len(built)] == built and not any(left[len(built):])  # padding


def what_is_signed(package, target):
    """What its signature stands for: the names and contents of its streams, whatever their order."""
    sign.run("osslsigncode", "extract-data", "-add-msi-dse", "-in", str(package), "-out", str(target))
    return target.read_bytes()


def test_without_its_signature_the_package_holds_what_was_made(signer, package, tmp_path):
    """Not byte for byte: signing sorts the streams and lays the small ones out anew."""
    before = what_is_signed(package, tmp_path / "before")
    sign.sign(signer, package)
    assert SIGNATURE_STREAM in package.read_bytes()
    bare = tmp_path / "bare.msi"
    sign.run("osslsigncode", "remove-signature", "-in", str(package), "-out", str(bare))
    assert SIGNATURE_STREAM not in bare.read_bytes()
    assert what_is_signed(bare, tmp_path / "after") == before


@pytest.mark.parametrize("path, where", [
    pytest.param("program", b".text\0", id="program"),
    pytest.param("package", b"MSCF", id="package: cabinet"),
    pytest.param("package", b"A newer version of TELVOR", id="package: texts of tables"),
    pytest.param("package", b"The TELVOR VPN service and its command line", id="package: summary"),
    pytest.param("package", CABINET_NAME, id="package: name of cabinet"),
], indirect=["path"])
def test_a_changed_file_does_not_verify(signer, path, where):
    sign.sign(signer, path)
    data = bytearray(path.read_bytes())
    data[data.index(where)] ^= 1
    path.write_bytes(data)
    with pytest.raises(sign.NotSigned):
        sign.verify(signer, path)


def test_somebody_elses_signature_does_not_verify(signer, path, tmp_path):
    sign.sign(sign.trial_signer(tmp_path / "other"), path)
    with pytest.raises(sign.NotSigned):
        sign.verify(signer, path)


def test_time_stamp_is_put_in_and_verified(signer, stamping, path):
    sign.sign(signer, path)
    with pytest.raises(sign.NotSigned, match="time stamp"):
        sign.verify(stamping, path)
    sign.sign(stamping, path)
    sign.verify(stamping, path)


def test_a_time_server_that_does_not_answer_leaves_the_file_as_it_was(signer, path):
    before = path.read_bytes()
    with pytest.raises(sign.NotSigned):
        sign.sign(dataclasses.replace(signer, time_server="http://127.0.0.1:9/"), path)
    assert path.read_bytes() == before and list(path.parent.iterdir()) == [path]


def test_pkcs12_with_a_password_from_a_file_or_the_environment(signer, pkcs12, program, tmp_path):
    known = ["--certificate", pkcs12, "--roots", signer.certificate]
    secret = tmp_path / "secret"
    secret.write_text(PASSWORD + "\n")
    assert run_sign(*known, "--password-file", secret, program).returncode == 0
    sign.verify(signer, program)
    assert run_sign(*known, program, **{sign.PASSWORD_VARIABLE: PASSWORD}).returncode == 0


def test_a_wrong_password_is_told_and_never_shown(signer, pkcs12, program):
    done = run_sign("--certificate", pkcs12, "--roots", signer.certificate, program,
                    **{sign.PASSWORD_VARIABLE: "not this one"})
    assert done.returncode != 0 and "osslsigncode sign" in done.stdout and "not this one" not in done.stdout


def test_a_certificate_that_is_not_there_is_told_at_once(program, tmp_path):
    done = run_sign("--certificate", str(tmp_path / "nowhere.p12"), str(program))
    assert done.returncode != 0
    assert done.stdout == f"there is no file {tmp_path / 'nowhere.p12'}\n"
