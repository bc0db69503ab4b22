"""Measures what the service does for a living beside what the machine could do at best.

    ./bench            all works; writes docs/performance.md and its pictures
    ./bench P2 P5      only these, and prints the table alone
    ./bench --short    sees within a minute or two that all of them run and give the right answers
    ./bench --list     what is measured

The exit code is 0 if every benchmark ran and gave the right answers; a goal that was missed shows in the
table.
"""

import argparse
import pathlib
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))

import catalogue  # noqa: E402
import connecting  # noqa: E402
import figures  # noqa: E402
import footprint  # noqa: E402
import log_view  # noqa: E402
import pipe  # noqa: E402
import policy  # noqa: E402
import refresh  # noqa: E402
import report  # noqa: E402
import simulator  # noqa: E402

WORKS = {
    "P1": pipe, "P2": catalogue, "P3": connecting, "P4": log_view,
    "P5": policy, "P6": refresh, "P7": footprint, "P8": simulator,
}

LAST = "P7"  # its connects take most of the time


def measure(run, names):
    """The measurements by name, and the names of those that failed."""
    measured, failed = {}, []
    for name in sorted(names, key=LAST.__eq__):
        begin = time.monotonic()
        run.tell(f"{name}: {WORKS[name].TITLE}")
        try:
            measured[name] = WORKS[name].measure(run)
        except Exception as failure:  # the others are measured all the same
            run.tell(f"{name} FAILED: {type(failure).__name__}: {failure}")
            failed.append(name)
        run.tell(f"{name} took {time.monotonic() - begin:.0f} s")
    return {name: measured[name] for name in names if name in measured}, failed


def main():
    arguments = argparse.ArgumentParser(prog="./bench", description=__doc__,
                                        formatter_class=argparse.RawDescriptionHelpFormatter)
    arguments.add_argument("--short", action="store_true")
    arguments.add_argument("--list", action="store_true")
    arguments.add_argument("works", nargs="*", metavar="WORK", choices=[[], *WORKS])
    chosen = arguments.parse_args()
    if chosen.list:
        print("\n".join(f"{name}  {work.TITLE}" for name, work in WORKS.items()))
        return 0
    names = [name for name in WORKS if not chosen.works or name in chosen.works]
    with tempfile.TemporaryDirectory(prefix="telvor-bench-") as folder:
        run = figures.Run(native=ROOT / "build" / "native-release", windows=ROOT / "build" / "windows",
                          folder=pathlib.Path(folder), short=chosen.short,
                          tell=lambda text: print(text, flush=True))
        measured, failed = measure(run, names)
    if not chosen.short:
        print(report.table(measured))
    elif not failed:
        print(f"{', '.join(measured)}: all ran and gave the right answers")
    if not chosen.short and not chosen.works and not failed:
        report.write(measured, WORKS, ROOT / "docs")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
