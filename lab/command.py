"""The command behind ./run."""

import argparse
import os
import pathlib
import signal
import subprocess
import sys

from lab import requirements
from lab.steps import CannotRun, Failed, Teller

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "windows"
NOT_VERIFIED, CANNOT_RUN, INTERRUPTED = 1, 2, 130

USAGE = """
The laboratory stays up, with the service running and nobody logged in. Talk to it:

  ./run ctl login %s        (the password is: %s)
  ./run ctl connect
  ./run ctl status           ... and all that ./run ctl --help tells of
  ./run send '{"id":1,"method":"GetState"}'
  ./run log        the service's log
  ./run filters    the filters in force, with every condition
  ./run routes     the routes of the user's computer
  ./run --down     ends it
"""


class Stopped(BaseException):
    """The user or the system wants this run to end."""


def stop_on_signals():
    def stop(number, _):
        # A second signal must not break off the cleaning up.
        for each in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(each, signal.SIG_IGN)
        raise Stopped(signal.Signals(number).name)

    for each in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(each, stop)


def build(teller):
    """Configures and builds what the laboratory needs, as a release."""
    from lab import prefix

    products = [str(path.relative_to(BUILD)) for path in prefix.needed_executables(BUILD)]
    for command in (["cmake", "--preset", "windows"],
                    ["cmake", "--build", "--preset", "windows", "--target", *products]):
        result = subprocess.run(command, cwd=ROOT, text=True, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT)
        if result.returncode != 0:
            raise Failed(f"{' '.join(command)}\n{result.stdout[-6000:]}")
    executable = BUILD / "bin" / "telvor.exe"
    teller.detail(f"{executable.relative_to(ROOT)}: {executable.stat().st_size} bytes")


def become_root(arguments):
    """Goes on as root, for the namespaces, with everything installed and built."""
    if os.geteuid() != 0:
        command = requirements.as_root([sys.executable, "-B", "-m", "lab.command", "--prepared", *arguments])
        os.execvp(command[0], command)


def take_tour(options, arguments, teller):
    if not options.prepared:
        requirements.as_root([])  # better known before a long build than after it
        with teller.step("what the build and the laboratory need is installed"):
            requirements.install(requirements.BUILD, requirements.LABORATORY, tell=teller.detail)
        with teller.step("telvor.exe and the stand-ins are built"):
            build(teller)
        become_root(arguments)
    from lab import laboratory as laboratories
    from lab import tour

    laboratories.check_machine(BUILD)
    if options.keep and laboratories.kept(BUILD) is not None:
        raise CannotRun("A laboratory was left up already. End it with ./run --down")
    laboratory = laboratories.Laboratory(BUILD, teller.detail)
    try:
        with teller.step("the laboratory comes up"):
            laboratory.start()
        tour.give(laboratory, teller)
        if options.keep:
            with teller.step("the service is started once more"):
                laboratory.start_service()
            laboratory.keep()
    except BaseException:
        show_end_of_log(laboratory, teller)
        laboratory.stop()
        raise
    if not options.keep:
        with teller.step("the laboratory is taken down"):
            laboratory.stop()
    teller.line("\nEvery step was verified.")
    if options.keep:
        teller.line(USAGE % (laboratories.EMAIL, laboratories.PASSWORD))


def show_end_of_log(laboratory, teller):
    from lab import windows

    if laboratory.number and sys.exc_info()[0] is not Stopped:
        teller.line("The end of the service's log:")
        for line in windows.log_lines(laboratory)[-25:]:
            teller.detail(line)


def send(laboratory, options):
    reply = laboratory.pipe.send(os.fsencode(options.line))
    laboratory.pipe.close()
    sys.stdout.buffer.write(reply + b"\n")


def control(laboratory, options):
    """Becomes telvorctl.exe on the user's computer: at this terminal, with its exit code."""
    from lab import network, prefix, windows

    command = laboratory.enter(network.CLIENT.name) + ["wine", prefix.TELVORCTL, *options.words]
    os.execvpe(command[0], command, windows.environment(laboratory))


def show_log(laboratory, _):
    from lab import windows

    sys.stdout.buffer.write(windows.log_bytes(laboratory).replace(b"\r\n", b"\n"))


def show_filters(laboratory, _):
    from lab import listings

    print("\n".join(listings.filters(laboratory.agent.snapshot())))


def show_routes(laboratory, _):
    from lab import listings

    print("\n".join(listings.routes(laboratory.agent.routes())))


def take_down(laboratory, _):
    laboratory.stop()
    print("The laboratory is down.")


ON_KEPT = {"ctl": control, "send": send, "log": show_log, "filters": show_filters, "routes": show_routes,
           "down": take_down}


def on_kept(action, options, arguments):
    """One look at, or word to, the laboratory that was left up."""
    become_root(arguments)
    from lab import laboratory as laboratories

    laboratory = laboratories.kept(BUILD)
    if laboratory is None:
        raise CannotRun("No laboratory is up. Start one with ./run --keep")
    ON_KEPT[action](laboratory, options)


def parse(arguments):
    parser = argparse.ArgumentParser(prog="./run", description="Builds telvor.exe and takes it on a tour.")
    parser.add_argument("--keep", action="store_true", help="leave the laboratory up after the tour")
    parser.add_argument("--down", action="store_true", help="end the laboratory that was left up")
    parser.add_argument("--prepared", action="store_true", help=argparse.SUPPRESS)
    words = parser.add_subparsers(dest="word", metavar="")
    words.add_parser("ctl", help="telvorctl, the service's command line; what follows is its own")
    words.add_parser("send", help="send one request line").add_argument("line")
    for word, text in (("log", "the service's log"), ("filters", "the filters in force"),
                       ("routes", "the routes of the user's computer")):
        words.add_parser(word, help=text)
    # What stands behind ctl is not ours to read, not even a --help.
    word = next((index for index, text in enumerate(arguments) if not text.startswith("-")), None)
    end = len(arguments) if word is None or arguments[word] != "ctl" else word + 1
    options = parser.parse_args(arguments[:end])
    options.words = arguments[end:]
    return options


def main(arguments):
    stop_on_signals()
    options = parse(arguments)
    teller = Teller()
    try:
        if options.word or options.down:
            on_kept(options.word or "down", options, arguments)
        else:
            take_tour(options, arguments, teller)
        return 0
    except Stopped as stopped:
        teller.line(f"\nStopped by {stopped}; everything was taken down.")
        return INTERRUPTED
    except (CannotRun, requirements.NotInstalled) as failure:
        teller.line(f"\nCannot run. {failure}")
        return CANNOT_RUN
    except Exception as failure:
        teller.line(f"\nNot verified. {type(failure).__name__}: {failure}")
        return NOT_VERIFIED


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
