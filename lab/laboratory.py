"""A whole VPN on one Linux machine, around the real executable.

    with Laboratory(build) as laboratory:
        laboratory.start_service()
        laboratory.pipe.call("Connect")

Several laboratories can be up at once; each has a number, and all that it makes outside the machine's memory
lies in one folder, its namespaces and their entries below /etc/netns. When its owner has died without a word,
./run --down clears it away, or the next laboratory to start.
"""

import contextlib
import json
import os
import pathlib
import shutil
import subprocess
import sys
import time

from lab import agent_client, certificates, claims, network, prefix, vpn_servers, windows
from lab.control_plane.keeper import Keeper
from lab.steps import CannotRun

HERE = pathlib.Path(__file__).resolve().parent
EMAIL = "ada@telvor.test"
PASSWORD = "correct horse battery staple"
# Debian's own, which has Debian's modules; another may stand first on the path. It leaves no compiled files.
PYTHON = ("/usr/bin/python3", "-B")
CLEAR = "./run --down clears away what is left of it"


def kept(build):
    """The laboratory of this build that was left up, not yet attached to; None if there is none."""
    number = claims.kept(build)
    return Laboratory(build).at(number) if number else None


class Laboratory:
    """One laboratory: what it is made of, and the calls that drive it."""

    def __init__(self, build, tell=lambda text: None, installs=True):
        self.build = pathlib.Path(build).resolve()
        self.tell = tell
        self.installs = installs  # otherwise that is left to whoever uses it
        self.number = 0
        self.folder = None
        self.first_routes = []  # of the client, before anything of the product ran
        self._ownership = None

    def __enter__(self):
        try:
            self.start()
        except BaseException:
            self.stop()
            raise
        return self

    def __exit__(self, *_):
        self.stop()

    # Coming and going

    def start(self):
        """Brings everything up to the point where the service could be started."""
        number, self._ownership = claims.claim(self.tell)
        self.at(number)
        (self.folder / "logs").mkdir()
        self.tell("making the network: client, router, two VPN servers, web site, control plane")
        network.create(self.number, self.folder, certificates.make(self.folder, network.CONTROL_PLANE_HOST))
        self.tell("starting WireGuard on the servers, the control plane and the web site")
        self._start_servers()
        self.start_agent()
        self.tell("taking a Windows from the template (making it first takes a quarter of a minute)")
        prefix.copy(prefix.template(self.build / "lab" / "cache"), self.folder / "prefix")
        seed = f"[domains]\n{network.SITE_HOST}\n[ips]\n{network.CONTROL_PLANE.address}\n"
        prefix.lay_standins(self.folder / "prefix", self.build, seed)
        self.tell("booting it and installing TELVOR by its MSI")
        windows.boot(self)
        if self.installs:
            windows.install(self, "STARTSERVICE=0")
        self._connect()
        self.first_routes = self.agent.routes()

    def stop(self):
        """Takes everything down and removes every trace; harmless when there is nothing."""
        if not self.number:
            return
        with contextlib.suppress(Exception):
            self.pipe.close()
        with contextlib.suppress(Exception):
            windows.shut_down(self)
        claims.remove(self.number)
        if self._ownership is not None:
            os.close(self._ownership)
        self.number = 0

    def keep(self):
        """Leaves the laboratory up when its maker ends."""
        self.pipe.close()
        claims.keep(self.number, self.build)

    def at(self, number):
        """Itself, as the laboratory with this number."""
        self.number, self.folder = number, claims.folder_of(number)
        return self

    def attach(self):
        """Takes hold of a laboratory that was left up."""
        if not network.existing(self.number):
            raise CannotRun("The laboratory that was left up has died, perhaps by a restart of the machine. "
                            + CLEAR)
        if not windows.is_up(self):
            raise CannotRun("The Windows of the laboratory that was left up has died. " + CLEAR)
        self._connect()

    def _start_servers(self):
        keys = {server: vpn_servers.start(self, server) for server in vpn_servers.CATALOGUE}
        for machine in (network.PARIS, network.TOKYO, network.SITE):
            self.spawn(machine.name, [*PYTHON, str(HERE / "responder.py"), machine.name, "80"],
                       log=f"responder-{machine.name}.log")
        config = {
            "address": network.CONTROL_PLANE.address, "port": network.CONTROL_PLANE_PORT,
            "public_url": network.CONTROL_PLANE_URL,
            "certificate": str(self.folder / "server.pem"),
            "database": str(self.folder / "control-plane.sqlite"),
            "keeper_socket": str(self.folder / "keeper.socket"),
            "accounts": [{"email": EMAIL, "password": PASSWORD}],
            "servers": [vpn_servers.catalogue_entry(self, server, key) for server, key in keys.items()],
        }
        path = self.folder / "control-plane.json"
        path.write_text(json.dumps(config, indent=1))
        self.spawn(network.CONTROL_PLANE.name, [*PYTHON, "-m", "lab.control_plane.app", str(path)],
                   log="control-plane.log", cwd=HERE.parent)
        self._awaited(lambda: Keeper(self.folder / "keeper.socket").wait(), "control-plane.log")

    def start_agent(self):
        agent = str(HERE / "agent" / "agent.py")
        self.spawn(network.CLIENT.name, [*PYTHON, agent], log="agent.log")

    def _connect(self):
        self.keeper = Keeper(self.folder / "keeper.socket")
        self.agent = agent_client.Agent(self.number)
        self.pipe = windows.Pipe(self)
        self._awaited(self.agent.wait, "agent.log")

    def _awaited(self, wait, log):
        try:
            wait()
        except Exception as failure:
            raise RuntimeError(f"{log} says:\n{(self.folder / 'logs' / log).read_text()}") from failure

    # What the parts use

    def enter(self, machine):
        return network.enter(self.number, self.folder, machine)

    def run(self, machine, argv, **options):
        return network.run(self.number, self.folder, machine, argv, **options)

    def spawn(self, machine, argv, log, **options):
        """Starts a lasting process on a machine; it ends with the laboratory, not with its starter."""
        with open(self.folder / "logs" / log, "ab") as output:
            return subprocess.Popen(self.enter(machine) + argv, stdin=subprocess.DEVNULL, stdout=output,
                                    stderr=subprocess.STDOUT, start_new_session=True, **options)

    def pids(self, machine):
        return network.pids(self.number, machine)

    # What a test or the tour uses

    def start_service(self):
        windows.start_service(self)

    def stop_service(self, timeout=60):
        windows.stop_service(self, timeout)

    def log_in(self, email=EMAIL, password=PASSWORD):
        return self.pipe.call("POST /ui/login", email=email, password=password)

    def wait_for_state(self, wanted, timeout=60):
        """Polls GetState until it says so; the last answer."""
        return wait_until(lambda: self.pipe.call("GetState"), lambda state: state["state"] == wanted, timeout,
                          f"state {wanted}")


def wait_until(look, good, timeout, what, pause=0.1):
    """Looks again and again until what it sees is good; what it saw then."""
    deadline = time.monotonic() + timeout
    while not good(seen := look()):
        if time.monotonic() > deadline:
            raise TimeoutError(f"{what} did not come within {timeout} s; the last look: {seen}")
        time.sleep(pause)
    return seen


def check_machine(build):
    """Raises CannotRun with all that is missing for a laboratory."""
    missing = []
    if os.geteuid() != 0:
        missing.append("root's rights (namespaces and interfaces are made)")
    if not pathlib.Path("/dev/net/tun").exists():
        missing.append("/dev/net/tun (the kernel's tun driver; try: modprobe tun)")
    for program in ("ip", "wg", "wireguard-go", "wine", "wineserver", "curl", "unshare"):
        if shutil.which(program) is None:
            missing.append(f"the program {program}")
    missing += [f"the built file {path}" for path in prefix.needed_files(pathlib.Path(build).resolve())
                if not path.exists()]
    if missing:
        raise CannotRun("Missing:\n" + "\n".join(f"  - {item}" for item in missing))


def main():
    """For a look at the parts alone: brings a laboratory up and waits for the end of the input."""
    with Laboratory(sys.argv[1], tell=print) as laboratory:
        print(f"laboratory {laboratory.number} is up; its files are in {laboratory.folder}")
        sys.stdin.read()


if __name__ == "__main__":
    main()
