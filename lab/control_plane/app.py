"""The laboratory's control plane: the REST interface over TLS, and beside it a local socket for its keeper.

    python3 -m lab.control_plane.app <config.json>

The configuration names the port, the URL that browsers know, the certificate, the database, the keeper's
socket, the accounts and the servers; each reachable server comes with the words that start a command on it.
"""

import asyncio
import json
import pathlib
import ssl
import sys

from aiohttp import web

from lab.control_plane import (account_api, accounts, answers, keeper_api, misbehaviour, pages, peers, resets,
                               servers, store, tunnel_api)

HEARTBEAT_SECONDS = 5


def public_app(config):
    app = web.Application(middlewares=[answers.close_behind, misbehaviour.middleware, answers.refusals])
    app["misbehaviour"] = misbehaviour.Misbehaviour()
    app["settings"] = {"access_lifetime": accounts.ACCESS_LIFETIME,
                       "refresh_lifetime": accounts.REFRESH_LIFETIME, "reset_lifetime": resets.LIFETIME}
    app["outbox"] = []
    app["public_url"] = config["public_url"]
    app["db"] = store.open_store(config["database"])
    app["enter"] = {server["server_id"]: server["enter"] for server in config["servers"] if server["enter"]}
    for account in config["accounts"]:
        account_api.open_account(app["db"], account["email"], account["password"])
    for server in config["servers"]:
        servers.add(app["db"], server)
    app.add_routes(account_api.ROUTES + tunnel_api.ROUTES + pages.ROUTES)
    return app


async def serve(config):
    public = public_app(config)
    tls = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
    tls.load_cert_chain(config["certificate"])
    runners = [web.AppRunner(public), web.AppRunner(keeper_api.keeper_app(public))]
    for runner in runners:
        await runner.setup()
    await web.TCPSite(runners[0], config["address"], config["port"], ssl_context=tls).start()
    await web.UnixSite(runners[1], config["keeper_socket"]).start()
    await peers.tend(public["db"], public["enter"], HEARTBEAT_SECONDS)


def main():
    asyncio.run(serve(json.loads(pathlib.Path(sys.argv[1]).read_text())))


if __name__ == "__main__":
    main()
