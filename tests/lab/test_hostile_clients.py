"""Clients of the pipe that are silent, endless, slow, cut off or mad: what each gets, and that the next one
is served as if nothing had been."""

import contextlib
import random

import conftest
import pytest
from lab import traffic, vpn_servers, windows
from lab.laboratory import wait_until
from test_pipe import CANNOT_OPEN, MISSING_METHOD, NO_REQUEST, UNKNOWN_METHOD, driver

INSTANCES = 16
BUFFER = 65536
# The reading ends at the end of the first chunk of 512 bytes that lies above 200,000.
READ_AT_MOST = 200192
GET_STATE = b'{"id":1,"method":"GetState"}\n'
RUBBISH_SEED = 20260320
# KiB. The first of these tests costs 300 for good, each later one at most 60; the long lines of one test that
# were never freed would be two thousand.
MEMORY_ALLOWANCE = 1024
# KiB. A line at the limit as long as it is there: its text in a room of 256, and the smaller rooms that it grew
# through.
LONGEST_LINE = 512


@contextlib.contextmanager
def held(lab, number):
    """So many connections, all open."""
    with driver(lab, "--hold", str(number)) as made:
        assert [made.read() for _ in range(number)] == [b"open"] * number
        yield made


def say(made, text):
    made.write(text.hex().encode())


def replies(made, number):
    made.write(b"read")
    return [made.read() for _ in range(number)]


def answers(lab, state="disconnected"):
    return lab.pipe.call("GetState")["state"] == state


@contextlib.contextmanager
def unharmed(lab):
    """The service holds no more afterwards than before, and its log tells of nobody."""
    log = conftest.LogSince(lab)
    before = windows.holdings(lab)
    yield before
    assert answers(lab)
    windows.wait_for_holdings(lab, before._replace(memory=before.memory + MEMORY_ALLOWANCE))
    assert log.bytes() == b""


def test_sixteen_silent_clients_leave_the_tunnel_alone(connected):
    tunnel = f"http://{vpn_servers.tunnel_address(vpn_servers.PARIS)}/"
    before = windows.holdings(connected)
    connected.pipe.close()
    with held(connected, INSTANCES):
        silent = windows.holdings(connected)
        with driver(connected, "--retry", "0") as seventeenth:
            assert seventeenth.exchange(GET_STATE.rstrip()) == CANNOT_OPEN
        assert traffic.visit(connected, tunnel) is not None
        assert len(connected.agent.snapshot()["filters"]) == 21
    # A thread and a pipe for each; the instance that had waited for the next client is one of the sixteen.
    assert silent.threads == before.threads + INSTANCES
    windows.wait_for_holdings(connected, before._replace(memory=before.memory + MEMORY_ALLOWANCE))
    assert answers(connected, "connected")


def test_a_stop_does_not_wait_for_sixteen_silent_clients(lab, log):
    """With no instance left the accept loop is not waiting for a client, so that it sees the stop: wanted."""
    lab.pipe.close()
    with held(lab, INSTANCES):
        lab.stop_service()
        wait_until(lambda: windows.service_processes(lab), lambda found: not found, 15,
                   "the end of the process")
    log.in_order("ServiceCtrlHandlerEx: STOP/SHUTDOWN received", "Service STOPPED.")


def test_clients_that_ask_and_never_read_hold_their_instances_until_they_read(lab):
    with unharmed(lab):
        with held(lab, INSTANCES) as made:
            say(made, b'{"id":3,"method":"Nope"}\n')
            with driver(lab, "--retry", "0") as seventeenth:
                assert seventeenth.exchange(GET_STATE.rstrip()) == CANNOT_OPEN
            assert replies(made, INSTANCES) == [UNKNOWN_METHOD % 3] * INSTANCES


def test_a_client_that_sends_forever_is_read_to_the_limit_and_holds_one_instance(lab):
    """It is stuck in its own writing: the service waits until it reads the reply, for as long as it stays."""
    with unharmed(lab) as before:
        endless = windows.Driver(lab, "--hold", "1")
        try:
            assert endless.read() == b"open"
            say(endless, b"x" * (READ_AT_MOST + 64 * BUFFER))
            with pytest.raises(TimeoutError):
                endless.write(b"read")
                endless.read(timeout=1)
            assert answers(lab)
            assert windows.holdings(lab).memory <= before.memory + MEMORY_ALLOWANCE + LONGEST_LINE
        finally:
            endless.kill()


def test_what_stands_behind_the_limit_is_thrown_away(lab):
    with unharmed(lab):
        with driver(lab, "--raw") as made:
            for _ in range(4):
                assert made.exchange((b"x" * (READ_AT_MOST + BUFFER)).hex().encode()) == NO_REQUEST
                assert made.exchange((b"x" * READ_AT_MOST + GET_STATE).hex().encode()) == NO_REQUEST


def test_lines_that_come_a_byte_at_a_time_are_each_put_together(lab):
    line = b'{"id":31,"method":"Nope"}\n'
    with unharmed(lab):
        with held(lab, 4) as made:
            for place in range(len(line)):
                say(made, line[place:place + 1])
                assert answers(lab)
            assert replies(made, 4) == [UNKNOWN_METHOD % 31] * 4


def test_clients_that_break_off_in_a_line_are_forgotten(lab):
    with unharmed(lab):
        for part in (b"{", GET_STATE[:-1], b"x" * 60000):
            with held(lab, INSTANCES - 1) as made:
                say(made, part)
                assert answers(lab)


def test_clients_that_close_without_reading_are_forgotten(lab):
    """The reply to the second is larger than the pipe's buffer: the service is stuck in its writing."""
    path = windows.drive(lab) / windows.prefix.LOG_FILE
    kept = path.read_bytes()
    try:
        path.write_bytes(b"".join(b"line %d\r\n" % number for number in range(5000)))
        with unharmed(lab):
            for line in (GET_STATE, b'{"id":1,"method":"GET /ui/logs","params":{"limit":2000}}\n'):
                with held(lab, INSTANCES - 1) as made:
                    say(made, line)
                    assert answers(lab)
    finally:
        path.write_bytes(kept)


def request_of(size, head, tail):
    """A request line of so many bytes, its line feed not counted."""
    return head + b"x" * (size - len(head) - len(tail)) + tail + b"\n"


def test_requests_of_two_hundred_thousand_bytes_are_served(lab):
    refused = (b'{"jsonrpc":"2.0","id":5,"result":{"ok":false,"message":"login non-2xx: 401"},'
               b'"error":null}')
    # Its address does not fit into a URL that the platform takes.
    unasked = (b'{"jsonrpc":"2.0","id":6,"result":{"registered":false},'
               b'"error":{"message":"is-registered transport failure"}}')
    exchanges = [
        (b'{"id":4,"method":"', b'"}', UNKNOWN_METHOD % 4),
        (b'{"id":7,"', b'":"GetState"}', MISSING_METHOD % 7),
        (b'{"id":5,"method":"POST /ui/login","params":{"password":"p","email":"', b'"}}', refused),
        (b'{"id":6,"method":"GET /ui/is-registered","email":"', b'"}', unasked),
    ]
    for head, tail, reply in exchanges:
        line = request_of(200000, head, tail)
        assert len(line) == 200001
        assert lab.pipe.send(line.rstrip()) == reply
        assert answers(lab)
    assert lab.keeper.requests("GET") == []


def test_rubbish_is_a_request_without_a_method(lab):
    chance = random.Random(RUBBISH_SEED)
    with unharmed(lab), driver(lab, "--raw") as made:
        for _ in range(40):
            rubbish = chance.randbytes(chance.randrange(4000)).replace(b"\n", b"\0") + b"\n"
            assert made.exchange(rubbish.hex().encode()) == MISSING_METHOD % 0, rubbish
