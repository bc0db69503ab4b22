"""The devices of the accounts: what they are called, their keys, the servers they chose."""

from lab.control_plane import store


def register(db, account_id, device_id, name, platform):
    """True if the device is new, false if it was registered before."""
    known = db.execute("SELECT 1 FROM devices WHERE account_id = ? AND device_id = ?",
                       (account_id, device_id)).fetchone()
    db.execute("INSERT INTO devices (account_id, device_id, name, platform) VALUES (?, ?, ?, ?)"
               " ON CONFLICT DO UPDATE SET name = excluded.name, platform = excluded.platform",
               (account_id, device_id, name, platform))
    return known is None


def find(db, account_id, device_id):
    row = db.execute("SELECT * FROM devices WHERE account_id = ? AND device_id = ?",
                     (account_id, device_id)).fetchone()
    if row is None:
        raise store.Refused(404, "unknown_device")
    return row


def set_key(db, account_id, device_id, public_key):
    db.execute("UPDATE devices SET public_key = ? WHERE account_id = ? AND device_id = ?",
               (public_key, account_id, device_id))


def assign(db, account_id, device_id, server_id):
    db.execute("UPDATE devices SET server_id = ? WHERE account_id = ? AND device_id = ?",
               (server_id, account_id, device_id))


def of_account(db, account_id):
    """An account's devices with the servers they chose, the oldest first."""
    return db.execute("SELECT devices.*, servers.name AS server_name FROM devices"
                      " LEFT JOIN servers USING (server_id) WHERE account_id = ? ORDER BY devices.rowid",
                      (account_id,)).fetchall()
