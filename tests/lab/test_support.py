"""The report for support of a real machine: what it tells, and that no secret of this laboratory is in it."""

import json
import re

import conftest
from lab import prefix, windows
from lab.laboratory import EMAIL, PASSWORD
from test_telvorctl import FAILED, ctl, result, stopped_service

OTHER_EMAIL, OTHER_PASSWORD, NEW_PASSWORD = "marie@telvor.test", "polonium and radium", "a pitchblende cellar"
MISTYPED = "the password in the place of the address"
TITLES = ["Versions and time", "The service's answers", "Services", "Markers of the last start and stop",
          "Drop files of the worker", "Files, by name and size alone", "Network adapters",
          "Default routes, and routes to single addresses", "The log's end, at most 2000 lines"]


def live(lab):
    """Makes all that an account has to hide, and takes it down; the secrets, each of which was in use."""
    lab.pipe.call("POST /ui/register", email=OTHER_EMAIL, password=OTHER_PASSWORD)
    lab.pipe.call("POST /ui/register", email=MISTYPED, password=MISTYPED)
    started = lab.pipe.call("POST /ui/password-reset/start", email=OTHER_EMAIL)
    code = lab.keeper.mails(OTHER_EMAIL)[-1]["code"]
    lab.pipe.call("POST /ui/password-reset/confirm", email=OTHER_EMAIL, code=code,
                  request_id=started["request_id"], new_password=NEW_PASSWORD)
    lab.keeper.set_access_lifetime(60)  # within the margin of a refresh
    assert lab.log_in()["ok"]
    conftest.connect(lab)
    access = lab.pipe.call("GET /ui/account-page-url")["account_url"].partition("access_token=")[2]
    refresh = json.loads(lab.keeper.requests("POST", "/v1/auth/refresh")[-1]["body"])["refresh_token"]
    key = windows.drive(lab) / prefix.DATA_FOLDER / "auth/wg_client_privatekey.txt"
    return {"other password": OTHER_PASSWORD, "new password": NEW_PASSWORD, "password": PASSWORD,
            "mistyped password": MISTYPED, "code": code, "request": started["request_id"], "access": access,
            "refresh": refresh, "private key": key.read_text().strip(), "mailbox": EMAIL,
            "other mailbox": OTHER_EMAIL}


def let_the_control_plane_blab(lab, secrets):
    """Answers whose heads the service writes into its log."""
    told = {"access_token": secrets["access"], "email": EMAIL, "password": PASSWORD}
    more = {"refresh_token": secrets["refresh"], "note": [secrets["private key"], secrets["refresh"]]}
    for answer in (told, more):
        lab.keeper.misbehave("/v1/me/entitlement", body=json.dumps(answer), count=1)
        lab.pipe.call("GET /ui/entitlement")


def expect_no_secret(report, secrets):
    for name, secret in secrets.items():
        found = re.search(rf"(?<![0-9]){re.escape(secret)}(?![0-9])", report)
        assert not found, f"the {name} is in the report"
    public = set(re.findall(r"[A-Za-z0-9+/]{43}=", report))
    assert len(public) <= 1, "a key beside the public one is in the report"


def test_a_report_holds_no_secret(lab):
    secrets = live(lab)
    let_the_control_plane_blab(lab, secrets)
    log = windows.log_bytes(lab).decode("latin-1")
    for name in ("access", "refresh", "private key", "mailbox", "password", "mistyped password"):
        assert secrets[name] in log, f"the log does not hold the {name}: nothing is proved"
    report = ctl(lab, "support").output
    expect_no_secret(report, secrets)
    assert "***@telvor.test" in report or "\"email\": \"***\"" in report
    assert "GetState: connected, received " in report
    state = lab.pipe.call("GetState")
    assert f"Public key  {state['wgPublicKey']}\n" in report and f"Device id   {state['deviceId']}\n" in report


def test_a_report_tells_of_the_machine(connected):
    report = result(connected, "support")
    assert list(report) == TITLES
    versions, _, services, markers, drops, files, adapters, routes, log = report.values()
    assert any(re.match(r"telvor\.exe +\d+\.\d+\.\d+\.\d+$", line) for line in versions)
    assert any(re.match(r"Build +BOOTSTRAPFIX-", line) for line in versions)
    windows_line = r"Windows +\d+\.\d+\.\d+, code page \d+, language ."
    assert any(re.match(windows_line, line) for line in versions)
    assert re.match(r"TELVOR +running +exit code 0 ", services[0])
    assert re.match(r"WireGuardTunnel\$telvor +running ", services[1])
    assert any(re.search(r" 20-servicemain-enter\.txt +entered ServiceMain$", line) for line in markers)
    assert any(re.search(r"  step1\.txt +in try$", line) for line in drops)
    key = r" 46 +C:\\ProgramData\\TELVOR\\auth\\wg_client_privatekey\.txt$"
    assert any(re.search(key, line) for line in files)
    index, = (line.split()[0] for line in adapters if re.match(r"\d+ +telvor +up ", line))
    assert int(index) > 0
    bypassed = {row["destination"] for row in connected.agent.routes() if row["prefix_length"] == 32}
    told = {line.split("/32 ")[0] for line in routes if "/32 " in line}
    assert bypassed and bypassed <= told
    assert any("WFP: split-bypass allowlist update OK" in line for line in log)


def test_a_report_into_a_file_while_the_service_is_away(lab):
    with stopped_service(lab):
        done = ctl(lab, "support", r"C:\report.txt")
        assert done.output == "The report is in C:\\report.txt. Read it before you give it away.\n"
        again = ctl(lab, "support", r"C:\report.txt", code=FAILED)
        assert again.errors == "telvorctl: C:\\report.txt is there already; name a new file\n"
    path = windows.drive(lab) / "report.txt"
    report = path.read_text(encoding="utf-8")
    path.unlink()
    assert report.startswith("TELVOR support report\n")
    assert [line[3:] for line in report.splitlines() if line.startswith("== ")] == TITLES
    assert "the TELVOR service is not there" in report
    assert re.search(r"^TELVOR +stopped ", report, re.MULTILINE)
    assert "Service STOPPED." in report
