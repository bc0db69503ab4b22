"""The installer on a Windows of its own, by Wine's msiexec: installed, upgraded, repaired, removed."""

import ntpath
import re
import shutil
import struct
import sys

import conftest
import pytest
from lab import laboratory as laboratories
from lab import network, prefix, product, windows

sys.path.insert(0, str(conftest.ROOT / "packaging"))

import command  # noqa: E402
import make_msi  # noqa: E402
import sign  # noqa: E402

OLDER, NEWER = "0.9.0", "9.0.0"
OTHER_BUILD = "Another build's last line.\n"
LAID_DOWN = (*make_msi.PROGRAMS, make_msi.NOTICES)
FIXED_FILE_INFO = bytes.fromhex("bd04effe 00000100")  # begins what an executable tells of its version
FILE_VERSION = 8  # bytes behind that
FAILED = 1603 & 0xFF  # Wine's exit codes have eight bits here
PATH_KEY = r"HKLM\System\CurrentControlSet\Control\Session Manager\Environment"
PROGRAM_FOLDER = ntpath.dirname(prefix.EXECUTABLE)
SERVICE_KEY = rf"HKLM\System\CurrentControlSet\Services\{prefix.SERVICE}"
ADMINISTRATORS_HOST = "198.18.3.77"
# What of the data holds its bytes while the service stands still; the log goes on.
KEPT = ("runtime.dat", "auth/session.dat", "auth/wg_client_privatekey.txt", "auth/wg_client_publickey.txt",
        "auth/device_id.txt", "auth/device_id.txt.protected")
SEED = "[domains]\nsite.telvor.test\n[ips]\n198.18.4.10\n# the administrator's own line\n"


@pytest.fixture(scope="module")
def bare():
    """A laboratory without TELVOR."""
    laboratories.check_machine(conftest.BUILD)
    with laboratories.Laboratory(conftest.BUILD, installs=False) as made:
        yield made


@pytest.fixture(scope="module")
def files(tmp_path_factory):
    """What this build installs."""
    folder = tmp_path_factory.mktemp("files") / "files"
    make_msi.lay_out(folder, conftest.BUILD)
    return folder


@pytest.fixture(scope="module")
def packages(files, tmp_path_factory):
    """{version: MSI} of versions before and after this one, and of another build of this one. In none of them
    an executable, or the notices, have the bytes of this build's."""
    made = {}
    for version in (OLDER, product.version(), NEWER):
        folder = tmp_path_factory.mktemp(version) / "files"
        shutil.copytree(files, folder)
        make_another_build(folder, version)
        made[version] = folder.parent / f"telvor-{version}.msi"
        make_msi.make(folder, made[version], version)
    return made


def make_another_build(folder, version):
    major, minor, patch = (int(number) for number in version.split("."))
    told = struct.pack("<HHHH", minor, major, 0, patch)
    for name in make_msi.PROGRAMS:
        content = bytearray((folder / name).read_bytes())
        begin = content.index(FIXED_FILE_INFO) + FILE_VERSION
        content[begin:begin + len(told)] = told
        (folder / name).write_bytes(bytes(content) + OTHER_BUILD.encode())
    with (folder / make_msi.NOTICES).open("a", encoding="utf-8") as notices:
        notices.write(OTHER_BUILD)


@pytest.fixture(scope="module")
def signed(tmp_path_factory):
    """As ./package makes it: who signed, and the signed MSI of signed executables."""
    signer = sign.trial_signer(tmp_path_factory.mktemp("certificate"))
    msi, *_ = command.make(signer, conftest.BUILD, tmp_path_factory.mktemp("signed"))
    return signer, msi


@pytest.fixture
def machine(bare):
    """The laboratory without TELVOR and without its data, whatever the test before left."""
    remove(bare)
    for folder in (*data_folders(bare), seed(bare).parent, drive(bare) / prefix.STAGE_FOLDER):
        shutil.rmtree(folder, ignore_errors=True)
    yield bare
    bare.pipe.close()


@pytest.fixture
def installed(machine):
    windows.install(machine)
    windows.wait_for_service(machine, "RUNNING")
    return machine


@pytest.fixture
def connected(machine):
    install_and_connect(machine)
    return machine


def install_and_connect(laboratory, msi=None):
    """With what bypasses the tunnel, too: the first start takes it up."""
    windows.install(laboratory, "STARTSERVICE=0", msi=msi)
    seed(laboratory).write_text(SEED)
    laboratory.start_service()
    assert laboratory.log_in()["ok"] is True
    conftest.connect(laboratory)
    assert set(network.BYPASSED) <= set(host_routes(laboratory))


def drive(laboratory):
    return windows.drive(laboratory)


def program(laboratory, name="telvor.exe"):
    return drive(laboratory) / prefix.PROGRAM_FOLDER / name


def seed(laboratory):
    return program(laboratory, "data") / "runtime.seed"


def remove(laboratory, *properties):
    for code in windows.installed_products(laboratory):
        windows.remove(laboratory, code, *properties)


def in_force(laboratory):
    """The service's process, its files, and what its connection stands on."""
    # Wine's copy of it, in each start of a program, has the same name for a moment.
    process, = conftest.wait_until(lambda: windows.service_processes(laboratory),
                                   lambda found: len(found) == 1, 10, "a single process")
    return process, bytes_laid_down(laboratory), sorted(conftest.traces(laboratory))


def data_folders(laboratory):
    return [drive(laboratory) / prefix.DATA_FOLDER, (drive(laboratory) / prefix.LOG_FILE).parent]


def assert_nothing_is_left_in_force(laboratory):
    assert windows.service_state(laboratory) == windows.NO_SUCH_SERVICE
    assert windows.service_state(laboratory, windows.TUNNEL_SERVICE) == windows.NO_SUCH_SERVICE
    assert windows.service_processes(laboratory) == []
    assert conftest.traces(laboratory) == []
    assert not program(laboratory).exists() and not program(laboratory, "telvorctl.exe").exists()
    assert times_on_path(laboratory) == 0


def host_routes(laboratory):
    return {row["destination"]: {name: value for name, value in row.items() if name != "interface"}
            for row in laboratory.agent.routes() if row["prefix_length"] == 32}


def times_on_path(laboratory):
    """How often the program's folder stands on the machine's path."""
    told = windows.run(laboratory, "reg", "query", PATH_KEY, "/v", "PATH").output
    path = re.search(r"PATH\s+REG_\w+\s+(.*?)\r?$", told, re.MULTILINE | re.IGNORECASE).group(1)
    return [folder.rstrip("\\").lower() for folder in path.split(";")].count(PROGRAM_FOLDER.lower())


def bytes_laid_down(laboratory):
    return {name: program(laboratory, name).read_bytes() for name in LAID_DOWN}


def bytes_of(folder):
    return {name: (folder / name).read_bytes() for name in LAID_DOWN}


def bytes_kept(laboratory):
    return {name: (drive(laboratory) / prefix.DATA_FOLDER / name).read_bytes() for name in KEPT}


def markers(laboratory):
    return {path.name for path in (drive(laboratory) / prefix.STAGE_FOLDER).iterdir()}


def assert_refused(laboratory):
    """Wine logs no reason, but nothing stands between a package and its installation but two conditions, each
    with its text; the callers see that the package installs where they hold."""
    assert windows.install(laboratory, check=False).code == FAILED


def test_installation_lays_down_registers_and_starts(installed, files):
    assert bytes_laid_down(installed) == bytes_of(files)
    sample = (make_msi.HERE / make_msi.SEED).read_bytes()
    assert seed(installed).read_bytes() == sample.replace(b"\n", b"\r\n")
    assert (drive(installed) / prefix.STAGE_FOLDER / "20-servicemain-enter.txt").exists()
    configuration = windows.run(installed, "reg", "query", SERVICE_KEY).output
    values = {words[0]: words[2] for words in (line.split(None, 2) for line in configuration.splitlines())
              if len(words) == 3}
    assert (values["Type"], values["Start"], values["ObjectName"]) == ("0x10", "0x2", "LocalSystem")
    assert values["ImagePath"].strip('"') == prefix.EXECUTABLE and "WireGuard tunnel" in values["Description"]
    assert times_on_path(installed) == 1
    assert "Usage: telvorctl COMMAND" in windows.run(installed, "cmd", "/c", "telvorctl", "--help").output
    assert list(windows.installed_products(installed).values()) == [product.version()]


def test_signed_package_installs_what_it_signed_and_the_service_runs(machine, signed):
    signer, msi = signed
    sign.verify(signer, msi)
    windows.install(machine, msi=msi)
    windows.wait_for_service(machine, "RUNNING")
    assert machine.pipe.call("GetState")["state"] == "disconnected"
    assert bytes_laid_down(machine) == bytes_of(msi.parent / "files")
    for name in make_msi.PROGRAMS:
        sign.verify(signer, program(machine, name))


def test_start_can_be_left_for_later(machine):
    windows.install(machine, "STARTSERVICE=0")
    assert windows.service_state(machine) == "STOPPED"


def test_without_wireguard_nothing_is_installed(machine):
    folder = drive(machine) / prefix.WIREGUARD_FOLDER
    hidden = folder.rename(folder.with_name("WireGuard, hidden"))
    try:
        assert_refused(machine)
    finally:
        hidden.rename(folder)
    assert windows.installed_products(machine) == {} and not program(machine).exists()
    assert windows.service_state(machine) == windows.NO_SUCH_SERVICE
    windows.install(machine, "STARTSERVICE=0")


def test_upgrade_while_connected_keeps_session_keys_and_policy(machine, packages, files):
    install_and_connect(machine, packages[OLDER])
    before, shipped = bytes_kept(machine), bytes_of(files)
    older = bytes_laid_down(machine)
    assert not [name for name in LAID_DOWN if older[name] == shipped[name]]
    log = (drive(machine) / prefix.LOG_FILE).read_bytes()
    machine.pipe.close()
    windows.install(machine)
    windows.wait_for_service(machine, "RUNNING")
    assert list(windows.installed_products(machine).values()) == [product.version()]
    assert bytes_kept(machine) == before and seed(machine).read_text() == SEED
    assert (drive(machine) / prefix.LOG_FILE).read_bytes().startswith(log)
    assert bytes_laid_down(machine) == shipped and times_on_path(machine) == 1
    conftest.wait_for_idle(machine)  # nothing of the older one's is in force
    conftest.connect(machine)  # without a login


def test_older_version_is_refused_and_the_newer_stays_connected(machine, packages):
    install_and_connect(machine, packages[NEWER])
    before = in_force(machine)
    assert_refused(machine)
    assert list(windows.installed_products(machine).values()) == [NEWER]
    assert machine.pipe.call("GetState")["state"] == "connected"
    assert in_force(machine) == before
    remove(machine)
    windows.install(machine, "STARTSERVICE=0")


def test_stopped_service_is_upgraded_and_started(machine, packages):
    windows.install(machine, "STARTSERVICE=0", msi=packages[OLDER])
    windows.install(machine)
    windows.wait_for_service(machine, "RUNNING")
    assert list(windows.installed_products(machine).values()) == [product.version()]


def test_another_build_of_the_same_version_replaces_this_one(installed, packages):
    windows.install(installed, msi=packages[product.version()])
    windows.wait_for_service(installed, "RUNNING")
    assert list(windows.installed_products(installed).values()) == [product.version()]
    assert bytes_laid_down(installed) == bytes_of(packages[product.version()].parent / "files")


def test_same_package_once_more_leaves_it_running(installed):
    windows.install(installed)
    assert windows.service_state(installed) == "RUNNING"
    installed.pipe.call("GetState")


def test_same_package_repairs_what_was_lost(installed):
    program(installed, make_msi.NOTICES).unlink()
    seed(installed).write_text(SEED)
    windows.install(installed, "REINSTALL=ALL", "REINSTALLMODE=omus")
    assert program(installed, make_msi.NOTICES).is_file() and seed(installed).read_text() == SEED
    windows.wait_for_service(installed, "RUNNING")


def test_removal_while_connected_keeps_the_data_and_nothing_else(connected):
    before, marked = bytes_kept(connected), markers(connected)
    log = (drive(connected) / prefix.LOG_FILE).read_bytes()
    remove(connected)
    assert_nothing_is_left_in_force(connected)
    assert bytes_kept(connected) == before and seed(connected).read_text() == SEED
    assert (drive(connected) / prefix.LOG_FILE).read_bytes().startswith(log)
    assert marked and marked <= markers(connected)
    windows.install(connected)
    windows.wait_for_service(connected, "RUNNING")
    conftest.connect(connected)  # with the session that was kept


def test_removal_that_erases_leaves_nothing(connected):
    remove(connected, "ERASEDATA=1")
    assert_nothing_is_left_in_force(connected)
    assert not any(folder.exists() for folder in data_folders(connected))
    assert not (drive(connected) / prefix.STAGE_FOLDER).parent.exists()
    assert not seed(connected).exists()


def test_removal_of_a_killed_service_clears_routes_filters_and_the_tunnel(connected):
    connected.pipe.close()
    windows.kill_service(connected)
    left = host_routes(connected)
    assert connected.agent.tunnels() and connected.agent.snapshot()["filters"]
    own = {**left[network.SITE.address], "destination": ADMINISTRATORS_HOST}
    connected.agent.call("route_create", **own)
    remove(connected)
    # Wine does not wait for the end of a service that was just started.
    conftest.wait_until(lambda: windows.service_processes(connected), lambda found: not found, 30,
                        "the end of the process")
    assert list(host_routes(connected)) == [ADMINISTRATORS_HOST]
    connected.agent.call("route_delete", **own)
    assert_nothing_is_left_in_force(connected)


def test_removal_of_a_stopped_service_takes_the_tunnel_along(connected):
    connected.pipe.close()
    connected.stop_service()
    remove(connected)
    assert_nothing_is_left_in_force(connected)
