"""What a person opens in a browser: the checkout of a payment provider, and the account page."""

import html

from aiohttp import web

from lab.control_plane import accounts, billing, devices, store, wire

PAGE = """<!DOCTYPE html>
<html lang="en">
<head><meta charset="utf-8"><title>{title}</title></head>
<body>
<h1>{title}</h1>
{body}
</body>
</html>
"""
# The account page's address holds a live credential: it must stay in no cache and go out with no link.
HEADERS = {"Cache-Control": "no-store", "Referrer-Policy": "no-referrer"}


def page(title, lines, status=200):
    """The lines are HTML as they stand: what came from outside them is escaped by whoever made them."""
    return web.Response(text=PAGE.format(title=html.escape(title), body="\n".join(lines)), status=status,
                        content_type="text/html", charset="utf-8", headers=HEADERS)


def paragraph(text):
    return f"<p>{html.escape(text)}</p>"


def _checkout_page(db, checkout_id):
    try:
        row = billing.checkout(db, checkout_id)
    except store.Refused:
        return page("No such checkout", [paragraph("This link is wrong.")], 404)
    plan = paragraph(billing.PLANS[row["plan_id"]])
    if row["paid_at"] is not None:
        end = wire.iso(billing.subscription(db, row["account_id"])["period_end"])
        return page("Thank you", [plan, paragraph(f"Paid until {end}.")])
    return page("Checkout", [plan, '<form method="post"><button>Pay</button></form>'])


async def show_checkout(request):
    return _checkout_page(request.app["db"], request.match_info["checkout_id"])


async def pay(request):
    """As the payment provider's return would."""
    db, checkout_id = request.app["db"], request.match_info["checkout_id"]
    try:
        billing.pay(db, checkout_id)
    except store.Refused:
        pass  # the page says what is wrong
    return _checkout_page(db, checkout_id)


async def show_account(request):
    db = request.app["db"]
    try:
        account_id = accounts.of_token(db, request.query.get("access_token", ""))
    except store.Refused:
        return page("Please log in", [paragraph("This link is not valid any more.")], 401)
    row = billing.subscription(db, account_id)
    lines = [paragraph(f"Account: {accounts.get(db, account_id)['email']}"),
             paragraph(f"Plan: {billing.PLANS.get(row['plan_id'], 'none')} ({row['status']})"),
             paragraph(f"Paid until: {wire.iso(row['period_end']) or 'nothing paid yet'}"),
             paragraph(f"Used: {row['bytes_used']} of {row['bytes_limit']} bytes"),
             "<ul>", *_device_items(devices.of_account(db, account_id)), "</ul>"]
    return page("Your account", lines)


def _device_items(rows):
    return [f"<li>{html.escape(row['device_id'])}: {html.escape(row['name'])},"
            f" {html.escape(row['platform'])}, server {html.escape(row['server_name'] or 'none')}</li>"
            for row in rows]


ROUTES = [
    web.get("/checkout/{checkout_id}", show_checkout),
    web.post("/checkout/{checkout_id}", pay),
    web.get("/account", show_account),
]
