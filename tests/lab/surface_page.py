"""The page of the attack surface, and the comparison of its tables with what was seen."""

import pathlib
import re

DOCS = pathlib.Path(__file__).resolve().parents[2] / "docs"
NONE = "none"
RIGHTS = {"GA": 0x10000000, "GW": 0x40000000, "GR": 0x80000000, "GX": 0x20000000}
ACCOUNTS = {"SY": "S-1-5-18", "BA": "S-1-5-32-544", "BU": "S-1-5-32-545", "AU": "S-1-5-11"}
INHERITANCE = {"OI": 1, "CI": 2, "NP": 4, "IO": 8, "ID": 16}


def text_of(name):
    return (DOCS / name).read_text(encoding="utf-8")


def tables(name="attack-surface.md"):
    """For each heading the rows of the table below it, by the names of its columns."""
    found, heading, columns = {}, "", []
    for line in text_of(name).splitlines():
        if line.startswith("#"):
            heading, columns = line.lstrip("# "), []
        elif not line.startswith("|"):
            columns = []
        elif not columns:
            columns = _cells(line)
        elif not set(line) <= set("|- "):
            found.setdefault(heading, []).append(dict(zip(columns, _cells(line))))
    return found


def _cells(line):
    return [cell.strip() for cell in line.strip().strip("|").split("|")]


def quoted(cell):
    """The texts between back quotes; the cell itself if it has none."""
    return re.findall(r"`([^`]*)`", cell) or [cell]


def rows(heading, *columns):
    """Of each row the first quoted text of these columns."""
    return [tuple(quoted(row[column])[0] for column in columns) for row in tables()[heading]]


def fits(told, seen):
    """Whether the text is the told one with something in place of each <...>."""
    pieces = [re.escape(piece) for piece in re.split(r"<[^<>]*>", told)]
    return re.fullmatch(".+".join(pieces), seen) is not None


def row_fits(told, seen):
    return len(told) == len(seen) and all(fits(one, other) for one, other in zip(told, seen))


def expect_told(told, seen, what):
    """Both ways: whatever was seen is told of, and whatever is told of was seen."""
    untold = [one for one in sorted(set(seen)) if not any(row_fits(row, one) for row in told)]
    unseen = [row for row in told if not any(row_fits(row, one) for one in seen)]
    assert not untold, f"{what} that docs/attack-surface.md does not tell of: {untold}"
    assert not unseen, f"{what} that docs/attack-surface.md tells of, and that was not seen: {unseen}"


def entries(text):
    """All entries of a text in the security descriptor language, refusals and labels among them: kind, flags,
    rights, who."""
    return [_entry(*found.split(";")) for found in re.findall(r"\((\w+;[^()]*)\)", text)]


def _entry(kind, flags, rights, _object, _inherited_object, account):
    inherited = sum(INHERITANCE[pair] for pair in re.findall("..", flags))
    named = sum(RIGHTS[pair] for pair in re.findall("..", rights) if not rights.startswith("0x"))
    return kind, inherited, named or int(rights, 16), ACCOUNTS.get(account, account)
