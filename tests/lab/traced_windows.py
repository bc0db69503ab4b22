"""A Windows whose server writes down every request, and what one of its programs asked for.

The server's own account holds what a program cannot be asked: the security that it gave, the command lines
that it started, the files and keys that it opened. What passes between programs only, such as the rights
asked of the service manager, is told by the programs' libraries."""

import dataclasses
import ntpath
import re
import time

from lab import network, prefix, windows

SERVER_LOG, PROGRAMS_LOG = "server-trace.log", "programs-trace.log"
# Of each program, with its number in front: service manager, HTTP, names.
CHANNELS = "-all,+pid,trace+service,trace+winhttp,trace+winsock"

REQUEST = re.compile(r"^([0-9a-f]{4,8}): (\w+)\( ?(.*?) ?\)$")
ANSWER = re.compile(r"^([0-9a-f]{4,8}): (\w+)\(\) = (\w+)(?: \{ ?(.*?) ?\})?$")
ENTRY = re.compile(r"(\w+),flags=([0-9a-f]+),mask=([0-9a-f]+),sid=\{?(S-[0-9-]+)")
# The kinds of entries, as the security descriptor language calls them.
KINDS = {"ACCESS_ALLOWED": "A", "ACCESS_DENIED": "D"}
INHERITED_ENTRY = 0x10
OWN_PROCESS = "ffffffff"
DIRECTORY_FILE, DELETE_ON_CLOSE = 0x1, 0x1000
OPEN_EXISTING = 1
DATA_ACCESS = 0xC0000003 | 0x10000000  # reading and writing, generic and not
WRITE_ACCESS = 0x40010006 | 0x10000000  # writing, appending, deleting


@dataclasses.dataclass(frozen=True)
class Request:
    process: str
    name: str
    text: str
    status: str
    answer: str

    def number(self, field, where=None):
        found = re.search(rf"\b{field}=([0-9a-f]+)", self.text if where is None else where)
        return int(found.group(1), 16) if found else 0

    def wide(self, field):
        """A wide text's value, its escapes taken away; empty if there is none."""
        found = re.search(rf'\b{field}=L"((?:[^"\\]|\\.)*)"', self.text)
        return re.sub(r'\\(["\\])', r"\1", found.group(1)) if found else ""


def start(laboratory):
    """Ends the laboratory's Windows and starts it again with everything written down."""
    windows.shut_down(laboratory)
    laboratory.spawn(network.CLIENT.name, ["wineserver", "-p", "-f", "-d1"], log=SERVER_LOG,
                     env=windows.environment(laboratory))
    deadline = time.monotonic() + 20
    # A program that finds no server starts one of its own, which would write nothing down.
    while not list((laboratory.folder / prefix.SERVER_FOLDER).glob("**/socket")):
        if time.monotonic() > deadline:
            raise TimeoutError("the Windows server did not come up")
        time.sleep(0.05)
    environment = {**windows.environment(laboratory), "WINEDEBUG": CHANNELS}
    # The first program starts the service manager, and what that starts has its environment and output.
    laboratory.spawn(network.CLIENT.name, ["wine", "sc", "query", prefix.SERVICE], log=PROGRAMS_LOG,
                     env=environment).wait(60)


def server_log(laboratory):
    return laboratory.folder / "logs" / SERVER_LOG


def requests_of(laboratory, program):
    """All that the processes of this program asked the server for, with the answers, in order."""
    images, owners, asked = {}, {}, {}
    found = []
    with open(server_log(laboratory), encoding="utf-8", errors="replace") as lines:
        for line in lines:
            line = line.rstrip("\n")
            if answer := ANSWER.match(line):
                thread, name, status, text = answer.groups(default="")
                request = Request(owners.get(thread, ""), name, asked.pop((thread, name), ""), status, text)
                _note_threads(thread, request, images, owners)
                if images.get(request.process, "").lower().endswith(program):
                    found.append(request)
            elif request := REQUEST.match(line):
                asked[request.group(1), request.group(2)] = request.group(3)
    return found


def _note_threads(thread, request, images, owners):
    """Which process a thread belongs to, and which program a process runs."""
    told = dict(re.findall(r"\b(pid|tid)=([0-9a-f]+)", request.answer))
    if request.name == "new_process" and "pid" in told:
        images[told["pid"]] = request.wide("imagepath").removeprefix("\\??\\")
    elif request.name == "init_first_thread" and "pid" in told:
        owners[thread] = told["pid"]
    elif request.name == "new_thread" and f"process={OWN_PROCESS}" in request.text and "tid" in told:
        owners[told["tid"]] = request.process


def windows_path(name):
    """The Windows path of a Linux one; itself if it lies outside of drive C."""
    _, found, rest = name.partition("/dosdevices/c:")
    return "C:" + rest.rstrip("/").replace("/", "\\") if found else name


def named_file(request):
    found = re.search(r'\bfilename="(.*)"', request.text)
    return windows_path(found.group(1)) if found else ""


@dataclasses.dataclass(frozen=True)
class Opened:
    path: str
    folder: bool
    data: bool  # its bytes, and not only what is known about it
    written: bool


def opened_files(requests):
    """What was opened, made, deleted or renamed, but for what was only read of the Windows itself."""
    found = []
    for request in requests:
        path = named_file(request)
        if request.status != "0" or not path:
            continue
        if request.name == "create_file":
            access, options = request.number("access"), request.number("options")
            written = bool(access & WRITE_ACCESS or options & DELETE_ON_CLOSE
                           or request.number("create") != OPEN_EXISTING)
            if not written and (path.startswith("/") or path.lower().startswith("c:\\windows")):
                continue
            data = bool(access & DATA_ACCESS or written)
            found.append(Opened(path, bool(options & DIRECTORY_FILE), data, written))
        elif request.name == "set_fd_name_info":
            found.append(Opened(path, False, True, True))
    return found


def access_list(text):
    """All entries of a security descriptor as the server writes it, refusals and labels among them: kind,
    flags, rights, who."""
    return [(KINDS.get(kind, kind), int(flags, 16), int(mask, 16), sid)
            for kind, flags, mask, sid in ENTRY.findall(text)]


def secured_files(requests):
    """Of each file or folder whose access list was set its path, the list that was read of it before, and
    the one that it was given, without what the folder above passes on."""
    handles, read, found = {}, {}, []
    for request in requests:
        if request.status != "0":
            continue
        if request.name in ("create_file", "open_file_object"):
            handles[request.process, request.number("handle", request.answer)] = named_file(request)
            continue
        path = handles.get((request.process, request.number("handle")), "")
        if request.name == "get_security_object":
            read[path] = access_list(request.answer)
        elif request.name == "set_security_object":
            given = _without_inherited(access_list(request.text), read.get(ntpath.dirname(path), []))
            found.append((path, read.get(path, []), given))
    return found


def _without_inherited(entries, above):
    """The library for access lists adds these by itself, in each list that it sets."""
    passed_on = {(kind, mask, sid) for kind, _, mask, sid in above}
    return [(kind, flags, mask, sid) for kind, flags, mask, sid in entries
            if not (flags & INHERITED_ENTRY and (kind, mask, sid) in passed_on)]


def written_keys(requests):
    """The registry keys in which values were set or deleted."""
    handles, found = {}, set()
    for request in requests:
        if request.name in ("create_key", "open_key") and request.answer:
            parent = handles.get((request.process, request.number("parent") or request.number("rootdir")), "")
            name = request.wide("name")
            path = name if name.startswith("\\") else f"{parent}\\{name}".rstrip("\\")
            handles[request.process, request.number("hkey", request.answer)] = path
        elif request.name in ("set_key_value", "delete_key_value", "delete_key"):
            found.add(handles.get((request.process, request.number("hkey")), "?"))
    return found


def told_by(laboratory, processes):
    """What the libraries of these processes told: thread, channel and function, text."""
    line = re.compile(r"^([0-9a-f]{4,8}):([0-9a-f]{4,8}):trace:(\w+):(\w+) (.*)$")
    path = laboratory.folder / "logs" / PROGRAMS_LOG
    with open(path, encoding="utf-8", errors="replace") as lines:
        found = [line.match(text.rstrip("\n")) for text in lines]
    return [match.groups()[1:] for match in found if match and match.group(1) in processes]
