"""The account methods against a control plane that is told what to answer: refusals, breaks, odd readings."""

import json

from account_calls import (FAILURES, PATHS, ask, ask_with_usual_values, failure, new_email, result,
                           told_to_answer)

GETS = {"GET /ui/is-registered": "is-registered", "GET /ui/entitlement": "entitlement",
        "GET /ui/quota": "quota"}
POSTS = {"POST /ui/register": "register", "POST /ui/password-reset/start": "password reset start",
         "POST /ui/password-reset/confirm": "password reset confirm", "POST /ui/billing/checkout": "checkout"}
EXISTS = "User already exists. Please log in or reset your password."


def test_a_get_takes_200_alone_and_calls_all_else_a_transport_failure(logged_in):
    """A refusal reads as a broken line; wanted."""
    answers = [{"cut": "silent"}, {"cut": "body", "body": b'{"registered":true,"quota_current":true}' * 9}]
    answers += [{"status": status, "body": b'{"registered":true,"error":"no"}'}
                for status in (201, 299, 400, 401, 404, 409, 500)] + [{"status": 204}]
    for method, call in GETS.items():
        for answer in answers:
            reply = told_to_answer(logged_in, method, **answer)
            assert reply == failure(method, f"{call} transport failure"), answer


def message_of(method, status):
    if (method, status) == ("POST /ui/register", 409):
        return EXISTS
    if (method, status) == ("POST /ui/billing/checkout", 401):
        return "unauthorized"
    return f"{POSTS[method]} non-2xx: {status}" + (" resp=" if "checkout" in method else "")


def test_a_post_tells_what_it_was_answered(logged_in):
    for method, call in POSTS.items():
        reply = told_to_answer(logged_in, method, cut="silent")
        assert reply == failure(method, f"{call} transport failure")
        for status in (300, 400, 401, 403, 404, 409, 500, 503):
            reply = told_to_answer(logged_in, method, status=status)
            assert reply == failure(method, message_of(method, status)), status


def test_any_success_will_do_where_nothing_is_read(lab):
    """And what stands in the body does not matter."""
    for status in (200, 201, 204, 299):
        body = b"" if status == 204 else b'{"error":"no"}'
        reply = told_to_answer(lab, "POST /ui/password-reset/confirm", body, status)
        assert reply == result('{"ok":true,"message":"password reset complete"}')
        # The account was not made, so that the login which follows fails.
        reply = told_to_answer(lab, "POST /ui/register", body, status)
        assert reply == failure("POST /ui/register", "login non-2xx: 401")


def test_an_existing_account_is_told_so_whatever_the_answer_holds(lab, log):
    reply = told_to_answer(lab, "POST /ui/register", b'{"error":"taken","detail":"by you"}', 409)
    assert reply == failure("POST /ui/register", EXISTS)
    log.in_order("/v1/auth/register: already registered (409)")
    assert "resp=" not in log.text()


def test_a_refused_registration_is_logged_with_its_whole_body(lab, log):
    told_to_answer(lab, "POST /ui/register", b"line one; caf\xc3\xa9", 422)
    told_to_answer(lab, "POST /ui/register", b"not text: \xff", 422)
    log.in_order("/v1/auth/register: HTTP 422, resp=line one; caf\u00e9",
                 "/v1/auth/register: HTTP 422, resp=")


RESETS = ("POST /ui/password-reset/start", "POST /ui/password-reset/confirm")
REFUSALS = [
    (b'{"error":"wrong_code","detail":"Try again."}', "wrong_code: Try again."),
    (b'{"error":" spaced ","detail":"\t out\n"}', "spaced: out"),
    (b'{"error":"alone"}', "alone"),
    (b'{"detail":"alone"}', "alone"),
    (b'{"error":"","detail":"left"}', "left"),
    (b'{"error":"left","detail":"  "}', "left"),
    (b'{"detail":"behind","error":"before"}', "before: behind"),
    # What stands behind the key next in quotes is taken, also from inside of a list or an object.
    (b'{"error":"invalid","detail":["first","second"]}', "invalid: first"),
    (b'{"error":"invalid","detail":{"field":"email"}}', "invalid: field"),
    (b'{"error":{"code":"x"},"detail":null}', "code"),
    (b'{"error":7,"detail":"said"}', "detail: said"),
    (b'{"error":"caf\xc3\xa9"}', "caf\u00e9"),
    # No escape is known to this reader: the value ends at any quote, and a backslash stays.
    (b'{"error":"say \\"no\\""}', r"say \\"),
    (b'{"error":"a\\tb\\u0041"}', r"a\\tb\\u0041"),
    (b"", None),
    (b"{}", None),
    (b"plain text", None),
    (b'{"error":"","detail":""}', None),
]


def test_a_refused_reset_tells_the_control_planes_own_text(lab):
    for method in RESETS:
        for body, message in REFUSALS:
            reply = told_to_answer(lab, method, body, 400)
            assert reply == failure(method, message or f"{POSTS[method]} non-2xx: 400"), body


def test_a_text_that_is_not_utf8_is_no_text_and_the_method_has_its_own(lab):
    for method in RESETS:
        for body in (b'{"error":"\xff"}', b'{"error":"good","detail":"\xc3("}'):
            reply = told_to_answer(lab, method, body, 400)
            assert reply == failure(method, f"{POSTS[method]} failed"), body


STARTS = [
    (b'{"request_id":"r","masked_email":"m","expires_in_seconds":60}', "r", "m", 60),
    (b'{"request_id":"r","masked_email":"m","expires_in_seconds":1}', "r", "m", 1),
    (b'{"request_id":"r","masked_email":"m","expires_in_seconds":86400}', "r", "m", 86400),
    (b'{"request_id":"r","masked_email":"m","expires_in_seconds":86401}', "r", "m", 900),
    (b'{"request_id":"r","masked_email":"m","expires_in_seconds":0}', "r", "m", 900),
    (b'{"request_id":"r","masked_email":"m","expires_in_seconds":-5}', "r", "m", 900),
    (b'{"request_id":"r","masked_email":"m","expires_in_seconds":"60"}', "r", "m", 900),
    (b'{"request_id":"r"}', "r", "", 900),
    (b'{"request_id":""}', "", "", 900),
    (b'{"request_id":"caf\xc3\xa9 \\"1\\""}', "caf\u00e9 \\\\", "", 900),
]


def test_the_start_of_a_reset_is_read_with_its_gaps_filled(lab):
    method = "POST /ui/password-reset/start"
    for body, request_id, masked, seconds in STARTS:
        assert told_to_answer(lab, method, body, 201) == result(
            f'{{"ok":true,"request_id":"{request_id}","masked_email":"{masked}",'
            f'"expires_in_seconds":{seconds},"message":"ok"}}'), body
    for body in (b"", b"{}", b'{"masked_email":"m"}'):
        assert told_to_answer(lab, method, body) == failure(
            method, "password reset start response missing request_id"), body


def test_whether_somebody_is_registered_must_be_told(lab):
    method = "GET /ui/is-registered"
    for body in (b"", b"{}", b'{"registered":"true"}', b'{"registered":1}'):
        assert told_to_answer(lab, method, body) == failure(
            method, "is-registered response missing registered"), body
    for word in ("true", "false"):
        assert told_to_answer(lab, method, f'{{"registered": {word}}}'.encode()) == result(
            f'{{"email":"somebody@telvor.test","registered":{word}}}')


def test_a_quota_that_is_not_told_is_not_current(logged_in):
    for body, word in ((b'{"quota_current":true}', "true"), (b'{"quota_current":false}', "false"),
                       (b'{"quota_current":"true"}', "false"), (b"{}", "false"), (b"", "false")):
        reply = told_to_answer(logged_in, "GET /ui/quota", body)
        assert reply == result(f'{{"ok":true,"quota_current":{word}}}'), body


ENTITLEMENTS = [
    (b'{"payment_current":true,"status":" active ","period_end":" 2030-01-01 "}',
     '"payment_current":true,"status":"active","period_end":"2030-01-01"'),
    (b'{"payment_current":true}', '"payment_current":true,"status":"","period_end":null'),
    (b"{}", '"payment_current":false,"status":"","period_end":null'),
    (b'{"status":"none","period_end":"  "}', '"payment_current":false,"status":"none","period_end":null'),
    (b'{"payment_current":"true","status":"odd"}',
     '"payment_current":false,"status":"odd","period_end":null'),
    (b'{"status":"x","period_end":null}', '"payment_current":false,"status":"x","period_end":null'),
    # A null is no text: the next one in quotes is taken, be it a key.
    (b'{"period_end":null,"status":"x"}', '"payment_current":false,"status":"x","period_end":"status"'),
]


def test_an_entitlement_is_read_with_its_gaps_filled(logged_in):
    for body, members in ENTITLEMENTS:
        assert told_to_answer(logged_in, "GET /ui/entitlement", body) == result(
            f'{{"ok":true,{members}}}'), body


CHECKOUTS = [
    (b'{"checkout_url":"https://a/b"}', "https://a/b"),
    (b'{"checkoutUrl":"https://a/b"}', "https://a/b"),
    (b'{"url":"https://a/b"}', "https://a/b"),
    (b'{"url":"u","checkoutUrl":"c","checkout_url":"first"}', "first"),
    (b'{"checkoutUrl":"","url":"third"}', "third"),
    (b'{"checkout_url":null,"url":"third"}', "third"),
    (b'{"checkout_url":"ftp:not-checked"}', "ftp:not-checked"),
    (b'{"data":{"url" : \t"https:\\/\\/a\\/b"}}', "https://a/b"),
    # No hexadecimal escape is known to the reader of a link.
    (b'{"checkout_url":"https://a/?x=1\\u0026y=2"}', "https://a/?x=1u0026y=2"),
    (b'{"checkout_url":"  https://a/b  "}', "https://a/b"),
    (b'{"checkout_url":"https://cut-o', "https://cut-o"),
    (b'{"checkout_url":"a\\\\b\\"c"}', r"a\\b\"c"),
    (b"please go to https://a/b and pay", "https://a/b"),
    (b"https://a/b", "https://a/b"),
    (b"https://a/b\r\n", "https://a/b"),
    (b'{"checkoutUrl":"","link":"https://a/b"}', "https://a/b"),
    (b"https://", "https://"),
    (b'{"checkout_url":"caf\xc3\xa9"}', "caf\u00e9"),
]


def test_a_link_is_found_in_many_kinds_of_answer(logged_in):
    for body, url in CHECKOUTS:
        assert told_to_answer(logged_in, "POST /ui/billing/checkout", body, 201) == result(
            f'{{"ok":true,"checkout_url":"{url}","message":"ok"}}'), body


def test_an_answer_without_a_link_is_a_failure(logged_in):
    method = "POST /ui/billing/checkout"
    for body in (b"", b"{}", b"no link", b"http://a/b", b"HTTPS://a/b", b'{"checkout_url":"  "}',
                 b'{"url":7}'):
        assert told_to_answer(logged_in, method, body) == failure(
            method, "checkout response missing url"), body


def test_a_refused_checkout_shows_the_whole_body(logged_in):
    method = "POST /ui/billing/checkout"
    for body, shown in ((b"", ""), (b"oops", "oops"), (b'{"error":"no"}', r'{\"error\":\"no\"}'),
                        (b"two\r\nlines", r"two\r\nlines"), (b"caf\xc3\xa9", "caf\u00e9"),
                        # What is no text is replaced here, where a refused reset drops the whole.
                        (b"a\xffb", "a\ufffdb")):
        reply = told_to_answer(logged_in, method, body, 502)
        assert reply == failure(method, f"checkout non-2xx: 502 resp={shown}"), body


def test_an_address_goes_into_the_query_with_three_characters_encoded(lab):
    """An ampersand splits the query; wanted."""
    for email, query in (("a+b@telvor.test", "a%2Bb%40telvor.test"),
                         ("a b@telvor.test", "a%20b%40telvor.test"),
                         ("a&b=c@telvor.test", "a&b=c%40telvor.test"),
                         ("100%41@telvor.test", "100%41%40telvor.test")):
        lab.keeper.forget_requests()
        reply = ask(lab, "GET /ui/is-registered", email=email)
        assert reply == result(f'{{"email":"{email}","registered":false}}')
        request, = lab.keeper.requests()
        assert request["target"] == f"/v1/auth/registered?email={query}"


def test_quotes_and_backslashes_reach_the_control_plane_as_they_were_typed(lab):
    typed = {"email": new_email(), "password": 'quote" back\\slash \u20ac'}
    lab.pipe.call("POST /ui/register", **typed)
    register, login = lab.keeper.requests()
    assert json.loads(register["body"]) == {**typed, "device_id": "telvor-client"}
    assert json.loads(login["body"]) == typed
    assert lab.log_in(**typed)["ok"] is True


def test_each_answer_was_asked_for_once(logged_in):
    """No account method tries again by itself."""
    for method in FAILURES:
        if method in PATHS:
            logged_in.keeper.forget_requests()
            logged_in.keeper.misbehave(PATHS[method], status=401)
            ask_with_usual_values(logged_in, method)
            assert len(logged_in.keeper.requests()) == 1, method
            logged_in.keeper.behave()
