"""The control plane as it runs in the laboratory, served from a thread over real TLS, and a person."""

import asyncio
import socket
import ssl
import threading

import pytest
from control_plane_client import HOST, PUBLIC_KEY, PUBLIC_URL, Person, Plane
from lab import certificates
from lab.control_plane import accounts, app, resets
from lab.control_plane.keeper import Keeper


def server(server_id, enter):
    """A server that does all it is told, or nothing: `enter` starts a program that ignores its words."""
    return {"server_id": server_id, "name": server_id.title(), "country": "FR", "city": "Paris",
            "latitude": 48.5, "longitude": 2.25, "public_egress_ip": "198.18.1.10",
            "endpoint": "198.18.1.10:51820", "public_key": PUBLIC_KEY, "network": "10.8.1.0/30",
            "last_seen_at": 0, "enter": enter}


def free_port():
    with socket.create_server((HOST, 0)) as probe:
        return probe.getsockname()[1]


def serve_in_thread(config):
    """Serves until the function that it gives is called."""
    loop = asyncio.new_event_loop()
    served = loop.create_task(app.serve(config))

    def run():
        try:
            loop.run_until_complete(served)
        except asyncio.CancelledError:
            loop.close()

    thread = threading.Thread(target=run)
    thread.start()

    def stop():
        loop.call_soon_threadsafe(served.cancel)
        thread.join(10)

    return stop


@pytest.fixture(scope="session")
def whole_plane(tmp_path_factory):
    folder = tmp_path_factory.mktemp("control-plane")
    trust = ssl.create_default_context(cadata=certificates.make(folder, HOST))
    config = {"address": "127.0.0.1", "port": free_port(), "public_url": PUBLIC_URL,
              "certificate": str(folder / "server.pem"), "database": str(folder / "database"),
              "keeper_socket": str(folder / "keeper"), "accounts": [],
              "servers": [server("good", ["true"]), server("bad", ["false"]), server("gone", None)]}
    stop = serve_in_thread(config)
    try:
        keeper = Keeper(config["keeper_socket"])
        keeper.wait()
        yield Plane(config["port"], trust, keeper, config["database"])
    finally:
        stop()


@pytest.fixture
def plane(whole_plane):
    """Well-behaved, with all times as usual."""
    whole_plane.keeper.behave()
    whole_plane.keeper.forget_requests()
    whole_plane.keeper.set_access_lifetime(accounts.ACCESS_LIFETIME)
    whole_plane.keeper.set_refresh_lifetime(accounts.REFRESH_LIFETIME)
    whole_plane.keeper.set_reset_lifetime(resets.LIFETIME)
    return whole_plane


@pytest.fixture
def person(plane):
    return Person(plane)
