"""The pipe as a client of the real platform finds it: rights, instances, framing."""

import contextlib
import time

from lab import prefix, windows

NO_REQUEST = b'{"jsonrpc":"2.0","id":0,"result":null,"error":{"message":"IPC: no request"}}'
MISSING_METHOD = b'{"jsonrpc":"2.0","id":%d,"result":null,"error":{"message":"IPC: missing method"}}'
UNKNOWN_METHOD = b'{"jsonrpc":"2.0","id":%d,"result":null,"error":{"message":"IPC: unknown method"}}'
CANNOT_OPEN = b"!error 231"


@contextlib.contextmanager
def driver(lab, *options):
    made = windows.Driver(lab, *options)
    try:
        yield made
    finally:
        made.close()


def raw(lab, *parts, after=()):
    """Writes the parts one by one over one connection; the reply."""
    with driver(lab, "--raw") as made:
        return made.exchange(b" ".join(part.hex().encode() for part in parts) + b" ".join((b"", *after)))


def test_the_pipe_has_its_access_list(lab):
    with driver(lab, "--security") as made:
        # The system writes the two rights of the last entry in its own order, whatever order they came in.
        assert made.read() in (b"D:(A;;GA;;;SY)(A;;GA;;;BA)(A;;GRGW;;;AU)",
                               b"D:(A;;GA;;;SY)(A;;GA;;;BA)(A;;GWGR;;;AU)")


def test_the_pipe_has_sixteen_instances_with_buffers_of_64_kib(lab):
    with driver(lab, "--info") as made:
        assert made.read().startswith(b"instances 16 out 65536 in 65536 flags ")


def test_sixteen_silent_clients_hold_the_pipe_and_a_seventeenth_gets_in_when_one_leaves(lab):
    lab.pipe.close()
    with driver(lab, "--hold", "17") as made:
        assert [made.read() for _ in range(17)] == [b"open"] * 16 + [CANNOT_OPEN]
    deadline = time.monotonic() + 10
    with driver(lab, "--retry", "5000") as made:
        assert b'"state":"disconnected"' in made.exchange(b'{"id":1,"method":"GetState"}')
    assert time.monotonic() < deadline


def test_the_second_line_of_a_write_is_dropped(lab):
    reply = raw(lab, b'{"id":1,"method":"A"}\n{"id":2,"method":"B"}\n')
    assert reply == UNKNOWN_METHOD % 1


def test_a_request_in_many_small_writes_is_put_together(lab):
    line = b'{"id":31,"method":"Nope"}\n'
    assert raw(lab, *(line[i:i + 1] for i in range(len(line)))) == UNKNOWN_METHOD % 31


def test_carriage_returns_vanish_inside_the_line(lab):
    assert b'"state":"disconnected"' in raw(lab, b'{"id":1,"method":"Get\r', b'State"}\r\n')


def test_an_empty_line_is_a_request_without_a_method(lab):
    assert raw(lab, b"\n") == MISSING_METHOD % 0


def test_a_line_above_the_limit_ends_the_reading(lab):
    assert raw(lab, b"x" * 200704) == NO_REQUEST


def test_a_line_that_passes_the_limit_in_its_last_chunk_is_a_request(lab):
    head = b'{"id":7,"method":"Nope","pad":"'
    line = head + b"x" * (199680 + 500 - len(head) - 3) + b'"}\n'
    assert raw(lab, line) == UNKNOWN_METHOD % 7


def test_a_client_that_goes_without_a_word_harms_nobody(lab):
    with driver(lab, "--raw") as made:
        for _ in range(20):
            assert made.exchange(b"%s close" % b'{"id":1'.hex().encode()) == b"!closed"
    assert lab.pipe.call("GetState")["state"] == "disconnected"


def test_requests_get_their_fixed_replies(lab):
    exchanges = [
        (b'{"id":-5,"method":"Nope"}', UNKNOWN_METHOD % -5),
        (b'{"id":4,"method":"getstate"}', UNKNOWN_METHOD % 4),
        (b'{"id":3,"method" : "GetState"}', MISSING_METHOD % 3),
        (b"not json at all", MISSING_METHOD % 0),
        (b'{"id":9,"method":"POST /ui/login","params":{"email":"a"}}',
         b'{"jsonrpc":"2.0","id":9,"result":null,"error":{"message":"missing email/password"}}'),
        (b'{"id":8,"method":"POST /ui/select-location","server_id":""}',
         b'{"jsonrpc":"2.0","id":8,"result":null,"error":{"message":"missing server_id"}}'),
        (b'{"id":6,"method":"Disconnect"}', b'{"jsonrpc":"2.0","id":6,"result":true,"error":null}'),
        (b'{"id":2,"method":"GET /ui/locations"}',
         b'{"jsonrpc":"2.0","id":2,"result":{"servers":[],"selected_server_id":null},"error":null}'),
    ]
    for line, reply in exchanges:
        assert lab.pipe.send(line) == reply, line


def test_a_reply_above_the_buffer_arrives_whole(lab):
    path = windows.drive(lab) / prefix.LOG_FILE
    kept = path.read_bytes()
    try:
        path.write_bytes(b"".join(b"line %d\r\n" % number for number in range(5000)))
        reply = lab.pipe.send(b'{"id":1,"method":"GET /ui/logs","params":{"limit":5000}}')
        lines = ",".join(f'{{"ts":"","level":"INFO","msg":"line {number}"}}' for number in range(3000, 5000))
        assert len(reply) > 65536
        assert reply.decode() == f'{{"jsonrpc":"2.0","id":1,"result":[{lines}],"error":null}}'
    finally:
        path.write_bytes(kept)
