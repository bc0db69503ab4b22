"""The licence notices that are installed: of each component that is inside the executables."""

import pathlib

import components

HEADING = """TELVOR contains the following software of others. For each stands here what it is, which version
was built in, and the notices that its licence asks for.
"""


def text(build):
    parts = [HEADING]
    # Several components share a package, and its notices stand once.
    by_notice = {}
    for component in components.collect(build):
        by_notice.setdefault(component.notices, []).append(component)
    for paths, sharing in by_notice.items():
        names = [f"{each.kind.name} {each.version}: {each.kind.license}" for each in sharing]
        bodies = [pathlib.Path(path).read_text(encoding="utf-8").strip() for path in paths]
        parts.append("\n".join(["=" * 78, *names, "=" * 78, "", *bodies, ""]))
    return "\n".join(parts)
