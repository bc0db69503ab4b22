"""telvorctl.exe as a person and as a script uses it: all commands, exit codes, a scripted terminal."""

import collections
import contextlib
import json
import re
import subprocess
import tempfile
import time

import pexpect
import pytest

from conftest import ROOT
from lab import command, network, prefix, vpn_servers, windows
from lab.laboratory import EMAIL, PASSWORD

DONE, FAILED, WRONG_USAGE, NOT_THERE, BUSY, TIMED_OUT, LOGIN_NEEDED, INTERRUPTED = 0, 1, 2, 3, 4, 5, 6, 130
NEW_EMAIL, NEW_PASSWORD = "mary@telvor.test", "a difference engine"
ENTER, CTRL_C = "\r", "\x03"
NOT_THERE_TEXT = ("telvorctl: the TELVOR service is not there. "
                  "Start it from an elevated prompt: sc start TELVOR\n")
GOES_ON = "telvorctl: the service goes on connecting; telvorctl disconnect ends it\n"
MAY_GO_ON = "telvorctl: the service may go on connecting; telvorctl disconnect ends it\n"

Finished = collections.namedtuple("Finished", "code output errors")


def words_of(lab, *words, by=()):
    return lab.enter(network.CLIENT.name) + [*by, "wine", prefix.TELVORCTL, *words]


def ctl(lab, *words, given="", code=DONE, timeout=90, by=()):
    """Runs telvorctl without a terminal and asserts its exit code; `by` are the words of a program that runs
    it. Files stand in for its streams: Wine's background processes would hold a pipe open."""
    with contextlib.ExitStack() as files:
        entered, output, errors = (files.enter_context(tempfile.TemporaryFile()) for _ in range(3))
        entered.write(given.encode())
        entered.seek(0)
        done = subprocess.run(words_of(lab, *words, by=by), env=windows.environment(lab), stdin=entered,
                              stdout=output, stderr=errors, timeout=timeout, check=False)
        output.seek(0)
        errors.seek(0)
        finished = Finished(done.returncode, output.read().decode(), errors.read().decode())
    assert finished.code == code, finished
    return finished


def result(lab, *words, **options):
    """The result that --json prints."""
    return json.loads(ctl(lab, *words, "--json", **options).output)


class Terminal:
    """A person's terminal of 24 lines with a program on it."""

    def __init__(self, lab, words, **options):
        self._program = pexpect.spawn(words[0], words[1:], env=windows.environment(lab), timeout=30,
                                      dimensions=(24, 80), encoding="utf-8", **options)
        self.seen = ""

    def wait_for(self, text):
        # Wine's console skips over a blank instead of writing it.
        self._program.expect(re.escape(text))
        self.seen += self._program.before + self._program.after

    def type(self, text):
        time.sleep(0.5)  # as a person would: what is typed before the prompt is there is another matter
        self._program.send(text)

    def end(self):
        """The exit code, when the program has ended by itself."""
        self._program.expect(pexpect.EOF)
        self.seen += self._program.before
        self._program.close()
        return self._program.exitstatus

    def close(self):
        self._program.close(force=True)


@contextlib.contextmanager
def terminal(lab, *words):
    with contextlib.closing(Terminal(lab, words_of(lab, *words))) as made:
        yield made


@contextlib.contextmanager
def stopped_service(lab):
    lab.pipe.close()
    lab.stop_service()
    try:
        yield
    finally:
        lab.start_service()


@pytest.fixture
def logged_in_by_ctl(lab):
    ctl(lab, "login", EMAIL, "--password-stdin", given=PASSWORD + "\n")
    return lab


# The commands, without a terminal


def test_the_tunnel_from_login_to_logout(lab):
    done = ctl(lab, "login", EMAIL, "--password-stdin", given=PASSWORD + "\n")
    assert done == (DONE, f"Logged in as {EMAIL}.\n", "")
    table = ctl(lab, "locations").output.splitlines()
    assert table[0].split() == ["ID", "CITY", "COUNTRY", "NAME", "ONLINE", "LAST", "SEEN"]
    ids = [line[3:].split()[0] for line in table[1:]]
    assert ids == [server.server_id for server in vpn_servers.CATALOGUE]
    assert table[1].startswith("*  paris-1")
    assert ctl(lab, "select", "tokyo").output.startswith("Selected Tokyo, JP (tokyo-1).")
    connected = ctl(lab, "connect")
    assert connected.output == "Connected. Chosen location: Tokyo, JP (tokyo-1).\n"
    assert connected.errors.splitlines()[0] == "Connecting"
    assert lab.pipe.call("GetState")["state"] == "connected"
    status = ctl(lab, "status").output
    assert "Tunnel      CONNECTED (WireGuard)\n" in status
    assert f"Chosen      Tokyo, JP (tokyo-1)\nIts IP      {network.TOKYO.address}\n" in status
    assert f"Device id   {network.host_name(network.CLIENT.name)}\n" in status
    assert ctl(lab, "status", "--brief").output.startswith("connected, received ")
    assert ctl(lab, "disconnect").output == "Disconnected.\n"
    assert lab.pipe.call("GetState")["state"] == "disconnected"
    assert ctl(lab, "logout").output == "Logged out.\n"


# The service takes such a location, and keeps the profile of before when the control plane refuses it.
def test_a_location_that_is_offline_is_no_place_to_be_connected_to(logged_in_by_ctl):
    lab = logged_in_by_ctl
    ctl(lab, "select", "tokyo")
    ctl(lab, "connect")
    selected = ctl(lab, "select", "oslo")
    assert selected.output == ("Selected Oslo, NO (oslo-1). The tunnel is taken down; "
                               "go on with: telvorctl connect\n")
    assert selected.errors == ("telvorctl: oslo-1 is offline; "
                               "the control plane may keep the server of before\n")
    assert ctl(lab, "connect").output == "Connected. Chosen location: Oslo, NO (oslo-1).\n"
    assert network.TOKYO.address in lab.agent.wg("show", "telvor", "endpoints")["stdout"]


def test_scripts_get_the_service_s_own_results(logged_in_by_ctl):
    lab = logged_in_by_ctl
    assert result(lab, "status")["auth_state"] == "AUTH_OK"
    assert result(lab, "status", "--brief") == lab.pipe.call("GetState")
    assert result(lab, "locations")["servers"][0]["id"] == "paris-1"
    assert result(lab, "select", "paris-1") is True
    assert result(lab, "connect", "--no-wait") is True
    lab.wait_for_state("connected")
    assert result(lab, "connect")["state"] == "connected"
    assert result(lab, "disconnect")["state"] == "disconnected"
    assert result(lab, "quota") == {"ok": True, "quota_current": True}
    assert result(lab, "entitlement")["ok"] is True
    assert result(lab, "checkout")["checkout_url"].startswith("https://")
    assert result(lab, "registered", EMAIL) == {"email": EMAIL, "registered": True}
    assert result(lab, "logs", "-n", "2") == lab.pipe.call("GET /ui/logs", limit=2)
    assert len(result(lab, "logs", "--recent")) == len(lab.pipe.call("GetRecentLogs"))
    assert result(lab, "logout") == {"ok": True, "auth_state": "AUTH_REQUIRED", "message": "Logged out"}


def test_an_account_from_its_registration_to_a_new_password(lab):
    assert ctl(lab, "registered", NEW_EMAIL).output == f"{NEW_EMAIL} is not registered.\n"
    ctl(lab, "register", NEW_EMAIL, "--password-stdin", given="the first password\n")
    assert ctl(lab, "registered", NEW_EMAIL).output == f"{NEW_EMAIL} is registered.\n"
    again = ctl(lab, "register", NEW_EMAIL, "--password-stdin", given="the first password\n", code=FAILED)
    assert again.errors == "telvorctl: User already exists. Please log in or reset your password.\n"
    started = result(lab, "reset-start", NEW_EMAIL)
    mail = lab.keeper.mails(NEW_EMAIL)[-1]
    ctl(lab, "reset-confirm", NEW_EMAIL, "--request-id", started["request_id"], "--password-stdin",
        given=f"{mail['code']}\n{NEW_PASSWORD}\n")
    refused = ctl(lab, "login", NEW_EMAIL, "--password-stdin", given="the first password\n", code=FAILED)
    assert refused.errors == "telvorctl: login non-2xx: 401 (the email or the password is wrong)\n"
    ctl(lab, "login", NEW_EMAIL, "--password-stdin", given=NEW_PASSWORD + "\n")
    assert ctl(lab, "quota").output == "The quota is current.\n"
    assert ctl(lab, "entitlement").output == "Paid    no\nStatus  none\n"
    assert ctl(lab, "checkout").output.startswith(f"{network.CONTROL_PLANE_URL}/checkout/")
    page = ctl(lab, "account-page")
    assert page.output.startswith(f"{network.CONTROL_PLANE_URL}/account?access_token=")
    assert page.errors == "telvorctl: whoever has this link has the account; give it to nobody\n"


def test_a_raw_request_and_its_reply(lab):
    line = '{"id":-5,"method":"Nope"}'
    reply = '{"jsonrpc":"2.0","id":-5,"result":null,"error":{"message":"IPC: unknown method"}}\n'
    assert ctl(lab, "request", line, code=FAILED).output == reply
    assert '"state":"disconnected"' in ctl(lab, "request", '{"id":1,"method":"GetState"}').output


def test_stop_ends_the_service(lab):
    assert ctl(lab, "stop").output == "The service has stopped.\n"
    windows.wait_for_service(lab, "STOPPED")
    assert ctl(lab, "stop", code=NOT_THERE).errors == NOT_THERE_TEXT
    lab.pipe.close()
    lab.start_service()


def test_routes_that_a_killed_service_left_are_shown_and_removed(connected):
    in_use = ctl(connected, "routes", "--remove", code=FAILED)
    assert in_use.errors == ("telvorctl: the tunnel is connected, its routes are in use; "
                             "first: telvorctl disconnect\n")
    windows.kill_service(connected)
    connected.pipe.close()
    left = result(connected, "routes")["routes"]
    assert {route["destination"] for route in left} == set(network.BYPASSED)
    removed = ctl(connected, "routes", "--remove").output.splitlines()
    assert len(removed) == 1 + len(left) and all(line.endswith("removed") for line in removed[1:])
    assert ctl(connected, "routes").output == "The service has left no route.\n"
    assert not {row["destination"] for row in connected.agent.routes()} & set(network.BYPASSED)


# Exit codes


def test_a_login_is_needed(lab):
    for words in (["locations"], ["select", "paris-1"], ["quota"], ["entitlement"], ["checkout"],
                  ["account-page"], ["connect"]):
        done = ctl(lab, *words, code=LOGIN_NEEDED)
        assert "see telvorctl login" in done.errors
    assert done.errors.endswith(GOES_ON)
    lab.wait_for_state("disconnected")  # connect knew that it needs a login before the service had looked
    note = "Note        an earlier connect may still be waiting for a login; telvorctl disconnect ends it\n"
    assert note in ctl(lab, "status").output
    ctl(lab, "login", EMAIL, "--password-stdin", given=PASSWORD + "\n")
    lab.wait_for_state("connected")  # it did go on
    assert note not in ctl(lab, "status").output
    assert ctl(lab, "logout").output == "Logged out; the tunnel is taken down.\n"


def test_a_damaged_session_is_none(logged_in_by_ctl):
    lab = logged_in_by_ctl
    session = windows.drive(lab) / prefix.DATA_FOLDER / "auth/session.dat"
    session.write_bytes(session.read_bytes()[:-8])
    done = ctl(lab, "connect", code=LOGIN_NEEDED)
    assert done.errors.endswith("AUTH_REQUIRED (nobody is logged in; see telvorctl login)\n" + GOES_ON)
    told = lab.pipe.call("GET /ui/status")
    assert (told["auth_state"], told["last_error"]) == ("AUTH_OK", "AUTH_REQUIRED")
    assert "Account     login needed\n" in ctl(lab, "status").output
    # The next one does not sit out the pause first.
    again = ctl(lab, "connect", code=LOGIN_NEEDED)
    assert again.errors == done.errors.partition("\n")[2]
    ctl(lab, "login", EMAIL, "--password-stdin", given=PASSWORD + "\n")
    assert "Account     logged in\n" in ctl(lab, "status").output


def test_a_connection_that_does_not_come_in_time(logged_in_by_ctl):
    lab = logged_in_by_ctl
    vpn_servers.set_silent(lab, vpn_servers.PARIS, True)
    done = ctl(lab, "connect", "--timeout", "2", code=TIMED_OUT)
    assert "telvorctl: not connected after 2 seconds" in done.errors
    assert done.errors.endswith(GOES_ON)


def test_a_connection_that_fails(lab):
    with stopped_service(lab):
        pass  # no attempt of an earlier test is under way in a worker that has just begun
    ctl(lab, "login", EMAIL, "--password-stdin", given=PASSWORD + "\n")
    lab.agent.fault("tunnel_check", 31, count=-1)
    done = ctl(lab, "connect", code=FAILED)
    assert done.errors.endswith("telvorctl: the connection failed: the service does not say why; "
                                "see telvorctl logs\n" + MAY_GO_ON)
    assert "wireguard.exe installtunnelservice failed ec=1\n" in ctl(lab, "logs").output


@pytest.mark.parametrize("program, text", [("wireguard.exe", "WireGuard is not installed"),
                                           ("wg.exe", "WireGuard is damaged")])
def test_a_connection_that_fails_for_want_of_a_program(lab, program, text):
    with stopped_service(lab):
        pass  # as above
    ctl(lab, "login", EMAIL, "--password-stdin", given=PASSWORD + "\n")
    folder = windows.drive(lab) / prefix.WIREGUARD_FOLDER
    (folder / program).rename(folder / "away")
    try:
        done = ctl(lab, "connect", code=FAILED)
    finally:
        (folder / "away").rename(folder / program)
    assert done.errors.endswith(f"telvorctl: the connection failed: {text}: there is no "
                                f"C:\\Program Files\\WireGuard\\{program}\n" + MAY_GO_ON)


def test_a_report_that_finds_no_room_leaves_no_piece(lab):
    report = windows.drive(lab) / "report.txt"
    no_room = ["sh", "-c", "trap '' XFSZ; ulimit -f 8; exec \"$@\"", "no_room"]  # 4096 bytes
    done = ctl(lab, "support", "C:\\report.txt", code=FAILED, by=no_room)
    assert done.errors == "telvorctl: C:\\report.txt cannot be written: Windows error 112\n"
    assert not report.exists()
    ctl(lab, "support", "C:\\report.txt")
    assert report.stat().st_size > 4096
    report.unlink()


def test_a_log_that_cannot_be_read(lab):
    log = windows.drive(lab) / prefix.LOG_FILE
    with stopped_service(lab):
        log.unlink()
        log.mkdir()  # a folder in its place; without one the service would begin a new log
    try:
        errors = ctl(lab, "logs", code=FAILED).errors
    finally:
        log.rmdir()
    assert errors == "telvorctl: the service has no log, or cannot read it\n"
    lab.pipe.call("Connect")
    assert "IPC: Connect requested" in ctl(lab, "logs").output


def test_a_location_that_is_not_there(logged_in_by_ctl):
    done = ctl(logged_in_by_ctl, "select", "Rome", code=FAILED)
    assert done.errors == "telvorctl: there is no location Rome; see telvorctl locations\n"


def test_wrong_usage_asks_the_service_nothing(lab):
    with stopped_service(lab):
        for words in ([], ["conect"], ["login"], ["connect", "--timeout", "0"], ["login", EMAIL]):
            assert ctl(lab, *words, code=WRONG_USAGE).output == ""


def test_the_service_is_not_there(lab):
    with stopped_service(lab):
        for words in (["status"], ["connect"], ["logs", "-f"], ["request", "x"], ["quota", "--json"]):
            assert ctl(lab, *words, code=NOT_THERE) == (NOT_THERE, "", NOT_THERE_TEXT)


def test_all_sixteen_instances_are_taken(lab):
    lab.pipe.close()
    with contextlib.closing(windows.Driver(lab, "--hold", "16")) as holder:
        assert [holder.read() for _ in range(16)] == [b"open"] * 16
        done = ctl(lab, "status", code=BUSY)
        assert done.errors.startswith("telvorctl: the TELVOR service is busy: all of its sixteen connections")
    ctl(lab, "status", "--brief")


# A reader that goes away


@contextlib.contextmanager
def read_by_a_pipe(lab, *words):
    with subprocess.Popen(words_of(lab, *words), env=windows.environment(lab), stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as program:
        try:
            yield program
        finally:
            program.kill()


@pytest.mark.parametrize("words", [["watch", "--interval", "1"], ["logs", "-f"]])
def test_what_goes_on_for_ever_ends_with_its_reader(lab, words):
    lab.pipe.call("Connect")
    with read_by_a_pipe(lab, *words) as program:
        assert program.stdout.readline()
        program.stdout.close()
        lab.pipe.call("Disconnect")  # a line for the log
        assert program.wait(timeout=20) == DONE


# At a terminal


def test_a_password_is_not_shown(lab):
    with terminal(lab, "login", EMAIL) as screen:
        screen.wait_for("Password:")
        screen.type(PASSWORD + ENTER)
        screen.wait_for("Logged in as")
        assert screen.end() == DONE
    assert PASSWORD not in screen.seen and PASSWORD[:8] not in screen.seen
    assert lab.pipe.call("GET /ui/status")["auth_state"] == "AUTH_OK"


def test_ctrl_c_ends_a_prompt(lab):
    with terminal(lab, "login", EMAIL) as screen:
        screen.wait_for("Password:")
        screen.type(PASSWORD[:7] + CTRL_C)
        assert screen.end() == INTERRUPTED
    assert PASSWORD[:7] not in screen.seen


def test_a_reset_at_the_terminal(lab):
    email = "charles@telvor.test"
    lab.keeper.add_account(email, "a password that is lost")
    with terminal(lab, "reset", email) as screen:
        screen.wait_for("Code:")
        code = lab.keeper.mails(email)[-1]["code"]
        screen.type(code + ENTER)
        screen.wait_for("New password:")
        screen.type(NEW_PASSWORD + ENTER)
        screen.wait_for("again:")
        screen.type(NEW_PASSWORD + ENTER)
        screen.wait_for("The password was changed")
        assert screen.end() == DONE
    assert code not in screen.seen and NEW_PASSWORD[:12] not in screen.seen
    assert lab.log_in(email, NEW_PASSWORD)["ok"] is True


def test_watch_redraws_until_ctrl_c(logged_in_by_ctl):
    lab = logged_in_by_ctl
    with terminal(lab, "watch", "--interval", "1") as screen:
        screen.wait_for("DISCONNECTED")
        screen.wait_for("logged in")
        assert lab.pipe.call("Connect") is True
        screen.wait_for("CONNECTED (WireGuard)")
        screen.wait_for("Paris, FR (paris-1)")
        lab.pipe.call("Disconnect")
        screen.wait_for("DISCONNECTED")
        screen.type(CTRL_C)
        assert screen.end() == INTERRUPTED
    # Each frame begins at the upper left corner.
    assert screen.seen.count("\x1b[H") > 2


def test_watch_outlives_the_service(lab):
    with terminal(lab, "watch", "--interval", "1") as screen:
        screen.wait_for("DISCONNECTED")
        with stopped_service(lab):
            screen.wait_for("the TELVOR service is not there")
        screen.wait_for("DISCONNECTED")
        screen.type(CTRL_C)
        assert screen.end() == INTERRUPTED


def test_connect_shows_its_progress_in_one_line(logged_in_by_ctl):
    lab = logged_in_by_ctl
    vpn_servers.set_silent(lab, vpn_servers.PARIS, True)
    with terminal(lab, "connect") as screen:
        screen.wait_for("Connecting")
        screen.wait_for("s)")
        screen.type(CTRL_C)
        screen.wait_for("the service goes on connecting")
        assert screen.end() == INTERRUPTED


def test_following_the_log_beyond_a_restart(lab):
    with terminal(lab, "logs", "--follow", "-n", "3") as screen:
        time.sleep(2)
        lab.pipe.call("Connect")
        screen.wait_for("IPC: Connect requested")
        lab.pipe.call("Disconnect")
        screen.wait_for("IPC: Disconnect requested")
        with stopped_service(lab):
            screen.wait_for("waiting for it")
        screen.wait_for("the service answers again")
        lab.pipe.call("Connect")
        screen.wait_for("IPC: Connect requested")
        lab.pipe.call("Disconnect")
        screen.type(CTRL_C)
        assert screen.end() == INTERRUPTED


@pytest.fixture
def kept(lab):
    """The laboratory as one that ./run --keep has left up."""
    marker = lab.folder / "kept"
    marker.write_text(str(command.BUILD))
    yield lab
    marker.unlink()


def test_run_ctl_is_telvorctl_at_one_s_own_terminal(kept):
    run = [str(ROOT / "run"), "ctl"]
    kept.pipe.close()
    with contextlib.closing(Terminal(kept, [*run, "login", EMAIL], cwd=str(ROOT))) as screen:
        screen.wait_for("Password:")
        screen.type(PASSWORD + ENTER)
        screen.wait_for("Logged in as")
        assert screen.end() == DONE
    assert PASSWORD[:8] not in screen.seen
    for words, code in ((["--version"], DONE), (["status", "--brief"], DONE), (["select", "Rome"], FAILED),
                        (["conect"], WRONG_USAGE), (["connect", "--help"], DONE)):
        with contextlib.closing(Terminal(kept, [*run, *words], cwd=str(ROOT))) as screen:
            assert screen.end() == code, screen.seen
