"""The one SQLite file in which the control plane remembers everything, and what its rooms share.

Times are whole seconds of Unix time. Tokens, passwords and codes are kept as hashes only.
"""

import hashlib
import sqlite3
import time

SCHEMA = """
CREATE TABLE accounts (
    id INTEGER PRIMARY KEY, email TEXT UNIQUE NOT NULL COLLATE NOCASE, password_hash TEXT NOT NULL);
CREATE TABLE sessions (
    id INTEGER PRIMARY KEY, account_id INTEGER NOT NULL REFERENCES accounts(id),
    access_hash TEXT UNIQUE NOT NULL, access_expires_at INTEGER NOT NULL,
    refresh_hash TEXT UNIQUE NOT NULL, refresh_expires_at INTEGER NOT NULL);
CREATE TABLE resets (
    request_id TEXT PRIMARY KEY, email TEXT NOT NULL COLLATE NOCASE, code_hash TEXT NOT NULL,
    account_id INTEGER REFERENCES accounts(id), -- none: an address that nobody registered
    expires_at INTEGER NOT NULL, tries_left INTEGER NOT NULL, used INTEGER NOT NULL DEFAULT 0);
CREATE TABLE subscriptions (
    account_id INTEGER PRIMARY KEY REFERENCES accounts(id), plan_id TEXT, status TEXT NOT NULL,
    period_end INTEGER, bytes_used INTEGER NOT NULL, bytes_limit INTEGER NOT NULL);
CREATE TABLE checkouts (
    id TEXT PRIMARY KEY, account_id INTEGER NOT NULL REFERENCES accounts(id),
    provider TEXT NOT NULL, plan_id TEXT NOT NULL, paid_at INTEGER);
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


class Refused(Exception):
    """A request that the control plane turns down: the status and the word it answers, and perhaps a sentence
    for a person."""

    def __init__(self, status, error, detail=None):
        super().__init__(error)
        self.status = status
        self.error = error
        self.detail = detail


def open_store(path):
    db = sqlite3.connect(path, isolation_level=None)
    db.row_factory = sqlite3.Row
    db.execute("PRAGMA journal_mode=WAL")
    db.execute("PRAGMA foreign_keys=ON")
    db.executescript(SCHEMA)
    return db


def now():
    return int(time.time())


def digest(token):
    """What is kept of a token. It needs no salt: nobody can guess 32 random bytes."""
    return hashlib.sha256(token.encode()).hexdigest()
