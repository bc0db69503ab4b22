"""The network of one laboratory: six small machines, each a network namespace, around one router.

    client 192.168.77.20 --- router --- paris  198.18.1.10   VPN server, tunnel addresses 10.8.1.0/24
                                +------ tokyo  198.18.2.10   VPN server, tunnel addresses 10.8.2.0/24
                                +------ site   198.18.3.10   web site that bypasses the tunnel
                                +------ cp     198.18.4.10   control plane

Every machine has a link of its own to the router and the router as its gateway. The router knows the way
back to the tunnel addresses, so that nothing needs address translation and every host sees the true peer.
All addresses are the same in every laboratory: the namespaces keep them apart.
"""

import contextlib
import dataclasses
import os
import pathlib
import re
import shutil
import signal
import subprocess
import time

NETNS_FOLDER = pathlib.Path("/etc/netns")
# wireguard-go and wg meet at a socket below this folder, which namespaces share: each machine gets its own.
WIREGUARD_SOCKETS = pathlib.Path("/run/wireguard")
GRACE_SECONDS = 5.0


@dataclasses.dataclass(frozen=True)
class Machine:
    name: str
    address: str
    gateway: str
    tunnel_network: str = ""  # what the router routes to this machine beside its link


CLIENT = Machine("client", "192.168.77.20", "192.168.77.1")
PARIS = Machine("paris", "198.18.1.10", "198.18.1.1", tunnel_network="10.8.1.0/24")
TOKYO = Machine("tokyo", "198.18.2.10", "198.18.2.1", tunnel_network="10.8.2.0/24")
SITE = Machine("site", "198.18.3.10", "198.18.3.1")
CONTROL_PLANE = Machine("cp", "198.18.4.10", "198.18.4.1")
MACHINES = (CLIENT, PARIS, TOKYO, SITE, CONTROL_PLANE)
ROUTER = "router"

CONTROL_PLANE_HOST = "cp.telvor.test"
CONTROL_PLANE_PORT = 8443
CONTROL_PLANE_URL = f"https://{CONTROL_PLANE_HOST}:{CONTROL_PLANE_PORT}"
SITE_HOST = "site.telvor.test"
# The policy's addresses. The control plane is one of them: the tunnel takes every other packet, and while its
# handshake does not come the next attempt still has to ask the control plane for a profile.
BYPASSED = (SITE.address, CONTROL_PLANE.address)
HOSTS = {CONTROL_PLANE_HOST: CONTROL_PLANE.address, SITE_HOST: SITE.address}


def namespace(number, name):
    return f"telvor{number}-{name}"


def names():
    return [machine.name for machine in MACHINES] + [ROUTER]


def enter(number, folder, name):
    """The words that start a command on a machine: its namespace, its host name, its WireGuard sockets."""
    script = 'hostname "$1" && mkdir -p "$3" && mount --bind "$2" "$3" && shift 3 && exec "$@"'
    return ["ip", "netns", "exec", namespace(number, name), "unshare", "--uts",
            "sh", "-c", script, "enter", host_name(name),
            str(sockets_folder(folder, name)), str(WIREGUARD_SOCKETS)]


def host_name(name):
    """The client's becomes its computer name, and so its device id, whatever the real host is called."""
    return f"telvor-{name}"


def sockets_folder(folder, name):
    return pathlib.Path(folder) / "wireguard" / name


def create(number, folder, ca_pem):
    """Makes all machines, links and routes, and what the client finds under /etc."""
    for name in names():
        sockets_folder(folder, name).mkdir(parents=True)
        _ip("netns", "add", namespace(number, name))
        _ip("-n", namespace(number, name), "link", "set", "lo", "up")
    for machine in MACHINES:
        _link(number, machine)
    for name in (ROUTER, PARIS.name, TOKYO.name):
        run(number, folder, name, ["sh", "-c", "echo 1 > /proc/sys/net/ipv4/ip_forward"])
    _write_etc(number, ca_pem)


def _link(number, machine):
    inside, router = namespace(number, machine.name), namespace(number, ROUTER)
    port = f"to-{machine.name}"
    _ip("link", "add", "eth0", "netns", inside, "type", "veth", "peer", "name", port, "netns", router)
    _ip("-n", inside, "addr", "add", f"{machine.address}/24", "dev", "eth0")
    _ip("-n", router, "addr", "add", f"{machine.gateway}/24", "dev", port)
    _ip("-n", router, "link", "set", port, "up")
    _ip("-n", inside, "link", "set", "eth0", "up")
    _ip("-n", inside, "route", "add", "default", "via", machine.gateway)
    if machine.tunnel_network:
        _ip("-n", router, "route", "add", machine.tunnel_network, "via", machine.address)


def _write_etc(number, ca_pem):
    """Names and trust of the client, bound over /etc for its processes alone."""
    etc = NETNS_FOLDER / namespace(number, CLIENT.name)
    (etc / "ssl" / "certs").mkdir(parents=True)
    lines = [f"127.0.0.1 localhost {host_name(CLIENT.name)}"]
    lines += [f"{address} {name}" for name, address in HOSTS.items()]
    (etc / "hosts").write_text("\n".join(lines) + "\n")
    # There is no name server in a laboratory: a name that is not in the file must fail at once.
    (etc / "nsswitch.conf").write_text("passwd: files\ngroup: files\nhosts: files\n")
    bundle = pathlib.Path("/etc/ssl/certs/ca-certificates.crt")
    machine_trust = bundle.read_text() if bundle.exists() else ""
    (etc / "ssl" / "certs" / bundle.name).write_text(machine_trust + ca_pem)
    config = pathlib.Path("/etc/ssl/openssl.cnf")
    if config.exists():
        shutil.copy(config, etc / "ssl" / config.name)


def set_host_address(number, name, addresses):
    """Gives a name of the client's hosts file other addresses, or none."""
    path = NETNS_FOLDER / namespace(number, CLIENT.name) / "hosts"
    kept = [line for line in path.read_text().splitlines() if line.split()[1:] != [name]]
    # Written in place: a new file would not be seen by processes that have the old one bound over /etc/hosts.
    path.write_text("\n".join(kept + [f"{address} {name}" for address in addresses]) + "\n")


def run(number, folder, name, argv, **options):
    """Runs a command on a machine to its end; its output as text, an error if it fails."""
    return subprocess.run(enter(number, folder, name) + list(argv), check=options.pop("check", True),
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **options)


def existing(number):
    """Which of a laboratory's namespaces are there."""
    there = {line.split()[0] for line in _ip("netns", "list").splitlines() if line.strip()}
    return [name for name in names() if namespace(number, name) in there]


def numbers():
    """The numbers of all laboratories that have a namespace."""
    return {int(found) for found in re.findall(r"^telvor(\d+)-", _ip("netns", "list"), re.MULTILINE)}


def destroy(number):
    """Ends every process on the machines, the polite way first, and removes every trace of them."""
    machines = existing(number)
    _signal_all(number, machines, signal.SIGTERM)
    if not _are_gone(number, machines):
        _signal_all(number, machines, signal.SIGKILL)
        _are_gone(number, machines)
    for name in machines:
        _ip("netns", "del", namespace(number, name))
    for name in names():
        shutil.rmtree(NETNS_FOLDER / namespace(number, name), ignore_errors=True)
    # Other laboratories need the socket folder as something to mount over: to them it does not have to hold
    # anything, so that it goes with the last of them.
    for folder in (NETNS_FOLDER,) if numbers() else (NETNS_FOLDER, WIREGUARD_SOCKETS):
        with contextlib.suppress(OSError):
            folder.rmdir()  # fails while anybody has anything in it, as it should


def _are_gone(number, machines):
    deadline = time.monotonic() + GRACE_SECONDS
    while _processes(number, machines):
        if time.monotonic() > deadline:
            return False
        time.sleep(0.05)
    return True


def pids(number, name):
    return [int(pid) for pid in _ip("netns", "pids", namespace(number, name)).split()]


def _processes(number, machines):
    return [pid for name in machines for pid in pids(number, name)]


def _signal_all(number, machines, sig):
    for pid in _processes(number, machines):
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, sig)


def _ip(*arguments):
    result = subprocess.run(["ip", *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    if result.returncode != 0:
        raise RuntimeError(f"ip {' '.join(arguments)}: {result.stderr.strip()}")
    return result.stdout
