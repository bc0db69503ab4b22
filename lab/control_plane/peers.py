"""The real peers: whatever the control plane grants is configured into the servers' WireGuard at once.

A peer that is no longer wanted goes on working for a while, since its device may be in the middle of a
request that travels through that very tunnel.
"""

import asyncio

from lab.control_plane import servers

RETIRE_SECONDS = 60
INTERFACE = "wg0"


class ServerUnreachable(Exception):
    """A server's wg did not do as told."""


async def configure(db, enter, device_row):
    """Gives the device its place on its server; nothing to do while it has no key or no server."""
    if device_row["public_key"] is None or device_row["server_id"] is None:
        return None
    peer = servers.lease_peer(db, device_row)
    await _wg(enter[peer["server_id"]], "set", INTERFACE, "peer", peer["public_key"],
              "allowed-ips", f"{peer['address']}/32")
    return peer


async def tend(db, enter, interval):
    """For ever: takes the servers' heartbeats and removes the peers that were retired long enough ago."""
    while True:
        for server_id, words in enter.items():
            try:
                await _wg(words, "show", INTERFACE, "public-key")
                servers.heartbeat(db, server_id)
            except ServerUnreachable:
                continue  # no heartbeat: the server goes offline in the catalogue by itself
        for peer in servers.drop_retired(db, RETIRE_SECONDS):
            try:
                await _wg(enter[peer["server_id"]], "set", INTERFACE, "peer", peer["public_key"], "remove")
            except ServerUnreachable:
                continue
        await asyncio.sleep(interval)


async def _wg(enter, *arguments):
    process = await asyncio.create_subprocess_exec(*enter, "wg", *arguments, stdout=asyncio.subprocess.PIPE,
                                                   stderr=asyncio.subprocess.PIPE)
    _, errors = await process.communicate()
    if process.returncode != 0:
        raise ServerUnreachable(errors.decode(errors="replace").strip())
