"""The log on the real platform: the shape of a line, and what becomes of characters outside Latin-1."""

import re

import conftest

TIMESTAMP = rb"\[20\d\d-\d\d-\d\d \d\d:\d\d:\d\d\] "


def test_every_line_has_its_time_stamp_and_ends_in_crlf(logged_in, log):
    conftest.connect(logged_in)
    told = log.bytes()
    assert told.endswith(b"\r\n")
    for line in told[:-2].split(b"\r\n"):
        assert re.match(TIMESTAMP, line), line
        assert b"\n" not in line


def test_a_character_above_latin_1_cuts_the_line_and_its_end(logged_in, log):
    server_id = "caf\u00e9-\u4e2d-x"
    logged_in.pipe.send(f'{{"id":1,"method":"POST /ui/select-location","server_id":"{server_id}"}}'.encode())
    line = b"Bootstrap: selecting server_id=caf\xe9-"
    # What follows on the same physical line is the next line's time stamp.
    assert re.search(TIMESTAMP + re.escape(line) + TIMESTAMP, log.bytes())


def test_the_line_that_waits_for_a_login_ends_at_its_second_odd_character(lab, log):
    """The text goes on with U+20AC, which a byte cannot hold; this is wanted."""
    lab.pipe.call("Connect")
    log.wait_for("[BOOTSTRAP] AUTH_REQUIRED")
    text = rb"[BOOTSTRAP] AUTH_REQUIRED (no session: C:\ProgramData\TELVOR\auth\session.dat) " + b"\xe2"
    assert re.search(TIMESTAMP + re.escape(text) + TIMESTAMP, log.bytes())
    assert b"waiting for GUI login" not in log.bytes()


def test_the_firewalls_lines_stand_in_the_same_file(logged_in, log):
    conftest.connect(logged_in)
    log.in_order("VPNSERVICE: about to call EnableFailClosedBaseline",
                 "WFP: EnableFailClosedBaseline ENTER allowControlPlaneIpV4=198.18.4.10 wgIfIndexV4="
                 + logged_in.run("client", ["cat", "/sys/class/net/telvor/ifindex"]).stdout.strip(),
                 "WFP: EnableFailClosedBaseline(): OpenEngine OK",
                 "WFP: EnsureProviderAndSublayer OK",
                 "WFP: Transaction BEGIN OK",
                 "WFP: Transaction COMMIT OK",
                 "WFP: updating split-bypass allowlist after baseline: count=2",
                 "WFP: split-bypass allowlist update OK")
