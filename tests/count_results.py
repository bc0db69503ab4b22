"""Adds up test results and ends with the line "N passed, N failed".

    count_results.py RESULTS [FOLDER...]

RESULTS holds the list of failed steps (failed-steps, one name a line), if any; all folders hold result files in
JUnit's XML form. A step that failed without a failed test in any file counts as one failure, and so does a run that
counted no test at all. Exits 0 only if nothing failed.
"""

import pathlib
import sys
import xml.etree.ElementTree as ElementTree


def count(path):
    """(passed, names of the failed) of one result file."""
    passed, failed = 0, []
    for case in ElementTree.parse(path).iter("testcase"):
        name = f"{case.get('classname', '')}.{case.get('name', '')}"
        if case.find("failure") is not None or case.find("error") is not None:
            failed.append(name)
        elif case.find("skipped") is not None or case.get("status") == "notrun":
            failed.append(f"{name} (was not run)")
        else:
            passed += 1
    return passed, failed


def main(folders):
    passed, failed = 0, []
    for folder in folders:
        for path in sorted(pathlib.Path(folder).glob("*.xml")):
            try:
                more, broken = count(path)
            except ElementTree.ParseError as error:
                more, broken = 0, [f"{path}: {error}"]
            passed += more
            failed += broken
    steps = pathlib.Path(folders[0]) / "failed-steps"
    failed_steps = steps.read_text().split() if steps.exists() else []
    for name in failed + [f"step {step}" for step in failed_steps]:
        print(f"FAILED: {name}")
    failures = len(failed) or len(failed_steps)
    if passed == 0 and failures == 0:
        print("FAILED: no test was run")
        failures = 1
    print(f"{passed} passed, {failures} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
