"""A control plane that sends too much, too slowly or not to the end: what comes of the request, and that the
service answers on its pipe meanwhile and stops when it is told to.

With TELVOR_LAB_LONG=1 in the environment the answers that are too long have a hundred megabytes, without it
ten."""

import concurrent.futures
import os
import time

import conftest
from lab import laboratory as laboratories
from lab import windows
from lab.laboratory import wait_until

LONG = os.environ.get("TELVOR_LAB_LONG") == "1"
HUGE = (100 if LONG else 10) * 1000 * 1000  # bytes
DEVICE = "/v1/devices/telvor-client"
LOGIN = {"email": laboratories.EMAIL, "password": laboratories.PASSWORD}
RECEIVE_TIMEOUT = 30  # seconds: the platform's own, which the service leaves as it is
# Seconds in which the pipe answers whatever the control plane does; most of it is for a busy machine.
PIPE_PATIENCE = 5
# KiB. Far below one huge answer, far above what a heap keeps.
MEMORY_ALLOWANCE = 4096


def ask_aside(lab, method, **params):
    """A request from a client of its own."""
    pipe = windows.Pipe(lab)
    try:
        return pipe.call(method, timeout=120, **params)
    finally:
        pipe.close()


def watch_pipe(lab, until, timeout=120):
    """Asks for the state until the condition holds; every answer has to come soon."""
    deadline = time.monotonic() + timeout
    while not until():
        asked = time.monotonic()
        lab.pipe.call("GetState")
        assert time.monotonic() - asked < PIPE_PATIENCE
        assert time.monotonic() < deadline
        time.sleep(0.2)


def assert_let_go(lab, before):
    """What one answer more or less costs in threads and handles, other tests tell."""
    windows.wait_for_holdings(lab, windows.Holdings(1000, 100, before.memory + MEMORY_ALLOWANCE))


def test_a_huge_answer_to_a_login_is_held_and_let_go_of(lab):
    before = windows.holdings(lab)
    lab.keeper.misbehave("/v1/auth/login", body='{"access_token":"x', size=HUGE, count=1)
    with concurrent.futures.ThreadPoolExecutor() as pool:
        reply = pool.submit(ask_aside, lab, "POST /ui/login", **LOGIN)
        watch_pipe(lab, reply.done)
    assert reply.result() == {"ok": False, "message": "login response missing access_token"}
    assert_let_go(lab, before)
    assert lab.log_in()["ok"] is True


def test_a_huge_catalogue_and_a_huge_profile_are_held_and_let_go_of(logged_in, log):
    before = windows.holdings(logged_in)
    begin = '{"servers":[{"server_id":"x'
    logged_in.keeper.misbehave("/v1/servers/locations", body=begin, size=HUGE, count=1)
    profile = '{"client_address":"10.8.1.9/32","assigned_server_id":"paris-1","allowed_ips":["x'
    logged_in.keeper.misbehave(f"{DEVICE}/wg-profile", body=profile, size=HUGE, count=1)
    logged_in.pipe.call("POST /ui/select-location", server_id="paris-1")
    assert logged_in.pipe.call("Connect") is True
    watch_pipe(logged_in, lambda: "Bootstrap: wg conf created/updated." in log.lines())
    logged_in.wait_for_state("connected")
    log.in_order(f"HTTP GET status=200 body-head={begin}{'x' * (400 - len(begin))}",
                 "CpGetServerLocations: missing/invalid servers[]",
                 "Bootstrap: CpGetServerLocations failed (non-fatal).",
                 f"HTTP GET status=200 body-head={profile}{'x' * (400 - len(profile))}",
                 "Bootstrap: could not select server_public_key/endpoint from wg-profile response",
                 "Bootstrap: wg conf created/updated.")
    logged_in.pipe.call("Disconnect")
    conftest.wait_for_idle(logged_in)
    assert_let_go(logged_in, before)


def test_answers_that_stop_time_out_and_those_of_a_byte_a_second_do_not(logged_in, log):
    """All at once, since each takes its time; beside them a catalogue that breaks off. The platform's limit
    counts from byte to byte, and there is none to the whole: this is accepted."""
    never = 2 * RECEIVE_TIMEOUT
    calls = {
        "POST /ui/login": ("/v1/auth/login", never, LOGIN, {
            "ok": False, "message": "login transport failure"}),
        "GET /ui/quota": ("/v1/me/quota", never, {}, {
            "ok": False, "quota_current": False, "message": "quota transport failure"}),
        "POST /ui/billing/checkout": ("/v1/billing/checkout", never, {}, {
            "ok": False, "checkout_url": None, "message": "checkout transport failure"}),
        "GET /ui/entitlement": ("/v1/me/entitlement", 1, {}, {
            "ok": True, "payment_current": False, "status": "slow", "period_end": None}),
    }
    for path, drip, _, _ in calls.values():
        logged_in.keeper.misbehave(path, body='{"status":"slow"}', size=RECEIVE_TIMEOUT + 1, drip=drip)
    broken_off = '{"servers":['
    logged_in.keeper.misbehave("/v1/servers/locations", body=broken_off + " " * 12, cut="body", count=1)
    logged_in.keeper.misbehave(f"{DEVICE}/wg-key", drip=never, count=1)
    began = time.monotonic()
    with concurrent.futures.ThreadPoolExecutor() as pool:
        futures = {method: pool.submit(ask_aside, logged_in, method, **params)
                   for method, (_, _, params, _) in calls.items()}
        logged_in.pipe.call("Connect")
        watch_pipe(logged_in, lambda: all(future.done() for future in futures.values()))
    took = time.monotonic() - began
    assert {method: future.result() for method, future in futures.items()} == {
        method: reply for method, (_, _, _, reply) in calls.items()}
    assert RECEIVE_TIMEOUT + 1 <= took < 2 * RECEIVE_TIMEOUT
    logged_in.wait_for_state("connected")
    # A key upload counts by its status; that its body never came does not matter.
    log.in_order(f"CpGetServerLocations: HTTP 200 head={broken_off}",
                 "Bootstrap: CpGetServerLocations failed (non-fatal).",
                 "EnsureWgKeyUploaded: ok (200)", "Bootstrap: wg conf created/updated.")


def test_a_stop_does_not_wait_for_the_end_of_a_slow_profile(logged_in, log):
    """The worker sits in its request: the supervisor waits five seconds for it and then goes on without."""
    logged_in.keeper.misbehave(f"{DEVICE}/wg-profile", body="{}", size=1000, drip=1)
    logged_in.pipe.call("Connect")
    wait_until(lambda: logged_in.keeper.requests("GET", f"{DEVICE}/wg-profile"), bool, 30,
               "the request of the profile")
    logged_in.pipe.close()
    began = time.monotonic()
    logged_in.stop_service()
    wait_until(lambda: windows.service_processes(logged_in), lambda found: not found, 15,
               "the end of the process")
    # Five seconds for the pipe's thread, five for the worker.
    assert 10 <= time.monotonic() - began < 18
    log.in_order("ServiceCtrlHandlerEx: STOP/SHUTDOWN received", "Service STOPPED.")
    assert conftest.traces(logged_in) == []
