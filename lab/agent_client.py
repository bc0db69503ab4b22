"""The laboratory's hand on the client machine's agent: routes, tunnels, filters in force, faults."""

import contextlib
import ctypes
import json
import os
import socket
import threading
import time

from lab import network

PORT = 47100
CLONE_NEWNET = 0x40000000


def connect_inside(namespace, port):
    """A connection to a port of a namespace's loopback. A socket stays in the namespace that it was made in,
    so that one thread enters it, makes the connection, and ends."""
    made = []

    def enter_and_connect():
        handle = os.open(f"/run/netns/{namespace}", os.O_RDONLY)
        try:
            if ctypes.CDLL(None, use_errno=True).setns(handle, CLONE_NEWNET) != 0:
                made.append(OSError(ctypes.get_errno(), "setns"))
                return
            made.append(socket.create_connection(("127.0.0.1", port), timeout=30))
        except OSError as failure:
            made.append(failure)
        finally:
            os.close(handle)

    thread = threading.Thread(target=enter_and_connect)
    thread.start()
    thread.join()
    if isinstance(made[0], OSError):
        raise made[0]
    return made[0]


def _exchange(stream, operation, fields):
    stream.write(json.dumps({"op": operation, **fields}).encode() + b"\n")
    stream.flush()
    return json.loads(stream.readline())


class EngineSession:
    """An engine session of another program."""

    def __init__(self, stream):
        self._stream = stream

    def call(self, operation, **fields):
        answer = _exchange(self._stream, operation, fields)
        if answer["code"] != 0:
            raise RuntimeError(f"{operation}: {answer}")
        return answer


class Agent:
    """Plain calls to the agent; its protocol is told in agent/agent.py."""

    def __init__(self, number):
        self._namespace = network.namespace(number, network.CLIENT.name)

    def call(self, operation, **fields):
        """One request on a connection of its own; the whole answer."""
        with connect_inside(self._namespace, PORT) as connection, connection.makefile("rwb") as stream:
            return _exchange(stream, operation, fields)

    @contextlib.contextmanager
    def session(self):
        """The filtering engine as another program would use it."""
        with connect_inside(self._namespace, PORT) as connection, connection.makefile("rwb") as stream:
            session = EngineSession(stream)
            session.call("engine_open")
            yield session

    def wait(self, seconds=10):
        """Until the agent answers."""
        deadline = time.monotonic() + seconds
        while True:
            try:
                return self.call("ping")
            except OSError:
                if time.monotonic() > deadline:
                    raise
                time.sleep(0.05)

    def routes(self):
        return self.call("route_list")["rows"]

    def tunnels(self):
        return self.call("tunnel_list")["tunnels"]

    def wg(self, *arguments):
        """What the real wg answers on the client."""
        return self.call("wg", args=list(arguments))

    def snapshot(self):
        """All objects of the filtering engine, each with every field, in the order added."""
        return self.call("snapshot")

    def fault(self, operation, code, count=1, skip=0):
        self.call("fault", on=operation, code=code, count=count, skip=skip)

    def clear_faults(self):
        self.call("fault_clear")

    def end_sessions(self):
        """Of whoever has the filtering engine open, as the end of their processes would."""
        self.call("engine_end_all")

    def begin_journal(self):
        self.call("journal_begin")

    def journal(self):
        """The names of the operations that the stand-ins asked for since the journal was begun."""
        return self.call("journal")["operations"]
