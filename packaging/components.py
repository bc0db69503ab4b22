"""What of others ends up inside the executables: read from what linker and compiler noted while they built.

The linker's map names every archive and object that it took something from, ninja's record every header that
was compiled. Debian's package manager tells which package each comes from. What is in no table here is an error:
nothing gets in unseen.
"""

import collections
import dataclasses
import functools
import os
import pathlib
import re
import subprocess
import urllib.parse

PROGRAMS = {"telvor": "src", "telvorctl": "tools"}  # and the folder with its sources
GCC_LICENSE = "GPL-3.0-or-later WITH GCC-exception-3.1"
MINGW_LICENSE = "ZPL-2.1 AND LicenseRef-mingw-w64"


@dataclasses.dataclass(frozen=True)
class Kind:
    """A component as it is known before its files are: what it is, and under which licence."""
    name: str
    license: str
    supplier: str
    homepage: str


GCC = ("Organization: Free Software Foundation", "https://gcc.gnu.org")
MINGW = ("Organization: mingw-w64 project", "https://www.mingw-w64.org")
LIBGCC = Kind("libgcc", GCC_LICENSE, *GCC)
LIBSTDCXX = Kind("libstdc++", GCC_LICENSE, *GCC)
LIBSSP = Kind("libssp", GCC_LICENSE, *GCC)
WINPTHREADS = Kind("winpthreads", "MIT AND BSD-3-Clause", *MINGW)
RUNTIME = Kind("mingw-w64 runtime", MINGW_LICENSE, *MINGW)
MONOCYPHER = Kind("Monocypher", "BSD-2-Clause OR CC0-1.0", "Person: Loup Vaillant", "https://monocypher.org")
JSON = Kind("JSON for Modern C++", "MIT", "Person: Niels Lohmann", "https://json.nlohmann.me")
CLI11 = Kind("CLI11", "BSD-3-Clause", "Organization: University of Cincinnati",
             "https://github.com/CLIUtils/CLI11")

# The first pattern that is found in a file's path tells whose it is.
OWNERS = (
    (r"/libmonocypher\.a$|/monocypher\.h$", MONOCYPHER),
    (r"/lib(win)?pthread\.a$|/include/(pthread\w*|sched|semaphore)\.h$", WINPTHREADS),
    (r"/libstdc\+\+\.a$|/include/c\+\+/", LIBSTDCXX),
    (r"/libssp\w*\.a$", LIBSSP),
    (r"^/usr/lib/gcc/", LIBGCC),
    (r"^/usr/(x86_64-w64-mingw32|share/mingw-w64)/", RUNTIME),
    (r"^/usr/include/nlohmann/", JSON),
    (r"^/usr/include/CLI/", CLI11),
)


@dataclasses.dataclass(frozen=True)
class Component:
    kind: Kind
    version: str
    origin: str  # where it came from, as a package URL or an address
    sha256: str  # of what was downloaded; empty if it came as a package
    files: tuple  # the archives and objects that were linked in; of one that has none, the headers
    programs: tuple  # the executables that it is in
    notices: tuple  # files with its licence


def linked_files(build, program):
    """The archives and objects from outside the build that the linker took something from."""
    text = (build / "bin" / f"{program}.exe.map").read_text(encoding="utf-8", errors="replace")
    archives = re.findall(r"^(\S+\.a)\(\S+\)$", text, re.MULTILINE)
    objects = re.findall(r"^LOAD (/\S+\.o)$", text, re.MULTILINE)
    return {os.path.normpath(path) for path in archives + objects if path.startswith("/")}


def built_archives(build, program):
    """Names of the libraries of this build that are in the executable."""
    text = (build / "bin" / f"{program}.exe.map").read_text(encoding="utf-8", errors="replace")
    return {pathlib.Path(path).name for path in re.findall(r"^(\S+\.a)\(\S+\)$", text, re.MULTILINE)
            if not path.startswith("/")}


@functools.cache
def compiled_headers(build):
    """{top folder of the product's sources: headers from outside the tree}, as the compiler met them."""
    text = subprocess.run(["ninja", "-C", str(build), "-t", "deps"], check=True, stdout=subprocess.PIPE,
                          text=True).stdout
    found, current = collections.defaultdict(set), None
    for line in text.splitlines():
        if not line.startswith(" "):
            top = line.partition("/")[0]
            current = top if top in PROGRAMS.values() else None
        elif current is not None:
            path = os.path.realpath(build / line.strip())
            if path.startswith("/usr/"):
                found[current].add(path)
    return found


def owner(path):
    for pattern, kind in OWNERS:
        if re.search(pattern, path):
            return kind
    raise LookupError(f"{path} gets into the executables; packaging/components.py does not know what it is")


def packages_of(paths):
    """The Debian packages that these files come from."""
    lines = _asked("--search", *paths).splitlines()
    return sorted({line.partition(":")[0] for line in lines if not line.startswith("diversion")})


def package_fact(package, field):
    return _asked("-W", f"-f=${{{field}}}", package)


def _asked(*words):
    return subprocess.run(["dpkg-query", *words], check=True, stdout=subprocess.PIPE, text=True).stdout


def _package_url(package, version, source):
    return f"pkg:deb/debian/{package}@{urllib.parse.quote(version)}?upstream={source}"


def _from_debian(kind, files, headers, programs):
    package = packages_of(sorted(files) or sorted(headers)[:1])[0]
    version, source = package_fact(package, "Version"), package_fact(package, "source:Package")
    return Component(kind, version, _package_url(package, version, source), "", tuple(sorted(files or headers)),
                     tuple(sorted(programs)), (f"/usr/share/doc/{package}/copyright",))


def _monocypher(build, programs):
    """As the configure run noted what it took."""
    lines = (build / "monocypher" / "origin.txt").read_text(encoding="utf-8").splitlines()
    noted = dict(line.split(" ", 1) for line in lines)
    return Component(MONOCYPHER, noted["version"], noted["origin"], noted["sha256"], (),
                     tuple(sorted(programs)), (noted["licence"],))


def collect(build):
    """All components in the built executables, by name."""
    files, headers, programs = (collections.defaultdict(set) for _ in range(3))
    for program, folder in PROGRAMS.items():
        sources = ((files, linked_files(build, program)), (headers, compiled_headers(build)[folder]))
        for into, paths in sources:
            for path in paths:
                into[owner(path)].add(path)
                programs[owner(path)].add(f"{program}.exe")
        if "libtelvor_monocypher.a" in built_archives(build, program):
            programs[MONOCYPHER].add(f"{program}.exe")
    found = [_monocypher(build, using) if kind is MONOCYPHER else
             _from_debian(kind, files[kind], headers[kind], using) for kind, using in programs.items()]
    return sorted(found, key=lambda each: each.kind.name)
