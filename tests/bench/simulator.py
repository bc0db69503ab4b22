"""P8: how much faster than time the simulator runs the whole service, with all of its invariants judged."""

import re
import statistics
import subprocess

import figures

TITLE = "the simulator, beside real time"

GOALS = {"idle": 20_000, "busy": 2_000}
WHAT = {"idle": "an idle day", "busy": "a busy day: polls, pages, connects, changes of server"}
HOURS = (1, 5, 24)
SHORT_HOURS = (0.1, 0.2)
REPETITIONS = 3
LINE = re.compile(r"^(\w[\w ]*?)  +([\d.]+)", re.MULTILINE)


def measure(run):
    program = run.native / "bin" / "telvor-sim"
    figures.require(program.exists(), f"{program} is not built")
    hours = SHORT_HOURS if run.short else HOURS
    works = {(day, length): lambda day=day, length=length: _run(program, "--day", day, "--hours", str(length))
             for day in GOALS for length in hours}
    samples = figures.alternately(works, run.repetitions(REPETITIONS))
    speeds = {key: statistics.median(totals["speed"] for totals in runs) for key, runs in samples.items()}
    costs = {day: statistics.median(_cost(totals) for totals in samples[day, hours[-1]]) for day in GOALS}
    costs["random"] = _cost(_run(program, "--seeds", "1-2" if run.short else "1-40"))
    measurement = figures.Measurement()
    for day, goal in GOALS.items():
        measurement.figures.append(figures.Figure(WHAT[day], speeds[day, hours[-1]], "times real time", goal,
                                                  at_least=True))
    measurement.pictures.append(figures.Picture(
        "simulator", "Speed against the length of the day, goals dashed; and the time of a platform call",
        lambda drawing: _draw(drawing, hours, speeds, costs)))
    measurement.text.append(_text(samples, hours[-1], costs))
    return measurement


def _text(samples, length, costs):
    rates = {day: samples[day, length][0]["platform calls"] / (length * 3600) for day in GOALS}
    return (f"An idle service makes {rates['idle']:.0f} platform calls a simulated second, a busy one "
            f"{rates['busy']:.0f}. Each takes {costs['idle']:.0f} and {costs['busy']:.0f} ns of real time, "
            f"and {costs['random']:.0f} ns on the random days that `telvor-sim --seeds` draws.")


def _run(program, *arguments):
    """What telvor-sim totals, by name."""
    finished = subprocess.run([program, *arguments], capture_output=True, text=True, check=False)
    totals = {name: float(value) for name, value in LINE.findall(finished.stdout)}
    good = finished.returncode == 0 and totals.get("failures") == 0
    said = finished.stdout[-2000:] + finished.stderr[-2000:]
    figures.require(good, f"telvor-sim {' '.join(arguments)} failed:\n{said}")
    return totals


def _cost(totals):
    """Nanoseconds of real time a platform call."""
    real = totals["simulated hours"] * 3600 / totals["speed"]
    return real * 1e9 / totals["platform calls"]


def _draw(drawing, hours, speeds, costs):
    left, right = drawing.subplots(1, 2, width_ratios=(3, 2))
    for day, colour in (("idle", "#4c72b0"), ("busy", "#dd8452")):
        left.plot(hours, [speeds[day, length] for length in hours], "o-", color=colour, label=f"{day} day")
        left.axhline(GOALS[day], color=colour, linestyle="--", linewidth=1)
    left.set(xlabel="simulated hours", ylabel="simulated seconds a second", yscale="log", ylim=(1000, None))
    left.legend()
    right.bar(list(costs), list(costs.values()), color=["#4c72b0", "#dd8452", "#55a868"])
    right.set(ylabel="nanoseconds a platform call")
