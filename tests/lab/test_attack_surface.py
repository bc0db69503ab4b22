"""docs/attack-surface.md against the service at work: neither says more than the other."""

import dataclasses
import json
import ntpath
import re
import sys

import conftest
import pytest
import surface_page
import traced_windows
from lab import account_tour, agent_client, laboratory as laboratories
from lab import listings, network, prefix, windows
from surface_page import NONE, expect_told, rows

sys.path.append(str(conftest.ROOT / "tests" / "windows"))
import check_executable  # noqa: E402
import executable_headers  # noqa: E402

EXECUTABLES = ("telvor.exe", "telvorctl.exe")
RELIC = "auth/token.txt"
SERVICE_KEYS = r"HKLM\System\CurrentControlSet\Services"
SERVICE_KEY = rf"{SERVICE_KEYS}\{prefix.SERVICE}"
# Values of the service's key that say nothing of its rights.
INDIFFERENT_VALUES = {"DisplayName", "Description", "ErrorControl", "Start", "PreshutdownTimeout",
                      "FailureActions", "FailureActionsOnNonCrashFailures", "WOW64"}
# What the platform's own libraries write by the process: its certificates, its time zone, its keyboard.
KEYS_OF_LIBRARIES = (r"\Software\Microsoft\SystemCertificates", r"\Control\TimeZoneInformation",
                     r"\Keyboard Layout\Preload")
OBJECTS_OF_LIBRARIES = ("crypt32_root_semaphore", "__WINE_FONT_MUTEX__")
KINDS_OF_OBJECTS = ("create_event", "create_mutex", "create_semaphore", "create_mapping", "create_timer")
# And what its library for services asks of the manager for the sake of a service that it runs.
RIGHTS_OF_LIBRARY = {(prefix.SERVICE, "0x8000"), (prefix.SERVICE, "0xc0000000")}


@dataclasses.dataclass
class Seen:
    """What a whole tour showed."""
    laboratory: object
    pipe_security: str = ""
    pipe_numbers: str = ""
    service_values: dict = dataclasses.field(default_factory=dict)
    service_keys: list = dataclasses.field(default_factory=list)
    sockets: list = dataclasses.field(default_factory=list)
    snapshot: dict = dataclasses.field(default_factory=dict)
    routes: list = dataclasses.field(default_factory=list)
    idle_snapshot: dict = dataclasses.field(default_factory=dict)
    idle_routes: list = dataclasses.field(default_factory=list)
    left_snapshot: dict = dataclasses.field(default_factory=dict)
    methods: set = dataclasses.field(default_factory=set)
    requests: list = dataclasses.field(default_factory=list)
    told: list = dataclasses.field(default_factory=list)


@pytest.fixture(scope="module")
def seen():
    """A tour of a service of its own, in a Windows that writes everything down."""
    laboratories.check_machine(conftest.BUILD)
    with laboratories.Laboratory(conftest.BUILD) as laboratory:
        traced_windows.start(laboratory)
        found = Seen(laboratory)
        give_tour(found)
        windows.shut_down(laboratory)
        found.requests = traced_windows.requests_of(laboratory, "\\telvor.exe")
        found.told = traced_windows.told_by(laboratory, {request.process for request in found.requests})
        assert found.requests and found.told
        yield found


def give_tour(found):
    laboratory = found.laboratory
    note_methods(found)
    laboratory.start_service()
    laboratory.pipe.call("GetState")
    found.pipe_security = ask_driver(laboratory, "--security")
    found.pipe_numbers = ask_driver(laboratory, "--info")
    for step in (account_tour.register, account_tour.reset_password, account_tour.log_in_anew,
                 account_tour.look_at_the_plan):
        step(laboratory, print)
    assert laboratory.pipe.call("POST /ui/billing/checkout")["ok"] is True
    assert laboratory.log_in()["ok"] is True
    (windows.drive(laboratory) / prefix.DATA_FOLDER / RELIC).write_text("of long ago", encoding="ascii")
    laboratory.pipe.call("GET /ui/locations")
    conftest.connect(laboratory)
    laboratory.pipe.call("GetRecentLogs")
    laboratory.pipe.call("GET /ui/logs")
    laboratory.pipe.call("GET /ui/status")
    look_while_connected(found)
    assert laboratory.pipe.call("POST /ui/select-location", server_id="tokyo-1") is True
    assert laboratory.pipe.call("Disconnect") is True
    look_while_disconnected(found)
    laboratory.pipe.call("POST /ui/logout")
    found.left_snapshot = laboratory.agent.snapshot()
    stop_by_pipe(laboratory)


def note_methods(found):
    """Of every request that goes through the pipe."""
    send = found.laboratory.pipe.send

    def note(line, *options):
        found.methods.add(json.loads(line)["method"])
        return send(line, *options)

    found.laboratory.pipe.send = note


def look_while_disconnected(found):
    """At what is there by itself, and with the link to the account's page."""
    laboratory = found.laboratory
    conftest.wait_for_idle(laboratory)
    assert laboratory.pipe.call("GET /ui/account-page-url")["ok"] is True
    found.idle_snapshot = laboratory.agent.snapshot()
    found.idle_routes = own_routes(laboratory)


def own_routes(laboratory):
    return [row for row in laboratory.agent.routes() if row not in laboratory.first_routes]


def look_while_connected(found):
    laboratory = found.laboratory
    found.snapshot = laboratory.agent.snapshot()
    found.routes = own_routes(laboratory)
    found.sockets = laboratory.run("client", ["ss", "-Hlnutp"]).stdout.splitlines()
    found.service_keys = [ntpath.basename(line.strip()) for line
                          in windows.run(laboratory, "reg", "query", SERVICE_KEYS).output.splitlines()]
    told = windows.run(laboratory, "reg", "query", SERVICE_KEY).output
    found.service_values = dict(re.findall(r"^\s{4}(\S+)\s+REG_\w+\s+(.*?)\r?$", told, re.MULTILINE))
    found.service_values.update(re.findall(rf"^HKEY.*\\{prefix.SERVICE}\\(\S+?)()\r?$", told, re.MULTILINE))


def ask_driver(laboratory, option):
    driver = windows.Driver(laboratory, option)
    try:
        return driver.read().decode()
    finally:
        driver.close()


def stop_by_pipe(laboratory):
    """Whatever the reply: the process may end before it is through."""
    laboratory.pipe.send(b'{"id":1,"method":"StopService"}')
    laboratory.pipe.close()
    windows.wait_for_service(laboratory, "STOPPED", timeout=60)
    conftest.wait_until(lambda: windows.service_processes(laboratory), lambda found: not found, 15,
                        "the end of the process")


def named(seen, *names):
    return [request for request in seen.requests if request.name in names]


def told_in(seen, pattern):
    """The groups of the pattern in each line that has it, with the thread in front."""
    found = [(thread, re.match(pattern, f"{function} {text}")) for thread, _, function, text in seen.told]
    return [(thread, *match.groups()) for thread, match in found if match]


def test_the_tour_calls_every_method(seen):
    told = re.findall(r"^## `(.+)`$", surface_page.text_of("pipe.md"), re.MULTILINE)
    assert len(told) == len(set(told)) == 19 and seen.methods == set(told)


# Pipes


def name_of_pipe(request):
    name = ntpath.basename(request.wide("name"))
    return "unnamed" if name.startswith("Win32") else rf"\\.\pipe\{name}"


def test_there_are_these_pipes_and_no_others(seen):
    made = named(seen, "create_named_pipe")
    found = {(name_of_pipe(request), str(request.number("maxinstances")), str(request.number("insize")))
             for request in made}
    expect_told(rows("Pipes", "Pipe", "Instances", "Buffers"), found, "pipes")
    assert all(request.number("insize") == request.number("outsize") for request in made)


def test_every_instance_of_a_pipe_is_made_with_the_access_list_of_the_page(seen):
    told = {pipe: surface_page.entries(text) for pipe, text in rows("Pipes", "Pipe", "Access list")}
    for request in named(seen, "create_named_pipe"):
        assert traced_windows.access_list(request.text) == told[name_of_pipe(request)], request


def test_a_client_reads_the_same_of_the_pipe(seen):
    (_, text, instances, size), _ = rows("Pipes", "Pipe", "Access list", "Instances", "Buffers")
    assert surface_page.entries(seen.pipe_security) == surface_page.entries(text)
    assert seen.pipe_numbers.startswith(f"instances {instances} out {size} in {size} ")


def test_no_object_but_a_pipe_has_a_name(seen):
    """An event, a mutex or shared memory with a name could be opened, or made first, by another program."""
    found = {request.wide("name") for request in named(seen, *KINDS_OF_OBJECTS)}
    assert {name for name in found if not any(own in name for own in OBJECTS_OF_LIBRARIES)} == {""}
    assert rows("Named objects", "Object") == [(NONE,)]


# Files, folders, access lists


def opened(seen):
    """The files, and the folders that they lie in or that were opened themselves."""
    all_opened = traced_windows.opened_files(seen.requests)
    folders = {one.path for one in all_opened if one.folder}
    return [one for one in all_opened if one.data and one.path not in folders]


def parent(path):
    return ntpath.dirname(path)


def test_there_are_these_folders_and_the_service_writes_in_no_others(seen):
    writes = {parent(one.path) for one in opened(seen) if one.written}
    reads = {parent(one.path) for one in opened(seen)} - writes
    found = {(folder, "writes") for folder in writes} | {(folder, "reads") for folder in reads}
    expect_told(rows("Folders", "Folder", "The service"), found, "folders")


def test_the_files_are_those_of_the_page_about_files(seen):
    told = surface_page.tables("files.md")
    quoted = {heading: [text.replace("<ProgramData>", r"C:\ProgramData")
                        .replace("<folder of telvor.exe>", r"C:\Program Files\TELVOR")
                        for row in told[heading] for text in surface_page.quoted(row["File"])]
              for heading in ("Made in ordinary use", "Made at times", "Read, or deleted, but never made")}
    # The platform looks beside the executable for libraries: those of the laboratory lie there.
    files = {one.path for one in opened(seen) if parent(one.path) != r"C:\Program Files\TELVOR"}
    told_of = [text for texts in quoted.values() for text in texts]
    assert not [path for path in files if not any(surface_page.fits(one, path) for one in told_of)]
    ever = quoted["Made in ordinary use"] + quoted["Read, or deleted, but never made"]
    assert not [one for one in ever if not any(surface_page.fits(one, path) for path in files)]


def test_no_file_is_made_with_an_access_list_of_its_own(seen):
    made = named(seen, "create_file")
    assert made and not [request for request in made if traced_windows.access_list(request.text)]


def test_the_service_adds_these_rights_to_folders_and_to_all_that_lies_in_them(seen):
    told = {row["Folder"].strip("`"): surface_page.entries(row["Rights added"])
            for row in surface_page.tables()["Folders"] if row["Rights added"] != NONE}
    given = traced_windows.secured_files(seen.requests)
    assert set(told) <= {path for path, _, _ in given}, "folders without the rights of docs/attack-surface.md"
    for path, before, after in given:
        wanted = told[path] if path in told else told[parent(path)]
        assert before and set(after) == set(before) | set(wanted), path


# Registry, service manager


def test_the_service_writes_no_registry_key(seen):
    written = {key for key in traced_windows.written_keys(seen.requests)
               if not any(own.lower() in key.lower() for own in KEYS_OF_LIBRARIES)}
    assert written == set()


def test_there_are_these_keys_while_the_tunnel_is_up(seen):
    keys = {(rf"{SERVICE_KEYS}\{name}",) for name in seen.service_keys
            if re.search("telvor|wireguard", name, re.IGNORECASE)}
    expect_told(rows("Registry", "Key"), keys, "registry keys")


def test_the_service_is_registered_with_the_account_of_the_page(seen):
    values = {(name, value) for name, value in seen.service_values.items() if name not in INDIFFERENT_VALUES}
    # Windows Installer quotes the path; Wine's leaves that out.
    values = {(name, f'"{value}"' if value == prefix.EXECUTABLE else value) for name, value in values}
    told = rows("Account", "Value of the key", "Data")
    expect_told([row for row in told if row[1] != NONE], values, "values")
    assert not [row for row in told if row[1] == NONE and row[0] in seen.service_values]


def test_these_rights_are_asked_of_the_service_manager(seen):
    asked = {("service manager", rights) for _, rights in told_in(seen, r"OpenSCManagerW .* (0x\w+)$")}
    asked |= {(name.replace("\\\\", "\\"), rights)
              for _, name, rights in told_in(seen, r'OpenServiceW \S+ L"(.*)" (0x\w+)$')}
    expect_told(rows("Service manager", "Service", "Rights"), asked - RIGHTS_OF_LIBRARY,
                "rights at the service manager")


# Child processes


def test_there_are_these_child_processes_and_no_others(seen):
    started = {(request.wide("imagepath").removeprefix("\\??\\"), request.wide("cmdline"))
               for request in named(seen, "new_process")}
    expect_told(rows("Child processes", "Image", "Command line"), started, "child processes")


def test_child_processes_have_the_rights_of_the_service_and_two_pipes_for_their_output(seen):
    for request in named(seen, "new_process"):
        assert request.number("token") == 0, request
        outputs = {request.number("hstdout"), request.number("hstderr")}
        assert len(outputs) == 2 and 0 not in outputs, request


# Network


def http_requests(seen):
    """Verb, address and proxy settings of each request; each stands on the calls of its thread before it."""
    session, server, found = {}, {}, set()
    for thread, _, function, text in seen.told:
        if text.startswith("returning"):
            continue
        if function == "WinHttpOpen":
            session[thread] = re.match(r'L"[^"]*", (\d+), ', text).group(1)
        elif function == "WinHttpConnect":
            server[thread] = re.match(r'\S+, L"([^"]*)", (\d+), ', text).groups()
        elif function == "WinHttpOpenRequest":
            verb, flags = re.match(r'\S+, L"(\w+)".*, (\S+)$', text).groups()
            found.add((verb, "https://{}:{}".format(*server[thread]), flags, session[thread]))
    return found


def test_there_are_these_requests_to_the_control_plane_and_to_nobody_else(seen):
    made = {(verb, address.replace(network.CONTROL_PLANE_URL, "<base URL>"), flags, proxy)
            for verb, address, flags, proxy in http_requests(seen)}
    expect_told(rows("Requests to the control plane", "Verb", "To", "Flags", "Proxy"), made, "requests")


def test_the_process_connects_to_the_control_plane_and_to_nobody_else(seen):
    """Whatever the library for requests says. The agent is the laboratory's part of the two stand-ins."""
    connected = {(address, int(port)) for _, address, port
                 in told_in(seen, r"connect socket .* address (\S+), port (\d+) }")}
    agent = ("127.0.0.1", agent_client.PORT)
    assert connected - {agent} == {(network.CONTROL_PLANE.address, network.CONTROL_PLANE_PORT)}


def test_these_names_are_looked_up(seen):
    looked_up = {name for _, name in told_in(seen, r'\w*GetAddrInfo\w* nodename L"([^"]*)"')}
    names = {network.CONTROL_PLANE_HOST: "<host of the base URL>",
             network.SITE_HOST: "<name under [domains]>"}
    told = {name for name, in rows("Names looked up", "Name")}
    assert {names.get(name, name) for name in looked_up} == told


def test_nothing_listens(seen):
    """The agent and the tunnel's own socket are what the laboratory has in place of Windows' parts."""
    strangers = [line for line in seen.sockets
                 if f":{agent_client.PORT} " not in line and "wireguard-go" not in line]
    assert strangers == []
    assert rows("Listening sockets", "Socket") == [(NONE,)]


def without_tunnel(heading, *columns):
    """The rows of what the link to the account's page makes while there is no tunnel."""
    told = rows(heading, *columns, "Account's page")
    assert {said for *_, said in told} <= {"yes", "no"}
    return [tuple(texts) for *texts, said in told if said == "yes"]


def expect_routes(told, seen_routes):
    found = {(f"{row['destination']}/{row['prefix_length']}", f"{row['metric']}") for row in seen_routes}
    assert {address for address, _ in found} == {f"{address}/32" for address in network.BYPASSED}
    expect_told(told, found, "routes")


def test_these_routes_are_set(seen):
    """Beside those of the tunnel: its interface, and the way to its server that the stand-in sets."""
    own = [row for row in seen.routes
           if row["interface"] == "eth0" and row["destination"] != network.PARIS.address]
    expect_routes(rows("Routes", "Destination", "Metric"), own)


def test_these_routes_are_set_without_a_tunnel(seen):
    expect_routes(without_tunnel("Routes", "Destination", "Metric"), seen.idle_routes)


# Filtering engine


def objects(snapshot):
    found = {("provider", record["displayData"]["name"], record["providerKey"], f"flags {record['flags']}")
             for record in snapshot["providers"]}
    found |= {("sublayer", record["displayData"]["name"], record["subLayerKey"],
               f"weight {record['weight']:#x}, flags {record['flags']}") for record in snapshot["sublayers"]}
    found |= {("filter", "<name>", "<key>", f"weight {record['weight']['value']:#x}, flags {record['flags']}")
              for record in snapshot["filters"]}
    found |= {("callout", record["displayData"]["name"], record["calloutKey"], "")
              for record in snapshot["callouts"]}
    return found


def test_the_filtering_engine_holds_these_objects(seen):
    told = "Objects in the filtering engine", "Object", "Name", "Key", "Weight and flags"
    expect_told(rows(*told), objects(seen.snapshot), "objects")
    expect_told(without_tunnel(*told), objects(seen.idle_snapshot), "objects without a tunnel")
    assert objects(seen.left_snapshot) == set()


def filter_row(record):
    nothing = {"providers": [], "sublayers": [], "callouts": []}
    head, *conditions = listings.filters({**nothing, "filters": [record]})
    action, layer, name = re.match(r"\s*1\. (\w+) (\w+ v\d)\s+(.*)$", head).groups()
    return name, f"{action} {layer}", ", ".join(condition.strip() for condition in conditions)


def test_these_filters_are_in_force(seen):
    told = "Filters", "Filter", "What it does", "Conditions"
    for told_rows, snapshot in ((rows(*told), seen.snapshot), (without_tunnel(*told), seen.idle_snapshot)):
        expect_told(told_rows, {filter_row(record) for record in snapshot["filters"]}, "filters")


# Executables


def executables(seen):
    folder = seen.laboratory.build / "bin"
    return {name: check_executable.Executable((folder / name).read_bytes()) for name in EXECUTABLES}


def column(heading, first, name):
    return {surface_page.quoted(row[first])[0]: row[f"`{name}`"] for row in surface_page.tables()[heading]}


def test_the_headers_of_the_executables_have_these_flags(seen):
    for name, executable in executables(seen).items():
        assert executable_headers.flags(executable) == column("Flags of the executables", "Flag", name), name


def test_the_executables_import_from_these_libraries(seen):
    for name, executable in executables(seen).items():
        told = {library for library, used in column("Libraries", "Library", name).items() if used == "yes"}
        assert set(executable.imported_libraries()) == told, name


def test_the_executables_import_none_of_these_functions(seen):
    unwanted = [function for row in surface_page.tables()["What the executables cannot do"]
                for function in surface_page.quoted(row["Functions that neither imports"])]
    assert len(unwanted) > 20
    for name, executable in executables(seen).items():
        imported = executable_headers.imported_functions(executable)
        assert "CloseHandle" in imported
        assert not [function for function in imported
                    if any(surface_page.fits(one, function) for one in unwanted)], name


# The page itself


def test_what_is_left_to_real_windows_stands_in_the_checklist():
    items = [row["#"] for table in surface_page.tables("windows-checklist.md").values() for row in table]
    assert items == [str(number + 1) for number in range(len(items))]
    named = {number for table in surface_page.tables().values() for row in table
             for number in re.findall(r"\d+", row.get("Real Windows", ""))}
    assert len(named) > 10 and named <= set(items)
