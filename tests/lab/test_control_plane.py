"""A control plane that refuses, breaks or is silent, and what reaches it over the wire."""

import json
import threading
import time

import conftest
from lab import laboratory as laboratories
from lab import windows

DEVICE = "/v1/devices/telvor-client"


def login_reply(message):
    return {"ok": False, "message": message}


def test_a_wrong_password_is_refused(lab):
    assert lab.log_in(password="wrong") == login_reply("login non-2xx: 401")
    assert lab.pipe.call("GET /ui/status")["auth_state"] == "AUTH_REQUIRED"


def test_a_login_tells_how_the_control_plane_failed(lab):
    answers = [
        ({"status": 500}, "login non-2xx: 500"),
        ({"status": 401}, "login non-2xx: 401"),
        ({"cut": "silent"}, "login transport failure"),
        ({"cut": "body"}, "login transport failure"),
        ({"body": "{}"}, "login response missing access_token"),
        ({"body": '{"access_token":"a"}'}, "login response missing refresh_token"),
        ({"body": '{"access_token":"a","refresh_token":"r"}'}, "login response missing expires_at"),
        ({"body": '{"access_token":"a","refresh_token":"r","expires_at":"2030-01-01"}'},
         "login response missing expires_at"),
    ]
    for rule, message in answers:
        lab.keeper.misbehave("/v1/auth/login", count=1, **rule)
        assert lab.log_in() == login_reply(message), rule
    assert lab.log_in()["ok"] is True


def test_a_slow_control_plane_holds_one_client_and_no_other(lab):
    lab.keeper.misbehave("/v1/auth/login", delay=6, count=1)
    replies = []
    patient = windows.Pipe(lab)
    thread = threading.Thread(target=lambda: replies.append(
        patient.call("POST /ui/login", email=laboratories.EMAIL, password=laboratories.PASSWORD)))
    began = time.monotonic()
    thread.start()
    while thread.is_alive():
        asked = time.monotonic()
        assert lab.pipe.call("GetState")["state"] == "disconnected"
        assert time.monotonic() - asked < 5
        thread.join(1)
    patient.close()
    assert replies == [{"ok": True, "auth_state": "AUTH_OK", "message": "registered"}]
    assert time.monotonic() - began >= 6


def test_a_refused_profile_is_asked_for_once_more_and_the_worker_goes_on_trying(logged_in, log):
    logged_in.keeper.misbehave(f"{DEVICE}/wg-profile", status=401, body='{"error":"unauthorized"}', count=4)
    logged_in.pipe.call("Connect")
    log.wait_for("Bootstrap: wg-profile retry HTTP 401", count=2)
    log.in_order('Bootstrap: wg-profile HTTP 401 head={"error":"unauthorized"}',
                 "Bootstrap: token invalid/expired; re-login and retry wg-profile once",
                 'Bootstrap: wg-profile retry HTTP 401 head={"error":"unauthorized"}',
                 "Bootstrap not ready (likely AUTH_REQUIRED); staying DISCONNECTED/CONNECTING and retrying.")
    logged_in.wait_for_state("connected")


def test_a_refused_device_and_key_are_sent_once_more_with_the_same_token(logged_in, log):
    logged_in.keeper.misbehave("/v1/devices", status=401, count=1)
    logged_in.keeper.misbehave(f"{DEVICE}/wg-key", status=401, count=1)
    conftest.connect(logged_in)
    log.in_order("EnsureDeviceRegistered: HTTP 401 (token invalid/expired); re-login and retry once",
                 "EnsureDeviceRegistered: ok after re-login (200)",
                 "EnsureWgKeyUploaded: HTTP 401 (token invalid/expired); re-login and retry once",
                 "EnsureWgKeyUploaded: ok after re-login (200)")
    tokens = {dict(entry["headers"])["Authorization"] for entry in logged_in.keeper.requests()}
    assert len(tokens) == 1


def test_a_broken_control_plane_fails_the_attempt_and_the_worker_goes_on(logged_in, log):
    logged_in.keeper.misbehave("/v1/devices", status=500, body="oops", count=1)
    logged_in.keeper.misbehave("/v1/devices", cut="silent", count=1)
    logged_in.pipe.call("Connect")
    logged_in.wait_for_state("connected")
    log.in_order("EnsureDeviceRegistered: HTTP 500 head=oops",
                 "Bootstrap: EnsureDeviceRegistered failed",
                 "Bootstrap not ready (likely AUTH_REQUIRED); staying DISCONNECTED/CONNECTING and retrying.",
                 "EnsureDeviceRegistered: failed (transport)",
                 "Bootstrap: EnsureDeviceRegistered failed",
                 "Bootstrap: wg conf created/updated.")


def test_a_profile_that_breaks_off_fails_the_attempt_and_shows_how_far_it_came(logged_in, log):
    """The status and what had come before the connection broke stand beside the failure: wanted."""
    begin = '{"client_address":"10.8.1.9/32",'
    logged_in.keeper.misbehave(f"{DEVICE}/wg-profile", body=begin + " " * len(begin), cut="body", count=1)
    conftest.connect(logged_in)
    log.in_order(f"Bootstrap: wg-profile HTTP 200 head={begin}",
                 "Bootstrap not ready (likely AUTH_REQUIRED); staying DISCONNECTED/CONNECTING and retrying.",
                 "Bootstrap: wg conf created/updated.")


def test_a_key_uploads_answer_that_breaks_off_counts_by_its_status(logged_in, log):
    logged_in.keeper.misbehave(f"{DEVICE}/wg-key", cut="body", count=1)
    conftest.connect(logged_in)
    log.in_order("EnsureWgKeyUploaded: ok (200)", "Bootstrap: wg conf created/updated.")
    assert len(logged_in.keeper.requests("PUT", f"{DEVICE}/wg-key")) == 1


def test_a_key_upload_must_be_answered_with_exactly_200(logged_in, log):
    logged_in.keeper.misbehave(f"{DEVICE}/wg-key", status=204, count=1)
    conftest.connect(logged_in)
    log.in_order("EnsureWgKeyUploaded: HTTP 204 head=", "Bootstrap: EnsureWgKeyUploaded failed")


def test_a_catalogue_that_fails_is_not_fatal(logged_in, log):
    logged_in.keeper.misbehave("/v1/servers/locations", status=500, body="no", count=1)
    conftest.connect(logged_in)
    log.in_order("CpGetServerLocations: HTTP 500 head=no",
                 "Bootstrap: CpGetServerLocations failed (non-fatal).")


def test_the_second_way_of_selecting_is_taken_when_the_first_is_unknown(logged_in, log):
    logged_in.keeper.misbehave(f"{DEVICE}/wg-server", status=404, body="{}", count=1)
    logged_in.pipe.call("POST /ui/select-location", server_id="tokyo-1")
    log.in_order(f"CpSelectServer: PUT non-2xx HTTP 404 path={DEVICE}/wg-server head={{}}")
    assert logged_in.keeper.requests("PUT", f"{DEVICE}/server")[0]["body"] == '{"server_id":"tokyo-1"}'
    logged_in.keeper.misbehave(f"{DEVICE}/*server", status=404, body="{}", count=2)
    logged_in.pipe.call("POST /ui/select-location", server_id="paris-1")
    assert logged_in.keeper.requests("POST", "/v1/servers/select")[0]["body"] == (
        '{"device_id":"telvor-client","server_id":"paris-1"}')


def test_a_token_near_its_end_is_refreshed(lab):
    lab.keeper.set_access_lifetime(200)
    lab.log_in()
    assert lab.pipe.call("GET /ui/status")["auth_state"] == "AUTH_OK"
    refreshes = lab.keeper.requests("POST", "/v1/auth/refresh")
    assert [entry["status"] for entry in refreshes] == [200]
    assert list(json.loads(refreshes[0]["body"])) == ["refresh_token"]
    lab.keeper.set_access_lifetime(3600)
    lab.pipe.call("GET /ui/status")
    lab.keeper.forget_requests()
    lab.pipe.call("GET /ui/status")
    assert lab.keeper.requests() == []


def test_an_ended_session_shows_as_such_and_a_login_heals_it(lab, log):
    lab.keeper.set_access_lifetime(200)
    lab.log_in()
    lab.keeper.end_refresh()
    lab.keeper.set_access_lifetime(3600)
    lab.pipe.call("Connect")
    log.wait_for("[BOOTSTRAP] AUTH_REQUIRED (SESSION_EXPIRED) ")
    assert lab.pipe.call("GetState")["lastError"] == "SESSION_EXPIRED"
    assert lab.log_in()["ok"] is True
    assert lab.pipe.call("GetState")["lastError"] is None
    # Nobody asks for a connection again: the worker, still wanted, finds the token by itself.
    lab.wait_for_state("connected")


def own_headers(entry, names=("Accept", "Content-Type", "Authorization")):
    return [name for name, _ in entry["headers"] if name in names]


def one(lab, method, target):
    return lab.keeper.requests(method, target)[0]


def test_headers_reach_the_server_in_the_order_of_each_verb(lab):
    lab.log_in()
    lab.pipe.call("POST /ui/select-location", server_id="paris-1")
    get = one(lab, "GET", f"{DEVICE}/wg-profile")
    post = one(lab, "POST", "/v1/devices")
    put = one(lab, "PUT", f"{DEVICE}/wg-key")
    login = one(lab, "POST", "/v1/auth/login")
    assert own_headers(get) == ["Accept", "Authorization"]
    assert own_headers(post) == ["Accept", "Content-Type", "Authorization"]
    assert own_headers(put) == ["Content-Type", "Authorization"]
    assert own_headers(login) == ["Accept", "Content-Type"]
    for entry in (get, post, put, login):
        headers = dict(entry["headers"])
        assert headers["User-Agent"] == "TELVOR/1.0"
        assert headers["Host"] == "cp.telvor.test:8443"
        assert headers.get("Accept", "application/json") == "application/json"
        assert headers.get("Content-Type", "application/json") == "application/json"
        assert headers.get("Content-Length", "0") == str(len(entry["body"]))
    assert {dict(entry["headers"])["Authorization"][:7] for entry in (get, post, put)} == {"Bearer "}


def test_bodies_reach_the_server_without_blanks_and_in_their_order(lab):
    lab.log_in()
    lab.pipe.call("POST /ui/select-location", server_id="paris-1")
    key = (windows.drive(lab) / "ProgramData/TELVOR/auth/wg_client_publickey.txt").read_text().strip()
    assert one(lab, "POST", "/v1/auth/login")["body"] == (
        f'{{"email":"{laboratories.EMAIL}","password":"{laboratories.PASSWORD}"}}')
    assert one(lab, "POST", "/v1/devices")["body"] == (
        '{"device_id":"telvor-client","name":"telvor-client","platform":"windows"}')
    assert one(lab, "PUT", f"{DEVICE}/wg-key")["body"] == f'{{"wg_public_key":"{key}"}}'
    assert one(lab, "PUT", f"{DEVICE}/wg-server")["body"] == '{"wg_server_id":"paris-1"}'
    assert one(lab, "GET", f"{DEVICE}/wg-profile")["body"] == ""


def test_a_bootstrap_makes_its_requests_in_this_order(logged_in):
    logged_in.pipe.call("POST /ui/select-location", server_id="tokyo-1")
    assert [(entry["method"], entry["target"]) for entry in logged_in.keeper.requests()] == [
        ("GET", "/v1/servers/locations"), ("POST", "/v1/devices"), ("PUT", f"{DEVICE}/wg-key"),
        ("PUT", f"{DEVICE}/wg-server"), ("GET", f"{DEVICE}/wg-profile")]


def test_no_token_and_no_password_is_ever_logged(connected, log):
    told = log.bytes() + windows.log_bytes(connected)
    assert laboratories.PASSWORD.encode() not in told
    for entry in connected.keeper.requests():
        token = dict(entry["headers"]).get("Authorization", "").removeprefix("Bearer ")
        assert not token or token.encode() not in told
