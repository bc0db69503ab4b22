"""Accounts and their sessions."""

import secrets
import sqlite3

import argon2

from lab.control_plane import store

ACCESS_LIFETIME = 3600
REFRESH_LIFETIME = 30 * 24 * 3600
SHORTEST_PASSWORD = 8

# The laboratory's secrets guard nothing: the least cost keeps a login fast on a busy machine.
_hasher = argon2.PasswordHasher(time_cost=1, memory_cost=8192, parallelism=1)


def hash_secret(secret):
    return _hasher.hash(secret)


def is_secret(kept, secret):
    try:
        return _hasher.verify(kept, secret)
    except argon2.exceptions.VerificationError:
        return False


def check_password(password):
    """Refuses a new password that is too easy."""
    if len(password) < SHORTEST_PASSWORD:
        raise store.Refused(400, "weak_password",
                            f"A password needs at least {SHORTEST_PASSWORD} characters.")


def add(db, email, password):
    """The new account's number."""
    name, _, host = email.partition("@")
    if not name or not host:
        raise store.Refused(400, "invalid_email", "That is not an email address.")
    check_password(password)
    try:
        return db.execute("INSERT INTO accounts (email, password_hash) VALUES (?, ?)",
                          (email, hash_secret(password))).lastrowid
    except sqlite3.IntegrityError:
        raise store.Refused(409, "account_exists", "There is an account for this address.") from None


def find(db, email):
    """The account of an address, None if there is none; the case of its letters does not matter."""
    return db.execute("SELECT * FROM accounts WHERE email = ?", (email,)).fetchone()


def get(db, account_id):
    return db.execute("SELECT * FROM accounts WHERE id = ?", (account_id,)).fetchone()


def set_password(db, account_id, password):
    """Ends all sessions too: whoever knew the old password is out."""
    db.execute("UPDATE accounts SET password_hash = ? WHERE id = ?", (hash_secret(password), account_id))
    db.execute("DELETE FROM sessions WHERE account_id = ?", (account_id,))


def _new_token():
    """Safe inside a URL as it stands: clients put it into the account page's link without encoding it."""
    return secrets.token_urlsafe(32)


def log_in(db, email, password, access_lifetime=ACCESS_LIFETIME, refresh_lifetime=REFRESH_LIFETIME):
    """A new session for the right password: access token, refresh token, expiry of the first."""
    account = find(db, email)
    if account is None or not is_secret(account["password_hash"], password):
        raise store.Refused(401, "invalid_credentials")
    access, refresh_token = _new_token(), _new_token()
    expires_at = store.now() + access_lifetime
    db.execute("INSERT INTO sessions (account_id, access_hash, access_expires_at, refresh_hash,"
               " refresh_expires_at) VALUES (?, ?, ?, ?, ?)",
               (account["id"], store.digest(access), expires_at, store.digest(refresh_token),
                store.now() + refresh_lifetime))
    return access, refresh_token, expires_at


def refresh(db, token, access_lifetime=ACCESS_LIFETIME):
    """A new access token for a living session; the refresh token goes on being good until its own end."""
    session = db.execute("SELECT * FROM sessions WHERE refresh_hash = ?", (store.digest(token),)).fetchone()
    if session is None:
        raise store.Refused(401, "invalid_refresh_token")
    if session["refresh_expires_at"] <= store.now():
        raise store.Refused(401, "refresh_expired")
    access, expires_at = _new_token(), store.now() + access_lifetime
    db.execute("UPDATE sessions SET access_hash = ?, access_expires_at = ? WHERE id = ?",
               (store.digest(access), expires_at, session["id"]))
    return access, token, expires_at


def of_token(db, token):
    """The number of the account that an access token speaks for."""
    session = db.execute("SELECT * FROM sessions WHERE access_hash = ?", (store.digest(token),)).fetchone()
    if session is None or session["access_expires_at"] <= store.now():
        raise store.Refused(401, "unauthorized")
    return session["account_id"]


def end_sessions(db, access=False, refresh_tokens=False):
    """Lets every access token, every refresh token, or both run out at once."""
    if access:
        db.execute("UPDATE sessions SET access_expires_at = 0")
    if refresh_tokens:
        db.execute("UPDATE sessions SET refresh_expires_at = 0")
