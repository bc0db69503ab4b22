"""What all requests have in common: the shape of an answer and of a refusal, the bearer, the body."""

from aiohttp import web

from lab.control_plane import accounts, devices, peers, store, wire


def answer(value, status=200):
    return web.Response(text=wire.text(value), status=status, content_type="application/json")


def refusal(status, error, detail=None):
    return answer({"error": error} if detail is None else {"error": error, "detail": detail}, status)


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
        return refusal(refused.status, refused.error, refused.detail)
    except peers.ServerUnreachable as failure:
        return refusal(503, "server_unreachable", str(failure))
    except web.HTTPException as failure:
        return refusal(failure.status, failure.reason.lower().replace(" ", "_"))


def bearer_account(request):
    scheme, _, token = request.headers.get("Authorization", "").partition(" ")
    if scheme != "Bearer" or not token:
        raise store.Refused(401, "unauthorized")
    return accounts.of_token(request.app["db"], token)


def path_device(request):
    return devices.find(request.app["db"], bearer_account(request), request.match_info["device_id"])


async def body_object(request):
    return wire.read_object(await request.read())
