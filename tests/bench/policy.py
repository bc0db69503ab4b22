"""P5: a policy text parsed, sorted and made unique, beside sort -u."""

import figures
import native

TITLE = "the policy text"
LINES = 1_000_000

EXPLANATION = """\
`LC_ALL=C sort -u` reads the lines from a file that is in the page cache and writes to /dev/null; it uses both
cores, the service one, which keeps what it made: to free it is not counted. Every tenth line stands there
twice, and the results are compared line by line."""


def measure(run):
    pattern = "^Policy.*/(1000|10000)/" if run.short else "^Policy"
    seconds = figures.medians(native.run_bench(run, pattern, 9))
    largest = max(size for _, size in seconds)
    rows = [figures.Figure(f"{largest:,} lines", seconds["PolicyTelvor", largest] * 1e3, "ms", 0.5, "sort -u",
                           seconds["PolicySort", largest] * 1e3)]
    lines = {"PolicyTelvor": "TELVOR", "PolicySort": "LC_ALL=C sort -u"}
    pictures = [figures.Picture("policy", "A policy text, by its number of lines",
                                lambda drawing: native.draw_growth(drawing, seconds, lines, "lines"))]
    return figures.Measurement(rows, pictures, [EXPLANATION])
