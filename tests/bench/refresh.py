"""P6: routes and permits of many addresses, beside the bare calls of the platform that they take."""

import figures
import native

TITLE = "routes, their refresh, and permits"
ADDRESSES = 10000

WORKS = {
    "Refresh": f"refresh, 1 of {ADDRESSES:,} addresses changed",
    "Routes": f"first install of {ADDRESSES:,} routes",
    "Permits": f"permits for {ADDRESSES:,} addresses",
}

EXPLANATION = """\
Measured on the simulated machine: beside each work stand the same calls with what they are given made
beforehand. The log lines that a refresh writes, one for each address, are among them. A first install reads
the table not once, a refresh with one address gone and one come reads it once; both are looked at."""


def measure(run):
    pattern = "^(Refresh|Routes|Permits).*/(10|100)/" if run.short else "^(Refresh|Routes|Permits)"
    seconds = figures.medians(native.run_bench(run, pattern, 9))
    largest = max(size for _, size in seconds)
    rows = [figures.Figure(what, seconds[f"{work}Telvor", largest] * 1e3, "ms", 1.05, "bare calls",
                           seconds[f"{work}Bare", largest] * 1e3) for work, what in WORKS.items()]
    lines = {f"{work}{side}": f"{work.lower()}, {label}" for work in WORKS
             for side, label in (("Telvor", "TELVOR"), ("Bare", "bare calls"))}
    pictures = [figures.Picture("refresh", "Routes, refresh and permits, by their number of addresses",
                                lambda drawing: native.draw_growth(drawing, seconds, lines, "addresses"))]
    return figures.Measurement(rows, pictures, [EXPLANATION])
