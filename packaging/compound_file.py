"""The compound file that an MSI is: finds a stream's bytes in it, and makes equal what differs between runs.

Of the format (MS-CFB, MS-OLEPS) only as much as that takes; nothing is moved, bytes are replaced by as many.
"""

import dataclasses
import struct

SIGNATURE = bytes.fromhex("d0cf11e0a1b11ae1")
END_OF_CHAIN = 0xFFFFFFFE
FREE = 0xFFFFFFFF
ENTRY_SIZE = 128
MINI_SECTOR = 64
MINI_CUTOFF = 4096
STREAM, ROOT = 2, 5
SUMMARY = "\x05SummaryInformation"
# Properties of the summary, and the types of values that are replaced here.
PACKAGE_CODE, LAST_PRINTED, CREATED, LAST_SAVED = 9, 11, 12, 13
TYPE_TEXT, TYPE_TIME = 0x1E, 0x40
SECONDS_TO_1970 = 11644473600


@dataclasses.dataclass
class Entry:
    name: str
    kind: int
    start: int
    size: int
    place: int  # of the entry itself in the file


@dataclasses.dataclass
class CompoundFile:
    data: bytearray
    sector: int
    table: list  # the next sector of each sector
    mini_table: list
    entries: list


def open_file(path):
    data = bytearray(path.read_bytes())
    if data[:8] != SIGNATURE:
        raise ValueError(f"{path} is no compound file")
    sector = 1 << struct.unpack_from("<H", data, 30)[0]
    first_entry, first_mini, more_tables = (_number(data, place) for place in (48, 60, 72))
    if more_tables:
        raise ValueError(f"{path} is larger than this reader knows to read")
    file = CompoundFile(data, sector, [], [], [])
    for number in struct.unpack_from("<109I", data, 76):
        if number != FREE:
            file.table += struct.unpack_from(f"<{sector // 4}I", data, _sector_place(file, number))
    for number in _chain(file.table, first_mini):
        file.mini_table += struct.unpack_from(f"<{sector // 4}I", data, _sector_place(file, number))
    for number in _chain(file.table, first_entry):
        begin = _sector_place(file, number)
        file.entries += [_read_entry(data, place) for place in range(begin, begin + sector, ENTRY_SIZE)]
    return file


def _number(data, place):
    return struct.unpack_from("<I", data, place)[0]


def _sector_place(file, number):
    return (number + 1) * file.sector


def _chain(table, number):
    while number not in (END_OF_CHAIN, FREE):
        yield number
        number = table[number]


def _read_entry(data, place):
    length = struct.unpack_from("<H", data, place + 64)[0]
    name = bytes(data[place:place + max(length - 2, 0)]).decode("utf-16-le")
    start, size = struct.unpack_from("<IQ", data, place + 116)
    return Entry(name, data[place + 66], start, size & 0xFFFFFFFF, place)


def _byte_places(file, entry):
    """Where in the file each byte of a stream stands."""
    if entry.size >= MINI_CUTOFF or entry.kind == ROOT:
        places = (_sector_place(file, number) + i
                  for number in _chain(file.table, entry.start) for i in range(file.sector))
    else:
        root = next(each for each in file.entries if each.kind == ROOT)
        mini = list(_byte_places(file, root))
        places = (mini[number * MINI_SECTOR + i]
                  for number in _chain(file.mini_table, entry.start) for i in range(MINI_SECTOR))
    return [place for place, _ in zip(places, range(entry.size))]


def _properties(stream):
    """(id, type, place in the stream) of each property of a property set's first section."""
    section = struct.unpack_from("<I", stream, 44)[0]
    count = struct.unpack_from("<I", stream, section + 4)[0]
    for i in range(count):
        identifier, place = struct.unpack_from("<II", stream, section + 8 + 8 * i)
        yield identifier, struct.unpack_from("<I", stream, section + place)[0], section + place + 4


def _summary(file):
    entry = next(each for each in file.entries if each.kind == STREAM and each.name == SUMMARY)
    places = _byte_places(file, entry)
    return places, bytearray(file.data[place] for place in places)


def settle(path, package_code, seconds):
    """Puts this package code and this time (since 1970) into the MSI, for what its maker drew and saw."""
    file = open_file(path)
    places, stream = _summary(file)
    time = struct.pack("<Q", (seconds + SECONDS_TO_1970) * 10_000_000)
    code = b"{" + package_code.encode("ascii") + b"}"
    settled = set()
    for identifier, kind, place in list(_properties(stream)):
        if kind == TYPE_TIME and identifier in (LAST_PRINTED, CREATED, LAST_SAVED):
            stream[place:place + 8] = time
        elif kind == TYPE_TEXT and identifier == PACKAGE_CODE:
            if struct.unpack_from("<I", stream, place)[0] < len(code):
                raise ValueError(f"{path} has no room for a package code")
            stream[place + 4:place + 4 + len(code)] = code
        else:
            continue
        settled.add(identifier)
    if not {PACKAGE_CODE, CREATED, LAST_SAVED} <= settled:
        raise ValueError(f"{path} lacks a package code or a time")
    for place, byte in zip(places, stream):
        file.data[place] = byte
    for entry in file.entries:  # when it was made and changed
        file.data[entry.place + 100:entry.place + 116] = bytes(16)
    path.write_bytes(file.data)


def summary_values(path):
    """{id: text or seconds since 1970} of the summary's texts and times."""
    _, stream = _summary(open_file(path))
    values = {}
    for identifier, kind, place in _properties(stream):
        if kind == TYPE_TEXT:
            length = struct.unpack_from("<I", stream, place)[0]
            values[identifier] = bytes(stream[place + 4:place + 4 + length]).rstrip(b"\0").decode("cp1252")
        elif kind == TYPE_TIME:
            values[identifier] = struct.unpack_from("<Q", stream, place)[0] // 10_000_000 - SECONDS_TO_1970
    return values
