"""The JSON of the control plane's answers, without blanks, as clients that search it as flat text need it."""

import base64
import binascii
import datetime
import json

from lab.control_plane import billing, store

ALLOWED_IPS = ["0.0.0.0/0"]
KEEPALIVE_SECONDS = 25
ONLINE_SECONDS = 25


def text(value):
    return json.dumps(value, separators=(",", ":"), ensure_ascii=False)


def session(access, refresh, expires_at):
    return {"access_token": access, "refresh_token": refresh, "expires_at": expires_at}


def catalogue(servers):
    return {"servers": [{**_place(row), "online": store.now() - row["last_seen_at"] <= ONLINE_SECONDS,
                         "last_seen_at": iso(row["last_seen_at"])} for row in servers]}


def entitlement(row):
    """The period's end stands last: a flat reader that meets a null takes the next text that follows."""
    return {"payment_current": billing.is_payment_current(row), "status": row["status"],
            "period_end": iso(row["period_end"])}


def profile(servers, assigned, address):
    """The assigned server's description stands last: its server_id must not be the first one in the text,
    since a flat reader takes the endpoint that follows the first match."""
    return {
        "client_address": f"{address}/32",
        "assigned_server_id": assigned["server_id"],
        "allowed_ips": ALLOWED_IPS,
        "dns": [_first_host(assigned["network"])],
        "persistent_keepalive": KEEPALIVE_SECONDS,
        "servers": [{"server_id": row["server_id"], "endpoint": row["endpoint"],
                     "server_public_key": row["public_key"]} for row in servers],
        "assigned_server": _place(assigned),
    }


def read_object(body):
    """A request's JSON object, or a refusal."""
    try:
        value = json.loads(body)
    except ValueError:
        raise store.Refused(400, "invalid_json") from None
    if not isinstance(value, dict):
        raise store.Refused(400, "invalid_json")
    return value


def read_text(value, key):
    found = value.get(key)
    if not isinstance(found, str) or not found:
        raise store.Refused(400, f"missing_{key}")
    return found


def read_email(value):
    """An address, without the blanks that people type around it."""
    email = read_text(value, "email").strip()
    if not email:
        raise store.Refused(400, "missing_email")
    return email


def read_public_key(value):
    """A WireGuard public key: the Base64 text of 32 bytes."""
    key = read_text(value, "wg_public_key")
    try:
        good = len(key) == 44 and len(base64.b64decode(key, validate=True)) == 32
    except (binascii.Error, ValueError):
        good = False
    if not good:
        raise store.Refused(400, "invalid_wg_public_key")
    return key


def _place(row):
    return {key: row[key] for key in
            ("server_id", "name", "country", "city", "latitude", "longitude", "public_egress_ip")}


def _first_host(network):
    return network.split("/")[0].rpartition(".")[0] + ".1"


def iso(seconds):
    """None stays None."""
    if seconds is None:
        return None
    return datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")
