"""The records of the filtering engine: their members, what they refer to, what the platform demands of them.

Records travel as JSON objects whose keys are the members of the FWPM structures. GUIDs are lower-case texts
without braces, data blobs are hexadecimal texts or null, and a value is {"type": "FWP_UINT16", "value": 53}.
"""

import uuid

import codes

NO_KEY = "00000000-0000-0000-0000-000000000000"
KINDS = ("provider", "sublayer", "callout", "filter")

_DISPLAY_DATA = {"name": None, "description": None}
_EMPTY = {"type": "FWP_EMPTY", "value": None}
_NO_ACTION = {"type": 0, "calloutKey": NO_KEY}

# Every member with the value that a zeroed structure has.
FIELDS = {
    "session": {"sessionKey": NO_KEY, "displayData": _DISPLAY_DATA, "flags": 0, "txnWaitTimeoutInMSec": 0,
                "processId": 0, "sid": None, "username": None, "kernelMode": 0},
    "provider": {"providerKey": NO_KEY, "displayData": _DISPLAY_DATA, "flags": 0, "providerData": None,
                 "serviceName": None},
    "sublayer": {"subLayerKey": NO_KEY, "displayData": _DISPLAY_DATA, "flags": 0, "providerKey": None,
                 "providerData": None, "weight": 0},
    "callout": {"calloutKey": NO_KEY, "displayData": _DISPLAY_DATA, "flags": 0, "providerKey": None,
                "providerData": None, "applicableLayer": NO_KEY, "calloutId": 0},
    "filter": {"filterKey": NO_KEY, "displayData": _DISPLAY_DATA, "flags": 0, "providerKey": None,
               "providerData": None, "layerKey": NO_KEY, "subLayerKey": NO_KEY, "weight": _EMPTY,
               "filterCondition": [], "action": _NO_ACTION, "rawContext": 0,
               "filterId": 0, "effectiveWeight": _EMPTY},
}
KEY_FIELD = {"provider": "providerKey", "sublayer": "subLayerKey", "callout": "calloutKey",
             "filter": "filterKey"}
NOT_FOUND = {"provider": codes.FWP_E_PROVIDER_NOT_FOUND, "sublayer": codes.FWP_E_SUBLAYER_NOT_FOUND,
             "callout": codes.FWP_E_CALLOUT_NOT_FOUND, "filter": codes.FWP_E_FILTER_NOT_FOUND}
PERSISTENT = {"provider": 0x1, "sublayer": 0x1, "callout": 0x10000, "filter": 0x1}
FILTER_FLAG_BOOTTIME = 0x2

LAYER_V4 = "c38d57d1-05a7-4c33-904f-7fbceee60e82"  # FWPM_LAYER_ALE_AUTH_CONNECT_V4
LAYER_V6 = "4a72393b-319f-44bc-84c3-ba54dcb3b6b4"  # FWPM_LAYER_ALE_AUTH_CONNECT_V6

_REMOTE_ADDRESS = "b235ae9a-1d64-49b8-a44c-5ff3d9095045"
_PROTOCOL = "3971ef2b-623e-4f9a-8cb1-6e79b806b9a7"
_REMOTE_PORT = "c35a604d-d22b-4e1a-91b4-68f674ee674b"
_APP_ID = "d78e1e87-8644-4ea5-9437-d809ecefc971"
_INTERFACE_INDEX = "667fd755-d695-434a-8af5-d3835a1259bc"

_ANY_FAMILY = {_PROTOCOL: {"FWP_UINT8"}, _REMOTE_PORT: {"FWP_UINT16"}, _APP_ID: {"FWP_BYTE_BLOB_TYPE"},
               _INTERFACE_INDEX: {"FWP_UINT32"}}

# The layers that the laboratory has, with the conditions of each and the types that these take.
LAYERS = {
    LAYER_V4: {**_ANY_FAMILY, _REMOTE_ADDRESS: {"FWP_UINT32", "FWP_V4_ADDR_MASK"}},
    LAYER_V6: {**_ANY_FAMILY, _REMOTE_ADDRESS: {"FWP_BYTE_ARRAY16_TYPE", "FWP_V6_ADDR_MASK"}},
}

ACTION_NEEDS_CALLOUT = {0x1001: False, 0x1002: False, 0x2006: False, 0x5003: True, 0x6004: True, 0x4005: True}


def complete(kind, sent):
    """The record with every member. Raises ValueError for a member that the structure does not have."""
    unknown = sent.keys() - FIELDS[kind].keys()
    if unknown:
        raise ValueError(f"{kind} has no {', '.join(sorted(unknown))}")
    record = {**FIELDS[kind], **sent}
    record["displayData"] = {**_DISPLAY_DATA, **record["displayData"]}
    if kind == "filter":
        record["action"] = {**_NO_ACTION, **record["action"]}
        record["filterCondition"] = [_complete_condition(one) for one in record["filterCondition"]]
    for name, value in record.items():
        if name.endswith(("Key", "applicableLayer")) and value is not None:
            record[name] = str(uuid.UUID(value))
    return record


def _complete_condition(sent):
    value = sent["conditionValue"]
    return {"fieldKey": str(uuid.UUID(sent["fieldKey"])), "matchType": int(sent["matchType"]),
            "conditionValue": {"type": value["type"], "value": value["value"]}}


def references(kind, record):
    """The objects that must exist for this one to be added, as (kind, key)."""
    found = []
    if kind != "provider" and record["providerKey"] is not None:
        found.append(("provider", record["providerKey"]))
    if kind == "filter":
        found.append(("sublayer", record["subLayerKey"]))
        if ACTION_NEEDS_CALLOUT.get(record["action"]["type"], False):
            found.append(("callout", record["action"]["calloutKey"]))
    return found


def objection(kind, record):
    """The code with which the platform refuses a record that is wrong in itself, or 0."""
    if not record["displayData"]["name"]:
        return codes.FWP_E_NULL_DISPLAY_NAME
    if kind == "callout":
        return codes.SUCCESS if record["applicableLayer"] in LAYERS else codes.FWP_E_LAYER_NOT_FOUND
    return _filter_objection(record) if kind == "filter" else codes.SUCCESS


def _filter_objection(record):
    if record["layerKey"] not in LAYERS:
        return codes.FWP_E_LAYER_NOT_FOUND
    if record["action"]["type"] not in ACTION_NEEDS_CALLOUT:
        return codes.FWP_E_INVALID_ACTION_TYPE
    if effective_weight(record["weight"]) is None:
        return codes.FWP_E_INVALID_WEIGHT
    conditions = LAYERS[record["layerKey"]]
    for condition in record["filterCondition"]:
        if condition["fieldKey"] not in conditions:
            return codes.FWP_E_CONDITION_NOT_FOUND
        if condition["conditionValue"]["type"] not in conditions[condition["fieldKey"]]:
            return codes.FWP_E_TYPE_MISMATCH
    return codes.SUCCESS


def effective_weight(weight):
    """The 64-bit weight that the engine sorts by, or None for a weight that it does not take."""
    kind, value = weight["type"], weight["value"]
    if kind == "FWP_EMPTY":
        return {"type": "FWP_UINT64", "value": 0}
    if kind == "FWP_UINT64":
        return {"type": "FWP_UINT64", "value": value}
    if kind == "FWP_UINT8" and value <= 15:
        return {"type": "FWP_UINT64", "value": value << 60}
    return None


def lifetime(kind, record, dynamic):
    """How long an object lives: 0 as long as its session, 1 as long as the engine, 2 for ever."""
    for_ever = PERSISTENT[kind] | (FILTER_FLAG_BOOTTIME if kind == "filter" else 0)
    return 0 if dynamic else 2 if record["flags"] & for_ever else 1
