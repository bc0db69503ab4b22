"""Real packets of the user's computer, and the counters at both ends of the tunnel."""

import json

from lab import network, vpn_servers
from lab.laboratory import wait_until


def visit(laboratory, url, timeout=5, body=None):
    """What a web server of the laboratory answers to a program on the client; None if no answer comes."""
    command = ["curl", "-sS", "--noproxy", "*", "--max-time", str(timeout), url]
    if body is not None:
        command += ["--data-binary", "@-"]
    result = laboratory.run(network.CLIENT.name, command, check=False, input=body)
    return json.loads(result.stdout) if result.returncode == 0 else None


def browse(laboratory, url, *options, timeout=10):
    """Opens a page as a browser on the client would, trusting whom the client trusts; its status and text."""
    command = ["curl", "-sS", "--noproxy", "*", "--max-time", str(timeout), "-w", "\n%{http_code}", *options,
               url]
    text, _, status = laboratory.run(network.CLIENT.name, command).stdout.rpartition("\n")
    return int(status), text


def download(laboratory, url, timeout=20):
    """How many bytes of the page arrived at the client."""
    command = ["curl", "-sS", "--noproxy", "*", "--max-time", str(timeout), "-o", "/dev/null",
               "-w", "%{size_download}", url]
    return int(laboratory.run(network.CLIENT.name, command).stdout)


def counters(laboratory, server):
    """What each end counted so far: client received, client sent, server received, server sent."""
    state = laboratory.pipe.call("GetState")
    received, sent = vpn_servers.transfer(laboratory, server).get(state["wgPublicKey"], (0, 0))
    return state["rxBytes"], state["txBytes"], received, sent


def exchange(laboratory, server, size, attempts=3):
    """Sends and fetches that many bytes through the tunnel and sees that both ends agree on what passed.

    Gives the address that the server saw, and the bytes that the client sent and received meanwhile. The ends
    are compared by what they gained: the server goes on counting over a reconnect, the client starts anew. A
    packet that a busy machine loses on the way is counted at one end alone: then it is tried again."""
    for attempt in range(1, attempts + 1):
        try:
            return _exchange_once(laboratory, server, size)
        except TimeoutError:
            if attempt == attempts:
                raise


def _exchange_once(laboratory, server, size):
    before = counters(laboratory, server)
    url = f"http://{vpn_servers.tunnel_address(server)}"
    seen = visit(laboratory, url, timeout=20, body="x" * size)
    if seen is None or seen["received"] != size or download(laboratory, f"{url}/bytes/{size}") != size:
        raise RuntimeError(f"{size} bytes did not make it to {url} and back: {seen}")

    def gained():
        return tuple(now - then for now, then in zip(counters(laboratory, server), before))

    def agree(gain):
        client_received, client_sent, server_received, server_sent = gain
        return (client_received, client_sent) == (server_sent, server_received)

    client_received, client_sent, _, _ = wait_until(gained, agree, 5, "agreement of both ends' counters")
    return seen["peer"], client_sent, client_received
