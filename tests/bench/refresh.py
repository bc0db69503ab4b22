"""P6: routes of many addresses, their refresh and permits, beside the bare calls of the platform.

Measured in the laboratory, with its real routes and its filtering engine. A program there does each work with
the product's library and with bare calls, in turn; what came of it is looked at from outside each time."""

import collections
import contextlib
import os
import shutil

import figures
import laboratory as laboratories
import native
from lab import network, prefix, windows
from lab.laboratory import wait_until

TITLE = "routes, their refresh, and permits"

PROGRAM = "refresh_bench"
SIDES = ("telvor", "bare")
NETWORK = "10.1.0.0/16"
METRIC = 5
PERMIT = "TELVOR:ALLOW split-bypass v4:"
PROTOCOLS = 2  # each address is permitted so many
LONGEST = 300  # seconds for one time
SHORT_ADDRESSES = 10
GOAL = 1.05
LINEAR_GOAL = 1.5  # squares would make it 10; what a processor's caches hold makes it more than 1

EXPLANATION = """\
Measured in the laboratory, on its real routes, its filtering engine and a real log: a program does each work
with the product's own library and platform layer, and with the same calls of Windows, for which texts and
filters are made beforehand, in turn and all on one processor. A first install has {routes:,} routes: for each
the laboratory reads the whole table and starts a program, so that 10,000 would take many minutes. A
refresh reads the table once, deletes one route, adds one, and writes a log line for each of the {refresh:,}
addresses; its permits are measured by themselves. Each address takes two permits, all in one transaction.

The growth is that on the simulated machine, over three decades. Its calls cost next to nothing, so that what
is left is work of our own: there the ratios at {largest:,} addresses are {simulated}. A first install reads
the table not once, a refresh with one address gone and one come reads it once; both are looked at."""

# `begin` makes ready, `end` looks at what came of each turn, 0 or 1, and cleans up. The spare address is the
# one that changes.
Work = collections.namedtuple("Work", "name what addresses spare repetitions begin end")


def measure(run):
    seconds, largest = _simulated(run)
    rows = [figures.Figure(work.what.format(_count(run, work)), times["telvor"], "ms", GOAL, "bare calls",
                           times["bare"]) for work, times in _in_laboratory(run)]
    rows.append(figures.Figure(f"first install of {largest:,} routes, simulated machine",
                               seconds["RoutesTelvor", largest] * 1e3, "ms", GOAL, "bare calls",
                               seconds["RoutesBare", largest] * 1e3))
    rows += [_growth(work, seconds, largest) for work in WORKS if work.name != "routes"]
    ratios = {work.name: seconds[f"{work.name.title()}Telvor", largest] /
              seconds[f"{work.name.title()}Bare", largest] for work in WORKS}
    lines = {f"{work.name.title()}{side}": f"{work.name}, {label}" for work in WORKS
             for side, label in (("Telvor", "TELVOR"), ("Bare", "bare calls"))}
    pictures = [figures.Picture("refresh", "Routes, refresh and permits, by their number of addresses",
                                lambda drawing: native.draw_growth(drawing, seconds, lines, "addresses"))]
    simulated = ", ".join(f"{ratio:.2f} ({name})" for name, ratio in ratios.items())
    counts = {work.name: _count(run, work) for work in WORKS}
    return figures.Measurement(rows, pictures,
                               [EXPLANATION.format(**counts, largest=largest, simulated=simulated)])


def _growth(work, seconds, largest):
    """What an address takes among so many, beside what it takes among a tenth of them."""
    name, fewer = f"{work.name.title()}Telvor", largest // 10
    return figures.Figure(f"{work.name}: an address of {largest:,}, simulated machine",
                          seconds[name, largest] * 1e6 / largest, "us", LINEAR_GOAL, f"one of {fewer:,}",
                          seconds[name, fewer] * 1e6 / fewer)


def _simulated(run):
    """Medians in seconds by work and size, and the largest size."""
    pattern = "^(Refresh|Routes|Permits).*/(10|100)/" if run.short else "^(Refresh|Routes|Permits)"
    seconds = figures.medians(native.run_bench(run, pattern, 9))
    return seconds, max(size for _, size in seconds)


def _count(run, work):
    return SHORT_ADDRESSES if run.short else work.addresses


def _in_laboratory(run):
    """Each work with the medians of its sides, in milliseconds."""
    laboratory = laboratories.of(run)
    with _without_service(laboratory):
        _install(laboratory)
        _stay_on(laboratory, {min(os.sched_getaffinity(0))})
        return [(work, figures.medians(_times(run, laboratory, work))) for work in WORKS]


@contextlib.contextmanager
def _without_service(laboratory):
    """The service would take the filters away. It finds the policy and the routes again as it left them."""
    policy = windows.drive(laboratory) / prefix.DATA_FOLDER / "runtime.dat"
    processors = os.sched_getaffinity(0)
    laboratory.stop_service()
    sealed = policy.read_bytes()
    try:
        yield
    finally:
        _stay_on(laboratory, processors)
        _remove_routes(laboratory)
        _restart_engine(laboratory)
        policy.write_bytes(sealed)
        laboratory.start_service()


def _stay_on(laboratory, processors):
    """For whatever runs on the client and for what this process starts. A question to Wine's server is a
    wake-up there and one back; between two processors it takes up to five times as long, as it happens."""
    for pid in (os.getpid(), *laboratory.pids(network.CLIENT.name)):
        with contextlib.suppress(ProcessLookupError):
            os.sched_setaffinity(pid, processors)


def _installed(laboratory):
    return windows.drive(laboratory) / prefix.PROGRAM_FOLDER / f"{PROGRAM}.exe"


def _install(laboratory):
    """The program needs the libraries that the service has, from the same folder."""
    shutil.copy(laboratories.program(laboratory, PROGRAM), _installed(laboratory))
    for key, value, kind, data in prefix.REGISTRY:
        if "telvor.exe" in key:
            windows.run(laboratory, "reg", "add", key.replace("telvor.exe", f"{PROGRAM}.exe"), "/v", value,
                        "/t", kind, "/d", data, "/f")


def _times(run, laboratory, work):
    """Milliseconds by side. Every other time the sides are taken in the other order."""
    count = _count(run, work) + work.spare
    addresses = sorted(f"10.1.{number // 256}.{number % 256}" for number in range(count))
    samples = {side: [] for side in SIDES}
    _remove_routes(laboratory)
    work.begin(laboratory, addresses)
    program = windows.Driver(laboratory, work.name, program=str(_installed(laboratory)))
    try:
        ready = program.exchange(" ".join(addresses).encode()).decode()
        figures.require(ready == "ready", f"{work.name}: {ready}")
        for repetition in range(run.repetitions(work.repetitions)):
            for turn, side in enumerate(SIDES if repetition % 2 == 0 else SIDES[::-1]):
                answer = program.exchange(side.encode(), LONGEST).decode()
                figures.require(answer.isdigit(), f"{work.name}, {side}: {answer}")
                samples[side].append(int(answer) / 1e6)
                work.end(laboratory, addresses, turn)
    finally:
        program.close()
    return samples


def _routes(laboratory):
    return sorted(row["destination"] for row in laboratory.agent.routes()
                  if row["prefix_length"] == 32 and row["metric"] == METRIC)


def _remove_routes(laboratory):
    laboratory.run(network.CLIENT.name, ["ip", "-4", "route", "flush", "root", NETWORK])


def _begin_nothing(_laboratory, _addresses):
    pass


def _end_routes(laboratory, addresses, _turn):
    figures.require(_routes(laboratory) == addresses, "not the wanted routes are there")
    _remove_routes(laboratory)


def _begin_refresh(laboratory, addresses):
    commands = (f"route add {address} via {network.CLIENT.gateway} metric {METRIC}\n"
                for address in addresses[:-1])
    laboratory.run(network.CLIENT.name, ["ip", "-4", "-batch", "-"], input="".join(commands))


def _end_refresh(laboratory, addresses, turn):
    wanted = addresses.copy()
    del wanted[-1 if turn else -2]
    figures.require(_routes(laboratory) == wanted, "not the wanted routes are there after the refresh")


def _end_permits(laboratory, addresses, _turn):
    names = [entry["displayData"]["name"] for entry in laboratory.agent.snapshot()["filters"]]
    permitted = sorted(name.removeprefix(PERMIT) for name in names if name.startswith(PERMIT))
    figures.require(permitted == sorted(PROTOCOLS * addresses), "not the wanted permits are there")
    _restart_engine(laboratory)


def _restart_engine(laboratory):
    """Forgets all filters, as a restart of the computer would: to delete so many takes minutes."""
    laboratory.agent.call("quit")
    wait_until(lambda: _answers(laboratory), lambda answers: not answers, 30, "the end of the agent")
    laboratory.start_agent()
    laboratory.agent.wait()


def _answers(laboratory):
    try:
        laboratory.agent.call("ping")
    except (OSError, ValueError):
        return False
    return True


WORKS = (
    Work("refresh", "refresh, 1 of {:,} addresses changed", 10000, 1, 41, _begin_refresh, _end_refresh),
    Work("routes", "first install of {:,} routes", 200, 0, 61, _begin_nothing, _end_routes),
    Work("permits", "permits for {:,} addresses", 10000, 0, 15, _begin_nothing, _end_permits),
)
