"""P7: what the service weighs: its file, its memory idle and after many connects, its idle processor time."""

import os
import pathlib
import shutil
import time

import figures
import laboratory as laboratories
import recorder
from lab import network, prefix, windows

TITLE = "size, memory and idle processor time"

CONNECTS = int(os.environ.get("TELVOR_BENCH_CONNECTS", "1000"))
SHORT_CONNECTS = 3  # behind the one of its laboratory
WARM_UP = 5  # connects after which the platform has made all that it makes once: TLS, worker threads, heaps
SAMPLES = 40  # of the memory, over all connects
SETTLE_SECONDS = 3
IDLE_SECONDS, SHORT_IDLE_SECONDS, PROFILED_SECONDS = 60, 3, 10
STARTS, SHORT_STARTS = 30, 2
BARE_SERVICE = "TELVORBARE"
# Of five connects.
ASKING = ("bare_asking_service", network.CONTROL_PLANE_HOST, str(network.CONTROL_PLANE_PORT), "25")
UNINSTALLER = r'"C:\Program Files\WireGuard\wireguard.exe" /uninstalltunnelservice telvor'

SIZE_GOAL_MB, MEMORY_GOAL_MB, GROWTH_GOAL, PROCESSOR_GOAL = 1.5, 4, 1.02, 0.1
MEGABYTE = 1e6

EXPLANATION = """\
Private memory is what the kernel counts as pages that belong to no file (RssAnon). Idle the service holds
{idle:.2f} MB of it and the service of ten lines {bare:.2f} MB, most of it Wine's: a megabyte for each
thread of Windows, of which the one has five and the other three. {lent:.2f} MB of the service's are the
laboratory's libraries that stand in for two of Windows' own, which Windows would share among all programs;
they are taken off. Memory after many connects is compared with that after the first {warm_up}, which load
the libraries of HTTPS and fill their caches; {allowed:.0f} % of ups and downs are allowed. A service of ten
lines that makes 25 requests by HTTPS, as five connects do, and nothing else holds {asking:.2f} MB; the service
after its connects holds {above:.2f} MB more than that, two of them for its two threads more.

The idle worker makes {passes:.1f} passes a second and uses {own:.2f} ms of processor time for each,
{share:.2f} % of a core in all. {code:.3f} ms of them run in code of telvor.exe, {code_share:.3f} % of a
core: the others in the kernel and in Wine on its behalf. Each pass has to start the uninstaller; a program
that does nothing but start it, with the same calls, uses {starts:.2f} ms for each start, which would be
{floor:.2f} % of a core. Each pass also has to look for filters that an earlier life left in force, and asks
the service manager three times."""


def measure(run):
    laboratory = laboratories.of(run)
    if not run.short:
        laboratory.stop_service()  # it was connected before, and what that needed would stay in its memory
        laboratory.start_service()
    size = (run.windows / "bin" / "telvor.exe").stat().st_size / MEGABYTE
    bare = _bare_memory(laboratory, "bare_service")
    asking = _bare_memory(laboratory, *ASKING)
    time.sleep(SETTLE_SECONDS)
    service = windows.service_processes(laboratory)[0]
    idle, lent = _memory(service), _memory_of_standins(service)
    share, passes = _idle_processor(laboratory, SHORT_IDLE_SECONDS if run.short else IDLE_SECONDS)
    code = _own_code(laboratory, SHORT_IDLE_SECONDS if run.short else PROFILED_SECONDS)
    starts = _cost_of_starts(laboratory, SHORT_STARTS if run.short else STARTS)
    connects, warm_up = (SHORT_CONNECTS, 0) if run.short else (CONNECTS, WARM_UP)
    curve = _memory_over_connects(run, laboratory, connects, warm_up)
    return figures.Measurement(
        figures=[
            figures.Figure("size of telvor.exe", size, "MB", SIZE_GOAL_MB),
            figures.Figure("private memory idle, above a bare service's", idle - lent - bare, "MB",
                           MEMORY_GOAL_MB),
            figures.Figure(f"private memory after {connects:,} connects, above a bare service's",
                           curve[-1][1] - lent - bare, "MB", MEMORY_GOAL_MB),
            figures.Figure(f"private memory after {connects:,} connects", curve[-1][1], "MB", GROWTH_GOAL,
                           f"after the first {warm_up or 1}", curve[0][1]),
            figures.Figure("processor time of the idle service", share, "% of a core", PROCESSOR_GOAL)],
        pictures=[_picture(curve, idle, bare)],
        text=[EXPLANATION.format(idle=idle, lent=lent, bare=bare, asking=asking,
                                 above=curve[-1][1] - lent - asking, share=share, passes=passes,
                                 starts=starts,
                                 own=10 * share / passes, floor=starts * passes / 10,
                                 warm_up=WARM_UP, code=code, code_share=code * passes / 10,
                                 allowed=(GROWTH_GOAL - 1) * 100)])


def _memory(pid):
    """Private memory in use, in MB: pages that belong to no file."""
    status = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii")
    kibibytes = next(int(line.split()[1]) for line in status.splitlines() if line.startswith("RssAnon"))
    return kibibytes * 1024 / MEGABYTE


def _memory_of_standins(pid):
    """What of its private memory, in MB, the libraries hold that stand in for Windows' own.

    Wine reads a library that is not its own into private memory; Windows shares its libraries' pages."""
    mappings, held = recorder.mappings(pid), 0
    for library in prefix.REPLACED_LIBRARIES:
        low, high = recorder.image(mappings, f"{prefix.PROGRAM_FOLDER}/{library}.dll")
        held += sum(mapping.private for mapping in mappings if low <= mapping.begin < high)
    return held * 1024 / MEGABYTE


def _bare_memory(laboratory, name, *words):
    """Of the bare service of that name, started with these words."""
    program = f"{name}.exe"
    folder = windows.drive(laboratory) / prefix.PROGRAM_FOLDER
    shutil.copy(laboratories.program(laboratory, name), folder / program)
    path = str(pathlib.PureWindowsPath(prefix.EXECUTABLE).with_name(program))
    command = " ".join([f'"{path}"', *words])
    windows.run(laboratory, "sc", "create", BARE_SERVICE, "binPath=", command, "start=", "demand")
    windows.run(laboratory, "net", "start", BARE_SERVICE)
    try:
        windows.wait_for_service(laboratory, "RUNNING", name=BARE_SERVICE)
        time.sleep(SETTLE_SECONDS)
        return _memory(_pid_of(laboratory, program))
    finally:
        windows.run(laboratory, "net", "stop", BARE_SERVICE, check=False)
        windows.run(laboratory, "sc", "delete", BARE_SERVICE, check=False)


def _pid_of(laboratory, name):
    found = [pid for pid in laboratory.pids(network.CLIENT.name)
             if pathlib.Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0")[0].endswith(name.encode())]
    figures.require(len(found) == 1, f"not one {name} but {found}")
    return found[0]


def _processor_seconds(pid):
    """What each thread of a process has used so far."""
    used = {}
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        used[task.name] = int((task / "schedstat").read_text(encoding="ascii").split()[0]) / 1e9
    return used


def _used_between(before, after):
    return sum(seconds - before.get(thread, 0) for thread, seconds in after.items())


def _idle_processor(laboratory, seconds):
    """Per cent of a core that the idle service uses itself, and how many passes a second its worker makes.

    What the programs that it starts use is theirs from their first moment on. Nobody polls it meanwhile."""
    pid = windows.service_processes(laboratory)[0]
    laboratory.agent.begin_journal()
    before, begin = _processor_seconds(pid), time.monotonic()
    time.sleep(seconds)
    used, taken = _used_between(before, _processor_seconds(pid)), time.monotonic() - begin
    passes = laboratory.agent.journal().count("engine_open")
    figures.require(passes > 0, "the idle service made no pass")
    return 100 * used / taken, passes / taken


def _own_code(laboratory, seconds):
    """Milliseconds of processor time in code of the service's own, in each pass of the idle worker."""
    trace = recorder.Trace(laboratory)  # knows which thread the worker is
    trace.close()
    laboratory.agent.begin_journal()
    used = recorder.profile(laboratory, trace.worker, lambda: time.sleep(seconds))
    passes = laboratory.agent.journal().count("engine_open")
    figures.require(passes > 0, "the idle service made no pass")
    return used[recorder.OWN_CODE] / passes


def _cost_of_starts(laboratory, starts):
    """Milliseconds of processor time for each start of the uninstaller, by a program that does no more."""
    starter = laboratories.start_program(laboratory, "starter", UNINSTALLER)
    try:
        starter.exchange(b"")  # what the first start alone needs
        pid = _pid_of(laboratory, "starter.exe")
        before = _processor_seconds(pid)
        for _ in range(starts):
            figures.require(starter.exchange(b"").isdigit(), "the uninstaller did not start")
        return 1000 * _used_between(before, _processor_seconds(pid)) / starts
    finally:
        starter.close()


def _memory_over_connects(run, laboratory, connects, warm_up):
    """Pairs of connects so far and private memory in MB, beginning behind the warm-up."""
    for _ in range(warm_up):
        _connect_once(laboratory)
    pid = windows.service_processes(laboratory)[0]
    curve = [(0, _settled_memory(pid))]
    for number in range(1, connects + 1):
        _connect_once(laboratory)
        if number % max(1, connects // SAMPLES) == 0 or number == connects:
            curve.append((number, _settled_memory(pid)))
        if number % 100 == 0:
            run.tell(f"{number} connects, {curve[-1][1]:.2f} MB")
    # A program that it is just starting has its name for a moment.
    figures.require(pid in windows.service_processes(laboratory), "the service did not live through it")
    return curve


def _connect_once(laboratory):
    laboratories.connect(laboratory)
    laboratories.disconnect(laboratory)


def _settled_memory(pid, looks=6):
    """The least of some looks: what is just under way holds some for a moment."""
    seen = []
    for _ in range(looks):
        seen.append(_memory(pid))
        time.sleep(0.1)
    return min(seen)


def _picture(curve, idle, bare):
    def draw(drawing):
        axes = drawing.subplots()
        axes.plot(*zip(*curve), color="C0", label="the service")
        axes.axhline(idle, color="C0", linestyle=":", label="the service idle, before its first connect")
        axes.axhline(bare, color="0.5", linestyle="--", label="a service of ten lines")
        axes.set_ylim(bottom=0)
        axes.set_xlabel("connects")
        axes.set_ylabel("private memory, MB")
        axes.set_title("Private memory over many connects")
        axes.legend()

    return figures.Picture("memory", "Private memory over many connects", draw)
