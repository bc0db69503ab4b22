"""Signs executables and MSIs as Windows checks it (Authenticode), and verifies what was signed.

    sign.py [--certificate FILE [--key FILE] [--password-file FILE]] [--time-server URL] FILE...

The certificate is PKCS#12, or PEM with the key in a file of its own or in the same. Its password comes from
a file, or from the environment's TELVOR_SIGNING_PASSWORD; never from the command line, which everybody can
read. Without a certificate one is made that nobody trusts, for trying things out, in build/test-certificate.
"""

import argparse
import dataclasses
import os
import pathlib
import subprocess
import sys
import tempfile

import identity

PASSWORD_VARIABLE = "TELVOR_SIGNING_PASSWORD"
TEST_FOLDER = identity.ROOT / "build" / "test-certificate"
TEST_SUBJECT = "/CN=TELVOR test certificate: do not trust"
DESCRIPTION = "TELVOR VPN"


class NotSigned(Exception):
    """Something could not be signed, or does not verify; the text says what and why."""


@dataclasses.dataclass(frozen=True)
class Signer:
    certificate: pathlib.Path
    key: pathlib.Path = None  # None: in the certificate's file
    password: str = ""
    time_server: str = ""
    roots: pathlib.Path = None  # PEM of what the signature is verified against; None: what the machine trusts
    time_roots: pathlib.Path = None  # likewise for the time stamp


def run(*command):
    result = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True)
    if result.returncode != 0:
        raise NotSigned(f"{command[0]} {command[1]} ended with {result.returncode}:\n{result.stdout.strip()}")
    return result.stdout


def trial_signer(folder=TEST_FOLDER, time_server="", time_roots=None):
    """A signer with a certificate of its own making, which is made once and kept."""
    certificate, key = folder / "certificate.pem", folder / "key.pem"
    if not (certificate.exists() and key.exists()):
        folder.mkdir(parents=True, exist_ok=True)
        key.touch(mode=0o600)
        run("openssl", "req", "-x509", "-newkey", "rsa:3072", "-nodes", "-days", "3650", "-sha256",
            "-subj", TEST_SUBJECT, "-addext", "basicConstraints=critical,CA:false",
            "-addext", "keyUsage=critical,digitalSignature", "-addext", "extendedKeyUsage=codeSigning",
            "-keyout", str(key), "-out", str(certificate))
    return Signer(certificate, key, time_server=time_server, roots=certificate, time_roots=time_roots)


def _identity_of(signer, password_file):
    """The words that tell osslsigncode who signs."""
    if signer.certificate.suffix.lower() in (".p12", ".pfx"):
        words = ["-pkcs12", str(signer.certificate)]
    else:
        words = ["-certs", str(signer.certificate), "-key", str(signer.key or signer.certificate)]
    return words + (["-readpass", password_file] if signer.password else [])


def sign(signer, path):
    """Signs the file in its place, and verifies it. Raises NotSigned; the file is then as it was."""
    with tempfile.TemporaryDirectory(dir=path.parent) as folder:
        signed, password = pathlib.Path(folder) / path.name, pathlib.Path(folder) / "password"
        password.touch(mode=0o600)
        password.write_text(signer.password, encoding="utf-8")
        when = ["-ts", signer.time_server] if signer.time_server else []
        # Of an MSI the plain signature holds the contents alone; this, the names of its streams too.
        names = ["-add-msi-dse"] if path.suffix.lower() == ".msi" else []
        run("osslsigncode", "sign", *_identity_of(signer, str(password)), "-h", "sha256", "-n", DESCRIPTION,
            *when, *names, "-in", str(path), "-out", str(signed))
        verify(signer, signed)
        os.replace(signed, path)


def verify(signer, path):
    """Raises NotSigned unless the signature is good, and the time stamp if there should be one."""
    words = ["-CAfile", str(signer.roots)] if signer.roots else []
    if signer.time_roots:
        words += ["-TSA-CAfile", str(signer.time_roots)]
    said = run("osslsigncode", "verify", *words, "-in", str(path))
    if "Succeeded" not in said:
        raise NotSigned(f"{path} does not verify:\n{said.strip()}")
    if signer.time_server and "Timestamp Server Signature verification: ok" not in said:
        raise NotSigned(f"{path} has no time stamp that verifies:\n{said.strip()}")


def add_options(parser):
    parser.add_argument("--certificate", type=pathlib.Path,
                        help="PKCS#12 (.p12, .pfx) or PEM; without it a test certificate is made")
    parser.add_argument("--key", type=pathlib.Path, help="PEM, if it is not in the certificate's file")
    parser.add_argument("--password-file", type=pathlib.Path,
                        help=f"holds the password; otherwise {PASSWORD_VARIABLE} does, if there is one")
    parser.add_argument("--time-server", default="", help="URL of a time stamp server (RFC 3161)")
    parser.add_argument("--roots", type=pathlib.Path,
                        help="PEM: verify the signature against these, not against what this machine trusts")
    parser.add_argument("--time-roots", type=pathlib.Path, help="PEM: likewise for the time stamp")


def signer_of(options):
    if options.certificate is None:
        if options.key:
            raise NotSigned("--key without --certificate: whose key is it?")
        return trial_signer(time_server=options.time_server, time_roots=options.time_roots)
    for path in (options.certificate, options.key, options.password_file):
        if path and not pathlib.Path(path).is_file():
            raise NotSigned(f"there is no file {path}")
    password = os.environ.get(PASSWORD_VARIABLE, "")
    if options.password_file:
        password = options.password_file.read_text(encoding="utf-8").rstrip("\r\n")
    return Signer(options.certificate, options.key, password, options.time_server, options.roots,
                  options.time_roots)


def main():
    parser = argparse.ArgumentParser(description="Signs executables and MSIs, and verifies what was signed.")
    add_options(parser)
    parser.add_argument("files", nargs="+", type=pathlib.Path)
    options = parser.parse_args()
    try:
        signer = signer_of(options)
        for path in options.files:
            sign(signer, path)
            print(f"{path}: signed and verified")
    except NotSigned as failure:
        sys.exit(str(failure))


if __name__ == "__main__":
    sys.exit(main())
