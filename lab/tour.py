"""The tour: one connection's whole road, each step looked at from outside the service and verified."""

import time

from lab import account_tour, listings, network, traffic, vpn_servers, windows
from lab.laboratory import EMAIL, wait_until
from lab.steps import expect, expect_equal

PARCEL = 100_000
FIRST, SECOND = vpn_servers.PARIS, vpn_servers.TOKYO
PINS = "TELVOR:ALLOW cp-pinned v4:"
BYPASSES = "TELVOR:ALLOW split-bypass v4:"
BASELINE_FILTERS = 13


def start_service(laboratory, tell):
    laboratory.start_service()
    state = laboratory.pipe.call("GetState")
    expect_equal(state["state"], "disconnected", "state")
    tell(f"TELVOR is {windows.service_state(laboratory)} and answers on its pipe")
    tell(f"GetState: {laboratory.pipe.last}")


def log_in(laboratory, tell):
    reply = laboratory.log_in()
    expect_equal(reply, {"ok": True, "auth_state": "AUTH_OK", "message": "registered"}, "reply to the login")
    logins = laboratory.keeper.requests("POST", "/v1/auth/login")
    expect_equal(logins[-1]["status"], 200, "what the control plane answered")
    tell(f"POST /ui/login: {laboratory.pipe.last}")


def list_locations(laboratory, tell):
    answer = laboratory.pipe.call("GET /ui/locations")
    found = [(entry["id"], entry["city"], entry["online"]) for entry in answer["servers"]]
    wanted = [(server.server_id, server.city, server.running) for server in vpn_servers.CATALOGUE]
    expect_equal(found, wanted, "locations")
    expect_equal(answer["selected_server_id"], FIRST.server_id, "selected location")
    for entry in answer["servers"]:
        tell(f"{entry['id']:10} {entry['city']:8} {entry['country']} {entry['lat']:9.4f} {entry['lon']:10.4f}"
             f"  {'online' if entry['online'] else 'offline'}, last seen {entry['last_seen_at']}")


def connect(laboratory, tell):
    expect_equal(laboratory.pipe.call("Connect"), True, "reply to Connect")
    laboratory.wait_for_state("connected")
    handshakes = laboratory.agent.wg("show", "telvor", "latest-handshakes")["stdout"]
    at = int(handshakes.split("\t")[1])
    expect(at > 0, f"no handshake: {handshakes!r}")
    tell(f"CONNECTED; wg says that the handshake was {max(0, time.time() - at):.0f} s ago")


def show_state(laboratory, tell):
    state = laboratory.pipe.call("GetState")
    tell(f"GetState:       {laboratory.pipe.last}")
    status = laboratory.pipe.call("GET /ui/status")
    tell(f"GET /ui/status: {laboratory.pipe.last}")
    expect_equal(state["state"], "connected", "state")
    expect_equal(state["lastError"], None, "last error")
    expect_equal(status["tunnel_status"], "CONNECTED", "tunnel status")
    expect_equal(status["auth_state"], "AUTH_OK", "auth state")
    expect_equal(status["selected_server_id"], FIRST.server_id, "selected server")
    expect_equal(status["public_ip"], FIRST.machine.address, "public address")


def _send_through(laboratory, tell, server):
    address, sent, received = traffic.exchange(laboratory, server, PARCEL)
    given = [peer["address"] for peer in laboratory.keeper.records()["peers"]
             if peer["server_id"] == server.server_id and peer["retired_at"] is None]
    expect_equal([address], given, "address that the server saw")
    expect(min(sent, received) > PARCEL, f"only {sent} and {received} bytes were counted for {PARCEL}")
    tell(f"{server.city} was visited from {address}, the tunnel address that the control plane gave")
    tell(f"sent {sent} bytes, received {received}; the server counted {sent} received, {received} sent")


def send_packets(laboratory, tell):
    _send_through(laboratory, tell, FIRST)
    # An ordinary host elsewhere is reached through the tunnel as well: it sees the tunnel address.
    elsewhere = traffic.visit(laboratory, f"http://{SECOND.machine.address}/")
    expect(elsewhere is not None and elsewhere["peer"].startswith("10.8.1."),
           f"a host outside was not reached through the tunnel: {elsewhere}")
    tell(f"a host elsewhere, reached through the tunnel, saw {elsewhere['peer']}")


def reach_bypassed_host(laboratory, tell):
    name = network.SITE_HOST
    before = laboratory.agent.wg("show", "telvor", "transfer")["stdout"]
    seen = traffic.visit(laboratory, f"http://{name}/")
    after = laboratory.agent.wg("show", "telvor", "transfer")["stdout"]
    expect(seen is not None, f"{name} was not reached")
    expect_equal(seen["peer"], network.CLIENT.address, f"address that {name} saw")
    tell(f"{name} saw {seen['peer']}, the computer's own address")
    tell(f"the tunnel's counters {'stood still' if before == after else 'moved by a keepalive alone'}")
    for line in listings.routes(laboratory.agent.routes()):
        tell(line)


def list_filters(laboratory, tell):
    snapshot = laboratory.agent.snapshot()
    names = [record["displayData"]["name"] for record in snapshot["filters"]]
    wanted = [f"{BYPASSES}{address}" for address in network.BYPASSED for _ in ("TCP", "UDP")]
    expect_equal([name for name in names if name.startswith(BYPASSES)], wanted, "permits of the bypass")
    pinned = [name for name in names if name.startswith(PINS)]
    # Once with the baseline and once with the update that follows it, each time for TCP and for UDP.
    expect_equal(pinned, [f"{PINS}{network.CONTROL_PLANE.address}"] * 4, "pins of the control plane")
    expect_equal(len(names) - len(wanted) - len(pinned), BASELINE_FILTERS, "filters of the baseline")
    for line in listings.filters(snapshot):
        tell(line)


def select_another(laboratory, tell):
    reply = laboratory.pipe.call("POST /ui/select-location", server_id=SECOND.server_id)
    expect_equal(reply, True, "reply to the selection")
    status = laboratory.pipe.call("GET /ui/status")
    expect_equal(status["selected_server_id"], SECOND.server_id, "selected server")
    expect_equal(status["tunnel_status"], "DISCONNECTED", "tunnel status")
    tell(f"{SECOND.city} is selected, the tunnel to {FIRST.city} was taken down")


def connect_again(laboratory, tell):
    connect(laboratory, tell)
    _send_through(laboratory, tell, SECOND)


def disconnect(laboratory, tell):
    expect_equal(laboratory.pipe.call("Disconnect"), True, "reply to Disconnect")
    laboratory.wait_for_state("disconnected")
    wait_until(lambda: laboratory.agent.snapshot()["filters"], lambda filters: not filters, 15,
               "an open firewall")
    wait_until(laboratory.agent.tunnels, lambda tunnels: not tunnels, 15, "the end of the tunnel interface")
    tell("the tunnel is down and the firewall open")


def log_out(laboratory, tell):
    reply = laboratory.pipe.call("POST /ui/logout")
    expect_equal(reply, {"ok": True, "auth_state": "AUTH_REQUIRED", "message": "Logged out"},
                 "reply to the logout")
    tell(f"POST /ui/logout: {laboratory.pipe.last}")
    status = laboratory.pipe.call("GET /ui/status")
    expect_equal((status["auth_state"], status["last_error"]), ("AUTH_REQUIRED", "AUTH_REQUIRED"), "status")
    tell(f"GET /ui/status:  {laboratory.pipe.last}")


def stop_service(laboratory, tell):
    laboratory.stop_service()
    tell(f"TELVOR is {windows.service_state(laboratory)}")


def look_for_traces(laboratory, tell):
    expect_equal(laboratory.agent.routes(), laboratory.first_routes, "routes")
    snapshot = laboratory.agent.snapshot()
    kinds = ("providers", "sublayers", "callouts", "filters")
    left = {kind: snapshot[kind] for kind in kinds if snapshot[kind]}
    expect_equal(left, {}, "objects in the filtering engine")
    expect_equal(laboratory.agent.tunnels(), [], "tunnels")
    interfaces = laboratory.run(network.CLIENT.name, ["ls", "/sys/class/net"]).stdout.split()
    expect_equal(interfaces, ["eth0", "lo"], "interfaces")
    expect_equal(windows.service_state(laboratory, windows.TUNNEL_SERVICE), windows.NO_SUCH_SERVICE,
                 "tunnel service")
    tell("routes as before the start; no filter, sublayer or provider; no interface; no tunnel service")


STEPS = (
    ("the service is started", start_service),
    *account_tour.STEPS,
    (f"log in as another user, {EMAIL}", log_in),
    ("list the locations", list_locations),
    (f"connect to {FIRST.city} and wait for CONNECTED", connect),
    ("state and status", show_state),
    ("send packets through the tunnel", send_packets),
    ("reach the bypassed host", reach_bypassed_host),
    ("the filters in force", list_filters),
    (f"select another location: {SECOND.city}", select_another),
    (f"connect again, to {SECOND.city}", connect_again),
    ("disconnect", disconnect),
    ("log out", log_out),
    ("stop the service", stop_service),
    ("nothing is left: routes, filters, interface, tunnel service", look_for_traces),
)


def give(laboratory, teller):
    """All steps in order; the first that cannot be verified ends the tour with an exception."""
    for title, step in STEPS:
        with teller.step(title):
            step(laboratory, teller.detail)
