"""Reads a tunnel's configuration file: what wg takes, and what is left for bringing the interface up."""

import base64
import binascii
import ipaddress
from dataclasses import dataclass, field

# The settings of the interface that wg itself does not know.
NOT_FOR_WG = {"address", "dns", "mtu", "table", "preup", "postup", "predown", "postdown", "saveconfig"}


@dataclass
class Configuration:
    addresses: list = field(default_factory=list)  # ipaddress interfaces
    dns: list = field(default_factory=list)  # texts
    mtu: int = 0  # 0: the program's own choice
    allowed: list = field(default_factory=list)  # ipaddress networks of all peers
    for_wg: str = ""


def parse(text):
    """Gives the configuration, or raises ValueError with the line that is no good."""
    configuration = Configuration()
    seen = set()
    kept = []
    section = ""
    for line in text.splitlines():
        line = line.split("#")[0].strip()
        if not line:
            continue
        if line.startswith("["):
            section = line.lower()
            if section not in ("[interface]", "[peer]") or (section == "[interface]" and section in seen):
                raise ValueError(f"unexpected section: {line}")
            seen.add(section)
            kept.append(line)
            continue
        name, equals, value = (part.strip() for part in line.partition("="))
        if not equals or not section:
            raise ValueError(f"not a setting: {line}")
        name = name.lower()
        seen.add((section, name))
        _read(configuration, section, name, value)
        if section != "[interface]" or name not in NOT_FOR_WG:
            kept.append(line)
    _demand(seen, ("[interface]", "privatekey"))
    if "[peer]" in seen:
        _demand(seen, ("[peer]", "publickey"))
    configuration.for_wg = "\n".join(kept) + "\n"
    return configuration


def _demand(seen, setting):
    if setting not in seen:
        raise ValueError(f"{setting[0]} has no {setting[1]}")


def _read(configuration, section, name, value):
    values = [part.strip() for part in value.split(",") if part.strip()]
    if name in ("privatekey", "publickey", "presharedkey"):
        _check_key(name, value)
    elif name == "allowedips":
        configuration.allowed += [ipaddress.ip_network(part, strict=False) for part in values]
    elif section == "[interface]" and name == "address":
        configuration.addresses += [ipaddress.ip_interface(part) for part in values]
    elif section == "[interface]" and name == "dns":
        configuration.dns += values
    elif section == "[interface]" and name == "mtu":
        configuration.mtu = int(value)


def _check_key(name, value):
    try:
        length = len(base64.b64decode(value, validate=True))
    except binascii.Error:
        length = 0
    if length != 32:
        raise ValueError(f"{name} is not a key")
