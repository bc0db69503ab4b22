"""What the control plane remembers, in one SQLite file: accounts, sessions, devices, keys, servers, peers.

Times are whole seconds of Unix time. Tokens are kept as hashes only.
"""

import hashlib
import ipaddress
import secrets
import sqlite3
import time

import argon2

SCHEMA = """
CREATE TABLE accounts (id INTEGER PRIMARY KEY, email TEXT UNIQUE NOT NULL, password_hash TEXT NOT NULL);
CREATE TABLE sessions (
    id INTEGER PRIMARY KEY, account_id INTEGER NOT NULL REFERENCES accounts(id),
    access_hash TEXT UNIQUE NOT NULL, access_expires_at INTEGER NOT NULL,
    refresh_hash TEXT UNIQUE NOT NULL, refresh_expires_at INTEGER NOT NULL);
CREATE TABLE servers (
    position INTEGER PRIMARY KEY, server_id TEXT UNIQUE NOT NULL, name TEXT NOT NULL, country TEXT NOT NULL,
    city TEXT NOT NULL, latitude REAL NOT NULL, longitude REAL NOT NULL, public_egress_ip TEXT NOT NULL,
    endpoint TEXT NOT NULL, public_key TEXT NOT NULL, network TEXT NOT NULL, last_seen_at INTEGER NOT NULL);
CREATE TABLE devices (
    account_id INTEGER NOT NULL REFERENCES accounts(id), device_id TEXT NOT NULL, name TEXT NOT NULL,
    platform TEXT NOT NULL, public_key TEXT, server_id TEXT REFERENCES servers(server_id),
    PRIMARY KEY (account_id, device_id));
CREATE TABLE peers (
    server_id TEXT NOT NULL REFERENCES servers(server_id), public_key TEXT NOT NULL, address TEXT NOT NULL,
    account_id INTEGER NOT NULL, device_id TEXT NOT NULL, retired_at INTEGER,
    PRIMARY KEY (server_id, public_key), UNIQUE (server_id, address));
"""

ACCESS_LIFETIME = 3600
REFRESH_LIFETIME = 30 * 24 * 3600

# The laboratory's passwords guard nothing: the least cost keeps a login fast on a busy machine.
hasher = argon2.PasswordHasher(time_cost=1, memory_cost=8192, parallelism=1)


class Refused(Exception):
    """A request that the control plane turns down, with the status and the word it answers."""

    def __init__(self, status, error):
        super().__init__(error)
        self.status = status
        self.error = error


def open_store(path):
    db = sqlite3.connect(path, isolation_level=None)
    db.row_factory = sqlite3.Row
    db.execute("PRAGMA journal_mode=WAL")
    db.execute("PRAGMA foreign_keys=ON")
    db.executescript(SCHEMA)
    return db


def now():
    return int(time.time())


def _hash(token):
    return hashlib.sha256(token.encode()).hexdigest()


# Accounts and sessions


def add_account(db, email, password):
    try:
        db.execute("INSERT INTO accounts (email, password_hash) VALUES (?, ?)",
                   (email, hasher.hash(password)))
    except sqlite3.IntegrityError:
        raise Refused(409, "account_exists") from None


def log_in(db, email, password, lifetime=ACCESS_LIFETIME):
    """A new session for the right password: access token, refresh token, expiry of the first."""
    account = db.execute("SELECT * FROM accounts WHERE email = ?", (email,)).fetchone()
    if account is None:
        raise Refused(401, "invalid_credentials")
    try:
        hasher.verify(account["password_hash"], password)
    except argon2.exceptions.VerificationError:
        raise Refused(401, "invalid_credentials") from None
    access, refresh = secrets.token_urlsafe(32), secrets.token_urlsafe(32)
    expires_at = now() + lifetime
    db.execute("INSERT INTO sessions (account_id, access_hash, access_expires_at, refresh_hash,"
               " refresh_expires_at) VALUES (?, ?, ?, ?, ?)",
               (account["id"], _hash(access), expires_at, _hash(refresh), now() + REFRESH_LIFETIME))
    return access, refresh, expires_at


def refresh(db, token, lifetime=ACCESS_LIFETIME):
    """A new access token for a living session; the refresh token goes on being good until its own end."""
    session = db.execute("SELECT * FROM sessions WHERE refresh_hash = ?", (_hash(token),)).fetchone()
    if session is None:
        raise Refused(401, "invalid_refresh_token")
    if session["refresh_expires_at"] <= now():
        raise Refused(401, "refresh_expired")
    access, expires_at = secrets.token_urlsafe(32), now() + lifetime
    db.execute("UPDATE sessions SET access_hash = ?, access_expires_at = ? WHERE id = ?",
               (_hash(access), expires_at, session["id"]))
    return access, token, expires_at


def account_of(db, token):
    """The account that an access token speaks for."""
    session = db.execute("SELECT * FROM sessions WHERE access_hash = ?", (_hash(token),)).fetchone()
    if session is None or session["access_expires_at"] <= now():
        raise Refused(401, "unauthorized")
    return session["account_id"]


def end_sessions(db, access=False, refresh_tokens=False):
    """Lets every access token, every refresh token, or both run out at once."""
    if access:
        db.execute("UPDATE sessions SET access_expires_at = 0")
    if refresh_tokens:
        db.execute("UPDATE sessions SET refresh_expires_at = 0")


# Servers


def add_server(db, server):
    db.execute("INSERT INTO servers (server_id, name, country, city, latitude, longitude, public_egress_ip,"
               " endpoint, public_key, network, last_seen_at) VALUES (:server_id, :name, :country, :city,"
               " :latitude, :longitude, :public_egress_ip, :endpoint, :public_key, :network, :last_seen_at)",
               server)


def servers(db):
    return db.execute("SELECT * FROM servers ORDER BY position").fetchall()


def server(db, server_id):
    row = db.execute("SELECT * FROM servers WHERE server_id = ?", (server_id,)).fetchone()
    if row is None:
        raise Refused(404, "unknown_server")
    return row


def heartbeat(db, server_id):
    db.execute("UPDATE servers SET last_seen_at = ? WHERE server_id = ?", (now(), server_id))


# Devices


def register_device(db, account_id, device_id, name, platform):
    """True if the device is new, false if it was registered before."""
    known = db.execute("SELECT 1 FROM devices WHERE account_id = ? AND device_id = ?",
                       (account_id, device_id)).fetchone()
    db.execute("INSERT INTO devices (account_id, device_id, name, platform) VALUES (?, ?, ?, ?)"
               " ON CONFLICT DO UPDATE SET name = excluded.name, platform = excluded.platform",
               (account_id, device_id, name, platform))
    return known is None


def device(db, account_id, device_id):
    row = db.execute("SELECT * FROM devices WHERE account_id = ? AND device_id = ?",
                     (account_id, device_id)).fetchone()
    if row is None:
        raise Refused(404, "unknown_device")
    return row


def set_key(db, account_id, device_id, public_key):
    db.execute("UPDATE devices SET public_key = ? WHERE account_id = ? AND device_id = ?",
               (public_key, account_id, device_id))


def assign(db, account_id, device_id, server_id):
    db.execute("UPDATE devices SET server_id = ? WHERE account_id = ? AND device_id = ?",
               (server_id, account_id, device_id))


# Peers


def peer(db, server_id, public_key):
    return db.execute("SELECT * FROM peers WHERE server_id = ? AND public_key = ?",
                      (server_id, public_key)).fetchone()


def lease_peer(db, device_row):
    """The device's place on its server, with a tunnel address of its own; its other places are retired."""
    server_id, key = device_row["server_id"], device_row["public_key"]
    db.execute("UPDATE peers SET retired_at = ? WHERE account_id = ? AND device_id = ? AND retired_at IS NULL"
               " AND NOT (server_id = ? AND public_key = ?)",
               (now(), device_row["account_id"], device_row["device_id"], server_id, key))
    db.execute("INSERT INTO peers (server_id, public_key, address, account_id, device_id)"
               " VALUES (?, ?, ?, ?, ?) ON CONFLICT (server_id, public_key) DO UPDATE SET retired_at = NULL",
               (server_id, key, _free_address(db, server_id), device_row["account_id"],
                device_row["device_id"]))
    return peer(db, server_id, key)


def _free_address(db, server_id):
    taken = {row["address"] for row in
             db.execute("SELECT address FROM peers WHERE server_id = ?", (server_id,))}
    hosts = ipaddress.ip_network(server(db, server_id)["network"]).hosts()
    next(hosts)  # the server's own
    for address in hosts:
        if str(address) not in taken:
            return str(address)
    raise Refused(503, "no_free_address")


def drop_retired(db, older_than):
    """Forgets the peers that were retired so many seconds ago, and gives them."""
    rows = db.execute("SELECT * FROM peers WHERE retired_at <= ?", (now() - older_than,)).fetchall()
    db.execute("DELETE FROM peers WHERE retired_at <= ?", (now() - older_than,))
    return rows
