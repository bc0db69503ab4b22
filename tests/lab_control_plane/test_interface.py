"""What holds for all paths: bearer, body, unknown paths, misbehaviour; and the tunnel side in short."""

import base64
import http.client
import json
import time

import pytest
from control_plane_client import PUBLIC_KEY, new_email
from lab.laboratory import wait_until

pytest_plugins = ["control_plane_fixture"]

UNAUTHORIZED = (401, {"error": "unauthorized"})
WITH_BEARER = [
    ("POST", "/v1/devices"), ("PUT", "/v1/devices/pc-1/wg-key"), ("GET", "/v1/devices/pc-1/wg-profile"),
    ("GET", "/v1/servers/locations"), ("PUT", "/v1/devices/pc-1/wg-server"),
    ("PUT", "/v1/devices/pc-1/server"), ("POST", "/v1/servers/select"), ("GET", "/v1/me/quota"),
    ("GET", "/v1/me/entitlement"), ("POST", "/v1/billing/checkout")]
WITH_BODY = [(method, path) for method, path in WITH_BEARER if method != "GET"] + [
    ("POST", "/v1/auth/login"), ("POST", "/v1/auth/refresh"), ("POST", "/v1/auth/register"),
    ("POST", "/v1/auth/password/reset/start"), ("POST", "/v1/auth/password/reset/confirm")]


@pytest.mark.parametrize("method, path", WITH_BEARER)
def test_a_bearer_is_needed(plane, person, method, path):
    assert plane.ask(method, path, {}).pair() == UNAUTHORIZED
    assert plane.ask(method, path, {}, token="made-up").pair() == UNAUTHORIZED
    assert plane.ask(method, path, {}, token="").pair() == UNAUTHORIZED
    # A refresh token opens nothing.
    assert plane.ask(method, path, {}, token=person.refresh_token).pair() == UNAUTHORIZED


@pytest.mark.parametrize("method, path", WITH_BODY)
@pytest.mark.parametrize("body", [b"", b"{", b"[]", b'"text"', b'{"a":"\xff"}'])
def test_a_body_must_be_one_object(plane, person, method, path, body):
    assert plane.ask(method, path, body, person.token).pair() == (400, {"error": "invalid_json"})


@pytest.mark.parametrize("method, path", [
    ("GET", "/"), ("GET", "/v1"), ("POST", "/v1/auth"), ("POST", "/v1/auth/logout"), ("GET", "/v1/me"),
    ("POST", "/v1/auth/login/"), ("GET", "/V1/me/quota"), ("POST", "/v2/auth/login"), ("GET", "/checkout/"),
    ("GET", "/account/1"), ("GET", "/requests"), ("PUT", "/v1/devices/a/b/wg-key")])
def test_what_is_not_of_the_interface_is_not_there(plane, person, method, path):
    body = None if method == "GET" else {}
    assert plane.ask(method, path, body, person.token).pair() == (404, {"error": "not_found"})


def test_another_verb_is_not_allowed(plane):
    assert plane.get("/v1/auth/login") == (405, {"error": "method_not_allowed"})


def test_every_answer_ends_its_connection_and_holds_no_blank(plane, person):
    answer = plane.ask("GET", "/v1/servers/locations", token=person.token)
    assert answer.headers["Connection"] == "close"
    assert answer.headers["Content-Type"] == "application/json; charset=utf-8"
    assert answer.text == json.dumps(answer.json(), separators=(",", ":"))


# The tunnel side


def put(plane, person, what, body, device="pc-1"):
    return plane.ask("PUT", f"/v1/devices/{device}/{what}", body, person.token).pair()


def test_a_device_gets_a_profile_once_it_has_a_key_and_a_server(plane, person):
    profile = "/v1/devices/pc-1/wg-profile"
    assert plane.get(profile, person.token) == (409, {"error": "no_wg_key"})
    assert put(plane, person, "wg-key", {"wg_public_key": PUBLIC_KEY}) == (200, {"ok": True})
    assert plane.get(profile, person.token) == (409, {"error": "no_server_assigned"})
    chosen = (200, {"ok": True, "server_id": "good"})
    assert put(plane, person, "wg-server", {"wg_server_id": "good"}) == chosen
    status, answer = plane.get(profile, person.token)
    assert (status, answer["client_address"], answer["dns"]) == (200, "10.8.1.2/32", ["10.8.1.1"])
    assert list(answer)[-1] == "assigned_server" and answer["assigned_server"]["server_id"] == "good"
    # The network has one address to give: the next device must wait until the first has left.
    plane.post("/v1/devices", {"device_id": "pc-2", "name": "n", "platform": "p"}, person.token)
    put(plane, person, "wg-key", {"wg_public_key": "B" * 43 + "="}, "pc-2")
    assert put(plane, person, "server", {"server_id": "good"}, "pc-2") == (503, {"error": "no_free_address"})


def test_a_device_is_new_once(plane, person):
    device = {"device_id": "pc-9", "name": "Nine", "platform": "windows"}
    assert plane.post("/v1/devices", device, person.token) == (
        201, {"device_id": "pc-9", "created": True})
    assert plane.post("/v1/devices", device, person.token) == (
        200, {"device_id": "pc-9", "created": False})


@pytest.mark.parametrize("key", ["short", "A" * 44, "A" * 42 + "==", "*" * 44])
def test_a_key_must_be_one(plane, person, key):
    assert put(plane, person, "wg-key", {"wg_public_key": key}) == (400, {"error": "invalid_wg_public_key"})


def test_servers_and_devices_must_be_there(plane, person):
    assert put(plane, person, "server", {"server_id": "atlantis"}) == (404, {"error": "unknown_server"})
    assert put(plane, person, "server", {"server_id": "gone"}) == (409, {"error": "server_offline"})
    unknown = (404, {"error": "unknown_device"})
    assert put(plane, person, "server", {"server_id": "good"}, device="other") == unknown
    assert plane.post("/v1/servers/select", {"device_id": "other", "server_id": "good"},
                      person.token) == unknown
    assert plane.post("/v1/servers/select", {"device_id": "pc-1", "server_id": "gone"}, person.token) == (
        409, {"error": "server_offline"})


def test_a_server_that_does_not_do_as_told_is_unreachable(plane, person):
    put(plane, person, "wg-key", {"wg_public_key": "C" * 43 + "="})
    status, answer = put(plane, person, "server", {"server_id": "bad"})
    assert (status, answer["error"]) == (503, "server_unreachable")


def test_the_catalogue_tells_who_is_online(plane, person):
    def online():
        servers = plane.get("/v1/servers/locations", person.token)[1]["servers"]
        return [entry["server_id"] for entry in servers if entry["online"]]

    wait_until(online, lambda found: found == ["good"], 5, "the first heartbeat")


# Misbehaviour


@pytest.mark.parametrize("rule, status, body", [
    ({"status": 503}, 503, b""), ({"body": "plain"}, 200, b"plain"), ({"status": 204}, 204, b""),
    ({"status": 400, "body": "caf\u00e9"}, 400, "caf\u00e9".encode()),
    ({"body_base64": base64.b64encode(b"\xff\x00").decode()}, 200, b"\xff\x00"),
    ({"status": 500, "body_base64": ""}, 500, b"")])
def test_a_rule_answers_instead(plane, rule, status, body):
    plane.keeper.misbehave("/v1/me/*", count=1, **rule)
    answer = plane.ask("GET", "/v1/me/quota")
    assert (answer.status, answer.bytes) == (status, body)
    assert plane.get("/v1/me/quota") == UNAUTHORIZED


def test_a_rule_holds_for_its_verb_and_as_often_as_it_says_after_as_many_as_it_says(plane):
    plane.keeper.misbehave("/v1/auth/login", method="POST", status=500, after=1, count=2)
    assert plane.get("/v1/auth/login")[0] == 405
    statuses = [plane.ask("POST", "/v1/auth/login", {}).status for _ in range(4)]
    assert statuses == [400, 500, 500, 400]


def test_a_rule_can_hang_up(plane):
    plane.keeper.misbehave("/*", cut="silent", count=1)
    with pytest.raises((ConnectionError, http.client.RemoteDisconnected)):
        plane.get("/v1/me/quota")
    plane.keeper.misbehave("/*", cut="body", body="0123456789", count=1)
    with pytest.raises((ConnectionError, http.client.IncompleteRead)):
        plane.get("/v1/me/quota")


def test_a_rule_can_make_an_answer_as_long_as_it_likes(plane):
    size = 300_001
    plane.keeper.misbehave("/v1/me/quota", body='{"a":"b', size=size, count=1)
    answer = plane.ask("GET", "/v1/me/quota")
    assert (answer.status, answer.bytes) == (200, b'{"a":"' + b"b" * (size - 6))
    assert (answer.headers["Connection"], answer.headers["Content-Length"]) == ("close", str(size))


def test_a_rule_can_send_an_answer_byte_by_byte(plane):
    plane.keeper.misbehave("/v1/me/quota", body="sl", size=4, drip=0.1, count=1)
    began = time.monotonic()
    assert plane.ask("GET", "/v1/me/quota").bytes == b"slll"
    assert time.monotonic() - began >= 0.4


def test_a_real_answer_can_drip_too_and_the_client_may_leave(plane):
    plane.keeper.misbehave("/v1/me/quota", drip=0.002, count=1)
    assert plane.get("/v1/me/quota") == UNAUTHORIZED
    plane.keeper.misbehave("/v1/me/quota", body="never read", drip=1, count=1)
    with pytest.raises(TimeoutError):
        plane.ask("GET", "/v1/me/quota", timeout=0.3)
    assert plane.get("/v1/me/quota") == UNAUTHORIZED


@pytest.mark.parametrize("rule", [{"path": ""}, {"path": "/*", "cut": "often"}, {"path": "/*", "colour": 1},
                                  {"path": "/*", "size": 10}])
def test_a_rule_that_is_none_is_refused(plane, rule):
    with pytest.raises(RuntimeError):
        plane.keeper.misbehave(**rule)
    assert plane.get("/v1/me/quota") == UNAUTHORIZED


def test_every_request_is_remembered_as_it_came(plane):
    plane.ask("POST", "/v1/auth/login?x=%20y", '{"email": 1}', token="t")
    entry, = plane.keeper.requests("POST")
    assert (entry["target"], entry["body"], entry["status"]) == ("/v1/auth/login?x=%20y", '{"email": 1}', 400)
    assert ["Authorization", "Bearer t"] in entry["headers"]
    plane.keeper.forget_requests()
    assert plane.keeper.requests() == []


def test_an_account_can_be_given_by_the_keeper(plane):
    email = new_email()
    plane.keeper.add_account(email, "a horse of course")
    assert plane.log_in(email)[0] == 200
    with pytest.raises(RuntimeError, match="account_exists"):
        plane.keeper.add_account(email, "a horse of course")
