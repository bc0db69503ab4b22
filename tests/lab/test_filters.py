"""The rule set in the filtering engine: every object with every field, in the order added."""

import socket
import struct

import conftest
import pytest
from lab import network

PROVIDER = "b8d16c9b-7d78-4a2c-9a8b-01f4b1f1b0a1"
SUBLAYER = "d5c4f4a2-0c9b-4f6b-a9ce-2e1b2d89e0b2"
V4 = "c38d57d1-05a7-4c33-904f-7fbceee60e82"
V6 = "4a72393b-319f-44bc-84c3-ba54dcb3b6b4"
REMOTE_ADDRESS = "b235ae9a-1d64-49b8-a44c-5ff3d9095045"
PROTOCOL = "3971ef2b-623e-4f9a-8cb1-6e79b806b9a7"
REMOTE_PORT = "c35a604d-d22b-4e1a-91b4-68f674ee674b"
APP_ID = "d78e1e87-8644-4ea5-9437-d809ecefc971"
INTERFACE_INDEX = "667fd755-d695-434a-8af5-d3835a1259bc"
NO_KEY = "00000000-0000-0000-0000-000000000000"
MATCH_EQUAL = 0
PERMIT = 0x1002
TCP, UDP = 6, 17
WIREGUARD = "\\device\\harddiskvolume1\\program files\\wireguard\\wireguard.exe\0"
OWN_FIELDS = ("filterKey", "filterId", "effectiveWeight")


def condition(field, kind, value):
    return {"fieldKey": field, "matchType": MATCH_EQUAL, "conditionValue": {"type": kind, "value": value}}


def address(text):
    """The address as inet_pton lays it in memory, read as a number of this machine: unswapped, as wanted."""
    number = struct.unpack("<I", socket.inet_aton(text))[0]
    return condition(REMOTE_ADDRESS, "FWP_V4_ADDR_MASK", {"addr": number, "mask": 0xFFFFFFFF})


LOOPBACK_V6 = condition(REMOTE_ADDRESS, "FWP_V6_ADDR_MASK", {"addr": "0" * 31 + "1", "prefixLength": 128})
PROGRAM = condition(APP_ID, "FWP_BYTE_BLOB_TYPE", WIREGUARD.encode("utf-16-le").hex())


def protocol(number):
    return condition(PROTOCOL, "FWP_UINT8", number)


def port(number):
    return condition(REMOTE_PORT, "FWP_UINT16", number)


def interface(index):
    return condition(INTERFACE_INDEX, "FWP_UINT32", index)


def permit(name, layer, *conditions):
    """A filter of this system: everything but its own name, layer and conditions is common to all."""
    return {
        "displayData": {"name": name, "description": None},
        "flags": 0,
        "providerKey": PROVIDER,
        "providerData": None,
        "layerKey": layer,
        "subLayerKey": SUBLAYER,
        "weight": {"type": "FWP_UINT64", "value": 0xF000000000000000},
        "filterCondition": list(conditions),
        "action": {"type": PERMIT, "calloutKey": NO_KEY},
        "rawContext": 0,
    }


def pair(family, text):
    return [permit(f"TELVOR:ALLOW {family} v4:{text}", V4, address(text), protocol(number))
            for number in (TCP, UDP)]


def baseline(index):
    program_v4 = permit("ALLOW wireguard.exe UDP (v4)", V4, PROGRAM, protocol(UDP))
    program_v6 = permit("ALLOW wireguard.exe UDP (v6)", V6, PROGRAM, protocol(UDP))
    tunnel_v4 = permit("ALLOW ALL outbound connect via WG interface (v4)", V4, interface(index))
    tunnel_v6 = permit("ALLOW ALL outbound connect via WG interface (v6)", V6, interface(index))
    return [
        permit("ALLOW loopback v4", V4, address("127.0.0.1")),
        permit("ALLOW loopback v6", V6, LOOPBACK_V6),
        program_v4, program_v6,
        permit("ALLOW DNS UDP/53 (v4)", V4, protocol(UDP), port(53)),
        permit("ALLOW DNS TCP/53 (v4)", V4, protocol(TCP), port(53)),
        program_v4, program_v6,
        permit("ALLOW WireGuard UDP dst-port (v4)", V4, protocol(UDP), port(51820)),
        tunnel_v4, tunnel_v6, tunnel_v4, tunnel_v6,
    ]


def without_own_fields(record):
    return {name: value for name, value in record.items() if name not in OWN_FIELDS}


@pytest.fixture(scope="module")
def snapshot(whole_laboratory):
    """The filtering engine while the service is connected, with the index that the tunnel has."""
    conftest.make_idle(whole_laboratory)
    whole_laboratory.log_in()
    conftest.connect(whole_laboratory)
    found = whole_laboratory.agent.snapshot()
    found["index"] = int(whole_laboratory.run("client", ["cat", "/sys/class/net/telvor/ifindex"]).stdout)
    return found


def test_the_rule_set_holds_exactly_these_filters_with_every_field(snapshot):
    pins = pair("cp-pinned", network.CONTROL_PLANE.address)
    wanted = baseline(snapshot["index"]) + pins
    for text in network.BYPASSED:
        wanted += pair("split-bypass", text)
    wanted += pins
    assert [without_own_fields(record) for record in snapshot["filters"]] == wanted


def test_every_filter_has_a_key_and_an_id_of_the_platforms_making(snapshot):
    filters = snapshot["filters"]
    assert len({record["filterKey"] for record in filters} - {NO_KEY}) == len(filters)
    assert len({record["filterId"] for record in filters} - {0}) == len(filters)
    assert all(record["effectiveWeight"] == record["weight"] for record in filters)


def test_provider_and_sublayer_stand_with_every_field(snapshot):
    assert snapshot["providers"] == [{
        "providerKey": PROVIDER,
        "displayData": {"name": "sorvanik VPN Provider", "description": "WFP provider for TLV VPN Phase1"},
        "flags": 0, "providerData": None, "serviceName": None,
    }]
    assert snapshot["sublayers"] == [{
        "subLayerKey": SUBLAYER,
        "displayData": {"name": "sorvanik VPN Fail-Closed Sublayer",
                        "description": "Fail-closed baseline rules"},
        "flags": 0, "providerKey": PROVIDER, "providerData": None, "weight": 256,
    }]
    assert snapshot["callouts"] == []


def test_no_engine_session_is_open_between_operations(snapshot):
    assert snapshot["sessions"] == []


def test_filters_of_others_stay_when_the_rule_set_goes(connected):
    """A filter in the system's sublayer that carries another provider's key is not the system's to remove."""
    theirs = "11111111-2222-3333-4444-555555555555"
    with connected.agent.session() as session:
        session.call("provider_add", record={"providerKey": theirs, "displayData": {"name": "theirs"}})
        session.call("sublayer_add", record={"subLayerKey": theirs, "displayData": {"name": "theirs"},
                                             "providerKey": theirs})
        session.call("filter_add", record={**permit("theirs", V4, port(80)), "providerKey": theirs,
                                           "subLayerKey": theirs})
    connected.pipe.call("Disconnect")
    left = connected.agent.snapshot()
    try:
        assert [record["displayData"]["name"] for record in left["filters"]] == ["theirs"]
        assert [record["providerKey"] for record in left["providers"]] == [theirs]
        assert [record["subLayerKey"] for record in left["sublayers"]] == [theirs]
    finally:
        with connected.agent.session() as session:
            session.call("filter_delete", id=left["filters"][0]["filterId"])
            session.call("sublayer_delete", key=theirs)
            session.call("provider_delete", key=theirs)
