"""What a test may ask of the control plane beyond its duty: to be slow, rude or silent, to tell what it saw.

A rule is a JSON object; all fields but "path" may be left out:

    method   the verb that it holds for; every verb without it
    path     the path, with * and ? as in file names
    status   answer with this status (200 when only a body is given)
    body     answer with this text
    body_base64  answer with these bytes, which need be no text
    delay    wait so many seconds first
    cut      "silent": close the connection without an answer; "body": close it in the middle of the body
    count    how often; for ever without it
    after    so many matching requests pass unharmed first

The first rule that matches and is not used up holds. A rule with a delay alone is answered as usual after it.
"""

import asyncio
import base64
import fnmatch
import itertools
import socket
import struct
import time

from aiohttp import web

FIELDS = {"method", "path", "status", "body", "body_base64", "delay", "cut", "count", "after"}
CUTS = {None, "silent", "body"}


class Misbehaviour:
    """The rules in force and the record of every request, in the order of arrival."""

    def __init__(self):
        self.rules = []
        self.requests = []
        self._numbers = itertools.count(1)

    def add(self, rule):
        if not rule.get("path") or set(rule) - FIELDS or rule.get("cut") not in CUTS:
            raise ValueError(f"not a rule: {rule}")
        self.rules.append({"count": None, "after": 0, **rule})

    def record(self, request, body):
        entry = {
            "number": next(self._numbers),
            "time": time.time(),
            "method": request.method,
            "target": request.raw_path,
            # As they came in over the wire: order, case and all.
            "headers": [[name.decode("latin-1"), value.decode("latin-1")]
                        for name, value in request.raw_headers],
            "body": body.decode("utf-8", errors="replace"),
            "status": None,
        }
        self.requests.append(entry)
        return entry

    def matching(self, request):
        for rule in self.rules:
            if rule["count"] == 0 or rule.get("method") not in (None, request.method):
                continue
            if not fnmatch.fnmatchcase(request.path, rule["path"]):
                continue
            if rule["after"] > 0:
                rule["after"] -= 1
                continue
            if rule["count"] is not None:
                rule["count"] -= 1
            return rule
        return None


@web.middleware
async def middleware(request, handler):
    state = request.app["misbehaviour"]
    entry = state.record(request, await request.read())
    rule = state.matching(request)
    if rule is None:
        response = await handler(request)
    else:
        response = await _misbehave(request, handler, rule)
    entry["status"] = response.status
    return response


async def _misbehave(request, handler, rule):
    if rule.get("delay"):
        await asyncio.sleep(rule["delay"])
    if rule.get("cut") == "silent":
        _hang_up(request)
        return web.Response(status=499)
    if not {"status", "body", "body_base64"} & set(rule):
        response = await handler(request)
    else:
        response = web.Response(status=rule.get("status", 200), body=_body(rule),
                                content_type="application/json")
    return await _cut(request, response) if rule.get("cut") == "body" else response


def _body(rule):
    if "body_base64" in rule:
        return base64.b64decode(rule["body_base64"])
    return rule.get("body", "").encode()


async def _cut(request, response):
    """Announces the whole body, sends half of it, and hangs up."""
    body = response.body or b"0123456789"
    partial = web.StreamResponse(status=response.status, headers={"Content-Type": "application/json"})
    partial.content_length = len(body)
    await partial.prepare(request)
    await partial.write(body[: len(body) // 2])
    await asyncio.sleep(0.2)  # the half is on its way before the connection is torn down
    _hang_up(request)
    return partial


def _hang_up(request):
    """Resets the connection: an orderly end would be no failure to a client."""
    socket_of = request.transport.get_extra_info("socket")
    socket_of.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    request.transport.abort()
