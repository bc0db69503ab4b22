"""Runs telvor_bench, the works that are measured natively."""

import json
import re
import subprocess

import figures

SECONDS = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1}
NAME = re.compile(r"^(?P<work>[^:]+?)(?:/(?P<size>\d+))?(?:/iterations:\d+|/real_time)*$")


def run_bench(run, pattern, repetitions, least_seconds=0.2):
    """Seconds of one iteration, by work and size, as lists over the repetitions, which are run in a random
    order. The time is the wall clock's."""
    command = [str(run.native / "tests" / "telvor_bench"), f"--benchmark_filter={pattern}",
               f"--benchmark_repetitions={run.repetitions(repetitions)}",
               f"--benchmark_min_time={0.01 if run.short else least_seconds}",
               "--benchmark_enable_random_interleaving=true", "--benchmark_format=json"]
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)
    figures.require(done.returncode == 0, f"telvor_bench: {done.stderr[-500:]}")
    samples = {}
    for result in json.loads(done.stdout)["benchmarks"]:
        figures.require(not result.get("error_occurred"), f"{result['name']}: {result.get('error_message')}")
        if result["run_type"] != "iteration":
            continue
        name = NAME.match(result["run_name"])
        key = (name["work"], int(name["size"] or 0))
        samples.setdefault(key, []).append(result["real_time"] * SECONDS[result["time_unit"]])
    figures.require(samples, f"telvor_bench has nothing like {pattern}")
    return samples


def draw_growth(drawing, seconds, lines, size_label):
    """Time against size on logarithmic axes: `seconds` by work and size, `lines` the label by work."""
    axes = drawing.subplots()
    for work, label in lines.items():
        sizes = sorted(size for name, size in seconds if name == work)
        axes.plot(sizes, [seconds[work, size] * 1e3 for size in sizes], marker="o", label=label)
    axes.set(xscale="log", yscale="log", xlabel=size_label, ylabel="milliseconds")
    axes.legend()
