"""P4: the view of the log, beside reading the file once into memory."""

import collections
import json
import os
import pathlib
import subprocess

import figures

TITLE = "the view of the log"
RUN_UNDER_WINE = pathlib.Path(__file__).resolve().parents[1] / "windows" / "run_under_wine.sh"
LIMITS = (200, 2000)
SIZES = (10_000, 100_000, 1_000_000, 10_000_000, 100_000_000)  # bytes
SHORT_SIZES = SIZES[:2]
LINE = "[2026-05-04 03:02:01] WFP: split-bypass allowlist update OK, line {number}\r\n"
Times = collections.namedtuple("Times", "view read path")
REPETITIONS = {size: max(11, 10_000_000 // size) for size in SIZES}

EXPLANATION = """\
Measured under Wine with the product's own library and platform layer: opening the log, reading it, and making
the text of the reply. Beside it the same program opens the file and reads it into memory of its size, in
turn. The peak is that of the working set of a process that makes one view.

A view first finds the log, and each time that it does so it makes the log's folder, in case it is not there:
{path:.1f} microseconds here, a question to Wine's server. Of a view of the smallest log, {view:.1f} microseconds
at the limit of {limit}, that leaves {rest:.1f}: {ratio:.2f} times what reading it takes."""


def measure(run):
    sizes = SHORT_SIZES if run.short else SIZES
    times, peaks = {}, {}
    for size in sizes:
        written = write_log(run, size)
        for limit in LIMITS:
            check(run, limit, written)
            times[size, limit] = time_view(run, size, limit)
            peaks[size, limit] = int(under_wine(run, "peak", str(limit)))
    rows = []
    for size in (sizes[-1], sizes[0]):
        for limit in LIMITS:
            taken = times[size, limit]
            rows.append(figures.Figure(f"limit {limit}, log of {size:,} bytes", taken.view * 1e3, "ms", 1.3,
                                       "reading it once", taken.read * 1e3))
    for limit in LIMITS:
        rows.append(figures.Figure(f"peak memory, limit {limit}, log of {sizes[-1]:,} bytes",
                                   peaks[sizes[-1], limit] / 1e6, "MB", 1.1, "the file", sizes[-1] / 1e6))
    picture = figures.Picture("log-view", "The view of the log, by the size of the log",
                              lambda drawing: draw(drawing, times))
    return figures.Measurement(rows, [picture], [explain(times[sizes[0], LIMITS[-1]])])


def explain(taken):
    rest = taken.view - taken.path
    return EXPLANATION.format(limit=LIMITS[-1], view=taken.view * 1e6, path=taken.path * 1e6, rest=rest * 1e6,
                              ratio=rest / taken.read)


def folder(run):
    return run.folder / "sorvanik-vpn"


def write_log(run, size):
    folder(run).mkdir(exist_ok=True)
    with open(folder(run) / "vpnservice.log", "w", encoding="ascii", newline="") as log:
        written = number = 0
        while written < size:
            line = LINE.format(number=number)
            written += log.write(line)
            number += 1
    return number


def check(run, limit, written):
    """The view has the last lines of the log, as many as were asked for."""
    shown = [line["msg"] for line in json.loads(under_wine(run, "text", str(limit)))]
    wanted = [LINE.format(number=number).rstrip() for number in range(max(0, written - limit), written)]
    figures.require(shown == wanted, f"limit {limit}: not the last lines of the log")


def under_wine(run, *words):
    command = [RUN_UNDER_WINE, run.windows / "bench" / "log_view_bench.exe",
               "Z:" + str(run.folder).replace("/", "\\"), *words]
    done = subprocess.run(command, env=dict(os.environ, WINEPREFIX=str(run.folder / "prefix")),
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                          text=True, timeout=300, check=False)
    figures.require(done.returncode == 0, f"log_view_bench ended with {done.returncode}")
    return done.stdout


def time_view(run, size, limit):
    """The medians of the view, of the reading, and of finding the log, in seconds."""
    samples = collections.defaultdict(list)
    for line in under_wine(run, "time", str(limit), str(run.repetitions(REPETITIONS[size]))).splitlines():
        name, nanoseconds = line.split()
        samples[name].append(int(nanoseconds) / 1e9)
    medians = figures.medians(samples)
    return Times(medians["view"], medians["read"], medians["path"])


def draw(drawing, times):
    axes = drawing.subplots()
    sizes = sorted({size for size, _ in times})
    for limit in LIMITS:
        axes.plot(sizes, [times[size, limit].view * 1e3 for size in sizes], marker="o",
                  label=f"view, limit {limit}")
    axes.plot(sizes, [times[size, LIMITS[0]].read * 1e3 for size in sizes], marker="o", color="black",
              linestyle="--", label="reading the file once")
    axes.set(xscale="log", yscale="log", xlabel="bytes of the log", ylabel="milliseconds")
    axes.legend()
