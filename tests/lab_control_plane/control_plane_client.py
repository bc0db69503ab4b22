"""Somebody who talks to a control plane that is served on this machine, and knows its keeper."""

import contextlib
import http.client
import itertools
import json
import pathlib
import sqlite3
import sys

# Where the laboratory's modules are found, for all that import this one first.
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2]))

HOST = "localhost"
PUBLIC_URL = "https://pay.telvor.test"
PASSWORD = "a horse of course"
NEW_PASSWORD = "a mule as a rule"
PUBLIC_KEY = "A" * 43 + "="
numbers = itertools.count(1)


class Answer:
    def __init__(self, response):
        self.status = response.status
        self.headers = response.headers
        self.bytes = response.read()

    @property
    def text(self):
        return self.bytes.decode()

    def json(self):
        return json.loads(self.text)

    def pair(self):
        return self.status, self.json()


class Plane:
    """Requests to it, each over a connection of its own."""

    def __init__(self, port, trust, keeper, database):
        self._port = port
        self._trust = trust
        self.keeper = keeper
        self._database = database

    def ask(self, method, path, body=None, token=None, timeout=10):
        """A body that is no text goes out as JSON."""
        headers = {} if token is None else {"Authorization": f"Bearer {token}"}
        connection = http.client.HTTPSConnection(HOST, self._port, timeout=timeout, context=self._trust)
        text = body if body is None or isinstance(body, (str, bytes)) else json.dumps(body)
        try:
            connection.request(method, path, text, headers)
            return Answer(connection.getresponse())
        finally:
            connection.close()

    def get(self, path, token=None):
        return self.ask("GET", path, token=token).pair()

    def post(self, path, body, token=None):
        return self.ask("POST", path, body, token).pair()

    def register(self, email, password=PASSWORD, device_id="pc-1"):
        return self.post("/v1/auth/register", {"email": email, "password": password, "device_id": device_id})

    def log_in(self, email, password=PASSWORD):
        return self.post("/v1/auth/login", {"email": email, "password": password})

    def stored(self):
        """Every value that its database holds."""
        with contextlib.closing(sqlite3.connect(self._database)) as db:
            tables = [name for name, in db.execute("SELECT name FROM sqlite_master WHERE type = 'table'")]
            rows = [row for table in tables for row in db.execute(f"SELECT * FROM {table}")]
            return {value for row in rows for value in row}


class Person:
    """Somebody with an account and a session."""

    def __init__(self, plane):
        self.email = new_email()
        assert plane.register(self.email)[0] == 201
        session = plane.log_in(self.email)[1]
        self.token, self.refresh_token = session["access_token"], session["refresh_token"]


def new_email():
    return f"person{next(numbers)}@telvor.test"
