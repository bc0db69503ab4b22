"""Registration, login and the two tokens."""

import urllib.parse

import pytest
from control_plane_client import PASSWORD, new_email

pytest_plugins = ["control_plane_fixture"]


def registered(plane, email):
    return plane.get(f"/v1/auth/registered?email={urllib.parse.quote(email, safe='')}")


def test_an_address_is_registered_once_it_has_an_account(plane):
    email = new_email()
    assert registered(plane, email) == (200, {"registered": False})
    assert plane.register(email) == (201, {"ok": True})
    assert registered(plane, email) == (200, {"registered": True})


def test_neither_case_nor_blanks_around_it_make_another_address(plane, person):
    odd = f"  {person.email.upper()} "
    assert registered(plane, odd) == (200, {"registered": True})
    assert plane.register(odd)[0] == 409
    assert plane.log_in(odd)[0] == 200


@pytest.mark.parametrize("query", ["", "?email=", "?email=%20", "?mail=a@b"])
def test_the_question_needs_an_address(plane, query):
    assert plane.get(f"/v1/auth/registered{query}") == (400, {"error": "missing_email"})


def test_a_raw_ampersand_splits_the_question(plane):
    plane.register("a@ampersand")
    assert plane.get("/v1/auth/registered?email=a%40ampersand&b") == (200, {"registered": True})


def test_a_new_person_can_log_in_and_the_device_is_noted(plane):
    email = new_email()
    plane.register(email, device_id="pc-7")
    assert plane.log_in(email)[0] == 200
    noted = [(row["device_id"], row["name"], row["platform"]) for row in plane.keeper.devices(email)]
    assert noted == [("pc-7", "pc-7", "unknown")]


def test_an_existing_account_is_refused_and_stays_as_it_was(plane, person):
    status, answer = plane.register(person.email, password="another password", device_id="pc-2")
    assert (status, answer["error"]) == (409, "account_exists")
    assert plane.log_in(person.email, "another password")[0] == 401
    assert plane.log_in(person.email)[0] == 200
    assert "pc-2" not in plane.ask("GET", f"/account?access_token={person.token}").text


@pytest.mark.parametrize("key", ["email", "password", "device_id"])
@pytest.mark.parametrize("value", [None, "", 7])
def test_a_registration_needs_all_three_texts(plane, key, value):
    email = new_email()
    body = {"email": email, "password": PASSWORD, "device_id": "pc-1", key: value}
    assert plane.post("/v1/auth/register", body) == (400, {"error": f"missing_{key}"})
    assert registered(plane, email) == (200, {"registered": False})


@pytest.mark.parametrize("email, password, error", [
    ("nobody", PASSWORD, "invalid_email"), ("@telvor.test", PASSWORD, "invalid_email"),
    ("nobody@", PASSWORD, "invalid_email"), ("short@telvor.test", "1234567", "weak_password")])
def test_a_registration_that_makes_no_sense_is_refused_in_plain_words(plane, email, password, error):
    status, answer = plane.register(email, password)
    assert (status, answer["error"]) == (400, error)
    assert answer["detail"].endswith(".")
    assert registered(plane, email) == (200, {"registered": False})


def test_the_shortest_good_password_has_eight_characters(plane):
    assert plane.register(new_email(), "12345678")[0] == 201


def test_a_wrong_password_and_an_unknown_address_are_refused_alike(plane, person):
    refused = (401, {"error": "invalid_credentials"})
    assert plane.log_in(person.email, "wrong") == refused
    assert plane.log_in(new_email()) == refused


@pytest.mark.parametrize("key", ["email", "password"])
def test_a_login_needs_both_texts(plane, key):
    body = {"email": "a@b", "password": PASSWORD}
    del body[key]
    assert plane.post("/v1/auth/login", body) == (400, {"error": f"missing_{key}"})


def test_no_secret_is_stored(plane, person):
    plane.post("/v1/auth/password/reset/start", {"email": person.email})
    stored = plane.stored()
    assert person.email in stored
    code = plane.keeper.mails(person.email)[-1]["code"]
    assert not stored & {PASSWORD, person.token, person.refresh_token, code}


def refresh(plane, token):
    return plane.post("/v1/auth/refresh", {"refresh_token": token})


def test_a_refresh_replaces_the_access_token_and_keeps_the_other(plane, person):
    status, answer = refresh(plane, person.refresh_token)
    assert status == 200
    assert answer["refresh_token"] == person.refresh_token
    assert answer["access_token"] != person.token
    assert plane.get("/v1/me/quota", person.token) == (401, {"error": "unauthorized"})
    assert plane.get("/v1/me/quota", answer["access_token"])[0] == 200
    assert refresh(plane, person.refresh_token)[0] == 200


def test_an_access_token_runs_out_and_a_refresh_heals_it(plane, person):
    plane.keeper.end_access()
    assert plane.get("/v1/me/quota", person.token)[0] == 401
    fresh = refresh(plane, person.refresh_token)[1]["access_token"]
    assert plane.get("/v1/me/quota", fresh)[0] == 200


def test_a_refresh_token_runs_out(plane, person):
    plane.keeper.end_refresh()
    assert refresh(plane, person.refresh_token) == (401, {"error": "refresh_expired"})
    # The access token has a life of its own.
    assert plane.get("/v1/me/quota", person.token)[0] == 200


def test_a_refresh_token_runs_out_by_its_lifetime(plane, person):
    plane.keeper.set_refresh_lifetime(0)
    token = plane.log_in(person.email)[1]["refresh_token"]
    assert refresh(plane, token) == (401, {"error": "refresh_expired"})


def test_an_unknown_or_missing_refresh_token_is_refused(plane, person):
    assert refresh(plane, "made up") == (401, {"error": "invalid_refresh_token"})
    assert refresh(plane, person.token) == (401, {"error": "invalid_refresh_token"})
    assert plane.post("/v1/auth/refresh", {}) == (400, {"error": "missing_refresh_token"})


def test_lifetimes_show_in_the_answer(plane, person):
    plane.keeper.set_access_lifetime(60)
    first = plane.log_in(person.email)[1]
    plane.keeper.set_access_lifetime(7200)
    second = refresh(plane, first["refresh_token"])[1]
    assert 7139 <= second["expires_at"] - first["expires_at"] <= 7145
