"""The one laboratory of the benchmarks that need one: brought up by the first, taken down at the very end."""

import atexit
import json
import subprocess
import tempfile

from lab import laboratory as laboratories
from lab import network, windows
from lab.laboratory import wait_until

import figures

_made = {}


def of(run):
    """The laboratory: the service runs and was connected before, a user is logged in, no tunnel is up."""
    if not _made:
        laboratories.check_machine(run.windows)
        run.tell("bringing a laboratory up")
        made = laboratories.Laboratory(run.windows)
        atexit.register(made.stop)
        made.start()
        made.start_service()
        figures.require(made.log_in()["ok"] is True, "the login failed")
        connect(made)  # from then on its device is known, as it is on every computer in use
        _made["laboratory"] = made
    disconnect(_made["laboratory"])
    return _made["laboratory"]


def connect(laboratory):
    figures.require(laboratory.pipe.call("Connect") is True, "Connect was refused")
    laboratory.wait_for_state("connected")


def disconnect(laboratory):
    """Until nothing of a tunnel is left."""
    figures.require(laboratory.pipe.call("Disconnect") is True, "Disconnect was refused")
    laboratory.wait_for_state("disconnected")
    wait_until(laboratory.agent.tunnels, lambda tunnels: not tunnels, 30, "the end of the tunnel")
    wait_until(lambda: laboratory.agent.snapshot()["filters"], lambda filters: not filters, 30,
               "an open firewall")


def request(method):
    """The line that asks for a method without parameters."""
    return json.dumps({"jsonrpc": "2.0", "id": 1, "method": method}, separators=(",", ":")).encode()


def run_program(laboratory, name, *words, line=b"", timeout=600):
    """Runs a Windows program of the benchmarks to its end, with a line as its input; what it printed.

    Files take the output: what Wine starts beside it would hold a pipe open."""
    command = laboratory.enter(network.CLIENT.name) + ["wine", program(laboratory, name), *words]
    with tempfile.TemporaryFile() as source, tempfile.TemporaryFile() as output:
        source.write(line + b"\n")
        source.seek(0)
        done = subprocess.run(command, env=windows.environment(laboratory), stdin=source, stdout=output,
                              stderr=subprocess.STDOUT, timeout=timeout, check=False)
        output.seek(0)
        text = output.read().decode(errors="replace")
    figures.require(done.returncode == 0, f"{name} ended with {done.returncode}: {text[-300:].strip()}")
    return text


def program(laboratory, name):
    """The path of a Windows program of the benchmarks."""
    return str(laboratory.build / "bench" / f"{name}.exe")


def start_program(laboratory, name, *words):
    """A Windows program of the benchmarks, kept running until it is closed; it has said that it is ready."""
    started = windows.Driver(laboratory, *words, program=program(laboratory, name))
    figures.require(started.read() == b"ready", f"{name} did not become ready")
    return started
