"""./run as a newcomer uses it: its words, what it refuses, what it leaves behind, what it says meanwhile."""

import contextlib
import io
import json
import os
import pathlib
import signal
import subprocess
import sys
import time

import pytest

from conftest import BUILD, ROOT
from lab import claims, command, network, prefix, product, steps, windows
from lab.laboratory import EMAIL, PASSWORD, Laboratory, wait_until

DONE, NOT_VERIFIED, CANNOT_RUN, INTERRUPTED = 0, 1, 2, 130
LINE = '{"id":1,"method":"GetState"}'
NO_KEPT_ONE = "\nCannot run. No laboratory is up. Start one with ./run --keep\n"


@pytest.fixture(autouse=True)
def signals():
    """The command takes the signals for itself; the tests get them back."""
    numbers = (*command.SIGNALS, signal.SIGPIPE)
    before = [signal.getsignal(number) for number in numbers]
    yield
    for number, handler in zip(numbers, before):
        signal.signal(number, handler)


@pytest.fixture(autouse=True)
def build(tmp_path, monkeypatch):
    """A build folder by another name, so that nobody's own laboratory is taken for the one of the test."""
    path = tmp_path / "build"
    path.symlink_to(BUILD)
    monkeypatch.setattr(command, "BUILD", path)
    return path


@pytest.fixture
def kept(lab, build):
    """The laboratory as one that was left up."""
    claims.keep(lab.number, build)
    lab.pipe.close()
    yield lab
    (lab.folder / claims.KEPT).unlink()


def run(capfdbinary, *words):
    """The exit code, the output and the errors."""
    capfdbinary.readouterr()
    code = command.main(list(words))
    sys.stdout.flush()
    captured = capfdbinary.readouterr()
    return code, captured.out.decode("latin-1"), captured.err.decode("latin-1")


def server_folder(of_prefix):
    """The name that Wine gives to the folder of a prefix's server."""
    found = os.stat(of_prefix)
    return f"server-{found.st_dev:x}-{found.st_ino:x}"


def traces(number):
    """What there is of a laboratory on this machine."""
    folders = [*network.NETNS_FOLDER.glob(f"telvor{number}-*"), claims.folder_of(number)]
    return network.existing(number) + [folder for folder in folders if folder.exists()]


# The laboratory that was left up


def test_the_service_can_be_started_again(kept, capfdbinary):
    assert run(capfdbinary, "start") == (DONE, "The service is running already.\n", "")
    kept.stop_service()
    assert run(capfdbinary, "send", LINE) == (
        NOT_VERIFIED, "", "No reply: the service is not running; ./run start starts it\n")
    assert run(capfdbinary, "start") == (DONE, "The service is running.\n", "")
    assert windows.service_state(kept) == "RUNNING"
    code, output, errors = run(capfdbinary, "send", LINE)
    assert (code, json.loads(output)["result"]["state"], errors) == (DONE, "disconnected", "")


def test_an_instance_that_is_not_free_is_told(kept, capfdbinary):
    with contextlib.closing(windows.Driver(kept, "--hold", "16")) as holder:
        assert [holder.read() for _ in range(16)] == [b"open"] * 16
        assert run(capfdbinary, "send", LINE) == (
            NOT_VERIFIED, "", "No reply: the service's pipe has no instance free\n")


def test_what_can_be_seen(kept, capfdbinary):
    assert run(capfdbinary, "account") == (DONE, f"account:  {EMAIL}\npassword: {PASSWORD}\n", "")
    code, output, _ = run(capfdbinary, "log")
    assert code == DONE and "\n[2" in output
    assert windows.log_bytes(kept).replace(b"\r\n", b"\n").startswith(output.encode("latin-1"))
    assert run(capfdbinary, "filters") == (DONE, "no provider, no sublayer, no filter, no callout\n", "")
    code, output, _ = run(capfdbinary, "routes")
    assert code == DONE and "0.0.0.0/0            192.168.77.1     eth0" in output


def test_it_can_be_removed_and_installed_again(kept, capfdbinary):
    assert run(capfdbinary, "remove") == (DONE, "removed; TELVOR is not there\n", "")
    assert windows.service_state(kept) == windows.NO_SUCH_SERVICE
    assert run(capfdbinary, "remove") == (NOT_VERIFIED, "", "TELVOR is not installed.\n")
    for words in (("start",), ("ctl", "status")):
        assert run(capfdbinary, *words) == (
            NOT_VERIFIED, "", "TELVOR is not installed; ./run install installs it.\n")
    assert run(capfdbinary, "install") == (DONE, f"installed; TELVOR {product.version()} is there\n", "")
    windows.wait_for_service(kept, "RUNNING")


def test_a_removal_that_leaves_the_program_says_so(kept, capfdbinary):
    """telvorctl.exe stops the service; without it the laboratory's installer does not wait for its end."""
    program = windows.drive(kept) / prefix.PROGRAM_FOLDER
    (program / "telvorctl.exe").unlink()
    code, output, errors = run(capfdbinary, "remove")
    assert (code, output) == (NOT_VERIFIED, "removed; TELVOR is not there\n")
    assert errors.startswith("telvor.exe is still there")
    wait_until(lambda: windows.service_state(kept), lambda state: state == windows.NO_SUCH_SERVICE, 30,
               "the end of the service")
    assert run(capfdbinary, "install")[0] == DONE
    windows.wait_for_service(kept, "RUNNING")


def test_a_second_one_is_refused_before_anything_is_built(kept, capfdbinary):
    assert run(capfdbinary, "--keep") == (
        CANNOT_RUN, "", "\nCannot run. A laboratory was left up already. End it with ./run --down\n")


def test_one_that_has_died_can_only_be_cleared_away(build, capfdbinary):
    number, handle = claims.claim(print)
    claims.keep(number, build)
    os.close(handle)
    code, output, errors = run(capfdbinary, "log")
    assert (code, output) == (CANNOT_RUN, "") and "has died" in errors and "./run --down" in errors
    assert run(capfdbinary, "--down") == (DONE, "The laboratory is down.\n", "")
    assert traces(number) == []
    assert run(capfdbinary, "log") == (CANNOT_RUN, "", NO_KEPT_ONE)


@pytest.mark.parametrize("word", [word for word in command.WORDS if word not in ("send", "windows")])
def test_a_word_without_a_laboratory(word, capfdbinary):
    assert run(capfdbinary, word) == (CANNOT_RUN, "", NO_KEPT_ONE)


# What is left behind


def test_a_killed_one_is_cleared_away_by_down(whole_laboratory, capfdbinary):
    program = [sys.executable, "-B", "-m", "lab.laboratory", str(BUILD)]
    pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE}
    with subprocess.Popen(program, cwd=ROOT, text=True, **pipes) as owner:
        said = ""
        while " is up; " not in said:
            said = owner.stdout.readline()
            assert said, "the laboratory did not come up"
        number = int(said.split()[1])
        its = Laboratory(BUILD).at(number)
        its.start_service()
        windows.shut_down(its)
        with pytest.raises(steps.CannotRun, match="The Windows of .* has died.*--down"):
            its.attach()
        owner.kill()
    assert len(traces(number)) == len(network.names()) + 2
    code, output, errors = run(capfdbinary, "--down")
    assert (code, errors) == (DONE, "")
    assert output == (f"clearing away laboratory {number}, whose owner was killed\nThe laboratory is down.\n")
    assert traces(number) == []
    # The one of the tests has an owner, who lives.
    assert len(traces(whole_laboratory.number)) == len(network.names()) + 2
    assert run(capfdbinary, "--down") == (DONE, "No laboratory is up: nothing to take down.\n", "")


def test_wine_leaves_nothing_outside_the_laboratory_s_folder(lab):
    name = server_folder(lab.folder / "prefix")
    assert list(lab.folder.glob("wine-*")) == [lab.folder / prefix.SERVER_FOLDER]
    assert [path.name for path in (lab.folder / prefix.SERVER_FOLDER).iterdir()] == [name]
    assert list(claims.PARENT.glob(f"wine-*/{name}")) == []


def test_making_the_template_leaves_nothing_behind(tmp_path):
    finished = prefix.template(tmp_path / "cache")
    assert sorted(path.name for path in (tmp_path / "cache").iterdir()) == ["lock", finished.name]
    assert list(claims.PARENT.glob(f"wine-*/{server_folder(finished)}")) == []


# Words and help


def refused(capfdbinary, *words):
    with pytest.raises(SystemExit) as ended:
        run(capfdbinary, *words)
    captured = capfdbinary.readouterr()
    assert (ended.value.code, captured.out) == (CANNOT_RUN, b"")
    return captured.err.decode()


def test_a_wrong_word_is_told_the_right_ones(capfdbinary):
    assert refused(capfdbinary, "conect") == (
        "./run: there is no conect; the words are: ctl, send, log, filters, routes, start, "
        "install, remove, windows, account\n")
    assert refused(capfdbinary, "send") == f"./run: send takes one request line: ./run send '{LINE}'\n"
    assert refused(capfdbinary, "send", "a", "b") == refused(capfdbinary, "send")
    assert refused(capfdbinary, "windows") == (
        "./run: windows takes a program: ./run windows sc query TELVOR\n")
    assert refused(capfdbinary, "log", "10") == "./run: nothing follows log\n"
    assert refused(capfdbinary, "--keep", "log") == "./run: log stands alone, without --keep or --down\n"
    assert "not allowed with argument" in refused(capfdbinary, "--keep", "--down")


def test_the_help_names_every_word_and_how_long_it_takes(capfdbinary):
    with pytest.raises(SystemExit) as ended:
        run(capfdbinary, "--help")
    told = capfdbinary.readouterr().out.decode()
    assert ended.value.code == DONE
    for wanted in (*(f"\n  {word} " for word in command.WORDS), "3 to 5 minutes", "./run {ctl,send,"):
        assert wanted in told
    assert "--began" not in told.lower()


@pytest.mark.parametrize("word", ("ctl", "windows"))
def test_what_stands_behind_a_word_that_passes_it_on_is_its_own(word):
    assert command.parse([word, "--help", "--keep"]).rest == ["--help", "--keep"]
    assert command.parse([word, "send", "a", "b"]).rest == ["send", "a", "b"]


def test_an_option_behind_any_other_word_is_ours(capfdbinary):
    assert refused(capfdbinary, "install", "--keep") == (
        "./run: install stands alone, without --keep or --down\n")


# What is said meanwhile


def test_an_interrupted_step_has_not_failed():
    told = io.StringIO()
    with pytest.raises(steps.Stopped), steps.Teller(told).step("a long one"):
        raise steps.Stopped("Ctrl+C")
    assert " interrupted after 0." in told.getvalue() and "FAILED" not in told.getvalue()
    with pytest.raises(steps.Failed), steps.Teller(told).step("a bad one"):
        raise steps.Failed("it is")
    assert " FAILED after 0." in told.getvalue()


def test_the_build_shows_how_far_it_is(monkeypatch):
    monkeypatch.setattr(steps, "SIGN_OF_LIFE_SECONDS", 0.2)
    told = io.StringIO()
    teller = steps.Teller(told)
    script = ("echo '-- Detecting'; sleep 0.5;"
              "echo '[12/98] Building CXX object a/b/c.cpp.obj'; echo 'a warning'; sleep 0.5")
    with teller.step("the build"):
        command.watch(["sh", "-c", script], teller)
    assert "still at it: -- Detecting (" in told.getvalue()
    assert "still at it: [12/98] c.cpp.obj (" in told.getvalue()
    with teller.step("another"):
        time.sleep(0.3)
    assert "still at it: another (" in told.getvalue()


def test_a_build_that_fails_shows_its_output():
    with pytest.raises(steps.Failed, match="^sh -c echo .*\n.*the reason\n$"):
        command.watch(["sh", "-c", "echo 'the reason'; exit 3"], steps.Teller(io.StringIO()))


def run_and_interrupt(number, seconds):
    """A run whose build would take a minute, and which is interrupted these seconds after its process was
    made: its exit code and all that it said, and whether a process of the build is left."""
    script = ("import sys; from lab import command\n"
              "command.requirements.install = lambda *_, **__: None\n"
              "command.build = lambda teller: command.watch(['sh', '-c', 'echo $$; sleep 61; :'], teller)\n"
              "sys.exit(command.main([]))\n")
    process = subprocess.Popen([sys.executable, "-B", "-c", script], cwd=ROOT, text=True,
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    children = pathlib.Path(f"/proc/{process.pid}/task/{process.pid}/children")
    while not (found := children.read_text().split()):  # without a pause, to meet it as it is being made
        assert process.poll() is None
    time.sleep(seconds)
    process.send_signal(number)
    said, _ = process.communicate(timeout=20)
    return process.returncode, said, pathlib.Path(f"/proc/{found[0]}").exists()


@pytest.mark.parametrize("seconds", (0, 0.01, 0.5))
@pytest.mark.parametrize("number, name", command.SIGNALS.items())
def test_an_interrupt_says_only_what_is_true(number, name, seconds):
    code, said, is_left = run_and_interrupt(number, seconds)
    assert (code, is_left) == (INTERRUPTED, False)
    assert " interrupted after " in said and "FAILED" not in said
    assert said.endswith(f"\nStopped by {name}.\n") and "taken down" not in said
