"""The licence notices that are installed: of each component that is inside the executables."""

import pathlib
import re

import components

HEADING = """TELVOR contains the following software of others. For each stands here what it is, which version
was built in, and the notices that its licence asks for. A text that is for several stands once, under
the names of all. What the notices point to in /usr/share/common-licenses stands behind them, whole.
"""
# Debian's notices leave out the common licences, and point to where a Debian machine keeps them.
POINTER = re.compile(r"/usr/share/common-licenses/[\w.+-]*\w")
RULE = "=" * 78


def text(build):
    headings = {}  # by text
    pointing = {}  # by pointer: whose notices have it
    for component in components.collect(build):
        name = component.kind.name
        for path in component.notices:
            body = _read(path)
            headings.setdefault(body, []).append(f"{name} {component.version}: {component.kind.license}")
            for pointer in POINTER.findall(body):
                pointing.setdefault(pointer, set()).add(name)
    # GPL is another name of the latest GPL-n, so the same text can be pointed to twice.
    for pointer, names in sorted(pointing.items()):
        headings.setdefault(_read(pointer), []).append(f"{pointer}: for {', '.join(sorted(names))}")
    parts = ["\n".join([RULE, *lines, RULE, "", body, ""]) for body, lines in headings.items()]
    return "\n".join([HEADING, *parts])


def _read(path):
    return pathlib.Path(path).read_text(encoding="utf-8").strip("\n")
