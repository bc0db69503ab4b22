"""What an account has paid for and how much of it is used up, and the checkouts by which it pays."""

import calendar
import datetime
import secrets

from lab.control_plane import store

STATUSES = ("none", "active", "past_due", "canceled")
# Who is canceled has still paid up to the end of the period.
PAID_STATUSES = ("active", "canceled")
PROVIDERS = ("stripe",)
PLANS = {"basic_monthly": "Basic, 5 EUR a month"}
BYTES_LIMIT = 100 * 10**9


def open_subscription(db, account_id):
    db.execute("INSERT INTO subscriptions (account_id, status, bytes_used, bytes_limit)"
               " VALUES (?, 'none', 0, ?)", (account_id, BYTES_LIMIT))


def subscription(db, account_id):
    return db.execute("SELECT * FROM subscriptions WHERE account_id = ?", (account_id,)).fetchone()


def change(db, account_id, status=None, period_end=None, bytes_used=None, bytes_limit=None):
    """Sets what is given."""
    if status not in (None, *STATUSES):
        raise store.Refused(400, "unknown_status")
    db.execute("UPDATE subscriptions SET status = coalesce(?, status), period_end = coalesce(?, period_end),"
               " bytes_used = coalesce(?, bytes_used), bytes_limit = coalesce(?, bytes_limit)"
               " WHERE account_id = ?", (status, period_end, bytes_used, bytes_limit, account_id))


def is_quota_current(row):
    return row["bytes_used"] < row["bytes_limit"]


def is_payment_current(row):
    return row["status"] in PAID_STATUSES and (row["period_end"] or 0) > store.now()


def open_checkout(db, account_id, provider, plan_id):
    """The number of a checkout that waits for its payment."""
    if provider not in PROVIDERS:
        raise store.Refused(400, "unknown_provider")
    if plan_id not in PLANS:
        raise store.Refused(400, "unknown_plan")
    checkout_id = secrets.token_urlsafe(12)
    db.execute("INSERT INTO checkouts (id, account_id, provider, plan_id) VALUES (?, ?, ?, ?)",
               (checkout_id, account_id, provider, plan_id))
    return checkout_id


def checkout(db, checkout_id):
    row = db.execute("SELECT * FROM checkouts WHERE id = ?", (checkout_id,)).fetchone()
    if row is None:
        raise store.Refused(404, "unknown_checkout")
    return row


def pay(db, checkout_id):
    """Makes the plan active for a month, on top of what is paid for; a checkout is paid once."""
    row = checkout(db, checkout_id)
    if row["paid_at"] is not None:
        return
    current = subscription(db, row["account_id"])
    begin = max(store.now(), current["period_end"] or 0) if is_payment_current(current) else store.now()
    db.execute("UPDATE checkouts SET paid_at = ? WHERE id = ?", (store.now(), checkout_id))
    db.execute("UPDATE subscriptions SET plan_id = ?, status = 'active', period_end = ? WHERE account_id = ?",
               (row["plan_id"], month_after(begin), row["account_id"]))


def month_after(seconds):
    """The same time of the same day of the next month, or of that month's last day."""
    begin = datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc)
    year, month = begin.year + begin.month // 12, begin.month % 12 + 1
    day = min(begin.day, calendar.monthrange(year, month)[1])
    return int(begin.replace(year=year, month=month, day=day).timestamp())
