"""The laboratory's own certificate authority, made afresh at each start and trusted by its client alone."""

import datetime

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec, rsa
from cryptography.x509.oid import ExtendedKeyUsageOID, NameOID

LIFETIME = datetime.timedelta(days=30)
# A clock that was set back a little must not refuse a certificate made a moment ago.
BACKDATED = datetime.timedelta(days=1)


def make(folder, host):
    """Writes server.pem (certificate, issuer, key) for the host below the folder; gives the issuer's PEM."""
    issuer_key, issuer = _make_issuer()
    key = ec.generate_private_key(ec.SECP256R1())
    certificate = (
        _builder(_name(host), issuer.subject, key)
        .add_extension(x509.BasicConstraints(ca=False, path_length=None), critical=True)
        .add_extension(x509.SubjectAlternativeName([x509.DNSName(host)]), critical=False)
        .add_extension(x509.ExtendedKeyUsage([ExtendedKeyUsageOID.SERVER_AUTH]), critical=False)
        .sign(issuer_key, hashes.SHA256())
    )
    private = key.private_bytes(serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8,
                                serialization.NoEncryption())
    path = folder / "server.pem"
    path.touch(mode=0o600)
    path.write_bytes(_pem(certificate) + _pem(issuer) + private)
    return _pem(issuer).decode()


def _make_issuer():
    # Not an elliptic curve: Wine refuses a good ECDSA signature when one of its halves is a byte short, which
    # is so for about one certificate in fifty.
    key = rsa.generate_private_key(65537, 2048)
    name = _name("TELVOR laboratory CA")
    usage = x509.KeyUsage(digital_signature=True, content_commitment=False, key_encipherment=False,
                          data_encipherment=False, key_agreement=False, key_cert_sign=True, crl_sign=True,
                          encipher_only=False, decipher_only=False)
    certificate = (
        _builder(name, name, key)
        .add_extension(x509.BasicConstraints(ca=True, path_length=0), critical=True)
        .add_extension(usage, critical=True)
        .sign(key, hashes.SHA256())
    )
    return key, certificate


def _builder(subject, issuer, key):
    now = datetime.datetime.utcnow()
    return (x509.CertificateBuilder().subject_name(subject).issuer_name(issuer).public_key(key.public_key())
            .serial_number(x509.random_serial_number())
            .not_valid_before(now - BACKDATED).not_valid_after(now + LIFETIME))


def _name(common_name):
    return x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, common_name)])


def _pem(certificate):
    return certificate.public_bytes(serialization.Encoding.PEM)
