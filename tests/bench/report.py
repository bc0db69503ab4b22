"""The table of the figures, and the page with their pictures."""

import os
import platform
import re

import matplotlib

matplotlib.use("svg")
import matplotlib.pyplot  # noqa: E402

BEGIN = "<!-- what ./bench measured: begin -->"
END = "<!-- what ./bench measured: end -->"
HEAD = ("work", "measured", "figure", "beside", "floor", "ratio", "goal", "reached")
STYLE = {
    "svg.hashsalt": "telvor", "svg.fonttype": "none", "font.family": "sans-serif", "font.size": 10,
    "axes.grid": True, "grid.alpha": 0.3, "axes.spines.top": False, "axes.spines.right": False,
    "axes.axisbelow": True, "figure.facecolor": "white", "legend.frameon": False,
}


def number(value):
    return f"{value:,.0f}" if abs(value) >= 1000 else f"{value:.3g}"


def row(name, figure):
    floor = "" if figure.floor is None else f"{number(figure.floor)} {figure.unit}"
    ratio = "" if figure.floor is None else f"{figure.ratio:.2f}"
    goal = f"{'at least' if figure.at_least else 'at most'} {figure.goal:,g}"
    return (name, figure.what, f"{number(figure.figure)} {figure.unit}", figure.beside, floor, ratio, goal,
            "yes" if figure.reached else "NO")


def table(measured):
    rows = [row(name, figure) for name, measurement in measured.items() for figure in measurement.figures]
    widths = [max(len(line[column]) for line in [HEAD, *rows]) for column in range(len(HEAD))]
    lines = [HEAD, tuple("-" * width for width in widths), *rows]
    return "\n".join("| " + " | ".join(cell.ljust(width) for cell, width in zip(line, widths)) + " |"
                     for line in lines)


def machine():
    model = re.search(r"^model name\s*: (.+)$", open("/proc/cpuinfo", encoding="utf-8").read(), re.MULTILINE)
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30
    system = platform.freedesktop_os_release()["PRETTY_NAME"]
    return (f"Measured on {os.cpu_count()} cores of {model[1] if model else 'an unknown processor'}, "
            f"{memory:.0f} GiB of memory, {system}, Linux {platform.release().split('-')[0]}.")


def save(picture, folder):
    folder.mkdir(parents=True, exist_ok=True)
    with matplotlib.rc_context(STYLE):
        drawing = matplotlib.pyplot.figure(figsize=(8, 4.5), layout="constrained")
        picture.draw(drawing)
        drawing.savefig(folder / f"{picture.name}.svg", metadata={"Date": None})
        matplotlib.pyplot.close(drawing)


def write(measured, works, docs):
    """Puts what was measured between the marks of docs/performance.md, the pictures into its folder."""
    parts = [machine(), table(measured)]
    for name, measurement in measured.items():
        parts.append(f"### {name}: {works[name].TITLE}")
        parts += measurement.text
        for picture in measurement.pictures:
            save(picture, docs / "performance")
            parts.append(f"![{picture.caption}](performance/{picture.name}.svg)\n\n*{picture.caption}*")
    put_between(docs / "performance.md", BEGIN, END, parts)


def put_between(page, begin, end, paragraphs):
    """Replaces what stands between two marks of a page."""
    text = page.read_text(encoding="utf-8")
    before, after = text.index(begin) + len(begin), text.index(end)
    page.write_text("\n\n".join([text[:before], *paragraphs, text[after:]]), encoding="utf-8")
