"""The tunnel side: devices, their keys and profiles, the catalogue of servers, the choice among them."""

from aiohttp import web

from lab.control_plane import devices, peers, servers, store, wire
from lab.control_plane.answers import answer, bearer_account, body_object, path_device


async def register_device(request):
    account, body = bearer_account(request), await body_object(request)
    device_id = wire.read_text(body, "device_id")
    new = devices.register(request.app["db"], account, device_id, wire.read_text(body, "name"),
                           wire.read_text(body, "platform"))
    return answer({"device_id": device_id, "created": new}, 201 if new else 200)


async def upload_key(request):
    device = path_device(request)
    devices.set_key(request.app["db"], device["account_id"], device["device_id"],
                    wire.read_public_key(await body_object(request)))
    await peers.configure(request.app["db"], request.app["enter"], path_device(request))
    return answer({"ok": True})


async def profile(request):
    db, device = request.app["db"], path_device(request)
    if device["public_key"] is None:
        raise store.Refused(409, "no_wg_key")
    if device["server_id"] is None:
        raise store.Refused(409, "no_server_assigned")
    peer = servers.peer(db, device["server_id"], device["public_key"])
    return answer(wire.profile(servers.every(db), servers.find(db, device["server_id"]), peer["address"]))


async def locations(request):
    bearer_account(request)
    return answer(wire.catalogue(servers.every(request.app["db"])))


async def select(request, device, server_id):
    db = request.app["db"]
    if servers.find(db, server_id)["server_id"] not in request.app["enter"]:
        raise store.Refused(409, "server_offline")
    key = (device["account_id"], device["device_id"])
    devices.assign(db, *key, server_id)
    await peers.configure(db, request.app["enter"], devices.find(db, *key))
    return answer({"ok": True, "server_id": server_id})


def select_by(key):
    async def handler(request):
        return await select(request, path_device(request), wire.read_text(await body_object(request), key))
    return handler


async def select_in_body(request):
    account, body = bearer_account(request), await body_object(request)
    device = devices.find(request.app["db"], account, wire.read_text(body, "device_id"))
    return await select(request, device, wire.read_text(body, "server_id"))


ROUTES = [
    web.post("/v1/devices", register_device),
    web.put("/v1/devices/{device_id}/wg-key", upload_key),
    web.get("/v1/devices/{device_id}/wg-profile", profile),
    web.get("/v1/servers/locations", locations),
    web.put("/v1/devices/{device_id}/wg-server", select_by("wg_server_id")),
    web.put("/v1/devices/{device_id}/server", select_by("server_id")),
    web.post("/v1/servers/select", select_in_body),
]
