"""What the headers of an executable say of it, by the names under which docs/attack-surface.md tells it."""

import check_executable

DLL_CHARACTERISTICS = {
    "HIGH_ENTROPY_VA": 0x20, "DYNAMIC_BASE": 0x40, "FORCE_INTEGRITY": 0x80, "NX_COMPAT": 0x100,
    "GUARD_CF": 0x4000,
}
EXECUTE, WRITE = 0x20000000, 0x80000000
EXPORTS, CERTIFICATES, LOAD_CONFIGURATION, DELAYED_IMPORTS = 0, 4, 10, 13
SUBSYSTEMS = {2: "window", 3: "console"}
BY_NUMBER = 1 << 63


def _sections(executable):
    """Name and characteristics of each section."""
    pe = executable.number("<I", 0x3C)
    table = pe + 24 + executable.number("<H", pe + 20)
    for index, section in enumerate(executable.sections):
        yield section[0].rstrip(b"\0").decode(), executable.number("<I", table + 40 * index + 36)


def _names(sections, flags):
    return ", ".join(f"`{name}`" for name, found in sections if found & flags == flags) or "none"


def _is(truth, yes="set", no="not set"):
    return yes if truth else no


def flags(executable):
    sections = list(_sections(executable))
    optional = executable.number("<I", 0x3C) + 24
    relocations = executable.directories[check_executable.RELOCATIONS][1]
    stripped = executable.characteristics & check_executable.RELOCATIONS_STRIPPED
    found = {name: _is(executable.dll_characteristics & flag) for name, flag in DLL_CHARACTERISTICS.items()}
    return {
        **found,
        "ImageBase": f"`{executable.image_base:#x}`",
        "relocations": _is(relocations and not stripped, "there", "none"),
        "Subsystem": SUBSYSTEMS.get(executable.number("<H", optional + 68), "other"),
        "executable sections": _names(sections, EXECUTE),
        "sections both writable and executable": _names(sections, EXECUTE | WRITE),
        "exports": _is(executable.directories[EXPORTS][1], "some", "none"),
        "delayed imports": _is(executable.directories[DELAYED_IMPORTS][1], "some", "none"),
        "load configuration": _is(executable.directories[LOAD_CONFIGURATION][1], "there", "none"),
    }


def _thunks(executable):
    """The entries of the import tables, library by library."""
    entry = executable.offset(executable.directories[check_executable.IMPORTS][0])
    while executable.number("<I", entry + 12):
        position = executable.offset(executable.number("<I", entry) or executable.number("<I", entry + 16))
        while thunk := executable.number("<Q", position):
            yield thunk
            position += 8
        entry += 20


def imported_functions(executable):
    """By name, or by number as "#number"."""
    found = set()
    for thunk in _thunks(executable):
        start = 0 if thunk & BY_NUMBER else executable.offset(thunk) + 2
        name = executable.data[start:executable.data.index(b"\0", start)].decode()
        found.add(f"#{thunk & 0xFFFF}" if thunk & BY_NUMBER else name)
    return found
