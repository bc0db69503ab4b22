"""The account side: sessions, registration, forgotten passwords, quota, entitlement, checkout."""

from aiohttp import web

from lab.control_plane import accounts, billing, devices, resets, wire
from lab.control_plane.answers import answer, bearer_account, body_object


async def log_in(request):
    body, settings = await body_object(request), request.app["settings"]
    return answer(wire.session(*accounts.log_in(
        request.app["db"], wire.read_email(body), wire.read_text(body, "password"),
        settings["access_lifetime"], settings["refresh_lifetime"])))


async def refresh(request):
    token = wire.read_text(await body_object(request), "refresh_token")
    return answer(wire.session(*accounts.refresh(request.app["db"], token,
                                                 request.app["settings"]["access_lifetime"])))


async def registered(request):
    email = wire.read_email(request.query)
    return answer({"registered": accounts.find(request.app["db"], email) is not None})


def open_account(db, email, password):
    """An account as every new person gets it; its number."""
    account = accounts.add(db, email, password)
    billing.open_subscription(db, account)
    return account


async def register(request):
    db, body = request.app["db"], await body_object(request)
    email, password = wire.read_email(body), wire.read_text(body, "password")
    device_id = wire.read_text(body, "device_id")
    account = open_account(db, email, password)
    # What the device is called it tells when it registers itself.
    devices.register(db, account, device_id, device_id, "unknown")
    return answer({"ok": True}, 201)


async def start_reset(request):
    db, settings = request.app["db"], request.app["settings"]
    email = wire.read_email(await body_object(request))
    request_id, code = resets.start(db, email, settings["reset_lifetime"])
    account = accounts.find(db, email)
    if account is not None:
        request.app["outbox"].append({"to": account["email"], "request_id": request_id, "code": code})
    return answer({"request_id": request_id, "masked_email": resets.masked(email),
                   "expires_in_seconds": settings["reset_lifetime"]})


async def confirm_reset(request):
    body = await body_object(request)
    resets.confirm(request.app["db"], wire.read_email(body), wire.read_text(body, "request_id"),
                   wire.read_text(body, "code"), wire.read_text(body, "new_password"))
    return answer({"ok": True})


async def quota(request):
    row = billing.subscription(request.app["db"], bearer_account(request))
    return answer({"quota_current": billing.is_quota_current(row)})


async def entitlement(request):
    return answer(wire.entitlement(billing.subscription(request.app["db"], bearer_account(request))))


async def checkout(request):
    account, body = bearer_account(request), await body_object(request)
    checkout_id = billing.open_checkout(request.app["db"], account, wire.read_text(body, "provider"),
                                        wire.read_text(body, "plan_id"))
    return answer({"checkout_url": f"{request.app['public_url']}/checkout/{checkout_id}"})


ROUTES = [
    web.post("/v1/auth/login", log_in),
    web.post("/v1/auth/refresh", refresh),
    web.get("/v1/auth/registered", registered),
    web.post("/v1/auth/register", register),
    web.post("/v1/auth/password/reset/start", start_reset),
    web.post("/v1/auth/password/reset/confirm", confirm_reset),
    web.get("/v1/me/quota", quota),
    web.get("/v1/me/entitlement", entitlement),
    web.post("/v1/billing/checkout", checkout),
]
