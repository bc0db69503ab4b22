"""The tour's steps of a new person: from a registration over a forgotten password to a plan that is paid."""

from lab import network, traffic
from lab.steps import expect, expect_equal

EMAIL = "grace@telvor.test"
PASSWORD = "first come first served"
NEW_PASSWORD = "second thoughts are best"
LOGGED_IN = {"ok": True, "auth_state": "AUTH_OK", "message": "registered"}


def _is_registered(laboratory):
    return laboratory.pipe.call("GET /ui/is-registered", email=EMAIL)


def register(laboratory, tell):
    expect_equal(_is_registered(laboratory), {"email": EMAIL, "registered": False}, "before the registration")
    reply = laboratory.pipe.call("POST /ui/register", email=EMAIL, password=PASSWORD)
    expect_equal(reply, LOGGED_IN, "reply to the registration")
    expect_equal(_is_registered(laboratory), {"email": EMAIL, "registered": True}, "after the registration")
    devices = [row["device_id"] for row in laboratory.keeper.devices(EMAIL)]
    expect_equal(devices, [network.host_name(network.CLIENT.name)], "devices that the control plane noted")
    tell(f"{EMAIL} was nobody and is registered and logged in now; the device {devices[0]} was noted")
    again = laboratory.pipe.call("POST /ui/register", email=EMAIL, password=PASSWORD)
    expect(not again["ok"], "a second registration of the same address was accepted")
    tell(f"a second registration is refused: {again['message']}")


def reset_password(laboratory, tell):
    started = laboratory.pipe.call("POST /ui/password-reset/start", email=EMAIL)
    expect_equal((started["ok"], started["masked_email"], started["expires_in_seconds"]),
                 (True, "g***@telvor.test", 900), "reply to the start")
    tell(f"a code goes to {started['masked_email']}, good for {started['expires_in_seconds']} seconds")
    mail, = laboratory.keeper.mails(EMAIL)
    tell(f"the mail to {mail['to']} says {mail['code']}")
    done = laboratory.pipe.call("POST /ui/password-reset/confirm", email=EMAIL, code=mail["code"],
                                request_id=started["request_id"], new_password=NEW_PASSWORD)
    expect_equal(done, {"ok": True, "message": "password reset complete"}, "reply to the code")
    tell(f"the new password is set: {done['message']}")


def log_in_anew(laboratory, tell):
    refused = laboratory.log_in(EMAIL, PASSWORD)
    expect_equal(refused, {"ok": False, "message": "login non-2xx: 401"}, "login with the old password")
    expect_equal(laboratory.log_in(EMAIL, NEW_PASSWORD), LOGGED_IN, "login with the new password")
    tell(f"the old password is refused ({refused['message']}), the new one logs in")


def look_at_the_plan(laboratory, tell):
    quota = laboratory.pipe.call("GET /ui/quota")
    expect_equal(quota, {"ok": True, "quota_current": True}, "quota")
    tell(f"GET /ui/quota:       {laboratory.pipe.last}")
    entitlement = laboratory.pipe.call("GET /ui/entitlement")
    expect_equal(entitlement, {"ok": True, "payment_current": False, "status": "none", "period_end": None},
                 "entitlement")
    tell(f"GET /ui/entitlement: {laboratory.pipe.last}")


def _open(laboratory, url, title, *options):
    status, text = traffic.browse(laboratory, url, *options)
    expect(status == 200 and f"<h1>{title}</h1>" in text, f"no page {title!r} but {status}: {text}")
    return text


def pay(laboratory, tell):
    ordered = laboratory.pipe.call("POST /ui/billing/checkout")
    expect(ordered["ok"], f"no checkout: {ordered}")
    url = ordered["checkout_url"]
    expect(url.startswith(f"{network.CONTROL_PLANE_URL}/checkout/"), f"an odd link: {url}")
    _open(laboratory, url, "Checkout")
    tell(f"the link opens in a browser: {url}")
    _open(laboratory, url, "Thank you", "--request", "POST")
    entitlement = laboratory.pipe.call("GET /ui/entitlement")
    expect_equal((entitlement["payment_current"], entitlement["status"]), (True, "active"), "entitlement")
    expect(entitlement["period_end"] is not None, "the period has no end")
    tell(f"paid there; the plan is {entitlement['status']} until {entitlement['period_end']}")


def open_account_page(laboratory, tell):
    reply = laboratory.pipe.call("GET /ui/account-page-url")
    expect(reply["ok"], f"no link: {reply}")
    base, _, token = reply["account_url"].partition("?access_token=")
    expect_equal(base, f"{network.CONTROL_PLANE_URL}/account", "the link's address")
    text = _open(laboratory, reply["account_url"], "Your account")
    for wanted in (EMAIL, "(active)", network.host_name(network.CLIENT.name)):
        expect(wanted in text, f"the page does not tell {wanted!r}: {text}")
    closed, _ = traffic.browse(laboratory, f"{base}?access_token=x{token}")
    expect_equal(closed, 401, "status with a wrong token")
    tell("the account page tells the address, the plan and the device; a wrong token opens nothing")


STEPS = (
    ("a new person registers", register),
    ("the password is forgotten and set anew", reset_password),
    ("log in with the new password", log_in_anew),
    ("quota and entitlement of the new person", look_at_the_plan),
    ("pay by the checkout link", pay),
    ("open the account page", open_account_page),
)
