"""The command behind ./run."""

import argparse
import contextlib
import os
import pathlib
import signal
import subprocess
import sys

from lab import claims, requirements
from lab.steps import CannotRun, Failed, Stopped, Teller

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "windows"
NOT_VERIFIED, CANNOT_RUN, INTERRUPTED = 1, 2, 130
SIGNALS = {signal.SIGINT: "Ctrl+C", signal.SIGTERM: "SIGTERM", signal.SIGHUP: "SIGHUP"}

USAGE = """
The laboratory stays up, with the service running and nobody logged in. Talk to it:

  ./run ctl login %s        (the password is: %s)
  ./run ctl connect
  ./run ctl status           ... and all that ./run ctl --help tells of
  ./run send '{"id":1,"method":"GetState"}'
  ./run log        the service's log
  ./run filters    the filters in force, with every condition
  ./run routes     the routes of the user's computer
  ./run start      starts the service again, after ./run ctl stop
  ./run account    who can log in, and the password
  ./run --down     ends it
"""
HINT = "./run --keep leaves the laboratory up after the tour, to try it out by hand."


class NotDone(Exception):
    """What was asked of the laboratory that was left up cannot be had; the text says why."""


def stop_on_signals():
    def stop(number, _):
        ignore_signals()
        raise Stopped(SIGNALS[number])

    for each in SIGNALS:
        signal.signal(each, stop)


def ignore_signals():
    """So that none breaks off the cleaning up."""
    for each in SIGNALS:
        signal.signal(each, signal.SIG_IGN)


def build(teller):
    """Configures and builds what the laboratory needs, as a release."""
    from lab import prefix

    products = [str(path.relative_to(BUILD)) for path in prefix.needed_files(BUILD)]
    # The control plane is the laboratory's own, whichever was packaged for last.
    watch(["cmake", "--preset", "windows", "-UTELVOR_CP_BASE_URL"], teller)
    watch(["cmake", "--build", "--preset", "windows", "--target", *products], teller)
    executable = BUILD / "bin" / "telvor.exe"
    teller.detail(f"{executable.relative_to(ROOT)}: {executable.stat().st_size} bytes")


@contextlib.contextmanager
def signals_held():
    """A signal that arrives meanwhile takes effect at the end of it."""
    held = []
    handlers = {each: signal.signal(each, lambda number, _: held.append(number)) for each in SIGNALS}
    try:
        yield
    finally:
        for each, handler in handlers.items():
            signal.signal(each, handler)
        for number in held[:1]:
            signal.raise_signal(number)


@contextlib.contextmanager
def started(command):
    """A part of the build, running; it ends here, early if anything goes wrong."""
    with contextlib.ExitStack() as ending:
        def end_early(failure, *_):
            with contextlib.suppress(ProcessLookupError):
                if failure:
                    os.killpg(process.pid, signal.SIGTERM)

        with signals_held():  # or one between the start and the next line would leave it running
            # A session of its own: what ends it early has to end its compilers too.
            process = subprocess.Popen(command, cwd=ROOT, text=True, stdin=subprocess.DEVNULL,
                                       stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
            ending.push(process)
            ending.push(end_early)
        yield process


def watch(command, teller):
    """Runs a part of the build to its end; what it says of its progress goes into the signs of life."""
    said = []
    with started(command) as process:
        for line in process.stdout:
            said.append(line)
            if line.startswith(("-- ", "[")):  # as "[12/98] Building CXX object a/b/c.obj"
                count, _, what = line.strip().partition(" ")
                teller.doing(f"{count} {what.rpartition('/')[2]}")
    if process.returncode != 0:
        raise Failed(f"{' '.join(command)}\n{''.join(said)[-6000:]}")


def become_root(arguments, *prepared):
    """Goes on as root, for the namespaces."""
    if os.geteuid() != 0:
        command = requirements.as_root([sys.executable, "-B", "-m", "lab.command", *prepared, *arguments])
        os.execvp(command[0], command)


def prepare(options, arguments, teller):
    """Everything before the laboratory, with the rights of whoever called; goes on as root."""
    requirements.as_root([])  # better known before a long build than after it
    if options.keep and claims.kept(BUILD):
        raise CannotRun("A laboratory was left up already. End it with ./run --down")
    with teller.step("what the build and the laboratory need is installed"):
        requirements.install(requirements.BUILD, requirements.PACKAGE, requirements.LABORATORY,
                             tell=teller.detail)
    with teller.step("telvor.exe and the stand-ins are built"):
        build(teller)
    become_root(arguments, f"--began={teller.began}")


def take_tour(options, arguments):
    teller = Teller(began=options.began)
    if options.began is None:
        prepare(options, arguments, teller)
    from lab import laboratory as laboratories
    from lab import tour

    laboratories.check_machine(BUILD)
    laboratory = laboratories.Laboratory(BUILD, teller.detail)
    try:
        with teller.step("the laboratory comes up"):
            laboratory.start()
        tour.give(laboratory, teller)
        if options.keep:
            with teller.step("the service is started once more"):
                laboratory.start_service()
            laboratory.keep()
        else:
            take_down(laboratory, teller)
    except BaseException as failure:
        ignore_signals()
        if not isinstance(failure, Stopped):
            show_end_of_log(laboratory, teller)
        take_down(laboratory, teller)
        raise
    teller.line(f"\nEvery step was verified, in {teller.seconds():.0f} s.")
    teller.line(USAGE % (laboratories.EMAIL, laboratories.PASSWORD) if options.keep else HINT)


def take_down(laboratory, teller):
    """Nothing is shown where nothing is up."""
    if laboratory.number:
        with teller.step("the laboratory is taken down"):
            laboratory.stop()


def show_end_of_log(laboratory, teller):
    from lab import windows

    if laboratory.number:
        teller.line("The end of the service's log:")
        for line in windows.log_lines(laboratory)[-25:]:
            teller.detail(line)


def send(laboratory, options):
    from lab import windows

    try:
        reply = laboratory.pipe.send(os.fsencode(options.rest[0]))
    except windows.NoPipe as failure:
        raise NotDone(f"No reply: {failure}") from failure
    finally:
        laboratory.pipe.close()
    sys.stdout.buffer.write(reply + b"\n")


def control(laboratory, options):
    from lab import prefix

    require_installed(laboratory)
    become_program(laboratory, prefix.TELVORCTL, *options.rest)


def is_program_there(laboratory):
    from lab import prefix, windows

    return (windows.drive(laboratory) / prefix.PROGRAM_FOLDER / "telvor.exe").exists()


def require_installed(laboratory):
    if not is_program_there(laboratory):
        raise NotDone("TELVOR is not installed; ./run install installs it.")


def run_program(laboratory, options):
    become_program(laboratory, *options.rest)


def become_program(laboratory, *words):
    """A program of Windows on the user's computer: at this terminal, with its exit code."""
    from lab import network, windows

    command = laboratory.enter(network.CLIENT.name) + ["wine", *words]
    os.execvpe(command[0], command, windows.environment(laboratory))


def install(laboratory, options):
    from lab import windows

    laboratory.pipe.close()
    tell_installer(windows.install(laboratory, *options.rest, check=False), "installed", laboratory)


def remove(laboratory, options):
    from lab import windows

    laboratory.pipe.close()
    products = windows.installed_products(laboratory)
    if not products:
        raise NotDone("TELVOR is not installed.")
    for code in products:
        tell_installer(windows.remove(laboratory, code, *options.rest, check=False), "removed", laboratory)
    if is_program_there(laboratory):
        raise NotDone("telvor.exe is still there: the service had not stopped in time, and the laboratory's "
                      "installer does not wait for it. Install again in a few seconds, then remove.")


def tell_installer(finished, done, laboratory):
    """How it ended, and what is installed now."""
    from lab import windows

    if finished.code != 0:
        raise NotDone(f"Not {done}: msiexec ended with {finished.code}, the lowest eight bits of its number. 67 is "
                      "1603: it failed, or a newer version is there; 69 is 1605: no such product.")
    versions = ", ".join(windows.installed_products(laboratory).values())
    print(f"{done}; TELVOR {versions} is there" if versions else f"{done}; TELVOR is not there")


def start(laboratory, _):
    from lab import windows

    require_installed(laboratory)
    if windows.service_processes(laboratory):
        print("The service is running already.")
    else:
        laboratory.start_service()
        print("The service is running.")


def show_account(*_):
    from lab import laboratory as laboratories

    print(f"account:  {laboratories.EMAIL}\npassword: {laboratories.PASSWORD}")


def show_log(laboratory, _):
    from lab import windows

    sys.stdout.buffer.write(windows.log_bytes(laboratory).replace(b"\r\n", b"\n"))


def show_filters(laboratory, _):
    from lab import listings

    print("\n".join(listings.filters(laboratory.agent.snapshot())))


def show_routes(laboratory, _):
    from lab import listings

    print("\n".join(listings.routes(laboratory.agent.routes())))


# word: what does it, what follows it, what it is good for. "..." at the end of what follows is not ours to
# read, not even a --help.
WORDS = {
    "ctl": (control, "...", "telvorctl, the service's command line; what follows is its own"),
    "send": (send, "LINE", "send one request line to the service and show its reply"),
    "log": (show_log, "", "the service's log"),
    "filters": (show_filters, "", "the filters in force, with every condition"),
    "routes": (show_routes, "", "the routes of the user's computer"),
    "start": (start, "", "start the service again, after ./run ctl stop"),
    "install": (install, "[PROPERTY=VALUE ...]", "install by the MSI, as an administrator would, unattended"),
    "remove": (remove, "[PROPERTY=VALUE ...]", "remove it again; ERASEDATA=1 erases the data as well"),
    "windows": (run_program, "PROGRAM ...", "a program of Windows, such as sc query TELVOR"),
    "account": (show_account, "", "who can log in, and the password"),
}


def on_kept(options, arguments):
    """One look at, or word to, the laboratory that was left up."""
    become_root(arguments)
    from lab import laboratory as laboratories

    laboratory = laboratories.kept(BUILD)
    if laboratory is None:
        raise CannotRun("No laboratory is up. Start one with ./run --keep")
    laboratory.attach()
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # ./run log | head
    WORDS[options.word][0](laboratory, options)


def down(arguments):
    """Ends what was left up, and what a run left behind that was killed."""
    become_root(arguments)
    # Where nothing was ever installed nothing can be up.
    ended = claims.clear_abandoned(print) if requirements.is_there("ip") else []
    kept = claims.kept(BUILD)
    if kept:
        claims.remove(kept)
    print("The laboratory is down." if kept or ended else "No laboratory is up: nothing to take down.")


HELP = """
Without a word: the whole tour. It needs root's rights (sudo) and takes 3 to 5 minutes the first time, with
the build on two cores, and half a minute from then on.

words, for the laboratory that --keep left up:
"""


def make_parser():
    rows = [f"  {f'{word} {rest}':28} {text}" for word, (_, rest, text) in WORDS.items()]
    parser = argparse.ArgumentParser(
        prog="./run", usage="./run [--keep | --down | --help]\n       ./run {%s} ..." % ",".join(WORDS),
        description="Builds telvor.exe and takes it on a tour through a laboratory on this machine.",
        epilog=HELP + "\n".join(rows), formatter_class=argparse.RawDescriptionHelpFormatter,
        allow_abbrev=False)
    ends = parser.add_mutually_exclusive_group()
    ends.add_argument("--keep", action="store_true", help="leave the laboratory up after the tour")
    ends.add_argument("--down", action="store_true",
                      help="end the one that was left up, and what a killed run left behind")
    # How a tour goes on that has become root with everything prepared.
    parser.add_argument("--began", type=float, help=argparse.SUPPRESS)
    parser.add_argument("word", nargs="?", help=argparse.SUPPRESS)
    parser.add_argument("rest", nargs="*", help=argparse.SUPPRESS)
    return parser


def passes_on(word):
    """Whether all that follows goes on as it is."""
    return word in WORDS and WORDS[word][1].endswith("...")


def parse(arguments):
    """The options; ends the program, telling why, where they make no sense."""
    parser = make_parser()

    def refuse(text):
        parser.exit(CANNOT_RUN, f"./run: {text}\n")

    word = next((index for index, text in enumerate(arguments) if not text.startswith("-")), None)
    end = len(arguments) if word is None or not passes_on(arguments[word]) else word + 1
    options = parser.parse_args(arguments[:end])
    options.rest += arguments[end:]
    if options.word is None:
        return options
    if options.word not in WORDS:
        refuse(f"there is no {options.word}; the words are: {', '.join(WORDS)}")
    if options.keep or options.down:
        refuse(f"{options.word} stands alone, without --keep or --down")
    follows = WORDS[options.word][1]
    if follows == "LINE" and len(options.rest) != 1:
        refuse("""send takes one request line: ./run send '{"id":1,"method":"GetState"}'""")
    if follows.startswith("PROGRAM") and not options.rest:
        refuse("windows takes a program: ./run windows sc query TELVOR")
    if not follows and options.rest:
        refuse(f"nothing follows {options.word}")
    return options


def main(arguments):
    options = parse(arguments)
    stop_on_signals()
    try:
        if options.word:
            on_kept(options, arguments)
        elif options.down:
            down(arguments)
        else:
            take_tour(options, arguments)
        return 0
    except Stopped as stopped:
        return tell_end(f"\nStopped by {stopped}.", INTERRUPTED)
    except (CannotRun, requirements.NotInstalled) as failure:
        return tell_end(f"\nCannot run. {failure}", CANNOT_RUN)
    except NotDone as failure:
        return tell_end(failure, NOT_VERIFIED)
    except Failed as failure:
        return tell_end(f"\nNot verified. {failure}", NOT_VERIFIED)
    except Exception as failure:
        return tell_end(f"\nNot verified. {type(failure).__name__}: {failure}", NOT_VERIFIED)


def tell_end(text, code):
    print(text, file=sys.stderr)
    return code


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
