"""The VPN servers: wireguard-go on two machines, and what the control plane is told about all of them."""

import base64
import dataclasses
import time

from cryptography.hazmat.primitives import serialization
from cryptography.hazmat.primitives.asymmetric.x25519 import X25519PrivateKey

from lab import network
from lab.control_plane.peers import INTERFACE

PORT = 51820
SILENT_PORT = 51999


@dataclasses.dataclass(frozen=True)
class Server:
    server_id: str
    name: str
    country: str
    city: str
    latitude: float
    longitude: float
    machine: network.Machine
    running: bool = True


PARIS = Server("paris-1", "Paris 1", "FR", "Paris", 48.8566, 2.3522, network.PARIS)
TOKYO = Server("tokyo-1", "Tokyo 1", "JP", "Tokyo", 35.6762, 139.6503, network.TOKYO)
# In the catalogue alone: what a user sees of a server that went down.
OSLO = Server("oslo-1", "Oslo 1", "NO", "Oslo", 59.9139, 10.7522,
              network.Machine("oslo", "198.18.5.10", "198.18.5.1", tunnel_network="10.8.3.0/24"),
              running=False)
CATALOGUE = (PARIS, TOKYO, OSLO)


def tunnel_address(server):
    """The server's own address inside its tunnel."""
    return server.machine.tunnel_network.split("/")[0].rpartition(".")[0] + ".1"


def make_key_pair():
    """A WireGuard key pair, each half as Base64 text."""
    key = X25519PrivateKey.generate()
    private = key.private_bytes(serialization.Encoding.Raw, serialization.PrivateFormat.Raw,
                                serialization.NoEncryption())
    public = key.public_key().public_bytes(serialization.Encoding.Raw, serialization.PublicFormat.Raw)
    return base64.b64encode(private).decode(), base64.b64encode(public).decode()


def start(laboratory, server):
    """Brings a server's WireGuard up, without any peer; gives its public key."""
    private, public = make_key_pair()
    if not server.running:
        return public
    name = server.machine.name
    key_file = laboratory.folder / f"{name}.key"
    key_file.touch(mode=0o600)
    key_file.write_text(private)
    laboratory.spawn(name, ["wireguard-go", "--foreground", INTERFACE], log=f"wireguard-{name}.log")
    _wait_for_interface(laboratory, name)
    address = f"{tunnel_address(server)}/{server.machine.tunnel_network.split('/')[1]}"
    script = (f"wg set {INTERFACE} listen-port {PORT} private-key {key_file}"
              f" && ip addr add {address} dev {INTERFACE} && ip link set {INTERFACE} up")
    laboratory.run(name, ["sh", "-c", script])
    return public


def _wait_for_interface(laboratory, name):
    deadline = time.monotonic() + 10
    while laboratory.run(name, ["wg", "show", INTERFACE], check=False).returncode != 0:
        if time.monotonic() > deadline:
            raise RuntimeError(f"wireguard-go did not come up on {name}")
        time.sleep(0.05)


def catalogue_entry(laboratory, server, public_key):
    """The server as the control plane is told of it."""
    return {
        "server_id": server.server_id, "name": server.name, "country": server.country, "city": server.city,
        "latitude": server.latitude, "longitude": server.longitude,
        "public_egress_ip": server.machine.address, "endpoint": f"{server.machine.address}:{PORT}",
        "public_key": public_key, "network": server.machine.tunnel_network,
        "last_seen_at": int(time.time()) - (0 if server.running else 86400),
        "enter": laboratory.enter(server.machine.name) if server.running else None,
    }


def set_silent(laboratory, server, silent):
    """A silent server receives nothing: it listens on a port that nobody knows."""
    port = SILENT_PORT if silent else PORT
    laboratory.run(server.machine.name, ["wg", "set", INTERFACE, "listen-port", str(port)])


def transfer(laboratory, server):
    """Bytes received and sent by the server, for each peer's public key."""
    output = laboratory.run(server.machine.name, ["wg", "show", INTERFACE, "transfer"]).stdout
    return {key: (int(received), int(sent)) for key, received, sent in
            (line.split() for line in output.splitlines())}
