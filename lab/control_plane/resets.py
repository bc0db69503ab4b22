"""Forgotten passwords: a code that goes out by mail, and what can be done with it."""

import secrets

from lab.control_plane import accounts, store

LIFETIME = 900
TRIES = 5


def start(db, email, lifetime=LIFETIME):
    """A new request in place of any other of this address: its number and its code.

    An address that nobody registered gets one as well, so that no answer tells who has an account; its code
    opens nothing."""
    code, request_id = f"{secrets.randbelow(10**6):06}", secrets.token_urlsafe(12)
    account = accounts.find(db, email)
    db.execute("DELETE FROM resets WHERE email = ?", (email,))
    db.execute("INSERT INTO resets (request_id, email, code_hash, account_id, expires_at, tries_left)"
               " VALUES (?, ?, ?, ?, ?, ?)",
               (request_id, email, accounts.hash_secret(code), account["id"] if account else None,
                store.now() + lifetime, TRIES))
    return request_id, code


def confirm(db, email, request_id, code, new_password):
    """Sets the new password for the right code; a request serves once."""
    request = db.execute("SELECT * FROM resets WHERE request_id = ? AND email = ?",
                         (request_id, email)).fetchone()
    _check_open(request)
    accounts.check_password(new_password)  # no try is spent on it
    if request["account_id"] is None or not accounts.is_secret(request["code_hash"], code):
        db.execute("UPDATE resets SET tries_left = tries_left - 1 WHERE request_id = ?", (request_id,))
        raise store.Refused(400, "wrong_code", f"Tries left: {request['tries_left'] - 1}.")
    db.execute("UPDATE resets SET used = 1 WHERE request_id = ?", (request_id,))
    accounts.set_password(db, request["account_id"], new_password)


def _check_open(request):
    if request is None:
        raise store.Refused(404, "unknown_request", "Please ask for a new code.")
    if request["used"]:
        raise store.Refused(409, "request_used", "This code has set a password already.")
    if request["expires_at"] <= store.now():
        raise store.Refused(410, "code_expired", "Please ask for a new code.")
    if request["tries_left"] == 0:
        raise store.Refused(429, "too_many_tries", "Please ask for a new code.")


def end(db):
    """Lets every request run out at once."""
    db.execute("UPDATE resets SET expires_at = 0")


def masked(email):
    """The address as a stranger may see it: "a***@telvor.test"."""
    return f"{email[:1]}***{email[email.rfind('@'):] if '@' in email else ''}"
