"""The laboratory's hand on the control plane: its keeper's socket as plain calls."""

import http.client
import json
import socket
import time


class _LocalConnection(http.client.HTTPConnection):
    def __init__(self, path):
        super().__init__("keeper", timeout=10)
        self._path = path

    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(self.timeout)
        self.sock.connect(self._path)


class Keeper:
    """Tells the control plane how to behave and asks it what it saw."""

    def __init__(self, path):
        self._path = str(path)

    def _call(self, method, target, value=None):
        connection = _LocalConnection(self._path)
        try:
            connection.request(method, target, None if value is None else json.dumps(value))
            response = connection.getresponse()
            body = response.read()
        finally:
            connection.close()
        if response.status != 200:
            raise RuntimeError(f"{method} {target}: {response.status} {body.decode()}")
        return json.loads(body)

    def wait(self, seconds=15):
        """Until the control plane answers."""
        deadline = time.monotonic() + seconds
        while True:
            try:
                return self._call("GET", "/requests")
            except (OSError, http.client.HTTPException):
                if time.monotonic() > deadline:
                    raise
                time.sleep(0.05)

    def misbehave(self, path, **rule):
        """One rule of misbehaviour: its fields are told in misbehaviour.py."""
        self._call("POST", "/rules", {"path": path, **rule})

    def behave(self):
        self._call("DELETE", "/rules")

    def requests(self, method=None, path=None):
        """The requests so far, all or those to one target."""
        return [entry for entry in self._call("GET", "/requests")
                if method in (None, entry["method"]) and path in (None, entry["target"])]

    def forget_requests(self):
        self._call("DELETE", "/requests")

    def add_account(self, email, password):
        self._call("POST", "/accounts", {"email": email, "password": password})

    def set_access_lifetime(self, seconds):
        """For the sessions and refreshes to come."""
        self._call("POST", "/sessions", {"access_lifetime": seconds})

    def end_access(self):
        self._call("POST", "/sessions", {"end_access": True})

    def end_refresh(self):
        self._call("POST", "/sessions", {"end_refresh": True})

    def set_refresh_lifetime(self, seconds):
        """For the sessions to come."""
        self._call("POST", "/sessions", {"refresh_lifetime": seconds})

    def set_reset_lifetime(self, seconds):
        """For the password resets to come."""
        self._call("POST", "/resets", {"lifetime": seconds})

    def end_resets(self):
        self._call("POST", "/resets", {"end": True})

    def mails(self, to):
        """What a person finds in the mail, the latest last: {"to","request_id","code"} of each."""
        return [mail for mail in self._call("GET", "/outbox") if mail["to"] == to]

    def change_subscription(self, email, **changes):
        """Any of status, period_end (Unix time), bytes_used, bytes_limit."""
        self._call("POST", "/subscriptions", {"email": email, **changes})

    def devices(self, email):
        """The devices of an account, as the database has them."""
        return [row for row in self.records()["devices"] if row["email"] == email]

    def records(self):
        return self._call("GET", "/records")
