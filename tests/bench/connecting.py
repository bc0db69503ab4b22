"""P3: from Connect to CONNECTED, beside a script of curl, wg and ip; and where each millisecond of it goes.

Every instant of the worker between the two counts as one thing alone, the first of KINDS that fits it."""

import collections
import json
import pathlib
import statistics
import time

import figures
import laboratory as laboratories
import recorder
from lab import laboratory as lab_parts
from lab import network, vpn_servers

TITLE = "from Connect to CONNECTED"

HERE = pathlib.Path(__file__).resolve().parent
REPETITIONS = 20
SCRIPT_EMAIL = "grace@telvor.test"
SCRIPT_DEVICE = "by-hand"
OWN_GOAL_MS = 10
LAST_LINE = "WFP: split-bypass allowlist update OK"
LONG_WAIT = 0.24  # seconds; a tick of the worker takes 0.25
SLEEPS = (23, 35, 230, 270)  # select, nanosleep, clock_nanosleep, pselect6: what a Sleep becomes
READ = 0

# A phase begins with the first log line that begins so; the last one ends with LAST_LINE.
Phase = collections.namedtuple("Phase", "name begin waits_for")
SERVICE_MANAGER, PLATFORM, NETWORK = "service manager", "routes, adapters, filters", "network"
PHASES = (
    Phase("noticing", "", SERVICE_MANAGER),
    Phase("bootstrap", "Bootstrap: CP base URL", NETWORK),
    Phase("first routes", "SplitTunnelV1: pre-tunnel route install ENTER", PLATFORM),
    Phase("tunnel service", "SplitTunnelV1: pre-tunnel route install OK", SERVICE_MANAGER),
    Phase("handshake", "WireGuard: waiting for handshake...", PLATFORM),
    Phase("routes, adapter", "WireGuard handshake OK.", PLATFORM),
    Phase("firewall", "VPNSERVICE: about to call EnableFailClosedBaseline", PLATFORM),
)
FIXED, CHILDREN, BUSY = "fixed waits", "programs started", "waiting for a processor"
PROCESSOR, WINE = "own: processor", "own: Wine's answers"
KINDS = (FIXED, CHILDREN, NETWORK, SERVICE_MANAGER, PLATFORM, BUSY, PROCESSOR, WINE)
COLORS = ("0.85", "C1", "C2", "C4", "C9", "0.6", "C3", "C6")
LABELLED_MS = 25  # the picture names a step of the script that takes longer
BOUND = (FIXED, CHILDREN, NETWORK)  # what is no time of the service's own
OWN = (PROCESSOR, WINE)
QUESTIONS = "questions to Wine's server"
PROBE = r'"C:\Program Files\WireGuard\wg.exe" show telvor latest-handshakes'
PROBES, SHORT_PROBES = 20, 2
PROFILED, SHORT_PROFILED = 10, 1  # connects whose processor time is told apart by whose code it is


def measure(run):
    laboratory = laboratories.of(run)
    script = _prepare_script(laboratory)
    trace = recorder.Trace(laboratory)
    try:
        samples = figures.alternately({"service": lambda: _by_service(laboratory, trace),
                                       "script": lambda: _by_script(laboratory, script)},
                                      run.repetitions(REPETITIONS))
    finally:
        trace.close()
    used = _whose_processor(laboratory, trace.worker, SHORT_PROFILED if run.short else PROFILED)
    probe = _cost_of_probe(laboratory, SHORT_PROBES if run.short else PROBES)
    breakdown = _mean([kinds for _, kinds in samples["service"]])
    steps = _mean([steps for _, steps in samples["script"]])
    totals = {name: statistics.median(total for total, _ in taken) for name, taken in samples.items()}
    unbound = [kind for kind in KINDS if kind not in BOUND]
    own = statistics.median(sum(kinds[phase.name, kind] for phase in PHASES for kind in unbound)
                            for _, kinds in samples["service"])
    return figures.Measurement(
        figures=[figures.Figure("from Connect to CONNECTED", totals["service"], "ms", 1, "curl, wg and ip",
                                totals["script"]),
                 figures.Figure("the same less fixed waits, programs and network", own, "ms", OWN_GOAL_MS)],
        pictures=[_picture(breakdown, steps)],
        text=[EXPLANATION, _table(breakdown), _obstacles(breakdown, steps, probe, used)])


def _mean(samples):
    return {key: statistics.mean(sample[key] for sample in samples) for key in samples[0]}


# The service


def _by_service(laboratory, trace):
    """Milliseconds, and those of them by phase and kind."""
    watch = recorder.LogWatch(laboratory)
    try:
        trace.clear()
        time.sleep(0.6)  # a program that the idle worker has running is traced from its start
        begin = time.monotonic()
        figures.require(laboratory.pipe.call("Connect") is True, "Connect was refused")
        watch.wait_for(LAST_LINE)
        events = trace.events()
        laboratory.wait_for_state("connected")
    finally:
        watch.close()
    kinds = _attribute(events, trace.worker, set(laboratory.pids(network.CLIENT.name)), watch.lines, begin)
    laboratories.disconnect(laboratory)
    return sum(kinds[phase.name, kind] for phase in PHASES for kind in KINDS), kinds


def _attribute(events, worker, pids, lines, begin):
    end = next(line.time for line in lines if line.text.startswith(LAST_LINE))
    calls = recorder.calls(events, worker)
    ran, waited = recorder.turns(events, worker)
    phases = _phases(lines, begin, end)
    answers, waits = _wine_pipes(calls)
    noticed = phases[PHASES[0].name][1]
    rest = [(begin, end)]
    kinds = {(phase.name, kind): 0 for phase in PHASES for kind in (*KINDS, QUESTIONS)}
    ticks = [wait for wait in waits if wait[0] < noticed and wait[1] - wait[0] > LONG_WAIT]
    sleeps = [(call.begin, call.end) for call in calls if call.number in SLEEPS]
    for kind, spans in ((FIXED, sleeps), (CHILDREN, recorder.programs(events, worker)), (FIXED, ticks),
                        (NETWORK, recorder.exchanges(events, network.CONTROL_PLANE_PORT, pids)),
                        (None, waits), (BUSY, waited), (PROCESSOR, ran), (WINE, [(begin, end)])):
        taken, rest = _take(rest, spans)
        _book(kinds, phases, taken, kind)
    for call in calls:
        name = next((name for name, (low, high) in phases.items() if low <= call.begin < high), None)
        if name and call.number == READ and call.first == answers:
            kinds[name, QUESTIONS] += 1
    return kinds


def _phases(lines, begin, end):
    begins = [begin]
    for phase in PHASES[1:]:
        begins.append(next(line.time for line in lines if line.text.startswith(phase.begin)))
    return {phase.name: span for phase, span in zip(PHASES, zip(begins, begins[1:] + [end]))}


def _wine_pipes(calls):
    """The number of the pipe by which Wine's server answers, the one that is read most often, and when the
    thread waited for an object of Windows: the reads of the other pipe from the server."""
    reads = [call for call in calls if call.number == READ]
    answers = collections.Counter(call.first for call in reads).most_common(1)[0][0]
    seconds = collections.Counter()
    for call in reads:
        if call.first != answers:
            seconds[call.first] += call.end - call.begin
    waits = seconds.most_common(1)[0][0]
    return answers, [(call.begin, call.end) for call in reads if call.first == waits]


def _take(rest, spans):
    """What of the rest the spans cover, and what they leave of it."""
    taken = []
    for begin, end in spans:
        left = []
        for low, high in rest:
            if end <= low or begin >= high:
                left.append((low, high))
                continue
            taken.append((max(low, begin), min(high, end)))
            left += [part for part in ((low, begin), (end, high)) if part[0] < part[1]]
        rest = left
    return taken, rest


def _book(kinds, phases, taken, kind):
    """Adds what was taken, in milliseconds, to the phases that it lies in; without a kind, to what the phase
    waits for."""
    for phase in PHASES:
        low, high = phases[phase.name]
        kinds[phase.name, kind or phase.waits_for] += 1000 * recorder.overlap(taken, low, high)


# The script

Script = collections.namedtuple("Script", "token key_file")


def _prepare_script(laboratory):
    """An account of its own and a session, as the service has them before it connects."""
    laboratory.keeper.add_account(SCRIPT_EMAIL, lab_parts.PASSWORD)
    body = json.dumps({"email": SCRIPT_EMAIL, "password": lab_parts.PASSWORD})
    answer = laboratory.run(network.CLIENT.name, [
        "curl", "-sSf", "--noproxy", "*", "-H", "Content-Type: application/json", "-d", body,
        f"{network.CONTROL_PLANE_URL}/v1/auth/login"])
    key_file = laboratory.folder / "by-hand.key"
    key_file.touch(mode=0o600)
    key_file.write_text(vpn_servers.make_key_pair()[0])
    return Script(json.loads(answer.stdout)["access_token"], key_file)


def _by_script(laboratory, script):
    """Milliseconds, and those of them by step."""
    command = [str(HERE / "connect.sh")]
    try:
        words = (network.CONTROL_PLANE_URL, script.token, SCRIPT_DEVICE, vpn_servers.PARIS.server_id)
        up = laboratory.run(network.CLIENT.name, [*command, "up", *words, str(script.key_file)], timeout=60,
                            check=False)
    finally:
        laboratory.run(network.CLIENT.name, [*command, "down"], check=False)
    marks = [line.split() for line in up.stdout.splitlines()]
    figures.require(up.returncode == 0 and marks[-1][0] == "end", f"the script said {up.stdout} {up.stderr}")
    times = [int(at) / 1000 for _, at in marks]
    steps = {step: end - begin for (step, _), begin, end in zip(marks, times, times[1:])}
    return times[-1] - times[0], steps


# What is shown


def _table(breakdown):
    head = ["milliseconds, mean", *KINDS, "sum", QUESTIONS]
    rows = [[phase.name, *(breakdown[phase.name, kind] for kind in KINDS)] for phase in PHASES]
    questions = [breakdown[phase.name, QUESTIONS] for phase in PHASES]
    rows.append(["sum", *(_sum_of(breakdown, kind) for kind in KINDS)])
    lines = ["| " + " | ".join(head) + " |", "|---" + "|--:" * (len(head) - 1) + "|"]
    for (name, *values), asked in zip(rows, [*questions, sum(questions)]):
        cells = [f"{value:.1f}" if value >= 0.05 else "" for value in (*values, sum(values))]
        lines.append("| " + " | ".join([name, *cells, f"{asked:.0f}"]) + " |")
    return "\n".join(lines)


def _sum_of(breakdown, kind):
    return sum(breakdown[phase.name, kind] for phase in PHASES)


def _whose_processor(laboratory, worker, times):
    """Milliseconds of the worker's processor time in a connect, by whose code it runs in."""
    used = []
    for _ in range(times):
        used.append(recorder.profile(laboratory, worker, lambda: laboratories.connect(laboratory)))
        laboratories.disconnect(laboratory)
    return _mean(used)


def _cost_of_probe(laboratory, times):
    """Milliseconds that wg.exe takes, started by a program that does nothing else."""
    starter = laboratories.start_program(laboratory, "starter", PROBE)
    try:
        starter.exchange(b"")  # what the first start alone needs
        return statistics.median(int(starter.exchange(b"")) / 1e6 for _ in range(times))
    finally:
        starter.close()


EXPLANATION = """\
Both connect to the same server, in turn. The script makes the service's five requests by a `curl` each and
brings a tunnel of `wireguard-go` up by `wg` and `ip`; it ends when `wg` shows a handshake. The breakdown is
reckoned from the kernel's own tracing of the worker's thread and from the times at which its log lines
reached the disk, which begin the phases. Each instant counts once, for the first that fits: a pause or a
tick of a fixed length; a program that the worker started, from its start to the end of the last process
that came of it; an exchange with the control plane, from its first packet to the end of the answer; a wait
for the service manager, or for what the laboratory has in place of Windows' route table, adapters and
filters; a processor that others had. What then remains is the worker's own: processor time, that of the
libraries included, and the time until Wine's server answered, which is asked about every file, handle and
key of the registry."""

OBSTACLES = """\
The script's steps take, in milliseconds: {hand}; {script:.0f} together. What the service is bound to by its
order, the pauses of a fixed length and the three programs, takes {bound:.0f} by itself, and all the rest
{rest:.0f}. `wg.exe` alone takes {probe:.0f} when a program that does nothing else starts it; the script's
`wg` is a program of Linux and takes a few. Of the {own:.0f} of the worker's own, {processor:.0f} are
processor time. The others are {asked:.0f} questions to Wine's server, {each:.0f} microseconds each; on
Windows these are calls into the kernel. A profile of the worker from Connect to CONNECTED, what it does in
exchanges and for programs included, shows whose code the processor runs: {code:.1f} ms telvor.exe's,
{libraries:.1f} that of Wine's libraries, TLS among them, {kernel:.1f} the kernel's."""


def _obstacles(breakdown, steps, probe, used):
    asked, wine = _sum_of(breakdown, QUESTIONS), _sum_of(breakdown, WINE)
    bound = _sum_of(breakdown, FIXED) + _sum_of(breakdown, CHILDREN)
    return OBSTACLES.format(
        hand=", ".join(f"{step} {value:.0f}" for step, value in steps.items()), script=sum(steps.values()),
        bound=bound, rest=sum(_sum_of(breakdown, kind) for kind in KINDS) - bound, probe=probe,
        own=sum(_sum_of(breakdown, kind) for kind in OWN), processor=_sum_of(breakdown, PROCESSOR),
        code=used[recorder.OWN_CODE], libraries=used[recorder.LIBRARIES], kernel=used[recorder.KERNEL],
        asked=asked, each=1000 * wine / max(1, asked))


def _picture(breakdown, steps):
    def draw(drawing):
        axes = drawing.subplots()
        names = [phase.name for phase in PHASES]
        begin = 0
        for place, name in enumerate(names):
            for kind, color in zip(KINDS, COLORS):
                width = breakdown[name, kind]
                axes.barh(place, width, left=begin, color=color, label=kind if place == 0 else None)
                begin += width
        begin = 0
        for number, (step, width) in enumerate(steps.items()):
            axes.barh(len(names), width, left=begin, color=("lightsteelblue", "lightblue")[number % 2])
            if width > LABELLED_MS:
                axes.text(begin + width / 2, len(names), step, ha="center", va="center", rotation=90, size=6)
            begin += width
        axes.set_yticks(range(len(names) + 1), [*names, "by curl, wg and ip"])
        axes.invert_yaxis()
        axes.set_xlabel("milliseconds since Connect")
        axes.set_title("Where a connect spends its time")
        axes.legend(loc="upper right", fontsize="small")

    return figures.Picture("connect", "Where a connect spends its time, phase by phase; below it the script",
                           draw)
