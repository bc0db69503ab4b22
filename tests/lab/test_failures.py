"""Handshakes that do not come, a killed service, a firewall that fails: what is left, and the way out."""

import os
import signal

import conftest
from lab import network, vpn_servers, windows
from lab.laboratory import wait_until


def test_three_failed_handshakes_end_in_error_and_a_connect_leads_out(logged_in, log):
    """The server is there but was never told the new key: so a handshake proves that everything was right."""
    logged_in.keeper.misbehave("/v1/devices/*/wg-key", status=200, body="{}")
    logged_in.pipe.call("Connect")
    state = logged_in.wait_for_state("error", timeout=120)
    assert state["lastError"] == "HANDSHAKE_TIMEOUT"
    log.in_order("WireGuard: waiting for handshake...",
                 "WireGuard handshake not seen (attempt 1); will retry.",
                 "WireGuard handshake not seen (attempt 2); will retry.",
                 "WireGuard handshake not seen (attempt 3); will retry.",
                 "Handshake timed out repeatedly; entering ERROR until user action.")
    assert logged_in.pipe.call("GET /ui/status")["tunnel_status"] == "ERROR"
    assert logged_in.agent.snapshot()["filters"] == [] and logged_in.agent.snapshot()["providers"] == []
    # The tunnel service stays installed and running while the worker is parked.
    assert windows.service_state(logged_in, windows.TUNNEL_SERVICE) == "RUNNING"
    assert len(logged_in.keeper.requests("GET", "/v1/devices/telvor-client/wg-profile")) == 3
    logged_in.keeper.behave()
    conftest.connect(logged_in)
    assert logged_in.pipe.call("GetState")["lastError"] is None
    log.in_order("IPC: Connect requested", "IPC: Connect requested", "WireGuard handshake OK.")


def test_a_killed_service_leaves_its_rules_and_the_next_start_clears_them(connected, log):
    pids = windows.service_processes(connected)
    assert len(pids) == 1
    rules = connected.agent.snapshot()["filters"]
    assert len(rules) == 21
    connected.pipe.close()
    os.kill(pids[0], signal.SIGKILL)
    wait_until(lambda: windows.service_processes(connected), lambda found: not found, 15,
               "the death of the service")
    # No hook ran: the rule set, the routes and the tunnel outlive the process.
    assert connected.agent.snapshot()["filters"] == rules
    assert [tunnel["name"] for tunnel in connected.agent.tunnels()] == ["telvor"]

    connected.start_service()
    wait_until(connected.agent.snapshot, lambda found: not found["filters"] and not found["providers"], 15,
               "an open firewall")
    log.in_order("Service starting.", "Worker thread started.", "Worker: top.",
                 "BuildID: BOOTSTRAPFIX-2026-03-20-05:07pm-Z", "SplitTunnelV1: enabled=true, dry_run=false")
    log.in_order("SplitTunnelV1: runtime source=encrypted")
    assert connected.pipe.call("GetState")["state"] == "disconnected"
    # The idle worker removes the tunnel service of the dead one, but the routes wait for the next teardown.
    wait_until(connected.agent.tunnels, lambda tunnels: not tunnels, 15, "the end of the old tunnel")
    routed = [row["destination"] for row in connected.agent.routes() if row["prefix_length"] == 32]
    assert sorted(routed) == list(network.BYPASSED)
    # The session outlives the process too.
    conftest.connect(connected)
    connected.pipe.call("Disconnect")
    conftest.wait_for_idle(connected)


def test_a_firewall_that_refuses_the_rule_set_keeps_the_system_open_until_it_takes_it(logged_in, log):
    generic = 0x8007001F
    logged_in.agent.fault("filter_add", generic, count=1, skip=4)
    conftest.connect(logged_in)
    log.in_order("WFP: AddAllowDnsV4 ENTER", "WFP: AddAllowDnsV4 FAILED",
                 "WFP: EnableFailClosedBaseline(): One of the calls failed; aborting transaction.",
                 "WFP baseline failed to apply; rolling back to OPEN; retrying.",
                 "WFP: Transaction COMMIT OK")
    assert [line for line in log.lines()
            if line.startswith("WFP: WFP: FwpmFilterAdd0 failed (ALLOW DNS v4) failed: 2147942431 (")]
    assert len(logged_in.agent.snapshot()["filters"]) == 21


def test_a_control_plane_that_does_not_resolve_keeps_the_system_open(logged_in, log):
    """The tunnel's handshake comes, the pin cannot be made, and the pass is tried again."""
    vpn_servers.set_silent(logged_in, vpn_servers.PARIS, True)
    logged_in.pipe.call("Connect")
    log.wait_for("WireGuard: waiting for handshake...")
    network.set_host_address(logged_in.number, network.CONTROL_PLANE_HOST, [])
    vpn_servers.set_silent(logged_in, vpn_servers.PARIS, False)
    log.wait_for("WFP: failed to resolve cp.telvor.test for baseline; rolling back to OPEN; retrying.",
                 timeout=60)
    assert logged_in.agent.snapshot()["filters"] == []
    network.set_host_address(logged_in.number, network.CONTROL_PLANE_HOST, [network.CONTROL_PLANE.address])
    logged_in.wait_for_state("connected")
    log.in_order("WFP: Resolved cp.telvor.test to 198.18.4.10")
