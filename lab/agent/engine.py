"""The filtering engine: objects that outlive whoever made them, sessions, transactions, enumerations.

One transaction is open at a time in the whole engine. It works on a copy of the objects that takes the place
of the old ones at the commit, so that an abort needs nothing undone and a reader from outside always sees
whole states.
"""

import asyncio
import uuid
from dataclasses import dataclass, field

import codes
import records
from codes import reply

SESSION_DYNAMIC = 0x1
TRANSACTION_READ_ONLY = 0x1
DEFAULT_WAIT_MS = 15000
INFINITE = 0xFFFFFFFF


@dataclass
class Session:
    number: int
    record: dict
    working: dict = None  # the open transaction's copy of the objects
    read_only: bool = False
    enumerations: dict = field(default_factory=dict)  # what is left of each, by its handle


@dataclass(frozen=True)
class Entry:
    record: dict
    owner: int  # the number of the dynamic session that it ends with, or 0


_objects = {kind: {} for kind in records.KINDS}
_sessions = {}  # by connection
_turn = asyncio.Lock()
_numbers = {"session": 0, "filter": 0x10000, "callout": 0x100, "enumeration": 0}


def _next_number(kind):
    _numbers[kind] += 1
    return _numbers[kind]


def _copy(objects):
    return {kind: dict(entries) for kind, entries in objects.items()}


# Sessions and transactions


async def engine_open(connection, request):
    record = records.complete("session", request.get("session", {}))
    if connection in _sessions:
        return reply(codes.FWP_E_ALREADY_EXISTS)
    if record["sessionKey"] == records.NO_KEY:
        record["sessionKey"] = str(uuid.uuid4())
    if any(session.record["sessionKey"] == record["sessionKey"] for session in _sessions.values()):
        return reply(codes.FWP_E_ALREADY_EXISTS)
    _sessions[connection] = Session(_next_number("session"), record)
    return reply(sessionKey=record["sessionKey"])


async def engine_close(connection, _request):
    if connection not in _sessions:
        return reply(codes.ERROR_INVALID_HANDLE)
    await connection_closed(connection)
    return reply()


async def engine_end_all(_connection, _request):
    """As Windows ends the sessions of a process with it. Here the platform may keep the socket of a process that
    was killed for as long as another one lives, and with it the transaction that was open."""
    for connection in _sessions:
        connection.transport.abort()
    return reply()


async def connection_closed(connection):
    """Ends the connection's session, if it has one, as a close and the death of its process both do."""
    session = _sessions.get(connection)
    if session is None:
        return
    if session.working is not None:
        _end(session)
    if session.record["flags"] & SESSION_DYNAMIC:
        async with _turn:
            for entries in _objects.values():
                for key in [key for key, entry in entries.items() if entry.owner == session.number]:
                    del entries[key]
    del _sessions[connection]


async def _begin(session, read_only):
    wait = session.record["txnWaitTimeoutInMSec"] or DEFAULT_WAIT_MS
    try:
        await asyncio.wait_for(_turn.acquire(), None if wait == INFINITE else wait / 1000)
    except asyncio.TimeoutError:
        return codes.FWP_E_TIMEOUT
    session.working = _copy(_objects)
    session.read_only = read_only
    return codes.SUCCESS


def _commit(session):
    _objects.update(session.working)
    _end(session)


def _end(session):
    session.working = None
    _turn.release()


def _with_session(operation):
    async def run(connection, request):
        session = _sessions.get(connection)
        return reply(codes.ERROR_INVALID_HANDLE) if session is None else await operation(session, request)
    return run


async def transaction_begin(session, request):
    flags = request.get("flags", 0)
    if flags not in (0, TRANSACTION_READ_ONLY):
        return reply(codes.FWP_E_INVALID_FLAGS)
    if session.working is not None:
        return reply(codes.FWP_E_TXN_IN_PROGRESS)
    return reply(await _begin(session, flags == TRANSACTION_READ_ONLY))


async def transaction_commit(session, _request):
    if session.working is None:
        return reply(codes.FWP_E_NO_TXN_IN_PROGRESS)
    _commit(session)
    return reply()


async def transaction_abort(session, _request):
    if session.working is None:
        return reply(codes.FWP_E_NO_TXN_IN_PROGRESS)
    _end(session)
    return reply()


async def _in_transaction(session, work, writes=True):
    """Runs work on the objects of the open transaction, or in one of its own."""
    if session.working is not None:
        return reply(codes.FWP_E_INCOMPATIBLE_TXN) if writes and session.read_only else work(session.working)
    code = await _begin(session, read_only=not writes)
    if code != codes.SUCCESS:
        return reply(code)
    try:
        result = work(session.working)
    except Exception:
        _end(session)
        raise
    if result["code"] == codes.SUCCESS:
        _commit(session)
    else:
        _end(session)
    return result


# Objects


def _add(kind, session, sent, objects):
    record = records.complete(kind, sent)
    key_field = records.KEY_FIELD[kind]
    if record[key_field] == records.NO_KEY:
        record[key_field] = str(uuid.uuid4())
    code = records.objection(kind, record)
    if code == codes.SUCCESS and record[key_field] in objects[kind]:
        code = codes.FWP_E_ALREADY_EXISTS
    dynamic = session.number if session.record["flags"] & SESSION_DYNAMIC else 0
    code = code or _reference_objection(kind, record, dynamic, objects)
    if code != codes.SUCCESS:
        return reply(code)
    number = _next_number(kind) if kind in _numbers else 0
    if kind == "callout":
        record["calloutId"] = number
    elif kind == "filter":
        record["filterId"] = number
        record["effectiveWeight"] = records.effective_weight(record["weight"])
    objects[kind][record[key_field]] = Entry(record, dynamic)
    return reply(key=record[key_field], id=number)


def _reference_objection(kind, record, dynamic, objects):
    for other, key in records.references(kind, record):
        entry = objects[other].get(key)
        if entry is None:
            return records.NOT_FOUND[other]
        if records.lifetime(other, entry.record, entry.owner) < records.lifetime(kind, record, dynamic):
            return codes.FWP_E_LIFETIME_MISMATCH
    return codes.SUCCESS


def _find(kind, request, entries):
    if "key" in request:
        return str(uuid.UUID(request["key"]))
    return next((key for key, entry in entries.items() if entry.record[f"{kind}Id"] == request["id"]), None)


def _delete(kind, session, request, objects):
    key = _find(kind, request, objects[kind])
    entry = objects[kind].get(key)
    if entry is None:
        return reply(records.NOT_FOUND[kind])
    if entry.owner not in (0, session.number):
        return reply(codes.FWP_E_WRONG_SESSION)
    if any((kind, key) in records.references(other, held.record)
           for other, entries in objects.items() for held in entries.values()):
        return reply(codes.FWP_E_IN_USE)
    del objects[kind][key]
    return reply()


def _start_enumeration(kind, session, objects):
    """An enumeration walks the objects as they are now, whatever is added or deleted while it goes on."""
    handle = _next_number("enumeration")
    session.enumerations[handle] = (kind, [entry.record for entry in objects[kind].values()])
    return reply(handle=handle)


def _operations_of(kind):
    async def add(session, request):
        return await _in_transaction(session, lambda objects: _add(kind, session, request["record"], objects))

    async def delete(session, request):
        return await _in_transaction(session, lambda objects: _delete(kind, session, request, objects))

    async def enum_create(session, _request):
        return await _in_transaction(
            session, lambda objects: _start_enumeration(kind, session, objects), writes=False)

    async def enum(session, request):
        if session.enumerations.get(request["handle"], (None,))[0] != kind:
            return reply(codes.FWP_E_INVALID_ENUMERATOR)
        _, left = session.enumerations[request["handle"]]
        batch, left[:request["count"]] = left[:request["count"]], []
        return reply(entries=batch)

    async def enum_destroy(session, request):
        gone = session.enumerations.pop(request["handle"], None)
        return reply(codes.SUCCESS if gone else codes.FWP_E_INVALID_ENUMERATOR)

    operations = {"add": add, "delete": delete, "enum_create": enum_create, "enum": enum,
                  "enum_destroy": enum_destroy}
    return {f"{kind}_{name}": _with_session(operation) for name, operation in operations.items()}


async def snapshot(_connection, _request):
    listing = {f"{kind}s": [entry.record for entry in _objects[kind].values()] for kind in records.KINDS}
    sessions = [{**session.record, "transaction": session.working is not None}
                for session in _sessions.values()]
    return reply(**listing, sessions=sessions)


OPERATIONS = {
    "engine_open": engine_open,
    "engine_close": engine_close,
    "engine_end_all": engine_end_all,
    "transaction_begin": _with_session(transaction_begin),
    "transaction_commit": _with_session(transaction_commit),
    "transaction_abort": _with_session(transaction_abort),
    "snapshot": snapshot,
}
for _kind in records.KINDS:
    OPERATIONS.update(_operations_of(_kind))
