#!/usr/bin/python3
"""The agent of a laboratory: does on Linux what the stand-ins for Windows' own parts ask for.

A stand-in, for what Wine lacks: it runs inside the client's network namespace, started there as root by
`python3 agent.py [--port 47100]`, prints `ready` when it listens on 127.0.0.1, and ends on SIGTERM, SIGINT
or `quit`, leaving neither tunnel nor route behind.

Protocol: one JSON object on one line asks, one JSON object on one line answers; a connection takes any number
of requests, one after the other. Every answer has "code", a Windows error code (0 is success); "error" may
tell more. A request that cannot be read gets 87, an unknown operation 1.

  ping                                      quit
  fault {on, code, count=1, skip=0}         after `skip` calls the next `count` operations (all that follow if
                                            negative) of the name `on` do nothing and answer `code`; wg.exe
                                            then exits with it
  fault_clear                               forgets all faults
  journal -> operations                     the names of the operations asked for since the journal was begun,
                                            in their order, done or refused; of very many only the latest
  journal_begin                             begins a new journal

Routes (routes.py). A row is {destination, prefix_length, next_hop, interface_index, metric}; answers add
`interface`, the name. next_hop "0.0.0.0" is on-link. Codes 5010, 1168, 87, 1231.
  route_list -> rows                        all of the main table, in its order
  route_create row | route_set row | route_delete row
  route_best {destination, interface_index=0} -> row, source

Tunnels (tunnels.py). `conf` is the text of the configuration file. Codes 87 (bad text),
183 (is up already), 1168, 31 (a step failed).
  tunnel_check {conf}                       reads the text and does no more
  tunnel_up {name, conf, hold=false}        hold: the tunnel goes down with this connection
  tunnel_down {name}
  tunnel_list -> tunnels                    [{name, addresses, dns, allowed_ips, host_routes, running}]
  wg {args} -> exit_code, stdout, stderr    runs wg; its socket folder is the agent's own, so only this way

Filtering engine (engine.py, records.py). A connection is at most one engine session; its end aborts the open
transaction. Records have the members of the FWPM structures. KIND is provider, sublayer, callout or filter.
  engine_open {session={}} -> sessionKey    engine_close
  transaction_begin {flags=0} | transaction_commit | transaction_abort
  KIND_add {record} -> key, id              KIND_delete {key} or {id}
  KIND_enum_create -> handle                KIND_enum {handle, count} -> entries
  KIND_enum_destroy {handle}
  engine_end_all                            cuts the connections of all sessions
  snapshot -> providers, sublayers, callouts, filters, sessions
                                            what is in force, in the order added, with every member, and who
                                            has an engine open; needs no session
"""

import argparse
import asyncio
import collections
import json
import signal
from dataclasses import dataclass

import codes
import engine
import routes
import tunnels
from codes import reply

PORT = 47100
LINE_LIMIT = 64 * 1024 * 1024
JOURNAL_LENGTH = 10000

_stop = asyncio.Event()
_faults = []
_journal = collections.deque(maxlen=JOURNAL_LENGTH)


@dataclass
class Fault:
    on: str
    code: int
    count: int
    skip: int


async def ping(_connection, _request):
    return reply()


async def leave(_connection, _request):
    _stop.set()
    return reply()


async def fault(_connection, request):
    if request["on"] not in OPERATIONS:
        raise ValueError(f"no operation {request['on']}")
    _faults.append(Fault(request["on"], request["code"], request.get("count", 1), request.get("skip", 0)))
    return reply()


async def fault_clear(_connection, _request):
    _faults.clear()
    return reply()


async def journal(_connection, _request):
    return reply(operations=list(_journal))


async def journal_begin(_connection, _request):
    _journal.clear()
    return reply()


OPERATIONS = {
    "ping": ping,
    "quit": leave,
    "fault": fault,
    "fault_clear": fault_clear,
    "journal": journal,
    "journal_begin": journal_begin,
    **routes.OPERATIONS,
    **tunnels.OPERATIONS,
    **engine.OPERATIONS,
}


def take_fault(name):
    """The code that this call is to fail with, or 0."""
    for wanted in _faults:
        if wanted.on != name:
            continue
        if wanted.skip:
            wanted.skip -= 1
            return codes.SUCCESS
        wanted.count -= 1
        if not wanted.count:
            _faults.remove(wanted)
        return wanted.code
    return codes.SUCCESS


async def answer(connection, line):
    try:
        request = json.loads(line)
        name = request["op"]
        if name not in OPERATIONS:
            return reply(codes.ERROR_INVALID_FUNCTION, error=f"no operation {name}")
        _journal.append(name)
        code = take_fault(name)
        if code != codes.SUCCESS:
            return reply(code, error="a fault was asked for")
        return await OPERATIONS[name](connection, request)
    except (ValueError, KeyError, TypeError, AttributeError) as mistake:
        return reply(codes.ERROR_INVALID_PARAMETER, error=f"{type(mistake).__name__}: {mistake}")
    except OSError as failure:
        return reply(codes.ERROR_GEN_FAILURE, error=str(failure))


async def serve(reader, writer):
    connection = writer
    try:
        while line := await reader.readline():
            writer.write(json.dumps(await answer(connection, line)).encode() + b"\n")
            await writer.drain()
    except (ConnectionError, ValueError):
        pass  # a line above the limit, or a client that is gone: the connection ends
    finally:
        writer.close()
        await engine.connection_closed(connection)
        await tunnels.connection_closed(connection)


async def run(port):
    tunnels.isolate()
    loop = asyncio.get_running_loop()
    for number in (signal.SIGTERM, signal.SIGINT):
        loop.add_signal_handler(number, _stop.set)
    server = await asyncio.start_server(serve, "127.0.0.1", port, limit=LINE_LIMIT)
    print("ready", flush=True)
    await _stop.wait()
    server.close()
    await tunnels.take_down_all()
    await routes.remove_all()


def main():
    options = argparse.ArgumentParser(description="The agent of a laboratory.")
    options.add_argument("--port", type=int, default=PORT)
    asyncio.run(run(options.parse_args().port))


if __name__ == "__main__":
    main()
