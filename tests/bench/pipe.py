"""P1: round trips over the pipe under Wine, beside an echo server that makes the same pipe calls.

One program is the client of both. It goes to and fro between them in blocks of a few round trips, so that
what else the machine does, the idle worker's programs above all, meets both alike. A third server is the echo
server once more that also makes the bare calls which the method's files take: no service can do with less."""

import collections
import contextlib
import statistics

import figures
import laboratory as laboratories

TITLE = "round trips over the pipe"

SERVICE_PIPE = r"\\.\pipe\telvor"
ECHO_PIPE = r"\\.\pipe\telvor-echo"
LEAST_PIPE = r"\\.\pipe\telvor-least"
AUTH = r"C:\ProgramData\TELVOR\auth" + "\\"
TAIL_GOAL = 1.5
DRAWN_POINTS = 400

# `files` are words of pipe_echo.
Work = collections.namedtuple("Work", "method name goal holds files")
WORKS = (
    Work("Nothing", "an unknown method", 1.05, '"message":"IPC: unknown method"', ()),
    Work("GetState", "GetState", 1.25, '"state":"disconnected"',
         ("text", AUTH + "device_id.txt", "whole", AUTH + "wg_client_publickey.txt")),
    Work("GET /ui/status", "GET /ui/status", 1.5, '"auth_state":"AUTH_OK"', ("sealed", AUTH + "session.dat")),
)
# Round trips of each client in a block, and blocks.
Load = collections.namedtuple("Load", "clients trips blocks name")
LOADS = (Load(1, 10, 200, "one client"), Load(16, 4, 100, "16 clients"))
SHORT_BLOCKS = 2

EXPLANATION = """\
A round trip is what a desktop program does for each poll: open the pipe, write a line, read to the end of
the line, close. {alone:,} of each kind were made by one client and {together:,} by sixteen at once, in
short blocks to the service and to the echo server in turn. The echo server makes the same calls with the
same parameters and answers with as many bytes. Both feel alike what the idle worker does meanwhile: each of
its passes starts the uninstaller, and a start of a program under Wine holds Wine's only server up. That is
the long tail of both.

`GetState` reads two files each time, `GET /ui/status` one, and has it unsealed. An echo server that makes the
bare calls for that, and nothing else, is the least that a service can take:"""

# Lists of milliseconds; `least` is empty for a method without files.
Trips = collections.namedtuple("Trips", "service echo least")


def measure(run):
    laboratory = laboratories.of(run)
    measured = {}
    for work in WORKS:
        reply = laboratory.pipe.send(laboratories.request(work.method))
        figures.require(work.holds.encode() in reply, f"{work.method} was answered {reply!r}")
        length = len(reply) + 1
        with contextlib.ExitStack() as servers:
            for name, files in ((ECHO_PIPE, ()), (LEAST_PIPE, work.files))[:2 if work.files else 1]:
                servers.enter_context(contextlib.closing(
                    laboratories.start_program(laboratory, "pipe_echo", name, str(length), *files)))
            for load in LOADS:
                blocks = SHORT_BLOCKS if run.short else load.blocks
                measured[work, load] = _round_trips(laboratory, work, load, blocks, length)
    rows = [figure for (work, load), trips in measured.items() for figure in _figures(work, load, trips)]
    explanation = EXPLANATION.format(alone=len(measured[WORKS[0], LOADS[0]].service),
                                     together=len(measured[WORKS[0], LOADS[1]].service))
    return figures.Measurement(figures=rows, pictures=[_picture(measured, load) for load in LOADS],
                               text=[explanation, _least_table(measured)])


def _round_trips(laboratory, work, load, blocks, length):
    pipes = (SERVICE_PIPE, ECHO_PIPE, LEAST_PIPE)[:3 if work.files else 2]
    output = laboratories.run_program(
        laboratory, "pipe_load", *map(str, (load.clients, load.trips, blocks)), *pipes,
        line=laboratories.request(work.method))
    trips = Trips([], [], [])
    for line in output.splitlines():
        words = line.split(" ", 4)
        if words[0] == "reply":
            # A byte more once the selected server has not been seen for a while: "online" is false then.
            figures.require(set(words[2:4]) <= {str(length), str(length + 1)},
                            f"{work.method}: not {length} bytes but {line}")
            figures.require(words[1] != "0" or work.holds in words[4], f"{work.method} was answered {line}")
        else:
            trips[int(words[0])].append(int(words[1]) / 1e6)
    expected = load.clients * load.trips * blocks
    figures.require([len(times) for times in trips[:len(pipes)]] == [expected] * len(pipes),
                    f"{work.method}: trips are missing")
    return trips


def _least_table(measured):
    lines = ["| | service | bare calls | echo alone | service / bare calls | bare calls / echo |",
             "| --- | --- | --- | --- | --- | --- |"]
    for (work, load), trips in measured.items():
        for what, of in (("median", statistics.median), ("99th percentile", _tail)):
            if trips.least:
                service, echo, least = map(of, trips)
                lines.append(f"| {work.name}, {load.name}: {what} | {service:.3g} ms | {least:.3g} ms "
                             f"| {echo:.3g} ms | {service / least:.2f} | {least / echo:.2f} |")
    return "\n".join(lines)


def _tail(times):
    return figures.percentile(times, 99)


def _figures(work, load, trips):
    what = f"{work.name}, {load.name}"
    yield figures.Figure(f"{what}: median", statistics.median(trips.service), "ms", work.goal,
                         "echo server", statistics.median(trips.echo))
    yield figures.Figure(f"{what}: 99th percentile", _tail(trips.service), "ms", TAIL_GOAL,
                         "echo server", _tail(trips.echo))


def _distribution(times):
    """Points of the cumulative distribution, enough for a smooth line: times and per cents."""
    points = [round(place * (len(times) - 1) / DRAWN_POINTS) for place in range(DRAWN_POINTS + 1)]
    ordered = sorted(times)
    return [ordered[point] for point in points], [100 * (point + 1) / len(times) for point in points]


def _picture(measured, load):
    def draw(drawing):
        axes = drawing.subplots()
        for number, work in enumerate(WORKS):
            trips = measured[work, load]
            for times, style, of in ((trips.service, "-", "service"), (trips.echo, "--", "echo"),
                                     (trips.least, ":", "bare calls")):
                if not times:
                    continue
                axes.plot(*_distribution(times), style, color=f"C{number}", label=f"{work.name}, {of}")
        axes.axhline(99, color="0.5", linestyle=":", linewidth=1)
        axes.set_xscale("log")
        axes.xaxis.set_major_formatter("{x:g}")
        axes.set_xlabel("milliseconds from opening the pipe to the end of the line")
        axes.set_ylabel("% of the round trips took at most so long")
        axes.set_title(f"Round trips over the pipe, {load.name}")
        axes.legend()

    return figures.Picture(f"pipe-{load.clients}", f"Round trips over the pipe, {load.name}", draw)
