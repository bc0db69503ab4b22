"""One laboratory for all tests here; each test starts from an idle service and a well-behaved world."""

import contextlib
import os
import pathlib
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))

from lab import laboratory as laboratories  # noqa: E402
from lab import network, vpn_servers, windows  # noqa: E402
from lab.laboratory import wait_until  # noqa: E402

LINES_OF_FAILURE = 120
BUILD = pathlib.Path(os.environ.get("TELVOR_LAB_BUILD", ROOT / "build" / "windows"))


@pytest.fixture(scope="session")
def whole_laboratory():
    laboratories.check_machine(BUILD)
    with laboratories.Laboratory(BUILD) as made:
        yield made


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    """A failed test shows what the service wrote last and what is in force."""
    report = (yield).get_result()
    laboratory = getattr(item, "funcargs", {}).get("whole_laboratory")
    if not report.failed or laboratory is None:
        return
    with contextlib.suppress(OSError):
        lines = windows.log_bytes(laboratory)[-20000:].decode("latin-1").splitlines()
        report.sections.append(("the service's log", "\n".join(lines[-LINES_OF_FAILURE:])))
    with contextlib.suppress(Exception):
        report.sections.append(("in force", repr(traces(laboratory))))


@pytest.fixture
def lab(whole_laboratory):
    """The laboratory with the service running and idle, nobody logged in."""
    make_idle(whole_laboratory)
    yield whole_laboratory
    make_well_behaved(whole_laboratory)


def make_idle(laboratory):
    make_well_behaved(laboratory)
    if windows.service_state(laboratory) != "RUNNING" or not windows.service_processes(laboratory):
        laboratory.start_service()
    laboratory.pipe.call("Disconnect")
    laboratory.pipe.call("POST /ui/logout")
    laboratory.wait_for_state("disconnected")
    clear_left_routes(laboratory)
    wait_for_idle(laboratory)
    laboratory.keeper.forget_requests()


@pytest.fixture
def logged_in(lab):
    """As lab, with a session; the requests of the login are forgotten."""
    assert lab.log_in()["ok"] is True
    lab.keeper.forget_requests()
    return lab


@pytest.fixture
def connected(logged_in):
    """As logged_in, and CONNECTED to the first server."""
    connect(logged_in)
    return logged_in


@pytest.fixture
def log(lab):
    return LogSince(lab)


class LogSince:
    """The service's log from the start of the test on."""

    def __init__(self, laboratory):
        self._laboratory = laboratory
        self._begin = len(windows.log_bytes(laboratory))

    def bytes(self):
        return windows.log_bytes(self._laboratory)[self._begin:]

    def text(self):
        """Every byte is one character."""
        return self.bytes().decode("latin-1")

    def lines(self):
        """The lines without their time stamps."""
        return [line[22:] if line.startswith("[2") else line for line in self.text().split("\r\n") if line]

    def wait_for(self, text, timeout=30, count=1):
        """Until so many lines begin with the text; those lines."""
        return wait_until(lambda: [line for line in self.lines() if line.startswith(text)],
                          lambda found: len(found) >= count, timeout, f"log line {text!r}")

    def in_order(self, *texts):
        """Asserts that lines that are exactly these stand in this order, others between them or not."""
        lines = iter(self.lines())
        for text in texts:
            assert any(line == text for line in lines), f"not there, or not behind the ones before: {text!r}"


def make_well_behaved(laboratory):
    laboratory.keeper.behave()
    laboratory.keeper.set_access_lifetime(3600)
    laboratory.agent.clear_faults()
    network.set_host_address(laboratory.number, network.SITE_HOST, [network.SITE.address])
    network.set_host_address(laboratory.number, network.CONTROL_PLANE_HOST, [network.CONTROL_PLANE.address])
    for server in (vpn_servers.PARIS, vpn_servers.TOKYO):
        vpn_servers.set_silent(laboratory, server, False)


def connect(laboratory, timeout=60):
    assert laboratory.pipe.call("Connect") is True
    laboratory.wait_for_state("connected", timeout)


def clear_left_routes(laboratory):
    """The routes of a failed attempt stay until the next connection ends: wanted, but not in the next test.

    A worker that is in the middle of an attempt must have come to its end first."""
    wait_until(laboratory.agent.tunnels, lambda tunnels: not tunnels, 60, "the end of the tunnel")
    for row in laboratory.agent.routes():
        del row["interface"]
        if row["prefix_length"] == 32:
            laboratory.agent.call("route_delete", **row)


def wait_for_idle(laboratory):
    laboratory.wait_for_state("disconnected")
    wait_until(lambda: traces(laboratory), lambda found: not found, 30, "an idle machine")


def traces(laboratory):
    """What of the product is in force on the machine."""
    snapshot = laboratory.agent.snapshot()
    kinds = ("providers", "sublayers", "callouts", "filters")
    return ([kind for kind in kinds if snapshot[kind]]
            + [tunnel["name"] for tunnel in laboratory.agent.tunnels()]
            + [row["destination"] for row in laboratory.agent.routes() if row["prefix_length"] == 32])
