"""What the service's worker does, seen from outside: by the kernel's tracing and by notices of the log file.
Nothing is attached to the executable. Times are seconds of the machine's monotonic clock."""

import collections
import ctypes
import os
import pathlib
import re
import select
import shutil
import signal
import struct
import subprocess
import time

import figures
from lab import windows

TRACING = pathlib.Path("/sys/kernel/tracing")
BUFFER_KIB = 8192
ALWAYS = ("sched/sched_process_fork", "sched/sched_process_exec", "sched/sched_process_exit",
          "sock/inet_sock_set_state")
WORKER_TURNS = "sched/sched_switch"
WORKER_CALLS = "raw_syscalls"
IN_MODIFY = 2
SAMPLES_A_SECOND = 8000
PE_HEADER_AT, IMAGE_SIZE_AT = 0x3C, 0x50  # in a program of Windows; the second counts from the header on
OWN_CODE, LIBRARIES, KERNEL = "telvor.exe", "libraries", "kernel"
EVENT = re.compile(r"\s*(?:\S.*)-(\d+)\s+\[\d+\]\s+\S+\s+(\d+\.\d+): (\w+): (.*)")

Line = collections.namedtuple("Line", "time text")
Event = collections.namedtuple("Event", "time thread name text")
Mapping = collections.namedtuple("Mapping", "begin path private")  # private: KiB that belong to no file
Call = collections.namedtuple("Call", "begin end number first")  # a system call with its first argument


class LogWatch:
    """The lines that the service adds to its log, each with the time at which it stood on the disk."""

    def __init__(self, laboratory):
        path = windows.drive(laboratory) / windows.prefix.LOG_FILE
        self.lines = []
        libc = ctypes.CDLL(None, use_errno=True)
        self._notices = libc.inotify_init()
        libc.inotify_add_watch(self._notices, os.fsencode(path), IN_MODIFY)
        self._file = open(path, "rb")
        self._file.seek(0, os.SEEK_END)

    def wait_for(self, text, timeout=60):
        """Until a line begins so."""
        deadline = time.monotonic() + timeout
        while not any(line.text.startswith(text) for line in self.lines):
            figures.require(time.monotonic() < deadline, f"the log never said {text!r}")
            if select.select([self._notices], [], [], 1)[0]:
                self._take()

    def _take(self):
        os.read(self._notices, 65536)
        now = time.monotonic()
        for text in self._file.read().decode("latin-1").split("\r\n"):
            if text:
                self.lines.append(Line(now, text[22:] if text.startswith("[2") else text))

    def close(self):
        self._file.close()
        os.close(self._notices)


class Trace:
    """The kernel's events about the worker, about processes and about connections while it is open."""

    def __init__(self, laboratory):
        figures.require((TRACING / "instances").is_dir(), f"no tracing: mount -t tracefs tracefs {TRACING}")
        self._folder = TRACING / "instances" / f"telvor-bench-{os.getpid()}"
        self._folder.mkdir()
        self._write("trace_clock", "mono")
        self._write("buffer_size_kb", BUFFER_KIB)
        for event in ALWAYS:
            self._write(f"events/{event}/enable", 1)
        try:
            self.worker = self._find_worker(laboratory)
        except BaseException:
            self.close()
            raise
        self._write(f"events/{WORKER_CALLS}/filter", f"common_pid == {self.worker}")
        self._write(f"events/{WORKER_TURNS}/filter",
                    f"prev_pid == {self.worker} || next_pid == {self.worker}")
        self._write(f"events/{WORKER_CALLS}/enable", 1)
        self._write(f"events/{WORKER_TURNS}/enable", 1)

    def _write(self, name, value):
        (self._folder / name).write_text(str(value), encoding="ascii")

    def _find_worker(self, laboratory):
        """The thread of the service that starts programs, as the idle worker does all the time."""
        service = windows.service_processes(laboratory)[0]
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline:
            time.sleep(0.5)
            events = self.events()
            for thread in map(int, os.listdir(f"/proc/{service}/task")):
                if programs(events, thread):
                    return thread
        raise figures.WrongAnswer("the service's worker starts no program")

    def clear(self):
        self._write("trace", "")

    def events(self):
        found = map(EVENT.match, (self._folder / "trace").read_text(errors="replace").splitlines())
        return [Event(float(match[2]), int(match[1]), match[3], match[4]) for match in found if match]

    def close(self):
        for event in (*ALWAYS, WORKER_TURNS, WORKER_CALLS):
            self._write(f"events/{event}/enable", 0)
        self._folder.rmdir()


def calls(events, thread):
    """The finished system calls of a thread."""
    found, begun = [], None
    for event in events:
        if event.thread != thread:
            continue
        if event.name == "sys_enter":
            begun = event
        elif event.name == "sys_exit" and begun:
            number, first = re.match(r"NR (\d+) \((\w+)", begun.text).groups()
            found.append(Call(begun.time, event.time, int(number), int(first, 16)))
            begun = None
    return found


def turns(events, thread):
    """When the thread ran, and when it could have run but for others: two lists of intervals."""
    ran, waited, begin, ready = [], [], None, None
    for event in events:
        if event.name != "sched_switch":
            continue
        if f"next_pid={thread} " in event.text:
            begin = event.time
            if ready is not None:
                waited.append((ready, event.time))
        elif begin is not None:
            ran.append((begin, event.time))
            ready = event.time if re.search(rf"prev_pid={thread} .*prev_state=R", event.text) else None
    return ran, waited


def programs(events, thread):
    """For each program that the thread started: from its start to the end of the last process it made."""
    family, begun, ends, executed = {}, [], {}, set()
    for event in events:
        if event.name == "sched_process_fork" and (event.thread == thread or event.thread in family):
            if event.thread == thread:
                begun.append(event.time)
            child = int(re.search(r"child_pid=(\d+)", event.text)[1])
            family[child] = family.get(event.thread, len(begun) - 1)
        elif event.thread in family and event.name == "sched_process_exec":
            executed.add(family[event.thread])
        elif event.thread in family and event.name == "sched_process_exit":
            ends[family[event.thread]] = event.time
    return [(begun[number], ends[number]) for number in sorted(executed) if number in ends]


def exchanges(events, port, pids):
    """For each connection that one of the processes made to a port: from its first packet to the end of what
    came back."""
    asked, begun, found = None, {}, []
    for event in events:
        if event.name != "inet_sock_set_state":
            continue
        fields = dict(word.split("=", 1) for word in event.text.split() if "=" in word)
        change = fields["oldstate"], fields["newstate"]
        if fields["dport"] != str(port):
            continue
        if change == ("TCP_CLOSE", "TCP_SYN_SENT") and event.thread in pids:
            asked = event.time  # its own port is not told yet
        elif change == ("TCP_SYN_SENT", "TCP_ESTABLISHED") and asked is not None:
            begun[fields["sport"]], asked = asked, None
        elif change[0] == "TCP_ESTABLISHED" and fields["sport"] in begun:
            found.append((begun.pop(fields["sport"]), event.time))
    return found


def mappings(pid):
    """The memory of a process, piece by piece."""
    found = []
    for line in pathlib.Path(f"/proc/{pid}/smaps").read_text(encoding="utf-8").splitlines():
        words = line.split(maxsplit=5)
        if words[0] == "Anonymous:":
            found[-1] = found[-1]._replace(private=int(words[1]))
        elif not words[0].endswith(":"):
            found.append(Mapping(int(words[0].split("-")[0], 16), words[5] if len(words) > 5 else "", 0))
    return found


def image(found, path):
    """From where to where a program or library of Windows lies in memory. Wine maps its head and copies the
    rest, so that only the head's piece has a name."""
    base, path = next((mapping.begin, mapping.path) for mapping in found if mapping.path.endswith(path))
    head = pathlib.Path(path).read_bytes()[:4096]
    header = struct.unpack_from("<I", head, PE_HEADER_AT)[0]
    return base, base + struct.unpack_from("<I", head, header + IMAGE_SIZE_AT)[0]


def profile(laboratory, thread, work):
    """Milliseconds of processor time that a thread of the service uses during `work`, by whose code it is."""
    figures.require(shutil.which("perf"), "perf is missing (Debian: linux-perf)")
    service = windows.service_processes(laboratory)[0]
    low, high = image(mappings(service), "/telvor.exe")
    record = laboratory.folder / "profile"
    sampler = subprocess.Popen(["perf", "record", "-q", "-e", "cpu-clock", "-F", str(SAMPLES_A_SECOND),
                                "-t", str(thread), "-o", str(record)], stderr=subprocess.DEVNULL)
    try:
        time.sleep(0.5)
        work()
    finally:
        sampler.send_signal(signal.SIGINT)
        sampler.wait()
    places = subprocess.run(["perf", "script", "-i", str(record), "-F", "ip"], check=True, text=True,
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout.split()
    used = dict.fromkeys((OWN_CODE, LIBRARIES, KERNEL), 0)
    for place in (int(word, 16) for word in places):
        whose = OWN_CODE if low <= place < high else KERNEL if place >> 63 else LIBRARIES
        used[whose] += 1000 / SAMPLES_A_SECOND
    return used


def overlap(spans, low, high):
    """How many seconds of the spans lie between two times."""
    return sum(max(0, min(high, end) - max(low, begin)) for begin, end in spans)
