"""The IPv4 routes of the namespace, as Windows counts them.

Windows knows a row by interface, prefix and next hop; the kernel by prefix and metric. The functions here
keep the Windows rule over the kernel's table, so that two rows to one prefix through different gateways
stand beside each other, and a second row through the same gateway is refused whatever its metric.
"""

import asyncio
import ipaddress
import json
import socket
import struct
from dataclasses import asdict, dataclass

import codes
from commands import run

RTF_UP = 0x0001
RTF_REJECT = 0x0200
ON_LINK = "0.0.0.0"

_table_lock = asyncio.Lock()
_created = {}  # the rows that clients made and have not deleted, by their Windows key


@dataclass(frozen=True)
class Route:
    destination: str
    prefix_length: int
    next_hop: str
    interface_index: int
    interface: str
    metric: int

    @property
    def key(self):
        return (self.interface_index, self.destination, self.prefix_length, self.next_hop)

    @property
    def prefix(self):
        return f"{self.destination}/{self.prefix_length}"


def list_routes():
    """Every row of the main table, in the kernel's order."""
    rows = []
    with open("/proc/net/route", encoding="ascii") as table:
        for line in table.readlines()[1:]:
            name, destination, gateway, flags, _, _, metric, mask = line.split()[:8]
            if int(flags, 16) & (RTF_UP | RTF_REJECT) == RTF_UP and (index := _interface_index(name)):
                rows.append(Route(_dotted(destination), int(mask, 16).bit_count(), _dotted(gateway), index, name,
                                  int(metric)))
    return rows


def _interface_index(name):
    """0 for an interface that has gone since its row was read, and its rows with it."""
    try:
        return socket.if_nametoindex(name)
    except OSError:
        return 0


def _dotted(little_endian_hex):
    return socket.inet_ntoa(struct.pack("<I", int(little_endian_hex, 16)))


def _wanted(request):
    """The row that a request names. Raises ValueError for what can be no row."""
    destination = ipaddress.IPv4Network((request["destination"], request["prefix_length"]))
    next_hop = str(ipaddress.IPv4Address(request["next_hop"]))
    index = request["interface_index"]
    metric = request.get("metric", 0)
    if not 0 <= metric <= 0xFFFFFFFF:
        raise ValueError(f"metric {metric}")
    try:
        interface = socket.if_indextoname(index)
    except (OSError, OverflowError) as missing:
        raise ValueError(f"no interface {index}") from missing
    return Route(str(destination.network_address), destination.prefixlen, next_hop, index, interface, metric)


def _matches(wanted):
    return [row for row in list_routes() if row.key == wanted.key]


async def _change(command, row):
    hop = ["scope", "link"] if row.next_hop == ON_LINK else ["via", row.next_hop]
    return await run("ip", "-4", "route", command, row.prefix, *hop, "dev", row.interface,
                     "metric", str(row.metric))


async def add(row):
    """Adds a row behind those of the same prefix and metric. Gives the reply."""
    if _matches(row):
        return codes.reply(codes.ERROR_OBJECT_ALREADY_EXISTS)
    done = await _change("append", row)
    if done.exit_code:
        return codes.reply(codes.ERROR_INVALID_PARAMETER, error=done.stderr.strip())
    return codes.reply()


async def remove(row):
    """Removes a row by its Windows key. Gives the reply."""
    rows = _matches(row)
    for found in rows:
        done = await _change("del", found)
        if done.exit_code:
            return codes.reply(codes.ERROR_INVALID_PARAMETER, error=done.stderr.strip())
    return codes.reply(codes.SUCCESS if rows else codes.ERROR_NOT_FOUND)


async def route_list(_connection, _request):
    return codes.reply(rows=[asdict(row) for row in list_routes()])


async def route_create(_connection, request):
    wanted = _wanted(request)
    async with _table_lock:
        result = await add(wanted)
        if result["code"] == codes.SUCCESS:
            _created[wanted.key] = wanted
    return result


async def route_set(_connection, request):
    """The metric is all that can change: the rest is the row's identity."""
    wanted = _wanted(request)
    async with _table_lock:
        rows = _matches(wanted)
        if not rows:
            return codes.reply(codes.ERROR_NOT_FOUND)
        if all(row.metric == wanted.metric for row in rows):
            return codes.reply()
        done = await _change("append", wanted)
        if done.exit_code:
            return codes.reply(codes.ERROR_INVALID_PARAMETER, error=done.stderr.strip())
        for row in rows:
            await _change("del", row)
    return codes.reply()


async def route_delete(_connection, request):
    wanted = _wanted(request)
    async with _table_lock:
        _created.pop(wanted.key, None)
        return await remove(wanted)


async def best_route(destination, interface=None):
    """The row that a packet to the destination takes and the source address it gets, or None."""
    only = ["oif", interface] if interface else []
    matched = await run("ip", "-j", "-4", "route", "get", "fibmatch", destination, *only)
    taken = await run("ip", "-j", "-4", "route", "get", destination, *only)
    if matched.exit_code or taken.exit_code:
        return None
    match, = json.loads(matched.stdout)
    prefix = ipaddress.IPv4Network("0.0.0.0/0" if match["dst"] == "default" else match["dst"])
    row = Route(str(prefix.network_address), prefix.prefixlen, match.get("gateway", ON_LINK),
                socket.if_nametoindex(match["dev"]), match["dev"], match.get("metric", 0))
    return row, json.loads(taken.stdout)[0].get("prefsrc", ON_LINK)


async def route_best(_connection, request):
    destination = str(ipaddress.IPv4Address(request["destination"]))
    index = request.get("interface_index", 0)
    try:
        interface = socket.if_indextoname(index) if index else None
    except (OSError, OverflowError):
        return codes.reply(codes.ERROR_NOT_FOUND)
    best = await best_route(destination, interface)
    if best is None:
        return codes.reply(codes.ERROR_NETWORK_UNREACHABLE)
    row, source = best
    return codes.reply(row=asdict(row), source=source)


async def remove_all():
    """Takes away every row that a client made and left behind."""
    while _created:
        await remove(_created.popitem()[1])


OPERATIONS = {
    "route_list": route_list,
    "route_create": route_create,
    "route_set": route_set,
    "route_delete": route_delete,
    "route_best": route_best,
}
