"""The whole road of a connection, and the file that it leaves."""

import io

import conftest
from lab import laboratory as laboratories
from lab import network, prefix, tour, traffic, vpn_servers, windows
from lab.steps import Teller

DATA = prefix.DATA_FOLDER
BYPASSED = list(network.BYPASSED)


def test_every_step_of_the_tour_is_verified_and_no_trace_is_left(whole_laboratory):
    if windows.service_state(whole_laboratory) == "RUNNING":
        whole_laboratory.stop_service()
    whole_laboratory.keeper.forget_requests()
    told = io.StringIO()
    tour.give(whole_laboratory, Teller(told))
    assert told.getvalue().count(" ok after ") == len(tour.STEPS)


def data_file(lab, name):
    return (windows.drive(lab) / DATA / name).read_bytes()


def key_text(lab, which):
    return data_file(lab, f"auth/wg_client_{which}key.txt").decode().strip()


def test_the_start_leaves_its_markers(lab):
    stage = windows.drive(lab) / prefix.STAGE_FOLDER
    markers = {
        "01-wmain-enter.txt": "entered wmain\r\n",
        "03-before-runasservice.txt": "before RunAsService\r\n",
        "10-runasservice-enter.txt": "entered RunAsService\r\n",
        "11-before-dispatch.txt": "before StartServiceCtrlDispatcherW\r\n",
        "20-servicemain-enter.txt": "entered ServiceMain\r\n",
    }
    for name, text in markers.items():
        assert (stage / name).read_bytes() == text.encode("utf-16-le"), name
    for name in ("02-wmain-console.txt", "05-fallback-console.txt", "12-dispatch-failed.txt"):
        assert not (stage / name).exists(), name


def test_the_worker_leaves_its_drop_files(lab):
    assert data_file(lab, "after_entered.txt") == "after entered\n".encode("utf-16-le")
    assert data_file(lab, "step1.txt") == "in try\n".encode("utf-16-le")


def test_telvor_conf_is_written_byte_for_byte(connected):
    server_key = connected.agent.wg("show", "telvor", "peers")["stdout"].strip()
    peer = next(peer for peer in connected.keeper.records()["peers"]
                if peer["server_id"] == "paris-1" and peer["retired_at"] is None)
    assert data_file(connected, "wg/telvor.conf").decode() == (
        "[Interface]\r\n"
        f"PrivateKey = {key_text(connected, 'private')}\r\n"
        f"Address = {peer['address']}/32\r\n"
        "DNS = 10.8.1.1\r\n"
        "\r\n"
        "[Peer]\r\n"
        f"PublicKey = {server_key}\r\n"
        "AllowedIPs = 0.0.0.0/0\r\n"
        "Endpoint = 198.18.1.10:51820\r\n"
        "PersistentKeepalive = 25\r\n")
    assert not (windows.drive(connected) / DATA / "wg" / "telvor.conf.tmp").exists()


def test_a_bare_profile_gives_the_defaults_in_telvor_conf(logged_in, log):
    logged_in.keeper.misbehave("/v1/devices/*/wg-profile", body=(
        '{"client_address":"10.9.0.7/32","endpoint":"1.1.1.1:1","server_public_key":"not-this",'
        '"servers":[{"server_id":"a","endpoint":"192.0.2.1:51820","server_public_key":"S2V5"}]}'))
    assert logged_in.pipe.call("POST /ui/select-location", server_id="paris-1") is True
    assert data_file(logged_in, "wg/telvor.conf").decode() == (
        "[Interface]\r\n"
        f"PrivateKey = {key_text(logged_in, 'private')}\r\n"
        "Address = 10.9.0.7/32\r\n"
        "\r\n"
        "[Peer]\r\n"
        "PublicKey = S2V5\r\n"
        "AllowedIPs = 10.8.0.0/24\r\n"
        "Endpoint = 192.0.2.1:51820\r\n"
        "PersistentKeepalive = 0\r\n")
    log.in_order("Bootstrap: allowed_ips missing; defaulting to 10.8.0.0/24 (bootstrap-safe).",
                 "Bootstrap: DNS missing; skipping (bootstrap-safe).",
                 "Bootstrap: writing wg conf to ProgramData...",
                 "Bootstrap: wg conf created/updated.")


def test_key_and_id_files_end_in_crlf_and_the_session_is_sealed(connected):
    for which in ("private", "public"):
        content = data_file(connected, f"auth/wg_client_{which}key.txt")
        assert len(content) == 46 and content.endswith(b"=\r\n")
    assert data_file(connected, "auth/device_id.txt") == b"telvor-client\r\n"
    sealed = data_file(connected, "auth/session.dat")
    assert sealed and b"access_token" not in sealed and b"refresh_token" not in sealed
    assert data_file(connected, "auth/device_id.txt.protected") != b"telvor-client"


def test_the_uploaded_key_is_the_one_in_the_file_and_a_login_changes_it(connected):
    first = key_text(connected, "public")
    assert connected.keeper.devices(laboratories.EMAIL)[0]["public_key"] == first
    connected.log_in()
    assert key_text(connected, "public") != first
    # Nothing is sent at the login: the server keeps the old key until the next bootstrap.
    assert connected.keeper.devices(laboratories.EMAIL)[0]["public_key"] == first


def test_the_bypassed_addresses_have_host_routes_by_the_gateway_while_connected(connected):
    eth0 = next(row["interface_index"] for row in connected.first_routes if row["prefix_length"] == 0)
    rows = [row for row in connected.agent.routes() if row["destination"] in BYPASSED]
    fields = ("destination", "prefix_length", "next_hop", "interface_index", "metric")
    assert sorted(tuple(row[field] for field in fields) for row in rows) == [
        (address, 32, "192.168.77.1", eth0, 5) for address in BYPASSED]
    connected.pipe.call("Disconnect")
    conftest.wait_for_idle(connected)
    assert connected.agent.routes() == connected.first_routes


def test_a_refresh_follows_the_domain_to_its_new_address(connected, log):
    moved = "198.18.3.77"
    connected.run("site", ["ip", "addr", "replace", f"{moved}/24", "dev", "eth0"])
    network.set_host_address(connected.number, network.SITE_HOST, [moved])
    log.wait_for("SplitTunnelV1: refresh iteration=0", timeout=45)
    log.wait_for("WFP: UpdateSplitTunnelBypassAllowlistV4 COMMIT OK", timeout=15, count=1)
    bypassed = [moved, network.CONTROL_PLANE.address]
    conftest.wait_until(lambda: connected.agent.snapshot()["filters"],
                        lambda filters: any(moved in record["displayData"]["name"] for record in filters), 15,
                        "the permit of the new address")
    routed = [row["destination"] for row in connected.agent.routes() if row["metric"] == 5]
    assert sorted(routed) == bypassed
    names = [record["displayData"]["name"] for record in connected.agent.snapshot()["filters"]]
    assert [name for name in names if name.startswith(tour.BYPASSES)] == [
        f"{tour.BYPASSES}{address}" for address in bypassed for _ in ("TCP", "UDP")]
    # Each update adds a pair of pins and takes none away: wanted, and gone at the next baseline.
    assert names.count(f"{tour.PINS}{network.CONTROL_PLANE.address}") == 6
    assert traffic.visit(connected, f"http://{network.SITE_HOST}/")["peer"] == network.CLIENT.address
    log.in_order("WorkerLoop : Started refresh0", "SplitTunnelV1: refresh iteration=0",
                 "SplitTunnelV1: RefreshSplitTunnelRoutes ENTER",
                 *(f"SplitTunnelV1: Update WFP bypass IP = {address}" for address in bypassed),
                 "WFP: UpdateSplitTunnelBypassAllowlistV4 ENTER count=2",
                 "WFP: UpdateSplitTunnelBypassAllowlistV4 COMMIT OK")


def test_a_second_tunnel_of_another_program_is_stopped_and_not_removed(logged_in, log):
    conf = windows.drive(logged_in) / "other.conf"
    private, public = vpn_servers.make_key_pair()
    conf.write_text(f"[Interface]\nPrivateKey = {private}\nAddress = 10.99.0.1/32\n\n"
                    f"[Peer]\nPublicKey = {public}\nAllowedIPs = 10.99.0.0/24\n")
    wireguard = r"C:\Program Files\WireGuard\wireguard.exe"
    windows.run(logged_in, wireguard, "/installtunnelservice", r"C:\other.conf")
    windows.wait_for_service(logged_in, "RUNNING", name="WireGuardTunnel$other")
    try:
        conftest.connect(logged_in)
        log.in_order("Single-tunnel invariant: stopping extra tunnel service: WireGuardTunnel$other")
        assert windows.service_state(logged_in, "WireGuardTunnel$other") == "STOPPED"
        assert [tunnel["name"] for tunnel in logged_in.agent.tunnels()] == ["telvor"]
    finally:
        windows.run(logged_in, wireguard, "/uninstalltunnelservice", "other", check=False)
