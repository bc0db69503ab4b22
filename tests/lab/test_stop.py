"""The end of the service, with and without clients, idle and connected."""

import time

import conftest
from lab import prefix, windows

GONE = windows.NO_SUCH_SERVICE


def assert_stopped_orderly(lab, log):
    windows.wait_for_service(lab, "STOPPED", timeout=60)
    log.in_order("ServiceCtrlHandlerEx: ctrl=1", "ServiceCtrlHandlerEx: STOP/SHUTDOWN received",
                 "Service STOPPED.")
    # Two threads write these two in the same moment, and Wine appends at the size that it has just looked up:
    # now and then one of them is written over the other.
    assert ("ServiceCtrlHandlerEx: SetEvent(gStopEvent) ok=true GLE=" in log.text()
            or "ServiceMain: stop event signaled; shutting down." in log.text())
    conftest.wait_until(lambda: windows.service_processes(lab), lambda found: not found, 15,
                        "the end of the process")
    stage = windows.drive(lab) / prefix.STAGE_FOLDER
    assert (stage / "13-dispatch-returned.txt").read_bytes() == "dispatcher returned\r\n".encode("utf-16-le")
    assert (stage / "04-after-runasservice.txt").read_bytes() == "RunAsService rc=0\r\n".encode("utf-16-le")
    assert lab.agent.snapshot()["filters"] == [] and lab.agent.snapshot()["providers"] == []
    assert lab.agent.routes() == lab.first_routes


def test_stop_without_a_client_waits_for_the_pipe_thread_in_full(lab, log):
    lab.pipe.close()
    began = time.monotonic()
    lab.stop_service()
    assert_stopped_orderly(lab, log)
    # Nothing wakes the thread that waits for a client: its five seconds run out, and this is accepted.
    assert time.monotonic() - began >= 5


def test_stop_with_a_silent_client(lab, log):
    lab.pipe.close()
    holder = windows.Driver(lab, "--hold", "1")
    try:
        assert holder.read() == b"open"
        lab.stop_service()
    finally:
        holder.close()
    assert_stopped_orderly(lab, log)


def test_stop_by_a_clients_request(lab, log):
    reply = lab.pipe.send(b'{"id":5,"method":"StopService"}')
    # The process ends so soon after its last report that the reply may be lost with it.
    assert reply in (b'{"jsonrpc":"2.0","id":5,"result":true,"error":null}', b"")
    log.in_order("IPC: StopService requested", "ServiceCtrlHandlerEx: ctrl=1")
    assert_stopped_orderly(lab, log)


def test_stop_while_connected_takes_everything_down(connected, log):
    connected.stop_service()
    assert_stopped_orderly(connected, log)
    assert connected.agent.tunnels() == []
    assert windows.service_state(connected, windows.TUNNEL_SERVICE) in ("STOPPED", GONE)
    # The session stays on the disk: the next start can connect without a login.
    connected.start_service()
    conftest.connect(connected)
