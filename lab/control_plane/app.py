"""The laboratory's control plane: the REST interface over TLS, and beside it a local socket for its keeper.

    python3 -m lab.control_plane.app <config.json>

The configuration names the port, the certificate, the database, the keeper's socket, the accounts and the
servers; each reachable server comes with the words that start a command on it.

The keeper's socket speaks HTTP and JSON, for the laboratory alone:

    POST   /rules      adds a rule of misbehaviour        DELETE /rules      drops them all
    GET    /requests   every request so far               DELETE /requests   forgets them
    POST   /accounts   {"email","password"}
    POST   /sessions   {"access_lifetime": seconds} for those to come; {"end_access":true},
                       {"end_refresh":true} for those there are
    GET    /records    devices and peers, as the database has them
"""

import asyncio
import json
import pathlib
import ssl
import sys

from aiohttp import web

from lab.control_plane import misbehaviour, peers, store, wire

HEARTBEAT_SECONDS = 5


def answer(value, status=200):
    return web.Response(text=wire.text(value), status=status, content_type="application/json")


@web.middleware
async def close_behind(request, handler):
    """Every answer ends its connection. The service asks for a new one each time, but Wine would keep the old
    one and go on with it after a change of routes, from an address that answers cannot reach any more."""
    response = await handler(request)
    response.force_close()
    return response


@web.middleware
async def refusals(request, handler):
    try:
        return await handler(request)
    except store.Refused as refused:
        return answer({"error": refused.error}, refused.status)
    except peers.ServerUnreachable as failure:
        return answer({"error": "server_unreachable", "detail": str(failure)}, 503)
    except web.HTTPException as failure:
        return answer({"error": failure.reason.lower().replace(" ", "_")}, failure.status)


def bearer_account(request):
    scheme, _, token = request.headers.get("Authorization", "").partition(" ")
    if scheme != "Bearer" or not token:
        raise store.Refused(401, "unauthorized")
    return store.account_of(request.app["db"], token)


def path_device(request):
    return store.device(request.app["db"], bearer_account(request), request.match_info["device_id"])


async def body_object(request):
    return wire.read_object(await request.read())


# Sessions


async def log_in(request):
    body = await body_object(request)
    email, password = wire.read_text(body, "email"), wire.read_text(body, "password")
    return answer(wire.session(*store.log_in(request.app["db"], email, password,
                                             request.app["settings"]["access_lifetime"])))


async def refresh(request):
    token = wire.read_text(await body_object(request), "refresh_token")
    return answer(wire.session(*store.refresh(request.app["db"], token,
                                              request.app["settings"]["access_lifetime"])))


# Devices


async def register_device(request):
    account, body = bearer_account(request), await body_object(request)
    device_id = wire.read_text(body, "device_id")
    new = store.register_device(request.app["db"], account, device_id, wire.read_text(body, "name"),
                                wire.read_text(body, "platform"))
    return answer({"device_id": device_id, "created": new}, 201 if new else 200)


async def upload_key(request):
    device = path_device(request)
    store.set_key(request.app["db"], device["account_id"], device["device_id"],
                  wire.read_public_key(await body_object(request)))
    await peers.configure(request.app["db"], request.app["enter"], path_device(request))
    return answer({"ok": True})


async def profile(request):
    db, device = request.app["db"], path_device(request)
    if device["public_key"] is None:
        raise store.Refused(409, "no_wg_key")
    if device["server_id"] is None:
        raise store.Refused(409, "no_server_assigned")
    peer = store.peer(db, device["server_id"], device["public_key"])
    return answer(wire.profile(store.servers(db), store.server(db, device["server_id"]), peer["address"]))


# Servers


async def locations(request):
    bearer_account(request)
    return answer(wire.catalogue(store.servers(request.app["db"])))


async def select(request, device, server_id):
    db = request.app["db"]
    if store.server(db, server_id)["server_id"] not in request.app["enter"]:
        raise store.Refused(409, "server_offline")
    key = (device["account_id"], device["device_id"])
    store.assign(db, *key, server_id)
    await peers.configure(db, request.app["enter"], store.device(db, *key))
    return answer({"ok": True, "server_id": server_id})


def select_by(key):
    async def handler(request):
        return await select(request, path_device(request), wire.read_text(await body_object(request), key))
    return handler


async def select_in_body(request):
    account, body = bearer_account(request), await body_object(request)
    device = store.device(request.app["db"], account, wire.read_text(body, "device_id"))
    return await select(request, device, wire.read_text(body, "server_id"))


ROUTES = [
    web.post("/v1/auth/login", log_in),
    web.post("/v1/auth/refresh", refresh),
    web.post("/v1/devices", register_device),
    web.put("/v1/devices/{device_id}/wg-key", upload_key),
    web.get("/v1/devices/{device_id}/wg-profile", profile),
    web.get("/v1/servers/locations", locations),
    web.put("/v1/devices/{device_id}/wg-server", select_by("wg_server_id")),
    web.put("/v1/devices/{device_id}/server", select_by("server_id")),
    web.post("/v1/servers/select", select_in_body),
]


# The keeper's side


def keeper_app(public):
    state, db, settings = public["misbehaviour"], public["db"], public["settings"]

    async def add_rule(request):
        state.add(await request.json())
        return answer({})

    async def drop_rules(_):
        state.rules.clear()
        return answer({})

    async def requests(_):
        return answer(state.requests)

    async def forget_requests(_):
        state.requests.clear()
        return answer({})

    async def add_account(request):
        body = await request.json()
        store.add_account(db, body["email"], body["password"])
        return answer({})

    async def change_sessions(request):
        body = await request.json()
        settings["access_lifetime"] = body.get("access_lifetime", settings["access_lifetime"])
        store.end_sessions(db, body.get("end_access", False), body.get("end_refresh", False))
        return answer({})

    async def records(_):
        return answer({table: [dict(row) for row in db.execute(f"SELECT * FROM {table}")]
                       for table in ("devices", "peers")})

    app = web.Application(middlewares=[refusals])
    app.add_routes([
        web.post("/rules", add_rule), web.delete("/rules", drop_rules), web.get("/requests", requests),
        web.delete("/requests", forget_requests), web.post("/accounts", add_account),
        web.post("/sessions", change_sessions), web.get("/records", records)])
    return app


def public_app(config):
    app = web.Application(middlewares=[close_behind, misbehaviour.middleware, refusals])
    app["misbehaviour"] = misbehaviour.Misbehaviour()
    app["settings"] = {"access_lifetime": store.ACCESS_LIFETIME}
    app["db"] = store.open_store(config["database"])
    app["enter"] = {server["server_id"]: server["enter"] for server in config["servers"] if server["enter"]}
    for account in config["accounts"]:
        store.add_account(app["db"], account["email"], account["password"])
    for server in config["servers"]:
        store.add_server(app["db"], server)
    app.add_routes(ROUTES)
    return app


async def serve(config):
    public = public_app(config)
    tls = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
    tls.load_cert_chain(config["certificate"])
    runners = [web.AppRunner(public), web.AppRunner(keeper_app(public))]
    for runner in runners:
        await runner.setup()
    await web.TCPSite(runners[0], config["address"], config["port"], ssl_context=tls).start()
    await web.UnixSite(runners[1], config["keeper_socket"]).start()
    await peers.tend(public["db"], public["enter"], HEARTBEAT_SECONDS)


def main():
    asyncio.run(serve(json.loads(pathlib.Path(sys.argv[1]).read_text())))


if __name__ == "__main__":
    main()
