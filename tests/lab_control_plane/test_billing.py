"""Quota, entitlement, checkout, and the two pages that a browser opens."""

import datetime
import time

import pytest
from control_plane_client import PUBLIC_URL
from lab.control_plane import billing

pytest_plugins = ["control_plane_fixture"]

HOUR = 3600
ORDER = {"provider": "stripe", "plan_id": "basic_monthly"}


def entitlement(plane, person):
    return plane.get("/v1/me/entitlement", person.token)


def iso(seconds):
    return time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(seconds))


def parsed(text):
    return datetime.datetime.strptime(text, "%Y-%m-%dT%H:%M:%S%z").timestamp()


def order(plane, person):
    """The path of a new checkout."""
    status, answer = plane.post("/v1/billing/checkout", ORDER, person.token)
    assert status == 200
    assert answer["checkout_url"].startswith(f"{PUBLIC_URL}/checkout/")
    return answer["checkout_url"].removeprefix(PUBLIC_URL)


def test_the_quota_is_current_until_it_is_used_up(plane, person):
    assert plane.get("/v1/me/quota", person.token) == (200, {"quota_current": True})
    plane.keeper.change_subscription(person.email, bytes_limit=1000, bytes_used=999)
    assert plane.get("/v1/me/quota", person.token) == (200, {"quota_current": True})
    plane.keeper.change_subscription(person.email, bytes_used=1000)
    assert plane.get("/v1/me/quota", person.token) == (200, {"quota_current": False})


def test_a_new_person_has_paid_nothing(plane, person):
    answer = plane.ask("GET", "/v1/me/entitlement", token=person.token)
    # The null stands last and no blank anywhere: a flat reader must find no text behind it.
    assert answer.text == '{"payment_current":false,"status":"none","period_end":null}'


@pytest.mark.parametrize("status, ahead, current", [
    ("active", HOUR, True), ("active", -HOUR, False), ("canceled", HOUR, True), ("canceled", -HOUR, False),
    ("past_due", HOUR, False), ("none", HOUR, False)])
def test_a_payment_is_current_by_status_and_time(plane, person, status, ahead, current):
    end = int(time.time()) + ahead
    plane.keeper.change_subscription(person.email, status=status, period_end=end)
    assert entitlement(plane, person) == (
        200, {"payment_current": current, "status": status, "period_end": iso(end)})


def test_an_unknown_status_cannot_be_set(plane, person):
    with pytest.raises(RuntimeError, match="unknown_status"):
        plane.keeper.change_subscription(person.email, status="rich")
    assert entitlement(plane, person)[1]["status"] == "none"


def test_a_checkout_is_opened_looked_at_and_paid(plane, person):
    path = order(plane, person)
    shown = plane.ask("GET", path)
    assert (shown.status, shown.headers["Content-Type"]) == (200, "text/html; charset=utf-8")
    assert "5 EUR a month" in shown.text and '<form method="post">' in shown.text
    assert entitlement(plane, person)[1]["status"] == "none"

    before = billing.month_after(int(time.time()))
    paid = plane.ask("POST", path)
    answer = entitlement(plane, person)[1]
    assert (answer["payment_current"], answer["status"]) == (True, "active")
    assert before <= parsed(answer["period_end"]) <= before + 60
    assert paid.status == 200 and f"Paid until {answer['period_end']}." in paid.text


def test_a_checkout_is_paid_once(plane, person):
    path = order(plane, person)
    first = plane.ask("POST", path).text
    assert plane.ask("POST", path).text == plane.ask("GET", path).text == first


def test_a_second_month_stands_on_top_of_the_first(plane, person):
    end = int(time.time()) + HOUR
    plane.keeper.change_subscription(person.email, status="active", period_end=end)
    plane.ask("POST", order(plane, person))
    assert entitlement(plane, person)[1]["period_end"] == iso(billing.month_after(end))


def test_a_month_after_a_lapse_begins_now(plane, person):
    plane.keeper.change_subscription(person.email, status="past_due", period_end=int(time.time()) - HOUR)
    plane.ask("POST", order(plane, person))
    assert entitlement(plane, person)[1]["payment_current"] is True


@pytest.mark.parametrize("body, error", [
    ({**ORDER, "provider": "barter"}, "unknown_provider"), ({**ORDER, "plan_id": "gold"}, "unknown_plan"),
    ({"plan_id": "basic_monthly"}, "missing_provider"), ({"provider": "stripe"}, "missing_plan_id")])
def test_a_checkout_that_makes_no_sense_is_refused(plane, person, body, error):
    assert plane.post("/v1/billing/checkout", body, person.token) == (400, {"error": error})


@pytest.mark.parametrize("method", ["GET", "POST"])
def test_an_unknown_checkout_is_a_page_too(plane, method):
    answer = plane.ask(method, "/checkout/made-up")
    assert (answer.status, answer.headers["Content-Type"]) == (404, "text/html; charset=utf-8")
    assert "No such checkout" in answer.text


@pytest.mark.parametrize("begin, end", [
    ((2026, 1, 31, 12), (2026, 2, 28, 12)), ((2028, 1, 30, 0), (2028, 2, 29, 0)),
    ((2026, 12, 5, 23), (2027, 1, 5, 23)), ((2026, 11, 30, 1), (2026, 12, 30, 1))])
def test_a_month_is_one_of_the_calendar(begin, end):
    def seconds(when):
        return int(datetime.datetime(*when, tzinfo=datetime.timezone.utc).timestamp())
    assert billing.month_after(seconds(begin)) == seconds(end)


def test_the_account_page_shows_whose_it_is_what_is_paid_and_the_devices(plane, person):
    plane.ask("POST", order(plane, person))
    plane.post("/v1/devices", {"device_id": "pc-1", "name": "Desk", "platform": "windows"}, person.token)
    answer = plane.ask("GET", f"/account?access_token={person.token}")
    assert (answer.status, answer.headers["Content-Type"]) == (200, "text/html; charset=utf-8")
    end = entitlement(plane, person)[1]["period_end"]
    for text in (f"<p>Account: {person.email}</p>", "<p>Plan: Basic, 5 EUR a month (active)</p>",
                 f"<p>Paid until: {end}</p>", "<li>pc-1: Desk, windows, server none</li>"):
        assert text in answer.text


def test_the_account_page_of_a_new_person(plane, person):
    text = plane.ask("GET", f"/account?access_token={person.token}").text
    assert "<p>Plan: none (none)</p>" in text and "<p>Paid until: nothing paid yet</p>" in text


def test_the_account_page_escapes_what_a_device_calls_itself(plane, person):
    plane.post("/v1/devices", {"device_id": "<b>&", "name": "<script>alert(1)</script>", "platform": '"x"'},
               person.token)
    text = plane.ask("GET", f"/account?access_token={person.token}").text
    assert "<li>&lt;b&gt;&amp;: &lt;script&gt;alert(1)&lt;/script&gt;, &quot;x&quot;, server none" in text


def test_the_account_page_stays_in_no_cache(plane, person):
    headers = plane.ask("GET", f"/account?access_token={person.token}").headers
    assert (headers["Cache-Control"], headers["Referrer-Policy"]) == ("no-store", "no-referrer")


@pytest.mark.parametrize("query", ["", "?access_token=", "?access_token=made-up"])
def test_the_account_page_needs_a_good_token(plane, query):
    answer = plane.ask("GET", f"/account{query}")
    assert (answer.status, answer.headers["Content-Type"]) == (401, "text/html; charset=utf-8")
    assert "Please log in" in answer.text


def test_the_account_page_closes_with_the_token(plane, person):
    plane.keeper.end_access()
    assert plane.ask("GET", f"/account?access_token={person.token}").status == 401
