"""What a test may ask of the control plane beyond its duty: to be slow, rude or silent, to tell what it saw.

A rule is a JSON object; all fields but "path" may be left out:

    method   the verb that it holds for; every verb without it
    path     the path, with * and ? as in file names
    status   answer with this status (200 when only a body is given)
    body     answer with this text
    body_base64  answer with these bytes, which need be no text
    size     the last byte of the text or bytes given is repeated until the body is so many bytes long
    delay    wait so many seconds first
    drip     send the body byte by byte, and wait so many seconds before each
    cut      "silent": close the connection without an answer; "body": close it in the middle of the body
    count    how often; for ever without it
    after    so many matching requests pass unharmed first

The first rule that matches and is not used up holds. A rule with a delay alone is answered as usual after it.
"""

import asyncio
import base64
import contextlib
import fnmatch
import itertools
import socket
import struct
import time

from aiohttp import web

OWN_ANSWER = {"status", "body", "body_base64", "size"}
FIELDS = OWN_ANSWER | {"method", "path", "delay", "drip", "cut", "count", "after"}
CUTS = {None, "silent", "body"}
PIECE_BYTES = 65536


class Misbehaviour:
    """The rules in force and the record of every request, in the order of arrival."""

    def __init__(self):
        self.rules = []
        self.requests = []
        self._numbers = itertools.count(1)

    def add(self, rule):
        endless_nothing = "size" in rule and not (rule.get("body") or rule.get("body_base64"))
        if not rule.get("path") or set(rule) - FIELDS or rule.get("cut") not in CUTS or endless_nothing:
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
    if not OWN_ANSWER & set(rule):
        response = await handler(request)
    else:
        response = web.Response(status=rule.get("status", 200), body=_body(rule),
                                content_type="application/json")
    if rule.get("cut") == "body":
        return await _cut(request, response)
    if rule.get("size") or rule.get("drip"):
        return await _send_in_pieces(request, response, rule)
    return response


def _body(rule):
    if "body_base64" in rule:
        return base64.b64decode(rule["body_base64"])
    return rule.get("body", "").encode()


async def _announce(request, status, length):
    """Sends the head of an answer whose body of that many bytes is still to come."""
    begun = web.StreamResponse(status=status, headers={"Content-Type": "application/json"})
    begun.content_length = length
    begun.force_close()
    await begun.prepare(request)
    return begun


async def _send_in_pieces(request, response, rule):
    """A client that goes in the middle of it is no failure."""
    body, seconds = response.body, rule.get("drip", 0)
    size = max(len(body), rule.get("size", 0))
    length = 1 if seconds else PIECE_BYTES
    begun = await _announce(request, response.status, size)
    with contextlib.suppress(ConnectionError):
        for begin in range(0, size, length):
            await asyncio.sleep(seconds)
            await begun.write(_piece(body, begin, min(begin + length, size)))
    return begun


def _piece(body, begin, end):
    """From one place to another of a body whose last character goes on and on."""
    there = body[begin:end]
    return there + body[-1:] * (end - begin - len(there))


async def _cut(request, response):
    """Announces the whole body, sends half of it, and hangs up."""
    body = response.body or b"0123456789"
    partial = await _announce(request, response.status, len(body))
    await partial.write(body[: len(body) // 2])
    await asyncio.sleep(0.2)  # the half is on its way before the connection is torn down
    _hang_up(request)
    return partial


def _hang_up(request):
    """Resets the connection: an orderly end would be no failure to a client."""
    socket_of = request.transport.get_extra_info("socket")
    socket_of.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    request.transport.abort()
