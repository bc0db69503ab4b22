"""Tunnel interfaces: wireguard-go, wg and ip do what WireGuard's own driver and service do on Windows.

A tunnel that carries all traffic owns a default route of metric 0 that stands before the physical one, which
stays in the table. Packets to the peer itself keep the physical road by a host route, since wireguard-go
does not bind its socket to an interface.
"""

import asyncio
import ctypes
import fcntl
import ipaddress
import os
import signal
import socket
import struct
from dataclasses import dataclass, field

import codes
import configuration
import routes
from commands import run

SOCKETS = "/var/run/wireguard"
START_TIMEOUT = 5.0
STOP_TIMEOUT = 3.0
PR_SET_PDEATHSIG = 1
CLONE_NEWNS = 0x00020000
MS_REC = 0x4000
MS_PRIVATE = 0x40000
TUNSETIFF = 0x400454CA
TUNSETPERSIST = 0x400454CB
TUNSETIFINDEX = 0x400454DA
WIREGUARD_TUN_FLAGS = 0x0001 | 0x1000 | 0x4000  # IFF_TUN, IFF_NO_PI, IFF_VNET_HDR: those of wireguard-go

_libc = ctypes.CDLL(None, use_errno=True)
_lock = asyncio.Lock()
_tunnels = {}
_indices = {}  # the interface index of every name that was ever up
_held = {}  # names of tunnels that end with their connection, by connection


@dataclass
class Tunnel:
    conf: configuration.Configuration
    process: object
    host_routes: list = field(default_factory=list)


class Failed(Exception):
    """A step of bringing a tunnel up did not work; the text says which."""


def isolate():
    """Gives this process a socket folder of its own: a network namespace does not separate these, and
    several laboratories each have a tunnel of the same name."""
    os.makedirs(SOCKETS, mode=0o700, exist_ok=True)
    _demand_zero("unshare", _libc.unshare(CLONE_NEWNS))
    _demand_zero("mount", _libc.mount(b"none", b"/", None, MS_REC | MS_PRIVATE, None))
    _demand_zero("mount", _libc.mount(b"telvor-lab", SOCKETS.encode(), b"tmpfs", 0, b"mode=0700"))


def _demand_zero(what, result):
    if result:
        raise OSError(ctypes.get_errno(), f"{what}: {os.strerror(ctypes.get_errno())}")


def _end_with_agent():
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


async def _step(*arguments, stdin=None):
    done = await run(*arguments, stdin=stdin)
    if done.exit_code:
        raise Failed(f"{' '.join(arguments)}: {done.stderr.strip()}")
    return done.stdout


def _reserve_index(name):
    """A tunnel that comes back gets its old interface index: Wine keeps the first one of a name for good."""
    if name not in _indices:
        return
    try:
        with open("/dev/net/tun", "r+b", buffering=0) as device:
            fcntl.ioctl(device, TUNSETIFINDEX, struct.pack("I", _indices[name]))
            fcntl.ioctl(device, TUNSETIFF, struct.pack("16sH22x", name.encode(), WIREGUARD_TUN_FLAGS))
            fcntl.ioctl(device, TUNSETPERSIST, 1)
    except OSError as failure:
        raise Failed(f"the index of {name} could not be had again: {failure}") from failure


async def _start_process(name):
    return await asyncio.create_subprocess_exec(
        "wireguard-go", "-f", name, stdin=asyncio.subprocess.DEVNULL, stdout=asyncio.subprocess.DEVNULL,
        stderr=asyncio.subprocess.DEVNULL, env={**os.environ, "LOG_LEVEL": "silent"},
        start_new_session=True, preexec_fn=_end_with_agent)


async def _wait_until_ready(name, process):
    deadline = asyncio.get_running_loop().time() + START_TIMEOUT
    while not os.path.exists(f"{SOCKETS}/{name}.sock"):
        if process.returncode is not None or asyncio.get_running_loop().time() > deadline:
            raise Failed(f"wireguard-go {name} did not start")
        await asyncio.sleep(0.01)


def _has_ipv6():
    try:
        with open("/proc/sys/net/ipv6/conf/all/disable_ipv6", encoding="ascii") as setting:
            return setting.read().strip() == "0"
    except FileNotFoundError:
        return False


def _usable(entries):
    return [entry for entry in entries if entry.version == 4 or _has_ipv6()]


async def _keep_road_to_peers(name, tunnel):
    """Must run before the tunnel's own routes are there."""
    for line in (await _step("wg", "show", name, "endpoints")).splitlines():
        host = line.partition("\t")[2].rpartition(":")[0].strip("[]")
        if not host or ":" in host or host == "(none)":
            continue
        address = ipaddress.ip_address(host)
        covered = any(address in network for network in tunnel.conf.allowed if network.version == 4)
        best = await routes.best_route(host) if covered else None
        if best is None or best[0].next_hop == routes.ON_LINK or best[0].prefix_length == 32:
            continue
        row = routes.Route(host, 32, best[0].next_hop, best[0].interface_index, best[0].interface, 0)
        if (await routes.add(row))["code"] == codes.SUCCESS:
            tunnel.host_routes.append(row)


async def _route(name, network):
    if network.version == 4 and any(row.interface == name and row.prefix == str(network)
                                    for row in routes.list_routes()):
        return
    await _step("ip", f"-{network.version}", "route", "prepend", str(network), "dev", name)


async def _configure(name, tunnel):
    await _wait_until_ready(name, tunnel.process)
    _indices.setdefault(name, socket.if_nametoindex(name))
    await _step("wg", "setconf", name, "/dev/stdin", stdin=tunnel.conf.for_wg)
    for address in _usable(tunnel.conf.addresses):
        await _step("ip", f"-{address.version}", "address", "add", str(address), "dev", name)
    if tunnel.conf.mtu:
        await _step("ip", "link", "set", name, "mtu", str(tunnel.conf.mtu))
    await _step("ip", "link", "set", name, "up")
    await _keep_road_to_peers(name, tunnel)
    for network in _usable(tunnel.conf.allowed):
        await _route(name, network)


async def _take_down(name):
    tunnel = _tunnels.pop(name)
    for row in tunnel.host_routes:
        await routes.remove(row)
    if tunnel.process.returncode is None:
        tunnel.process.terminate()
        try:
            await asyncio.wait_for(tunnel.process.wait(), STOP_TIMEOUT)
        except asyncio.TimeoutError:
            tunnel.process.kill()
            await tunnel.process.wait()
    # The interface goes with its process, unless it was made beforehand to have its old index again.
    await run("ip", "link", "delete", name)


def _interface_exists(name):
    return name in _tunnels or name in (found for _, found in socket.if_nameindex())


async def tunnel_check(_connection, request):
    configuration.parse(request["conf"])
    return codes.reply()


async def tunnel_up(connection, request):
    name = request["name"]
    conf = configuration.parse(request["conf"])
    async with _lock:
        if name in _tunnels and _tunnels[name].process.returncode is not None:
            await _take_down(name)
        if _interface_exists(name):
            return codes.reply(codes.ERROR_ALREADY_EXISTS, error=f"{name} is up already")
        try:
            _reserve_index(name)
            _tunnels[name] = Tunnel(conf, await _start_process(name))
            await _configure(name, _tunnels[name])
        except Failed as failure:
            if name in _tunnels:
                await _take_down(name)
            return codes.reply(codes.ERROR_GEN_FAILURE, error=str(failure))
        if request.get("hold", False):
            _held.setdefault(connection, set()).add(name)
    return codes.reply()


async def tunnel_down(_connection, request):
    async with _lock:
        if request["name"] not in _tunnels:
            return codes.reply(codes.ERROR_NOT_FOUND)
        for names in _held.values():
            names.discard(request["name"])
        await _take_down(request["name"])
    return codes.reply()


async def tunnel_list(_connection, _request):
    return codes.reply(tunnels=[
        {"name": name, "addresses": [str(address) for address in tunnel.conf.addresses],
         "dns": tunnel.conf.dns, "allowed_ips": [str(network) for network in tunnel.conf.allowed],
         "host_routes": [row.destination for row in tunnel.host_routes],
         "running": tunnel.process.returncode is None}
        for name, tunnel in _tunnels.items()])


async def wg(_connection, request):
    done = await run("wg", *request["args"])
    return codes.reply(exit_code=done.exit_code, stdout=done.stdout, stderr=done.stderr)


async def connection_closed(connection):
    async with _lock:
        for name in _held.pop(connection, set()):
            if name in _tunnels:
                await _take_down(name)


async def take_down_all():
    async with _lock:
        for name in list(_tunnels):
            await _take_down(name)


OPERATIONS = {
    "tunnel_check": tunnel_check,
    "tunnel_up": tunnel_up,
    "tunnel_down": tunnel_down,
    "tunnel_list": tunnel_list,
    "wg": wg,
}
