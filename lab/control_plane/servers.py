"""The VPN servers, and the places that devices have on them: a key and a tunnel address each."""

import ipaddress

from lab.control_plane import store


def add(db, server):
    db.execute("INSERT INTO servers (server_id, name, country, city, latitude, longitude, public_egress_ip,"
               " endpoint, public_key, network, last_seen_at) VALUES (:server_id, :name, :country, :city,"
               " :latitude, :longitude, :public_egress_ip, :endpoint, :public_key, :network, :last_seen_at)",
               server)


def every(db):
    return db.execute("SELECT * FROM servers ORDER BY position").fetchall()


def find(db, server_id):
    row = db.execute("SELECT * FROM servers WHERE server_id = ?", (server_id,)).fetchone()
    if row is None:
        raise store.Refused(404, "unknown_server")
    return row


def heartbeat(db, server_id):
    db.execute("UPDATE servers SET last_seen_at = ? WHERE server_id = ?", (store.now(), server_id))


def peer(db, server_id, public_key):
    return db.execute("SELECT * FROM peers WHERE server_id = ? AND public_key = ?",
                      (server_id, public_key)).fetchone()


def lease_peer(db, device_row):
    """The device's place on its server, with a tunnel address of its own; its other places are retired."""
    server_id, key = device_row["server_id"], device_row["public_key"]
    db.execute("UPDATE peers SET retired_at = ? WHERE account_id = ? AND device_id = ? AND retired_at IS NULL"
               " AND NOT (server_id = ? AND public_key = ?)",
               (store.now(), device_row["account_id"], device_row["device_id"], server_id, key))
    db.execute("INSERT INTO peers (server_id, public_key, address, account_id, device_id)"
               " VALUES (?, ?, ?, ?, ?) ON CONFLICT (server_id, public_key) DO UPDATE SET retired_at = NULL",
               (server_id, key, _free_address(db, server_id), device_row["account_id"],
                device_row["device_id"]))
    return peer(db, server_id, key)


def _free_address(db, server_id):
    taken = {row["address"] for row in
             db.execute("SELECT address FROM peers WHERE server_id = ?", (server_id,))}
    hosts = ipaddress.ip_network(find(db, server_id)["network"]).hosts()
    next(hosts)  # the server's own
    for address in hosts:
        if str(address) not in taken:
            return str(address)
    raise store.Refused(503, "no_free_address")


def drop_retired(db, older_than):
    """Forgets the peers that were retired so many seconds ago, and gives them."""
    rows = db.execute("SELECT * FROM peers WHERE retired_at <= ?", (store.now() - older_than,)).fetchall()
    db.execute("DELETE FROM peers WHERE retired_at <= ?", (store.now() - older_than,))
    return rows
