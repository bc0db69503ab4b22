"""The account methods against a control plane that does its duty: every result, byte for byte."""

import base64
import contextlib
import re
import threading

import conftest
from account_calls import (ID, LOGGED_IN, NO_TOKEN, PARAMETERS, PASSWORD, VALUES, ask, error, failure,
                           new_email, result)
from lab import laboratory as laboratories
from lab import network, traffic, windows

NEW_PASSWORD = "a mule as a rule"
LOGGED_OUT = '{"ok":true,"auth_state":"AUTH_REQUIRED","message":"Logged out"}'
NO_SESSION = r"no session: C:\\ProgramData\\TELVOR\\auth\\session.dat"
PARAMETER_ERRORS = {
    "POST /ui/login": "missing email/password",
    "GET /ui/is-registered": "missing email",
    "POST /ui/register": "missing email/password",
    "POST /ui/password-reset/start": "missing email",
    "POST /ui/password-reset/confirm": "missing email/request_id/code/new_password",
}


def register(lab, email):
    assert ask(lab, "POST /ui/register", email=email, password=PASSWORD) == result(LOGGED_IN)


def matched(pattern, reply):
    """The groups of a result whose fixed parts are exactly these."""
    found = re.fullmatch(re.escape(result("%")).decode().replace("%", pattern), reply.decode())
    assert found, reply
    return found.groups()


# Parameters


def test_every_parameter_must_be_a_text(lab):
    for method, keys in PARAMETERS.items():
        refused = error(PARAMETER_ERRORS[method])
        assert ask(lab, method) == refused
        for key in keys:
            given = {name: VALUES[name] for name in keys if name != key}
            for odd in ({}, {key: 7}, {key: None}, {key: ["x"]}):
                assert ask(lab, method, **given, **odd) == refused, (method, key, odd)
    assert lab.keeper.requests() == []


def test_an_empty_parameter_counts_as_present(lab):
    messages = {"POST /ui/login": "login non-2xx: 400", "POST /ui/register": "register non-2xx: 400",
                "GET /ui/is-registered": "is-registered transport failure",
                "POST /ui/password-reset/start": "missing_email",
                "POST /ui/password-reset/confirm": "missing_email"}
    for method, message in messages.items():
        assert ask(lab, method, **dict.fromkeys(PARAMETERS[method], "")) == failure(method, message)


def test_a_parameter_of_invalid_utf8_arrives_as_an_empty_text(lab):
    for method, keys in PARAMETERS.items():
        lab.keeper.forget_requests()
        members = ",".join(f'"{key}":"\xff\xfe"' for key in keys)
        lab.pipe.send(f'{{"id":{ID},"method":"{method}",{members}}}'.encode("latin-1"))
        request, = lab.keeper.requests()
        if method == "GET /ui/is-registered":
            assert request["target"] == "/v1/auth/registered?email="
        else:
            assert all(f'"{key}":""' in request["body"] for key in keys), method


# Registration and login


def test_a_registration_logs_in_and_notes_the_device(lab, log):
    email = new_email()
    register(lab, email)
    assert [(entry["method"], entry["target"], entry["body"]) for entry in lab.keeper.requests()] == [
        ("POST", "/v1/auth/register",
         f'{{"email":"{email}","password":"{PASSWORD}","device_id":"telvor-client"}}'),
        ("POST", "/v1/auth/login", f'{{"email":"{email}","password":"{PASSWORD}"}}')]
    assert lab.pipe.call("GET /ui/status")["auth_state"] == "AUTH_OK"
    log.in_order(f"/v1/auth/register: User:{email}, device_id=telvor-client")
    assert PASSWORD not in log.text()


def test_a_registration_leaves_the_last_error_and_a_login_clears_it(lab):
    """The two methods differ in this on purpose."""
    assert lab.pipe.call("GetState")["lastError"] == "AUTH_REQUIRED"
    email = new_email()
    register(lab, email)
    assert lab.pipe.call("GetState")["lastError"] == "AUTH_REQUIRED"
    assert ask(lab, "POST /ui/login", email=email, password=PASSWORD) == result(LOGGED_IN)
    assert lab.pipe.call("GetState")["lastError"] is None


def test_an_existing_account_is_told_to_log_in(lab, log):
    email = new_email()
    register(lab, email)
    assert ask(lab, "POST /ui/register", email=email, password=PASSWORD) == result(
        '{"ok":false,"message":"User already exists. Please log in or reset your password."}')
    log.in_order("/v1/auth/register: already registered (409)")
    assert len(lab.keeper.requests("POST", "/v1/auth/login")) == 1


def test_a_registration_whose_login_fails_has_still_made_the_account(lab):
    email = new_email()
    lab.keeper.misbehave("/v1/auth/login", status=500, count=1)
    reply = ask(lab, "POST /ui/register", email=email, password=PASSWORD)
    assert reply == result('{"ok":false,"message":"login non-2xx: 500"}')
    assert ask(lab, "POST /ui/login", email=email, password=PASSWORD) == result(LOGGED_IN)


def test_a_wrong_password_changes_nothing(lab):
    before = lab.pipe.call("GetState")
    reply = ask(lab, "POST /ui/login", email=laboratories.EMAIL, password="wrong")
    assert reply == result('{"ok":false,"message":"login non-2xx: 401"}')
    assert lab.pipe.call("GetState") == before


def test_what_cannot_be_written_fails_the_login(lab):
    auth = windows.drive(lab) / "ProgramData/TELVOR/auth"
    for name, message in (("session.dat", "login ok but SaveSession failed"),
                          ("wg_client_publickey.txt.tmp", "login ok but active WG key rotation failed")):
        (auth / name).mkdir()
        try:
            reply = ask(lab, "POST /ui/login", email=laboratories.EMAIL, password=laboratories.PASSWORD)
            assert reply == failure("POST /ui/login", message)
            reply = ask(lab, "POST /ui/register", email=new_email(), password=PASSWORD)
            assert reply == failure("POST /ui/register", message)
        finally:
            (auth / name).rmdir()
    assert lab.log_in()["ok"] is True


def test_a_login_saves_its_session_once_more_and_says_so_when_it_cannot(lab):
    """Between the two savings the keys are rotated: when they change, a folder takes the session's place."""
    auth = windows.drive(lab) / "ProgramData/TELVOR/auth"
    session, private_key = auth / "session.dat", auth / "wg_client_privatekey.txt"

    def take_the_sessions_place(known):
        while private_key.stat().st_ino == known:
            pass
        session.unlink()
        with contextlib.suppress(FileExistsError):
            session.mkdir()

    def log_in_with_a_folder_in_between():
        taking = threading.Thread(target=take_the_sessions_place, args=[private_key.stat().st_ino])
        taking.start()
        try:
            return ask(lab, "POST /ui/login", email=laboratories.EMAIL, password=laboratories.PASSWORD)
        finally:
            taking.join()
            if session.is_dir():
                session.rmdir()

    assert lab.log_in()["ok"] is True
    failed = result('{"ok":false,"auth_state":"AUTH_REQUIRED","message":"save session failed"}')
    # On a busy machine the folder can come too late, when the session has been saved again.
    assert failed in (log_in_with_a_folder_in_between() for _ in range(20))
    assert lab.log_in()["ok"] is True


def test_an_address_is_asked_for_as_it_was_typed_and_echoed_trimmed(lab):
    email = new_email()
    register(lab, email)
    for typed, echoed, registered in ((email, email, "true"), (f"  {email} ", email, "true"),
                                      (f"no{email}", f"no{email}", "false")):
        lab.keeper.forget_requests()
        reply = ask(lab, "GET /ui/is-registered", email=typed)
        assert reply == result(f'{{"email":"{echoed}","registered":{registered}}}')
        request, = lab.keeper.requests()
        query = typed.replace("@", "%40").replace(" ", "%20")
        assert (request["method"], request["target"]) == ("GET", f"/v1/auth/registered?email={query}")


def test_a_registration_without_a_device_id_is_not_sent(lab, log):
    register(lab, new_email())  # the id is there now
    path = windows.drive(lab) / "ProgramData/TELVOR/auth/device_id.txt"
    kept = path.read_bytes()
    lab.keeper.forget_requests()
    path.unlink()
    path.mkdir()
    try:
        assert ask(lab, "POST /ui/register", email=new_email(), password=PASSWORD) == failure(
            "POST /ui/register", "failed to load/create device id")
    finally:
        path.rmdir()
        path.write_bytes(kept)
    log.in_order("/v1/auth/register: failed to load/create device_id")
    assert lab.keeper.requests() == []


# The forgotten password


def test_a_forgotten_password_is_set_anew(lab):
    email = new_email()
    register(lab, email)
    reply = ask(lab, "POST /ui/password-reset/start", email=email)
    request_id, = matched(r'\{"ok":true,"request_id":"([\w-]+)","masked_email":"p\*\*\*@telvor\.test",'
                          r'"expires_in_seconds":900,"message":"ok"\}', reply)
    mail, = lab.keeper.mails(email)
    assert mail["request_id"] == request_id
    values = {"email": email, "request_id": request_id, "new_password": NEW_PASSWORD}

    def confirm(code):
        return ask(lab, "POST /ui/password-reset/confirm", code=code, **values)

    assert confirm("wrong") == result('{"ok":false,"message":"wrong_code: Tries left: 4."}')
    lab.keeper.forget_requests()
    assert confirm(mail["code"]) == result('{"ok":true,"message":"password reset complete"}')
    assert lab.keeper.requests()[0]["body"] == (
        f'{{"email":"{email}","request_id":"{request_id}","code":"{mail["code"]}",'
        f'"new_password":"{NEW_PASSWORD}"}}')
    assert confirm(mail["code"]) == result(
        '{"ok":false,"message":"request_used: This code has set a password already."}')
    assert lab.log_in(email, PASSWORD) == {"ok": False, "message": "login non-2xx: 401"}
    assert lab.log_in(email, NEW_PASSWORD)["ok"] is True


def test_a_code_that_ran_out_says_so(lab):
    email = new_email()
    register(lab, email)
    ask(lab, "POST /ui/password-reset/start", email=email)
    mail, = lab.keeper.mails(email)
    lab.keeper.end_resets()
    reply = ask(lab, "POST /ui/password-reset/confirm", email=email, request_id=mail["request_id"],
                code=mail["code"], new_password=NEW_PASSWORD)
    assert reply == result('{"ok":false,"message":"code_expired: Please ask for a new code."}')


# Quota, entitlement, checkout, account page


def test_the_quota_is_passed_on(lab):
    email = new_email()
    register(lab, email)
    assert ask(lab, "GET /ui/quota") == result('{"ok":true,"quota_current":true}')
    lab.keeper.change_subscription(email, bytes_used=2, bytes_limit=1)
    assert ask(lab, "GET /ui/quota") == result('{"ok":true,"quota_current":false}')


def test_the_entitlement_is_passed_on(lab):
    email = new_email()
    register(lab, email)
    shape = '{"ok":true,"payment_current":%s,"status":"%s","period_end":%s}'
    assert ask(lab, "GET /ui/entitlement") == result(shape % ("false", "none", "null"))
    lab.keeper.change_subscription(email, status="canceled", period_end=4102444800)
    assert ask(lab, "GET /ui/entitlement") == result(shape % ("true", "canceled", '"2100-01-01T00:00:00Z"'))
    lab.keeper.change_subscription(email, status="past_due")
    assert ask(lab, "GET /ui/entitlement") == result(shape % ("false", "past_due", '"2100-01-01T00:00:00Z"'))


def test_a_checkout_is_ordered_opened_and_paid(lab):
    register(lab, new_email())
    lab.keeper.forget_requests()
    url, = matched(r'\{"ok":true,"checkout_url":"([^"]+)","message":"ok"\}',
                   ask(lab, "POST /ui/billing/checkout"))
    assert url.startswith(f"{network.CONTROL_PLANE_URL}/checkout/")
    request, = lab.keeper.requests()
    assert request["body"] == '{"provider":"stripe","plan_id":"basic_monthly"}'
    assert traffic.browse(lab, url)[0] == 200
    assert traffic.browse(lab, url, "--request", "POST")[0] == 200
    entitlement = lab.pipe.call("GET /ui/entitlement")
    assert (entitlement["payment_current"], entitlement["status"]) == (True, "active")


def test_the_account_page_opens_by_its_link(lab, log):
    email = new_email()
    register(lab, email)
    lab.keeper.forget_requests()
    url, token = matched(r'\{"ok":true,"account_url":"([^"]+=([\w-]+))","message":"ok"\}',
                         ask(lab, "GET /ui/account-page-url"))
    assert url == f"{network.CONTROL_PLANE_URL}/account?access_token={token}"
    assert lab.keeper.requests() == []  # the link is made without asking
    status, page = traffic.browse(lab, url)
    assert status == 200 and email in page
    log.in_order("SplitTunnelV1: RefreshSplitTunnelRoutes ENTER")
    assert token not in log.text()


def test_the_token_goes_along_where_it_is_needed_and_nowhere_else(lab):
    email = new_email()
    register(lab, email)
    url = lab.pipe.call("GET /ui/account-page-url")["account_url"]
    for method in ("GET /ui/entitlement", "GET /ui/quota", "POST /ui/billing/checkout"):
        ask(lab, method)
    ask(lab, "GET /ui/is-registered", email=email)
    ask(lab, "POST /ui/password-reset/start", email=email)
    ask(lab, "POST /ui/password-reset/confirm", email=email, request_id="r", code="c", new_password="n")
    sent = [(entry["target"].partition("?")[0], dict(entry["headers"]).get("Authorization"))
            for entry in lab.keeper.requests()]
    bearer = f"Bearer {url.partition('=')[2]}"
    assert sent == [("/v1/auth/register", None), ("/v1/auth/login", None), ("/v1/me/entitlement", bearer),
                    ("/v1/me/quota", bearer), ("/v1/billing/checkout", bearer), ("/v1/auth/registered", None),
                    ("/v1/auth/password/reset/start", None), ("/v1/auth/password/reset/confirm", None)]


# Without a session, or with one that ended


def test_without_a_session_a_login_is_required(lab):
    for method, shape in NO_TOKEN.items():
        assert ask(lab, method) == result(shape % NO_SESSION)
    assert lab.keeper.requests() == []


def test_an_expired_session_shows_in_every_method_and_stays(lab):
    lab.keeper.set_access_lifetime(200)
    assert lab.log_in()["ok"] is True
    lab.keeper.end_refresh()
    lab.keeper.forget_requests()
    for method, shape in NO_TOKEN.items():
        assert ask(lab, method) == result(shape % "SESSION_EXPIRED"), method
    refused = [(entry["target"], entry["status"]) for entry in lab.keeper.requests()]
    assert refused == [("/v1/auth/refresh", 401)] * len(NO_TOKEN)
    assert (windows.drive(lab) / "ProgramData/TELVOR/auth/session.dat").exists()


def test_a_session_that_cannot_be_refreshed_tells_why(lab):
    lab.keeper.set_access_lifetime(200)
    assert lab.log_in()["ok"] is True
    for rule, message in (
            ({"cut": "silent"}, "refresh transport failure"),
            ({"status": 500}, "refresh non-2xx: 500"),
            ({"status": 200, "body": "{}"}, "refresh response missing access_token"),
            ({"status": 400, "body": '{"error":" refresh_expired "}'}, "SESSION_EXPIRED"),
            ({"status": 401, "body": '{"error":"Refresh_Expired"}'}, "Refresh_Expired"),
            ({"status": 401, "body_base64": base64.b64encode(b'{"error":"\xff"}').decode()},
             "refresh failed")):
        for method, shape in NO_TOKEN.items():
            lab.keeper.misbehave("/v1/auth/refresh", count=1, **rule)
            assert ask(lab, method) == result(shape % message), (method, rule)
    assert ask(lab, "GET /ui/quota") == result('{"ok":true,"quota_current":true}')


def test_a_token_that_the_control_plane_refuses_is_no_lack_of_a_session(logged_in):
    """A refused GET reads as a transport failure; wanted. The session stays, and nothing is refreshed."""
    logged_in.keeper.end_access()
    for method, message in (("GET /ui/entitlement", "entitlement transport failure"),
                            ("GET /ui/quota", "quota transport failure"),
                            ("POST /ui/billing/checkout", "unauthorized")):
        assert ask(logged_in, method) == failure(method, message)
    assert len(logged_in.keeper.requests()) == 3
    assert logged_in.pipe.call("GET /ui/status")["auth_state"] == "AUTH_OK"


# Logout


def test_a_logout_succeeds_with_or_without_a_session(logged_in):
    for _ in range(2):
        assert ask(logged_in, "POST /ui/logout") == result(LOGGED_OUT)
        status = logged_in.pipe.call("GET /ui/status")
        assert (status["auth_state"], status["last_error"]) == ("AUTH_REQUIRED", "AUTH_REQUIRED")
    assert logged_in.keeper.requests() == []


def test_a_logout_while_connected_disconnects_at_once(connected):
    assert ask(connected, "POST /ui/logout") == result(LOGGED_OUT)
    assert connected.pipe.call("GetState")["state"] == "disconnected"
    conftest.wait_for_idle(connected)
