"""P1: round trips over the pipe under Wine, beside an echo server that makes the same pipe calls.

One program is the client of both. It goes to and fro between them in blocks of a few round trips, so that
what else the machine does, the idle worker's programs above all, meets both alike."""

import collections
import statistics

import figures
import laboratory as laboratories

TITLE = "round trips over the pipe"

SERVICE_PIPE = r"\\.\pipe\telvor"
ECHO_PIPE = r"\\.\pipe\telvor-echo"
TAIL_GOAL = 1.5
DRAWN_POINTS = 400

Work = collections.namedtuple("Work", "method name goal holds")
WORKS = (
    Work("Nothing", "an unknown method", 1.05, '"message":"IPC: unknown method"'),
    Work("GetState", "GetState", 1.25, '"state":"disconnected"'),
    Work("GET /ui/status", "GET /ui/status", 1.5, '"auth_state":"AUTH_OK"'),
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
the long tail of both."""

Trips = collections.namedtuple("Trips", "service echo")  # lists of milliseconds


def measure(run):
    laboratory = laboratories.of(run)
    measured = {}
    for work in WORKS:
        reply = laboratory.pipe.send(laboratories.request(work.method))
        figures.require(work.holds.encode() in reply, f"{work.method} was answered {reply!r}")
        length = len(reply) + 1
        echo = laboratories.start_program(laboratory, "pipe_echo", ECHO_PIPE, str(length))
        try:
            for load in LOADS:
                blocks = SHORT_BLOCKS if run.short else load.blocks
                measured[work, load] = _round_trips(laboratory, work, load, blocks, length)
        finally:
            echo.close()
    rows = [figure for (work, load), trips in measured.items() for figure in _figures(work, load, trips)]
    return figures.Measurement(figures=rows, pictures=[_picture(measured, load) for load in LOADS],
                               text=[EXPLANATION.format(
                                   alone=len(measured[WORKS[0], LOADS[0]].service),
                                   together=len(measured[WORKS[0], LOADS[1]].service))])


def _round_trips(laboratory, work, load, blocks, length):
    output = laboratories.run_program(
        laboratory, "pipe_load", SERVICE_PIPE, ECHO_PIPE, *map(str, (load.clients, load.trips, blocks)),
        line=laboratories.request(work.method))
    trips = Trips([], [])
    for line in output.splitlines():
        words = line.split(" ", 4)
        if words[0] == "reply":
            figures.require(words[2:4] == [str(length)] * 2, f"{work.method}: not {length} bytes but {line}")
            figures.require(words[1] == "1" or work.holds in words[4], f"{work.method} was answered {line}")
        else:
            trips[int(words[0])].append(int(words[1]) / 1e6)
    expected = load.clients * load.trips * blocks
    figures.require([len(times) for times in trips] == [expected] * 2, f"{work.method}: trips are missing")
    return trips


def _figures(work, load, trips):
    what = f"{work.name}, {load.name}"
    yield figures.Figure(f"{what}: median", statistics.median(trips.service), "ms", work.goal,
                         "echo server", statistics.median(trips.echo))
    yield figures.Figure(f"{what}: 99th percentile", figures.percentile(trips.service, 99), "ms", TAIL_GOAL,
                         "echo server", figures.percentile(trips.echo, 99))


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
            for times, style, of in ((trips.service, "-", "service"), (trips.echo, "--", "echo")):
                axes.plot(*_distribution(times), style, color=f"C{number}", label=f"{work.name}, {of}")
        axes.axhline(99, color="0.5", linestyle=":", linewidth=1)
        axes.set_xscale("log")
        axes.xaxis.set_major_formatter("{x:g}")
        axes.set_xlabel("milliseconds from opening the pipe to the end of the line")
        axes.set_ylabel("% of the round trips took at most so long")
        axes.set_title(f"Round trips over the pipe, {load.name}")
        axes.legend()

    return figures.Picture(f"pipe-{load.clients}", f"Round trips over the pipe, {load.name}", draw)
