"""The filters in force and the routes, as tables for people."""

import ipaddress
import struct

LAYERS = {
    "c38d57d1-05a7-4c33-904f-7fbceee60e82": "connect v4",
    "4a72393b-319f-44bc-84c3-ba54dcb3b6b4": "connect v6",
}
ADDRESS, PROTOCOL, PORT = "remote address", "protocol", "remote port"
PROGRAM, INTERFACE = "program", "interface"
CONDITIONS = {
    "b235ae9a-1d64-49b8-a44c-5ff3d9095045": ADDRESS,
    "3971ef2b-623e-4f9a-8cb1-6e79b806b9a7": PROTOCOL,
    "c35a604d-d22b-4e1a-91b4-68f674ee674b": PORT,
    "d78e1e87-8644-4ea5-9437-d809ecefc971": PROGRAM,
    "667fd755-d695-434a-8af5-d3835a1259bc": INTERFACE,
}
ACTIONS = {0x1001: "block", 0x1002: "permit"}
PROTOCOLS = {6: "TCP", 17: "UDP"}


def filters(snapshot):
    lines = [f"provider {record['providerKey']}  {record['displayData']['name']}"
             for record in snapshot["providers"]]
    lines += [f"sublayer {record['subLayerKey']}  {record['displayData']['name']}  weight {record['weight']}"
              for record in snapshot["sublayers"]]
    lines += [f"callout  {record['calloutKey']}  {record['displayData']['name']}"
              for record in snapshot["callouts"]]
    for number, record in enumerate(snapshot["filters"], 1):
        action = ACTIONS.get(record["action"]["type"], hex(record["action"]["type"]))
        layer = LAYERS.get(record["layerKey"], record["layerKey"])
        lines.append(f"{number:3}. {action} {layer:10}  {record['displayData']['name']}")
        lines += [f"     {_condition(condition)}" for condition in record["filterCondition"]]
    return lines or ["no provider, no sublayer, no filter, no callout"]


def _condition(condition):
    what = CONDITIONS.get(condition["fieldKey"], condition["fieldKey"])
    return f"{what} = {_value(what, condition['conditionValue'])}"


def _value(what, value):
    kind, value = value["type"], value["value"]
    if kind == "FWP_V4_ADDR_MASK":
        # The product hands the address over in network byte order; read so, it is the one that was meant.
        return str(ipaddress.ip_address(struct.pack("<I", value["addr"])))
    if kind == "FWP_V6_ADDR_MASK":
        return f"{ipaddress.ip_address(bytes.fromhex(value['addr']))}/{value['prefixLength']}"
    if kind == "FWP_BYTE_BLOB_TYPE":
        return bytes.fromhex(value).decode("utf-16-le").rstrip("\0")
    if what == PROTOCOL:
        return PROTOCOLS.get(value, str(value))
    return str(value)


def routes(rows):
    lines = [f"{'destination':20} {'next hop':16} {'interface':10} metric"]
    for row in rows:
        destination = f"{row['destination']}/{row['prefix_length']}"
        next_hop = "on-link" if row["next_hop"] == "0.0.0.0" else row["next_hop"]
        lines.append(f"{destination:20} {next_hop:16} {row['interface']:10} {row['metric']}")
    return lines
