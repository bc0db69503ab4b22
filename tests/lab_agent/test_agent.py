"""The agent alone, without Wine: root and two network namespaces are all that these tests need."""

import ctypes
import json
import os
import signal
import socket
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

AGENT = Path(__file__).resolve().parents[2] / "lab" / "agent" / "agent.py"
PORT = 47100
CLONE_NEWNET = 0x40000000
MARK = f"agt{os.getpid() % 100000}"
CLIENT, SERVER = f"{MARK}-c", f"{MARK}-s"
GATEWAY, HOST = "192.0.2.1", "192.0.2.2"
FAR = "198.51.100.1"  # the server's second address, reached through the gateway

NO_KEY = "00000000-0000-0000-0000-000000000000"
PROVIDER = "b8d16c9b-7d78-4a2c-9a8b-01f4b1f1b0a1"
SUBLAYER = "d5c4f4a2-0c9b-4f6b-a9ce-2e1b2d89e0b2"
LAYER_V4 = "c38d57d1-05a7-4c33-904f-7fbceee60e82"
REMOTE_ADDRESS = "b235ae9a-1d64-49b8-a44c-5ff3d9095045"
REMOTE_PORT = "c35a604d-d22b-4e1a-91b4-68f674ee674b"

ALREADY_EXISTS = 0x80320009
IN_USE = 0x8032000A
NO_TXN = 0x8032000D
TXN_IN_PROGRESS = 0x8032000E


def sh(*command, stdin=None):
    return subprocess.run(command, input=stdin, capture_output=True, text=True, check=True).stdout


def inside(namespace, *command, stdin=None):
    return sh("ip", "netns", "exec", namespace, *command, stdin=stdin)


def run_inside(namespace, work):
    """Runs work on a thread of its own in the namespace; a socket stays where it was made."""
    def enter_and_work():
        with open(f"/run/netns/{namespace}", "rb") as handle:
            assert ctypes.CDLL(None).setns(handle.fileno(), CLONE_NEWNET) == 0
        return work()

    with ThreadPoolExecutor(1) as pool:
        return pool.submit(enter_and_work).result()


def assert_server_answers_through_the_tunnel():
    with pytest.raises(ConnectionRefusedError):  # the closed port's answer has come the whole way back
        run_inside(CLIENT, lambda: socket.create_connection(("10.8.0.1", 9), timeout=5))


class Client:
    """One connection to the agent."""

    def __init__(self):
        self.socket = run_inside(CLIENT, lambda: socket.create_connection(("127.0.0.1", PORT)))
        self.file = self.socket.makefile("rwb")

    def send(self, op, **fields):
        self.file.write(json.dumps({"op": op, **fields}).encode() + b"\n")
        self.file.flush()

    def receive(self):
        return json.loads(self.file.readline())

    def ask(self, op, **fields):
        self.send(op, **fields)
        return self.receive()

    def code(self, op, **fields):
        return self.ask(op, **fields)["code"]

    def close(self):
        self.file.close()
        self.socket.close()


@pytest.fixture(scope="module")
def network():
    """A client behind a gateway; the gateway has one more address behind it."""
    for namespace in (CLIENT, SERVER):
        sh("ip", "netns", "add", namespace)
        inside(namespace, "ip", "link", "set", "lo", "up")
    try:
        sh("ip", "-n", CLIENT, "link", "add", "lan0", "type", "veth", "peer", "name", "lan0", "netns", SERVER)
        for namespace, address in ((CLIENT, HOST), (SERVER, GATEWAY)):
            sh("ip", "-n", namespace, "address", "add", f"{address}/24", "dev", "lan0")
            sh("ip", "-n", namespace, "link", "set", "lan0", "up")
        sh("ip", "-n", SERVER, "address", "add", f"{FAR}/32", "dev", "lo")
        sh("ip", "-n", CLIENT, "route", "add", "default", "via", GATEWAY, "dev", "lan0")
        yield
    finally:
        for namespace in (CLIENT, SERVER):
            subprocess.run(["ip", "netns", "del", namespace], check=False)


def start_agent():
    process = subprocess.Popen(["ip", "netns", "exec", CLIENT, "/usr/bin/python3", AGENT],
                               stdout=subprocess.PIPE, text=True)
    assert process.stdout.readline() == "ready\n"
    return process


def end_agent(process):
    process.send_signal(signal.SIGTERM)
    assert process.wait(10) == 0


@pytest.fixture
def agent(network):
    process = start_agent()
    yield process
    if process.poll() is None:
        end_agent(process)


@pytest.fixture
def client(agent):
    connection = Client()
    yield connection
    connection.close()


def lan_index():
    return int(json.loads(inside(CLIENT, "ip", "-j", "link", "show", "lan0"))[0]["ifindex"])


def kernel_routes(*selector):
    return inside(CLIENT, "ip", "-4", "route", "show", *selector).split("\n")[:-1]


def host_route(destination, metric=5, next_hop=GATEWAY):
    return {"destination": destination, "prefix_length": 32, "next_hop": next_hop,
            "interface_index": lan_index(), "metric": metric}


# Requests


def test_a_connection_takes_many_requests(client):
    assert [client.ask("ping") for _ in range(3)] == [{"code": 0}] * 3


def test_an_unknown_operation_and_a_broken_line_leave_the_connection_open(client):
    assert client.code("no_such") == 1
    client.file.write(b"{not json\n")
    client.file.flush()
    assert client.receive()["code"] == 87
    assert client.code("route_create", destination="10.0.0.1") == 87
    assert client.code("ping") == 0


def test_a_fault_strikes_after_its_skip_and_for_its_count(client):
    assert client.code("fault", on="ping", code=1359, count=2, skip=1) == 0
    assert [client.code("ping") for _ in range(4)] == [0, 1359, 1359, 0]


def test_a_negative_count_lasts_until_the_faults_are_cleared(client):
    client.ask("fault", on="ping", code=5, count=-1)
    assert [client.code("ping") for _ in range(3)] == [5, 5, 5]
    assert client.code("fault_clear") == 0
    assert client.code("ping") == 0


def test_the_journal_holds_what_was_asked_for_since_it_was_begun(client):
    client.ask("ping")
    client.ask("journal_begin")
    client.ask("fault", on="ping", code=5)
    client.ask("ping")
    client.ask("nonsense")
    assert client.ask("journal")["operations"] == ["fault", "ping", "journal"]


def test_quit_ends_the_agent(agent, client):
    assert client.code("quit") == 0
    assert agent.wait(10) == 0


# Routes


def test_the_table_is_listed_with_default_and_connected_routes(client):
    rows = {(row["destination"], row["prefix_length"]): row for row in client.ask("route_list")["rows"]}
    assert rows["0.0.0.0", 0]["next_hop"] == GATEWAY
    assert rows["192.0.2.0", 24] == {"destination": "192.0.2.0", "prefix_length": 24, "next_hop": "0.0.0.0",
                                     "interface_index": lan_index(), "interface": "lan0", "metric": 0}


# Lists the interfaces of the rows, then again as if each of them went when its row had just been read.
ROWS_OF_LOST_INTERFACES = """
import sys
sys.path.insert(0, sys.argv[1])
import routes
print(len(routes.list_routes()))
routes.socket = type("Socket", (), dict(vars(routes.socket), if_nametoindex=lambda name: open("/no/such")))
print(len(routes.list_routes()))
"""


def test_rows_of_an_interface_that_goes_while_they_are_read_are_left_out(client):
    listed = inside(CLIENT, "/usr/bin/python3", "-B", "-c", ROWS_OF_LOST_INTERFACES, str(AGENT.parent))
    before, after = map(int, listed.split())
    assert before > 0 and after == 0


def test_a_created_route_is_in_the_kernel_and_a_second_one_exists(client):
    assert client.code("route_create", **host_route("203.0.113.7")) == 0
    assert kernel_routes("203.0.113.7") == [f"203.0.113.7 via {GATEWAY} dev lan0 metric 5 "]
    assert client.code("route_create", **host_route("203.0.113.7")) == 5010
    assert client.code("route_create", **host_route("203.0.113.7", metric=9)) == 5010
    assert client.code("route_delete", **host_route("203.0.113.7")) == 0
    assert kernel_routes("203.0.113.7") == []


def test_routes_to_one_prefix_through_two_gateways_stand_beside_each_other(client):
    other = host_route("203.0.113.8", next_hop="192.0.2.77")
    assert client.code("route_create", **host_route("203.0.113.8")) == 0
    assert client.code("route_create", **other) == 0
    assert len(kernel_routes("203.0.113.8")) == 2
    assert client.code("route_delete", **other) == 0
    assert kernel_routes("203.0.113.8") == [f"203.0.113.8 via {GATEWAY} dev lan0 metric 5 "]
    client.ask("route_delete", **host_route("203.0.113.8"))


def test_setting_a_route_changes_its_metric_alone(client):
    client.ask("route_create", **host_route("203.0.113.9", metric=40))
    assert client.code("route_set", **host_route("203.0.113.9", metric=5)) == 0
    assert kernel_routes("203.0.113.9") == [f"203.0.113.9 via {GATEWAY} dev lan0 metric 5 "]
    assert client.code("route_set", **host_route("203.0.113.9", next_hop="192.0.2.77")) == 1168
    client.ask("route_delete", **host_route("203.0.113.9"))


def test_missing_routes_and_bad_parameters_have_the_windows_codes(client):
    assert client.code("route_delete", **host_route("203.0.113.10")) == 1168
    assert client.code("route_create", **{**host_route("203.0.113.10"), "interface_index": 9999}) == 87
    assert client.code("route_create", **{**host_route("203.0.113.10"), "prefix_length": 33}) == 87
    assert client.code("route_create", **host_route("203.0.113.10", next_hop="10.99.99.99")) == 87
    assert client.code("route_create", **{**host_route("203.0.113.10"), "prefix_length": 24}) == 87


def test_the_best_route_is_the_row_that_the_kernel_takes(client):
    best = client.ask("route_best", destination="1.1.1.1")
    assert best["code"] == 0 and best["source"] == HOST
    assert (best["row"]["destination"], best["row"]["prefix_length"]) == ("0.0.0.0", 0)
    assert (best["row"]["next_hop"], best["row"]["interface_index"]) == (GATEWAY, lan_index())
    on_link = client.ask("route_best", destination="192.0.2.50")["row"]
    assert (on_link["next_hop"], on_link["prefix_length"]) == ("0.0.0.0", 24)


def test_the_best_route_of_a_place_without_one_is_unreachable(client):
    sh("ip", "-n", CLIENT, "route", "del", "default")
    try:
        assert client.code("route_best", destination="1.1.1.1") == 1231
    finally:
        sh("ip", "-n", CLIENT, "route", "add", "default", "via", GATEWAY, "dev", "lan0")


def test_routes_left_by_clients_go_with_the_agent(agent, client):
    before = kernel_routes()
    client.ask("route_create", **host_route("203.0.113.11"))
    end_agent(agent)
    assert kernel_routes() == before


# Tunnels


@pytest.fixture(scope="module")
def server(network):
    """A WireGuard peer at FAR, port 51820, with 10.8.0.1 behind it; gives the texts of a client's file."""
    name = f"w{MARK}"
    keys = {who: sh("wg", "genkey").strip() for who in ("client", "server")}
    public = {who: sh("wg", "pubkey", stdin=key).strip() for who, key in keys.items()}
    process = subprocess.Popen(["ip", "netns", "exec", SERVER, "wireguard-go", "-f", name],
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    wait_for(lambda: Path(f"/run/wireguard/{name}.sock").exists())
    inside(SERVER, "wg", "setconf", name, "/dev/stdin", stdin=(
        f"[Interface]\nPrivateKey = {keys['server']}\nListenPort = 51820\n"
        f"[Peer]\nPublicKey = {public['client']}\nAllowedIPs = 10.8.0.2/32\n"))
    sh("ip", "-n", SERVER, "address", "add", "10.8.0.1/24", "dev", name)
    sh("ip", "-n", SERVER, "link", "set", name, "up")

    def conf(allowed="0.0.0.0/0", key=keys["client"]):
        return (f"[Interface]\r\nPrivateKey = {key}\r\nAddress = 10.8.0.2/32\r\n"
                f"DNS = 10.8.0.1, 1.1.1.1\r\n\r\n"
                f"[Peer]\r\nPublicKey = {public['server']}\r\nAllowedIPs = {allowed}\r\n"
                f"Endpoint = {FAR}:51820\r\nPersistentKeepalive = 1\r\n")

    yield conf
    process.terminate()
    process.wait()


def wait_for(condition, seconds=10):
    deadline = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < deadline
        time.sleep(0.05)


def links():
    return {link["ifname"] for link in json.loads(inside(CLIENT, "ip", "-j", "link"))}


def test_a_tunnel_shakes_hands_carries_packets_and_leaves_no_trace(client, server):
    before = kernel_routes()
    assert client.ask("tunnel_up", name="telvor", conf=server()) == {"code": 0}
    assert kernel_routes("default") == ["default dev telvor scope link ", f"default via {GATEWAY} dev lan0 "]
    assert kernel_routes(FAR) == [f"{FAR} via {GATEWAY} dev lan0 "]
    assert_server_answers_through_the_tunnel()
    shown = client.ask("wg", args=["show", "telvor", "latest-handshakes"])
    assert shown["exit_code"] == 0 and int(shown["stdout"].split("\t")[1]) > 0
    received, sent = client.ask("wg", args=["show", "telvor", "transfer"])["stdout"].split()[1:]
    assert int(received) > 0 and int(sent) > 0
    assert client.ask("tunnel_list")["tunnels"] == [
        {"name": "telvor", "addresses": ["10.8.0.2/32"], "dns": ["10.8.0.1", "1.1.1.1"],
         "allowed_ips": ["0.0.0.0/0"], "host_routes": [FAR], "running": True}]
    assert client.code("tunnel_down", name="telvor") == 0
    assert kernel_routes() == before and "telvor" not in links()
    assert client.ask("tunnel_list")["tunnels"] == []


def test_a_tunnel_for_one_net_leaves_the_default_route_alone(client, server):
    assert client.ask("tunnel_up", name="telvor", conf=server("10.8.0.0/24")) == {"code": 0}
    assert kernel_routes("default") == [f"default via {GATEWAY} dev lan0 "]
    assert kernel_routes(FAR) == []
    assert_server_answers_through_the_tunnel()
    client.ask("tunnel_down", name="telvor")


def test_a_host_route_that_was_there_before_stays(client, server):
    client.ask("route_create", **host_route(FAR))
    client.ask("tunnel_up", name="telvor", conf=server())
    client.ask("tunnel_down", name="telvor")
    assert kernel_routes(FAR) == [f"{FAR} via {GATEWAY} dev lan0 metric 5 "]
    client.ask("route_delete", **host_route(FAR))


def test_a_second_tunnel_of_the_same_name_is_refused(client, server):
    client.ask("tunnel_up", name="telvor", conf=server())
    assert client.code("tunnel_up", name="telvor", conf=server()) == 183
    assert client.code("tunnel_down", name="telvor") == 0
    assert client.code("tunnel_down", name="telvor") == 1168


def test_a_bad_configuration_brings_nothing_up(client, server):
    odd_section = server().replace("[Peer]", "[Pear]")
    for text in ("", "[Interface]\n", "PrivateKey = x\n", server(key="short"), odd_section):
        assert client.code("tunnel_check", conf=text) == 87
        assert client.code("tunnel_up", name="telvor", conf=text) == 87
    assert "telvor" not in links()
    unresolved = client.ask("tunnel_up", name="telvor", conf=server().replace(f"{FAR}:51820", "nowhere"))
    assert unresolved["code"] == 31 and "wg setconf" in unresolved["error"]
    assert "telvor" not in links()


def test_a_held_tunnel_goes_down_with_its_connection(client, server):
    holder = Client()
    assert holder.code("tunnel_up", name="telvor", conf=server(), hold=True) == 0
    holder.close()
    wait_for(lambda: "telvor" not in links())
    wait_for(lambda: client.ask("tunnel_list")["tunnels"] == [])


def test_wg_answers_for_a_missing_interface_as_the_program_does(client):
    shown = client.ask("wg", args=["show", "absent", "transfer"])
    assert (shown["code"], shown["exit_code"], shown["stdout"]) == (0, 1, "")
    assert shown["stderr"].startswith("Unable to access interface")


def test_tunnels_go_with_the_agent(agent, client, server):
    before = kernel_routes()
    client.ask("tunnel_up", name="telvor", conf=server())
    end_agent(agent)
    assert kernel_routes() == before and "telvor" not in links()


def test_a_killed_agent_takes_wireguard_go_with_it(agent, client, server):
    client.ask("tunnel_up", name="telvor", conf=server())
    agent.kill()
    agent.wait()
    wait_for(lambda: "telvor" not in links())
    subprocess.run(["ip", "-n", CLIENT, "route", "del", FAR], check=False, capture_output=True)


# Filtering engine


@pytest.fixture
def engine(client):
    assert client.code("engine_open") == 0
    return client


def named(name, **fields):
    return {"displayData": {"name": name}, **fields}


def a_filter(name, **fields):
    return named(name, providerKey=PROVIDER, subLayerKey=SUBLAYER, layerKey=LAYER_V4, action={"type": 0x1002},
                 weight={"type": "FWP_UINT64", "value": 0xF000000000000000}, **fields)


def add_provider_and_sublayer(engine):
    return [engine.code("provider_add", record=named("provider", providerKey=PROVIDER)),
            engine.code("sublayer_add", record=named("sublayer", subLayerKey=SUBLAYER, providerKey=PROVIDER,
                                                     weight=256))]


def names(client, kind="filters"):
    return [record["displayData"]["name"] for record in client.ask("snapshot")[kind]]


def walk(engine, kind, size=256):
    handle = engine.ask(f"{kind}_enum_create")["handle"]
    found = []
    while entries := engine.ask(f"{kind}_enum", handle=handle, count=size)["entries"]:
        found.append(entries)
    assert engine.code(f"{kind}_enum_destroy", handle=handle) == 0
    return found


def test_nothing_is_done_without_an_open_engine(client):
    assert client.code("filter_add", record={}) == 6
    assert client.code("transaction_begin") == 6
    assert client.code("engine_close") == 6


def test_objects_outlive_the_session_that_made_them(engine, client):
    assert add_provider_and_sublayer(engine) == [0, 0]
    assert add_provider_and_sublayer(engine) == [ALREADY_EXISTS, ALREADY_EXISTS]
    assert engine.code("engine_close") == 0
    assert names(client, "providers") == ["provider"]
    assert names(client, "sublayers") == ["sublayer"]
    assert client.ask("snapshot")["sessions"] == []


def test_every_member_of_a_filter_is_kept(engine):
    add_provider_and_sublayer(engine)
    condition = {"fieldKey": REMOTE_ADDRESS, "matchType": 0,
                 "conditionValue": {"type": "FWP_V4_ADDR_MASK",
                                    "value": {"addr": 0x0100007F, "mask": 0xFFFFFFFF}}}
    added = engine.ask("filter_add", record=a_filter("one", providerData="0102", rawContext=7,
                                                     filterCondition=[condition]))
    assert added["code"] == 0
    assert engine.ask("snapshot")["filters"] == [{
        "filterKey": added["key"], "displayData": {"name": "one", "description": None}, "flags": 0,
        "providerKey": PROVIDER, "providerData": "0102", "layerKey": LAYER_V4, "subLayerKey": SUBLAYER,
        "weight": {"type": "FWP_UINT64", "value": 0xF000000000000000}, "filterCondition": [condition],
        "action": {"type": 0x1002, "calloutKey": NO_KEY}, "rawContext": 7, "filterId": added["id"],
        "effectiveWeight": {"type": "FWP_UINT64", "value": 0xF000000000000000}}]


def test_a_member_that_the_structure_does_not_have_is_refused(engine):
    assert engine.code("provider_add", record=named("p", providerKey=PROVIDER, colour=1)) == 87


def test_a_condition_without_its_members_is_refused(engine):
    add_provider_and_sublayer(engine)
    half = [{"fieldKey": REMOTE_PORT}]
    assert engine.code("filter_add", record=a_filter("bad", filterCondition=half)) == 87


@pytest.mark.parametrize("change, code", [
    ({"providerKey": "11111111-1111-1111-1111-111111111111"}, 0x80320005),
    ({"subLayerKey": "11111111-1111-1111-1111-111111111111"}, 0x80320007),
    ({"layerKey": "11111111-1111-1111-1111-111111111111"}, 0x80320004),
    ({"displayData": {}}, 0x80320023),
    ({"action": {"type": 7}}, 0x80320024),
    ({"action": {"type": 0x5003, "calloutKey": "11111111-1111-1111-1111-111111111111"}}, 0x80320001),
    ({"weight": {"type": "FWP_UINT8", "value": 16}}, 0x80320025),
    ({"flags": 1}, 0x80320016),
    ({"filterCondition": [{"fieldKey": SUBLAYER, "matchType": 0,
                           "conditionValue": {"type": "FWP_UINT8", "value": 1}}]}, 0x80320002),
    ({"filterCondition": [{"fieldKey": REMOTE_PORT, "matchType": 0,
                           "conditionValue": {"type": "FWP_UINT8", "value": 53}}]}, 0x80320027),
])
def test_a_filter_that_the_platform_refuses_gets_the_platforms_code(engine, change, code):
    add_provider_and_sublayer(engine)
    assert engine.code("filter_add", record={**a_filter("bad"), **change}) == code
    assert names(engine) == []


def test_missing_objects_have_the_codes_of_their_kind(engine):
    key = "11111111-1111-1111-1111-111111111111"
    for kind, code in {"provider": 0x80320005, "sublayer": 0x80320007, "callout": 0x80320001,
                       "filter": 0x80320003}.items():
        assert engine.code(f"{kind}_delete", key=key) == code
    assert engine.code("filter_delete", id=12345) == 0x80320003


def test_what_is_still_referred_to_cannot_be_deleted(engine):
    add_provider_and_sublayer(engine)
    added = engine.ask("filter_add", record=a_filter("one"))
    assert engine.code("sublayer_delete", key=SUBLAYER) == IN_USE
    assert engine.code("provider_delete", key=PROVIDER) == IN_USE
    assert engine.code("filter_delete", id=added["id"]) == 0
    assert engine.code("provider_delete", key=PROVIDER) == IN_USE
    assert engine.code("sublayer_delete", key=SUBLAYER) == 0
    assert engine.code("provider_delete", key=PROVIDER) == 0


def test_an_aborted_transaction_leaves_everything_as_it_was(engine):
    add_provider_and_sublayer(engine)
    engine.ask("filter_add", record=a_filter("old"))
    assert engine.code("transaction_begin") == 0
    old, = walk(engine, "filter")[0]
    assert engine.code("filter_delete", key=old["filterKey"]) == 0
    assert engine.code("filter_add", record=a_filter("new")) == 0
    assert [entry["displayData"]["name"] for entry in walk(engine, "filter")[0]] == ["new"]
    assert names(engine) == ["old"]  # from outside the change is not there yet
    assert engine.code("transaction_abort") == 0
    assert names(engine) == ["old"]


def test_a_commit_brings_all_changes_at_once(engine):
    add_provider_and_sublayer(engine)
    engine.ask("transaction_begin")
    for name in ("a", "b", "c"):
        engine.ask("filter_add", record=a_filter(name))
    assert names(engine) == []
    assert engine.code("transaction_commit") == 0
    assert names(engine) == ["a", "b", "c"]


def test_a_failed_add_does_not_end_the_transaction(engine):
    add_provider_and_sublayer(engine)
    engine.ask("transaction_begin")
    assert engine.code("filter_add", record={**a_filter("bad"), "displayData": {}}) == 0x80320023
    assert engine.code("filter_add", record=a_filter("good")) == 0
    assert engine.code("transaction_commit") == 0
    assert names(engine) == ["good"]


def test_transactions_are_refused_out_of_order(engine):
    assert engine.code("transaction_commit") == NO_TXN
    assert engine.code("transaction_abort") == NO_TXN
    assert engine.code("transaction_begin", flags=4) == 0x8032001E
    assert engine.code("transaction_begin") == 0
    assert engine.code("transaction_begin") == TXN_IN_PROGRESS
    assert engine.code("transaction_commit") == 0


def test_a_read_only_transaction_takes_no_change(engine):
    assert engine.code("transaction_begin", flags=1) == 0
    assert engine.code("provider_add", record=named("p", providerKey=PROVIDER)) == 0x80320011
    assert engine.code("transaction_commit") == 0


def test_a_second_transaction_waits_for_the_first(engine):
    other = Client()
    other.ask("engine_open")
    engine.ask("transaction_begin")
    engine.ask("provider_add", record=named("p", providerKey=PROVIDER))
    other.send("transaction_begin")
    other.socket.settimeout(0.3)
    with pytest.raises(TimeoutError):
        other.socket.recv(1, socket.MSG_PEEK)
    engine.ask("transaction_commit")
    other.socket.settimeout(10)
    assert other.receive()["code"] == 0
    assert len(walk(other, "provider")[0]) == 1
    other.close()


def test_waiting_for_a_transaction_ends_at_the_sessions_own_limit(engine):
    other = Client()
    other.ask("engine_open", session={"txnWaitTimeoutInMSec": 100})
    engine.ask("transaction_begin")
    assert other.code("transaction_begin") == 0x80320012
    assert other.code("provider_add", record=named("p", providerKey=PROVIDER)) == 0x80320012
    other.close()


def test_a_broken_connection_aborts_its_transaction(client):
    dying = Client()
    dying.ask("engine_open")
    add_provider_and_sublayer(dying)
    dying.ask("transaction_begin")
    dying.ask("filter_add", record=a_filter("lost"))
    dying.close()
    assert client.code("engine_open") == 0
    assert client.code("transaction_begin") == 0  # the turn is free again
    assert names(client) == []
    assert names(client, "sublayers") == ["sublayer"]


def test_closing_the_engine_aborts_its_transaction(engine):
    engine.ask("transaction_begin")
    engine.ask("provider_add", record=named("p", providerKey=PROVIDER))
    assert engine.code("engine_close") == 0
    assert names(engine, "providers") == []


def test_a_dynamic_session_takes_its_objects_with_it(client):
    dynamic = Client()
    dynamic.ask("engine_open", session={"flags": 1})
    assert add_provider_and_sublayer(dynamic) == [0, 0]
    assert dynamic.code("filter_add", record=a_filter("gone")) == 0
    assert names(client) == ["gone"]
    client.ask("engine_open")
    assert client.code("filter_add", record=a_filter("static")) == 0x80320016
    assert client.code("provider_delete", key=PROVIDER) == 0x8032000C
    dynamic.close()
    wait_for(lambda: client.ask("snapshot")["sessions"][1:] == [])
    assert names(client) == [] and names(client, "providers") == []


def test_an_enumeration_walks_in_batches_what_was_there_at_its_start(engine):
    add_provider_and_sublayer(engine)
    for number in range(5):
        engine.ask("filter_add", record=a_filter(str(number)))
    handle = engine.ask("filter_enum_create")["handle"]
    first = engine.ask("filter_enum", handle=handle, count=2)["entries"]
    for entry in first:
        assert engine.code("filter_delete", key=entry["filterKey"]) == 0
    rest = [engine.ask("filter_enum", handle=handle, count=2)["entries"] for _ in range(3)]
    assert [[entry["displayData"]["name"] for entry in batch] for batch in [first, *rest]] == [
        ["0", "1"], ["2", "3"], ["4"], []]
    assert engine.code("filter_enum_destroy", handle=handle) == 0
    assert engine.code("filter_enum", handle=handle, count=2) == 0x8032001D


def test_a_callout_in_use_stays_and_a_free_one_goes(engine):
    add_provider_and_sublayer(engine)
    callout = engine.ask("callout_add", record=named("c", providerKey=PROVIDER, applicableLayer=LAYER_V4))
    assert callout["code"] == 0 and callout["id"] > 0
    using = {**a_filter("f"), "action": {"type": 0x5003, "calloutKey": callout["key"]}}
    added = engine.ask("filter_add", record=using)
    assert engine.code("callout_delete", key=callout["key"]) == IN_USE
    engine.ask("filter_delete", key=added["key"])
    assert engine.code("callout_delete", id=callout["id"]) == 0
    assert walk(engine, "callout") == []


def test_open_sessions_are_listed(engine):
    engine.ask("transaction_begin")
    session, = engine.ask("snapshot")["sessions"]
    assert session["transaction"] is True and session["flags"] == 0


def test_all_sessions_can_be_ended_from_outside(client):
    """Their transactions are aborted, and the next one begins at once."""
    left = Client()
    left.ask("engine_open")
    left.ask("transaction_begin")
    assert client.code("engine_end_all") == 0
    wait_for(lambda: client.ask("snapshot")["sessions"] == [])
    client.ask("engine_open")
    assert client.code("transaction_begin") == 0
