"""The client's Windows at work: its programs, its service manager, and the service's pipe."""

import collections
import contextlib
import json
import os
import pathlib
import re
import select
import signal
import subprocess
import tempfile
import time

from lab import network, prefix

TUNNEL_SERVICE = "WireGuardTunnel$telvor"
NO_SUCH_SERVICE = "ABSENT"
LOOK_PAUSE = 0.1  # seconds
STAYING = ("-p", "-f")  # a Wine server: for good, and not in the background
STATES = {"1": "STOPPED", "2": "START_PENDING", "3": "STOP_PENDING", "4": "RUNNING"}

# What the errors of opening the pipe mean.
NO_PIPE = {2: "the service is not running; ./run start starts it",
           231: "the service's pipe has no instance free"}

UNINSTALL_KEY = r"HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall"
Finished = collections.namedtuple("Finished", "code output")
Holdings = collections.namedtuple("Holdings", "handles threads memory")  # memory: of its own, in KiB


def environment(laboratory):
    return prefix.environment(laboratory.folder / "prefix", laboratory.folder / "home", laboratory.folder)


def boot(laboratory):
    """Starts the Windows.

    The Wine server is told to stay: without that it ends the services when the last program has ended."""
    (laboratory.folder / "home").mkdir()
    prefix.make_server_folder(laboratory.folder / "prefix", laboratory.folder)
    laboratory.spawn(network.CLIENT.name, ["wineserver", *STAYING], log="wineserver.log",
                     env=environment(laboratory))


def is_up(laboratory):
    """Its Wine server is there. Without it the next program would get one of its own, which does not stay."""
    ending = b"".join(word.encode() + b"\0" for word in STAYING)
    for pid in laboratory.pids(network.CLIENT.name):
        with contextlib.suppress(OSError):
            if pathlib.Path(f"/proc/{pid}/cmdline").read_bytes().endswith(ending):
                return True
    return False


def install(laboratory, *properties, msi=None, check=True):
    """Installs TELVOR as an administrator would, unattended; how that ended."""
    package = on_windows(msi or prefix.installer(laboratory.build))
    return msiexec(laboratory, "/i", package, *properties, check=check)


def installed_products(laboratory):
    """{product code: version} of what is installed."""
    found, key = {}, ""
    for line in run(laboratory, "reg", "query", UNINSTALL_KEY, "/s", check=False).output.splitlines():
        if line.startswith("HKEY"):
            key = line.rpartition("\\")[2].strip()
        elif line.split()[:1] == ["DisplayVersion"]:
            found[key] = line.split()[-1]
    return found


def remove(laboratory, code, *properties, check=True):
    """Removes the product of this code; how that ended."""
    return msiexec(laboratory, "/x", code, *properties, check=check)


def msiexec(laboratory, *words, check=True):
    """Windows Installer at work, without a question."""
    return run(laboratory, "msiexec", *words, "/qn", check=check, timeout=180)


def on_windows(path):
    """What a file of this machine is called on Windows."""
    return "Z:" + str(path).replace("/", "\\")


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
    return _processes(laboratory, lambda words: words[0].lower().endswith(b"telvor.exe"))


def _started_programs(laboratory):
    """Those of the programs that the service starts and waits for: the tunnel's own service is none."""
    return _processes(laboratory, lambda words: words[0].lower().endswith((b"wireguard.exe", b"wg.exe"))
                      and words[1:2] != [b"/tunnelservice"])


def _processes(laboratory, wanted):
    """The Linux process ids of the client's programs whose command line is wanted."""
    pids = []
    for pid in laboratory.pids(network.CLIENT.name):
        with contextlib.suppress(OSError):
            if wanted(pathlib.Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0")):
                pids.append(pid)
    return pids


def holdings(laboratory, looks=6):
    """What the running service holds at rest: of each kind the least of so many looks, since whatever is just
    under way, as the idle worker's programs always are, holds some for a moment."""
    pid = _service_process(laboratory)
    counter = Driver(laboratory, pathlib.PureWindowsPath(prefix.EXECUTABLE).name, program="handle_count.exe")
    try:
        seen = [_look_at(pid, counter) for _ in range(looks)]
    finally:
        counter.close()
    return Holdings(*(min(kind) for kind in zip(*seen)))


def wait_for_holdings(laboratory, most, timeout=20):
    """Until the running service holds nothing above `most`; what it holds then. What it does not let go of in
    that time is lost to it."""
    deadline = time.monotonic() + timeout
    while True:
        found = holdings(laboratory, looks=4)
        if all(kind <= limit for kind, limit in zip(found, most)):
            return found
        if time.monotonic() > deadline:
            raise TimeoutError(f"the service still holds {found}, not at most {most}")


def _look_at(pid, counter):
    time.sleep(LOOK_PAUSE)
    return Holdings(int(counter.exchange(b"")), _number_of(pid, "Threads"), _number_of(pid, "RssAnon"))


def _service_process(laboratory):
    """Its process id. For a moment in each start of a program Wine's copy of it has the same name."""
    deadline = time.monotonic() + 10
    while len(pids := service_processes(laboratory)) != 1:
        if time.monotonic() > deadline:
            raise TimeoutError(f"not one service but {pids}")
        time.sleep(0.01)
    return pids[0]


def _number_of(pid, name):
    """A number that the kernel keeps about a process."""
    told = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii")
    return int(re.search(rf"^{name}:\s+(\d+)", told, re.MULTILINE).group(1))


def kill_service(laboratory):
    """Ends the service without a chance to clean up; waits until it is gone, and what it had just started.

    A program whose start the kill cut in two would stand still for ever, and hold what it had inherited."""
    _kill(service_processes(laboratory))
    deadline = time.monotonic() + 15
    while left := service_processes(laboratory) + _started_programs(laboratory):
        if time.monotonic() > deadline:
            raise TimeoutError(f"the killed service is still there, or what it had started: {left}")
        if time.monotonic() > deadline - 10:
            _kill(_started_programs(laboratory))
        time.sleep(0.05)
    laboratory.agent.end_sessions()


def _kill(pids):
    for pid in pids:
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, signal.SIGKILL)


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
    """The pipe driver kept running: one line in, one line out, a connection for each. Or another program that
    does a line's work for each line."""

    def __init__(self, laboratory, *options, program="pipe_client.exe"):
        program = str(laboratory.build / "lab" / program)
        self._complaints = tempfile.TemporaryFile()
        self._process = subprocess.Popen(
            laboratory.enter(network.CLIENT.name) + ["wine", program, *options], env=environment(laboratory),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self._complaints, start_new_session=True)
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
                raise TimeoutError("the driver printed nothing")
            chunk = os.read(self._process.stdout.fileno(), 65536)
            if not chunk:
                raise EOFError(self._end())
            self._pending += chunk
        line, _, self._pending = self._pending.partition(b"\n")
        return line.rstrip(b"\r")

    def _end(self):
        self._complaints.seek(0)
        said = self._complaints.read().decode(errors="replace")
        return f"the driver ended with {self._process.wait(10)} and said: {said}"

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
        self._complaints.close()

    def kill(self):
        """Ends it as it stands, in the middle of a write that nobody reads too."""
        self._process.kill()
        self.close()


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
