"""The forgotten password: the mail, the code, and every way to get it wrong."""

import pytest
from control_plane_client import NEW_PASSWORD, PASSWORD, Person, new_email
from lab.control_plane import resets, store

pytest_plugins = ["control_plane_fixture"]

START = "/v1/auth/password/reset/start"
CONFIRM = "/v1/auth/password/reset/confirm"


def start(plane, email):
    """A request's number and the code that its mail brought."""
    request_id = plane.post(START, {"email": email})[1]["request_id"]
    mail = plane.keeper.mails(email)[-1]
    assert mail["request_id"] == request_id
    return request_id, mail["code"]


def confirm(plane, email, request_id, code, new_password=NEW_PASSWORD):
    return plane.post(CONFIRM, {"email": email, "request_id": request_id, "code": code,
                                "new_password": new_password})


def other(code):
    return f"{(int(code) + 1) % 10**6:06}"


def assert_refused(answer, status, error):
    assert (answer[0], answer[1]["error"]) == (status, error)
    assert answer[1]["detail"].endswith(".")


def test_the_start_tells_how_it_goes_on_and_a_mail_brings_the_code(plane, person):
    status, answer = plane.post(START, {"email": person.email})
    assert (status, list(answer)) == (200, ["request_id", "masked_email", "expires_in_seconds"])
    assert answer["masked_email"] == "p***@telvor.test"
    assert answer["expires_in_seconds"] == 900
    mail, = plane.keeper.mails(person.email)
    assert len(mail["code"]) == 6 and mail["code"].isdigit()


def test_the_code_sets_a_new_password_and_ends_every_session(plane, person):
    session = plane.log_in(person.email)[1]
    assert confirm(plane, person.email, *start(plane, person.email)) == (200, {"ok": True})
    assert plane.log_in(person.email, PASSWORD)[0] == 401
    assert plane.log_in(person.email, NEW_PASSWORD)[0] == 200
    for token in (person.token, session["access_token"]):
        assert plane.get("/v1/me/quota", token)[0] == 401
    for token in (person.refresh_token, session["refresh_token"]):
        assert plane.post("/v1/auth/refresh", {"refresh_token": token})[0] == 401


def test_sessions_of_others_go_on(plane, person):
    bystander = Person(plane)
    confirm(plane, person.email, *start(plane, person.email))
    assert plane.get("/v1/me/quota", bystander.token)[0] == 200


def test_an_unknown_address_is_answered_alike_and_gets_no_mail(plane):
    email = new_email()
    status, answer = plane.post(START, {"email": email})
    assert (status, list(answer)) == (200, ["request_id", "masked_email", "expires_in_seconds"])
    assert (answer["masked_email"], answer["expires_in_seconds"]) == ("p***@telvor.test", 900)
    assert plane.keeper.mails(email) == []
    assert_refused(confirm(plane, email, answer["request_id"], "123456"), 400, "wrong_code")


def test_not_even_the_right_code_opens_an_address_that_nobody_registered():
    db = store.open_store(":memory:")
    request_id, code = resets.start(db, "nobody@telvor.test")
    with pytest.raises(store.Refused, match="wrong_code"):
        resets.confirm(db, "nobody@telvor.test", request_id, code, NEW_PASSWORD)


def test_a_wrong_code_leaves_the_right_one_good(plane, person):
    request_id, code = start(plane, person.email)
    refused = confirm(plane, person.email, request_id, other(code))
    assert refused == (400, {"error": "wrong_code", "detail": f"Tries left: {resets.TRIES - 1}."})
    assert confirm(plane, person.email, request_id, code)[0] == 200


def test_after_too_many_wrong_codes_the_right_one_does_not_help(plane, person):
    request_id, code = start(plane, person.email)
    for left in reversed(range(resets.TRIES)):
        answer = confirm(plane, person.email, request_id, other(code))
        assert answer == (400, {"error": "wrong_code", "detail": f"Tries left: {left}."})
    assert_refused(confirm(plane, person.email, request_id, code), 429, "too_many_tries")
    assert plane.log_in(person.email)[0] == 200


def test_a_code_runs_out(plane, person):
    request_id, code = start(plane, person.email)
    plane.keeper.end_resets()
    assert_refused(confirm(plane, person.email, request_id, code), 410, "code_expired")


def test_the_keeper_says_how_long_a_code_is_good(plane, person):
    plane.keeper.set_reset_lifetime(0)
    answer = plane.post(START, {"email": person.email})[1]
    assert answer["expires_in_seconds"] == 0
    mail = plane.keeper.mails(person.email)[-1]
    assert_refused(confirm(plane, person.email, mail["request_id"], mail["code"]), 410, "code_expired")


def test_a_request_serves_once(plane, person):
    request_id, code = start(plane, person.email)
    assert confirm(plane, person.email, request_id, code)[0] == 200
    assert_refused(confirm(plane, person.email, request_id, code, "yet another one"), 409, "request_used")
    assert plane.log_in(person.email, NEW_PASSWORD)[0] == 200


def test_a_second_start_takes_the_place_of_the_first(plane, person):
    first = start(plane, person.email)
    second = start(plane, person.email)
    assert_refused(confirm(plane, person.email, *first), 404, "unknown_request")
    assert confirm(plane, person.email, *second)[0] == 200


def test_a_request_belongs_to_its_address(plane, person):
    request_id, code = start(plane, person.email)
    assert_refused(confirm(plane, Person(plane).email, request_id, code), 404, "unknown_request")
    assert_refused(confirm(plane, person.email, "made up", code), 404, "unknown_request")
    assert confirm(plane, person.email.upper(), request_id, code)[0] == 200


def test_a_weak_password_is_refused_and_costs_no_try(plane, person):
    request_id, code = start(plane, person.email)
    for _ in range(resets.TRIES + 1):
        assert_refused(confirm(plane, person.email, request_id, code, "short"), 400, "weak_password")
    assert confirm(plane, person.email, request_id, code)[0] == 200


@pytest.mark.parametrize("key", ["email", "request_id", "code", "new_password"])
@pytest.mark.parametrize("value", [None, "", 123456])
def test_a_confirmation_needs_all_four_texts(plane, key, value):
    body = {"email": "a@b", "request_id": "r", "code": "123456", "new_password": NEW_PASSWORD, key: value}
    assert plane.post(CONFIRM, body) == (400, {"error": f"missing_{key}"})


def test_the_start_needs_an_address(plane):
    assert plane.post(START, {}) == (400, {"error": "missing_email"})
    assert plane.post(START, {"email": ""}) == (400, {"error": "missing_email"})


@pytest.mark.parametrize("email, masked", [
    ("ada@telvor.test", "a***@telvor.test"), ("a@b", "a***@b"), ("a@b@c", "a***@c"), ("nobody", "n***")])
def test_masks_hide_all_but_the_first_letter_and_the_host(email, masked):
    assert resets.masked(email) == masked
