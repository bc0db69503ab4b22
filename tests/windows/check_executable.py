"""Checks the shape of the shipped executable: size, imports, protections, relocations, version, debug file."""
import pathlib
import struct
import sys
import zlib

LARGEST = 2_000_000
WINDOWS_LIBRARIES = {
    "advapi32.dll", "bcrypt.dll", "crypt32.dll", "fwpuclnt.dll", "iphlpapi.dll", "kernel32.dll", "msvcrt.dll",
    "winhttp.dll", "ws2_32.dll",
}
HIGH_ENTROPY_VA, DYNAMIC_BASE, NX_COMPAT = 0x20, 0x40, 0x100
RELOCATIONS_STRIPPED = 0x1
IMPORTS, RESOURCES, RELOCATIONS = 1, 2, 5


class Executable:
    """The headers of a PE32+ file."""

    def __init__(self, data):
        self.data = data
        pe = self.number("<I", 0x3C)
        assert data[pe:pe + 4] == b"PE\0\0", "not a PE file"
        section_count = self.number("<H", pe + 6)
        self.timestamp = self.number("<I", pe + 8)
        self.symbol_count = self.number("<I", pe + 16)
        optional = pe + 24
        self.characteristics = self.number("<H", pe + 22)
        assert self.number("<H", optional) == 0x20B, "not a 64-bit PE file"
        self.image_base = self.number("<Q", optional + 24)
        self.dll_characteristics = self.number("<H", optional + 70)
        self.directories = [struct.unpack_from("<II", data, optional + 112 + 8 * i) for i in range(16)]
        table = optional + self.number("<H", pe + 20)
        self.sections = [struct.unpack_from("<8sIIII", data, table + 40 * i) for i in range(section_count)]

    def number(self, layout, offset):
        return struct.unpack_from(layout, self.data, offset)[0]

    def offset(self, address):
        for _, size, start, raw_size, raw in self.sections:
            if start <= address < start + max(size, raw_size):
                return address - start + raw
        raise ValueError(f"address {address:#x} lies in no section")

    def section(self, name):
        """The bytes of the first section whose header's name starts so; none if there is no such section."""
        for label, _, _, size, raw in self.sections:
            if label.startswith(name):
                return self.data[raw:raw + size]
        return b""

    def imported_libraries(self):
        entry = self.offset(self.directories[IMPORTS][0])
        while name := self.number("<I", entry + 12):
            start = self.offset(name)
            yield self.data[start:self.data.index(b"\0", start)].decode().lower()
            entry += 20


def debug_link_fits(path, link):
    """The section names the debug file beside the executable and holds its CRC-32."""
    if not link:
        return False
    name = link[:link.index(b"\0")].decode()
    position = (len(name) + 4) // 4 * 4
    crc = struct.unpack_from("<I", link, position)[0]
    debug_file = path.with_name(name)
    return debug_file.is_file() and zlib.crc32(debug_file.read_bytes()) == crc


def findings(path):
    data = path.read_bytes()
    exe = Executable(data)
    foreign = sorted(set(exe.imported_libraries()) - WINDOWS_LIBRARIES)
    if len(data) > LARGEST:
        yield f"it has {len(data)} bytes, more than {LARGEST}"
    if foreign:
        yield f"it imports from {', '.join(foreign)}"
    for flag, name in ((DYNAMIC_BASE, "ASLR"), (HIGH_ENTROPY_VA, "high-entropy ASLR"), (NX_COMPAT, "DEP")):
        if not exe.dll_characteristics & flag:
            yield f"it is not marked for {name}"
    if exe.image_base < 1 << 32:
        yield "its base lies below 4 GB, where high-entropy ASLR has no room"
    if exe.characteristics & RELOCATIONS_STRIPPED or exe.directories[RELOCATIONS][1] < 8:
        yield "it has no relocations, without which ASLR cannot move it"
    if "ProductVersion".encode("utf-16-le") not in exe.section(b".rsrc"):
        yield "it has no version resource"
    if exe.symbol_count:
        yield f"it holds {exe.symbol_count} symbols"
    if exe.timestamp:
        yield "it holds the time of its making"
    # A long name stands in the string table, at the place behind the slash; only the debug link's is long.
    if not debug_link_fits(path, exe.section(b"/")):
        yield "its debug link does not fit the debug file beside it"


def main():
    path = pathlib.Path(sys.argv[1])
    failures = list(findings(path))
    for failure in failures:
        print(f"{path}: {failure}")
    if not failures:
        print(f"{path}: {path.stat().st_size} bytes, as it should be")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
