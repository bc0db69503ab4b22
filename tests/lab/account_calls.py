"""The account methods as bytes: request line, whole reply, and what the control plane shall answer."""

import base64
import itertools
import json

ID = 41
PASSWORD = "a horse of course"
LOGGED_IN = '{"ok":true,"auth_state":"AUTH_OK","message":"registered"}'
_numbers = itertools.count(1)

# What each method asks of the control plane, and parameters that are good enough for an answer.
PATHS = {
    "POST /ui/login": "/v1/auth/login",
    "GET /ui/is-registered": "/v1/auth/registered",
    "POST /ui/register": "/v1/auth/register",
    "POST /ui/password-reset/start": "/v1/auth/password/reset/start",
    "POST /ui/password-reset/confirm": "/v1/auth/password/reset/confirm",
    "GET /ui/entitlement": "/v1/me/entitlement",
    "GET /ui/quota": "/v1/me/quota",
    "POST /ui/billing/checkout": "/v1/billing/checkout",
}
PARAMETERS = {
    "POST /ui/login": ("email", "password"),
    "GET /ui/is-registered": ("email",),
    "POST /ui/register": ("email", "password"),
    "POST /ui/password-reset/start": ("email",),
    "POST /ui/password-reset/confirm": ("email", "request_id", "code", "new_password"),
}
VALUES = {"email": "somebody@telvor.test", "password": PASSWORD, "request_id": "r", "code": "000000",
          "new_password": PASSWORD}


def new_email():
    return f"person{next(_numbers)}@telvor.test"


def ask(lab, method, **parameters):
    """The reply's bytes; text goes out as UTF-8, without escapes where none is needed."""
    request = {"id": ID, "method": method, **({"params": parameters} if parameters else {})}
    return lab.pipe.send(json.dumps(request, separators=(",", ":"), ensure_ascii=False).encode())


def ask_with_usual_values(lab, method):
    return ask(lab, method, **{key: VALUES[key] for key in PARAMETERS.get(method, ())})


def result(text):
    return f'{{"jsonrpc":"2.0","id":{ID},"result":{text},"error":null}}'.encode()


def error(text, result_text="null"):
    return (f'{{"jsonrpc":"2.0","id":{ID},"result":{result_text},"error":{{"message":"{text}"}}}}').encode()


# The failure of each method around a message that is escaped for JSON already.
FAILURES = {
    "POST /ui/login": '{"ok":false,"message":"%s"}',
    "POST /ui/register": '{"ok":false,"message":"%s"}',
    "POST /ui/password-reset/start":
        '{"ok":false,"request_id":null,"masked_email":null,"expires_in_seconds":0,"message":"%s"}',
    "POST /ui/password-reset/confirm": '{"ok":false,"message":"%s"}',
    "GET /ui/entitlement": '{"ok":false,"payment_current":false,"status":"ERROR","message":"%s"}',
    "GET /ui/quota": '{"ok":false,"quota_current":false,"message":"%s"}',
    "POST /ui/billing/checkout": '{"ok":false,"checkout_url":null,"message":"%s"}',
    "GET /ui/account-page-url": '{"ok":false,"account_url":null,"message":"%s"}',
}
# Without a token all answer as in any other failure, but one.
NO_TOKEN = {method: FAILURES[method] for method in
            ("GET /ui/quota", "POST /ui/billing/checkout", "GET /ui/account-page-url")}
NO_TOKEN["GET /ui/entitlement"] = (
    '{"ok":false,"payment_current":false,"status":"AUTH_REQUIRED","message":"%s"}')


def failure(method, message):
    """The whole reply of a method that failed in its business."""
    if method == "GET /ui/is-registered":
        return error(message, '{"registered":false}')
    return result(FAILURES[method] % message)


def told_to_answer(lab, method, body=b"", status=200, cut=None):
    """The reply of a method while the control plane gives this answer to its request, once."""
    rule = {"cut": cut} if cut == "silent" else {
        "status": status, "cut": cut, "body_base64": base64.b64encode(body).decode()}
    lab.keeper.misbehave(PATHS[method], count=1, **rule)
    return ask_with_usual_values(lab, method)
