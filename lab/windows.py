"""The client's Windows at work: its programs, its service manager, and the service's pipe."""

import collections
import json
import os
import re
import select
import subprocess
import tempfile
import time

from lab import network, prefix

TUNNEL_SERVICE = "WireGuardTunnel$telvor"
NO_SUCH_SERVICE = "ABSENT"
STATES = {"1": "STOPPED", "2": "START_PENDING", "3": "STOP_PENDING", "4": "RUNNING"}

# What the errors of opening the pipe mean.
NO_PIPE = {2: "the service is not running; ./run start starts it",
           231: "the service's pipe has no instance free"}

Finished = collections.namedtuple("Finished", "code output")


def environment(laboratory):
    return prefix.environment(laboratory.folder / "prefix", laboratory.folder / "home", laboratory.folder)


def boot(laboratory):
    """Starts the Windows and registers the service, as an installer would; the service is not started.

    The Wine server is told to stay: without that it ends the services when the last program has ended."""
    (laboratory.folder / "home").mkdir()
    prefix.make_server_folder(laboratory.folder / "prefix", laboratory.folder)
    laboratory.spawn(network.CLIENT.name, ["wineserver", "-p", "-f"], log="wineserver.log",
                     env=environment(laboratory))
    run(laboratory, "sc", "create", prefix.SERVICE, "binPath=", f'"{prefix.EXECUTABLE}"', "start=", "demand")


def shut_down(laboratory):
    """Ends every Windows program. None of them is left to clean up after itself."""
    laboratory.run(network.CLIENT.name, ["wineserver", "-k"], env=environment(laboratory), check=False)


def run(laboratory, *words, check=True, timeout=60):
    """Runs a Windows program to its end; its exit code and its output, errors included.

    The output goes through a file: Wine's background processes inherit it, and would hold a pipe open."""
    command = laboratory.enter(network.CLIENT.name) + ["wine", *words]
    with tempfile.TemporaryFile() as output:
        done = subprocess.run(command, env=environment(laboratory), stdin=subprocess.DEVNULL, stdout=output,
                              stderr=subprocess.STDOUT, timeout=timeout, check=False)
        output.seek(0)
        text = output.read().decode(errors="replace")
    if check and done.returncode != 0:
        raise RuntimeError(f"{' '.join(words)} ended with {done.returncode}: {text.strip()}")
    return Finished(done.returncode, text)


def service_state(laboratory, name=prefix.SERVICE):
    """STOPPED, START_PENDING, STOP_PENDING, RUNNING, or ABSENT."""
    output = run(laboratory, "sc", "query", name, check=False).output
    found = re.search(r"STATE\s*:\s*(\d)", output)
    return STATES[found.group(1)] if found else NO_SUCH_SERVICE


def start_service(laboratory):
    # In the first moments of a prefix the manager can refuse a start that it accepts a little later.
    for _ in range(3):
        result = run(laboratory, "net", "start", prefix.SERVICE, check=False)
        if result.code == 0:
            break
        time.sleep(1)
    wait_for_service(laboratory, "RUNNING")


def stop_service(laboratory, timeout=60):
    run(laboratory, "net", "stop", prefix.SERVICE, check=False, timeout=timeout)
    wait_for_service(laboratory, "STOPPED", timeout)


def wait_for_service(laboratory, state, timeout=30, name=prefix.SERVICE):
    deadline = time.monotonic() + timeout
    while (found := service_state(laboratory, name)) != state:
        if time.monotonic() > deadline:
            raise TimeoutError(f"service {name} is {found}, not {state}")
        time.sleep(0.1)


def service_processes(laboratory):
    """The Linux process ids of the running service."""
    pids = []
    for pid in laboratory.pids(network.CLIENT.name):
        try:
            words = open(f"/proc/{pid}/cmdline", "rb").read().split(b"\0")
        except OSError:
            continue
        if words[0].lower().endswith(b"telvor.exe"):
            pids.append(pid)
    return pids


def drive(laboratory):
    return laboratory.folder / "prefix" / "drive_c"


def log_bytes(laboratory):
    """The service's log as it stands on the disk: two encodings share it."""
    path = drive(laboratory) / prefix.LOG_FILE
    return path.read_bytes() if path.exists() else b""


def log_lines(laboratory):
    """The texts of the log's lines without their time stamps."""
    lines = log_bytes(laboratory).decode("latin-1").split("\r\n")
    return [line[22:] if line.startswith("[2") else line for line in lines if line]


class Driver:
    """The pipe driver kept running: one line in, one line out, a connection for each."""

    def __init__(self, laboratory, *options):
        program = str(laboratory.build / "lab" / "pipe_client.exe")
        self._process = subprocess.Popen(
            laboratory.enter(network.CLIENT.name) + ["wine", program, *options], env=environment(laboratory),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, start_new_session=True)
        self._pending = b""

    def write(self, line):
        self._process.stdin.write(line + b"\n")
        self._process.stdin.flush()

    def read(self, timeout=60):
        """One line of the driver's output, without its line end."""
        deadline = time.monotonic() + timeout
        while b"\n" not in self._pending:
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([self._process.stdout], [], [], left)[0]:
                raise TimeoutError("the pipe driver printed nothing")
            chunk = os.read(self._process.stdout.fileno(), 65536)
            if not chunk:
                raise EOFError("the pipe driver ended")
            self._pending += chunk
        line, _, self._pending = self._pending.partition(b"\n")
        return line.rstrip(b"\r")

    def exchange(self, line, timeout=60):
        self.write(line)
        return self.read(timeout)

    def close(self):
        self._process.stdin.close()
        try:
            self._process.wait(10)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
        self._process.stdout.close()


class NoPipe(ConnectionError):
    """The service's pipe cannot be used; the text says why."""


class Pipe:
    """The user interface's side of the pipe."""

    def __init__(self, laboratory):
        self.last = ""  # the latest reply as it came
        self._laboratory = laboratory
        self._driver = None
        self._id = 0

    def send(self, line, timeout=60):
        """One request line as it stands; the reply's bytes."""
        if self._driver is None:
            self._driver = Driver(self._laboratory)
        reply = self._driver.exchange(line, timeout)
        if reply.startswith(b"!error "):
            code = int(reply.removeprefix(b"!error "))
            raise NoPipe(NO_PIPE.get(code, f"the service's pipe gives Windows error {code}"))
        self.last = reply.decode(errors="replace")
        return reply

    def call(self, method, timeout=60, **params):
        """Calls a method; its result, or an error if the reply is one."""
        self._id += 1
        request = {"jsonrpc": "2.0", "id": self._id, "method": method}
        if params:
            request["params"] = params
        reply = json.loads(self.send(json.dumps(request, separators=(",", ":")).encode(), timeout))
        if reply["id"] != self._id or reply["error"] is not None:
            raise RuntimeError(f"{method}: {reply}")
        return reply["result"]

    def close(self):
        if self._driver is not None:
            self._driver.close()
            self._driver = None
