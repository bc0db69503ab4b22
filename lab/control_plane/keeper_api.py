"""The keeper's side, on a local socket: HTTP and JSON, for the laboratory alone.

    POST   /rules      adds a rule of misbehaviour        DELETE /rules      drops them all
    GET    /requests   every request so far               DELETE /requests   forgets them
    POST   /accounts   {"email","password"}
    POST   /sessions   {"access_lifetime","refresh_lifetime": seconds} for those to come;
                       {"end_access":true}, {"end_refresh":true} for those there are
    POST   /resets     {"lifetime": seconds} for those to come; {"end":true} for those there are
    GET    /outbox     the mails that went out: {"to","request_id","code"} of each, the latest last
    POST   /subscriptions  {"email"} and what to change of it: "status", "period_end" (Unix time),
                       "bytes_used", "bytes_limit"
    GET    /records    devices, each with its account's email, and peers, as the database has them
"""

from aiohttp import web

from lab.control_plane import account_api, accounts, billing, resets
from lab.control_plane.answers import answer, refusals

CHANGEABLE = ("status", "period_end", "bytes_used", "bytes_limit")


def keeper_app(public):
    app = web.Application(middlewares=[refusals])
    app["public"] = public
    app.add_routes(ROUTES)
    return app


def _public(request):
    return request.app["public"]


async def add_rule(request):
    _public(request)["misbehaviour"].add(await request.json())
    return answer({})


async def drop_rules(request):
    _public(request)["misbehaviour"].rules.clear()
    return answer({})


async def requests(request):
    return answer(_public(request)["misbehaviour"].requests)


async def forget_requests(request):
    _public(request)["misbehaviour"].requests.clear()
    return answer({})


async def add_account(request):
    body = await request.json()
    account_api.open_account(_public(request)["db"], body["email"], body["password"])
    return answer({})


async def change_sessions(request):
    body, settings = await request.json(), _public(request)["settings"]
    for name in ("access_lifetime", "refresh_lifetime"):
        settings[name] = body.get(name, settings[name])
    accounts.end_sessions(_public(request)["db"], body.get("end_access", False),
                          body.get("end_refresh", False))
    return answer({})


async def change_resets(request):
    body, settings = await request.json(), _public(request)["settings"]
    settings["reset_lifetime"] = body.get("lifetime", settings["reset_lifetime"])
    if body.get("end"):
        resets.end(_public(request)["db"])
    return answer({})


async def outbox(request):
    return answer(_public(request)["outbox"])


async def change_subscription(request):
    body, db = await request.json(), _public(request)["db"]
    billing.change(db, accounts.find(db, body["email"])["id"],
                   **{name: body[name] for name in CHANGEABLE if name in body})
    return answer({})


async def records(request):
    db = _public(request)["db"]
    queries = {"devices": "SELECT devices.*, email FROM devices JOIN accounts ON account_id = id",
               "peers": "SELECT * FROM peers"}
    return answer({table: [dict(row) for row in db.execute(query)] for table, query in queries.items()})


ROUTES = [
    web.post("/rules", add_rule),
    web.delete("/rules", drop_rules),
    web.get("/requests", requests),
    web.delete("/requests", forget_requests),
    web.post("/accounts", add_account),
    web.post("/sessions", change_sessions),
    web.post("/resets", change_resets),
    web.get("/outbox", outbox),
    web.post("/subscriptions", change_subscription),
    web.get("/records", records),
]
