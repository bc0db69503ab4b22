"""The installer on a Windows of its own, by Wine's msiexec: installed, upgraded, repaired, removed."""

import shutil
import sys

import conftest
import pytest
from lab import laboratory as laboratories
from lab import network, prefix, product, windows

sys.path.insert(0, str(conftest.ROOT / "packaging"))

import make_msi  # noqa: E402

OLDER, NEWER = "0.9.0", "9.0.0"
OTHER_BUILD = "Another build's last line.\n"
FAILED = 1603 & 0xFF  # Wine's exit codes have eight bits here
PATH_KEY = r"HKLM\System\CurrentControlSet\Control\Session Manager\Environment"
SERVICE_KEY = rf"HKLM\System\CurrentControlSet\Services\{prefix.SERVICE}"
ADMINISTRATORS_HOST = "198.18.3.77"
SEED = "[domains]\nsite.telvor.test\n[ips]\n198.18.4.10\n# the administrator's own line\n"


@pytest.fixture(scope="module")
def bare():
    """A laboratory without TELVOR."""
    laboratories.check_machine(conftest.BUILD)
    with laboratories.Laboratory(conftest.BUILD, installs=False) as made:
        yield made


@pytest.fixture(scope="module")
def packages(tmp_path_factory):
    """{version: MSI} of versions before and after this one, and of another build of this one."""
    folder = tmp_path_factory.mktemp("packages")
    make_msi.lay_out(folder / "files", conftest.BUILD)
    made = {version: folder / f"telvor-{version}.msi" for version in (OLDER, product.version(), NEWER)}
    with (folder / "files" / make_msi.NOTICES).open("a", encoding="utf-8") as notices:
        notices.write(OTHER_BUILD)
    for version, msi in made.items():
        make_msi.make(folder / "files", msi, version)
    return made


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


def data_folders(laboratory):
    return [drive(laboratory) / prefix.DATA_FOLDER, (drive(laboratory) / prefix.LOG_FILE).parent]


def assert_nothing_is_left_in_force(laboratory):
    assert windows.service_state(laboratory) == windows.NO_SUCH_SERVICE
    assert windows.service_state(laboratory, windows.TUNNEL_SERVICE) == windows.NO_SUCH_SERVICE
    assert windows.service_processes(laboratory) == []
    assert conftest.traces(laboratory) == []
    assert not program(laboratory).exists() and not program(laboratory, "telvorctl.exe").exists()
    assert prefix.PROGRAM_FOLDER.rpartition("/")[2] not in machine_path(laboratory)


def host_routes(laboratory):
    return {row["destination"]: {name: value for name, value in row.items() if name != "interface"}
            for row in laboratory.agent.routes() if row["prefix_length"] == 32}


def machine_path(laboratory):
    return windows.run(laboratory, "reg", "query", PATH_KEY, "/v", "PATH").output


def assert_refused(laboratory):
    """Wine logs no reason, but nothing stands between a package and its installation but two conditions, each
    with its text; the callers see that the package installs where they hold."""
    assert windows.install(laboratory, check=False).code == FAILED


def test_installation_lays_down_registers_and_starts(installed):
    for name in (*make_msi.PROGRAMS, make_msi.NOTICES):
        assert program(installed, name).is_file()
    sample = (make_msi.HERE / make_msi.SEED).read_bytes()
    assert seed(installed).read_bytes() == sample.replace(b"\n", b"\r\n")
    assert (drive(installed) / prefix.STAGE_FOLDER / "20-servicemain-enter.txt").exists()
    configuration = windows.run(installed, "reg", "query", SERVICE_KEY).output
    values = {words[0]: words[2] for words in (line.split(None, 2) for line in configuration.splitlines())
              if len(words) == 3}
    assert (values["Type"], values["Start"], values["ObjectName"]) == ("0x10", "0x2", "LocalSystem")
    assert values["ImagePath"].strip('"') == prefix.EXECUTABLE and "WireGuard tunnel" in values["Description"]
    assert r"C:\Program Files\TELVOR" in machine_path(installed)
    assert list(windows.installed_products(installed).values()) == [product.version()]


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


def test_upgrade_while_connected_keeps_session_keys_and_policy(machine, packages):
    install_and_connect(machine, packages[OLDER])
    key = drive(machine) / prefix.DATA_FOLDER / "auth" / "wg_client_privatekey.txt"
    before = key.read_bytes()
    log = (drive(machine) / prefix.LOG_FILE).read_bytes()
    machine.pipe.close()
    windows.install(machine)
    windows.wait_for_service(machine, "RUNNING")
    assert list(windows.installed_products(machine).values()) == [product.version()]
    assert key.read_bytes() == before and seed(machine).read_text() == SEED
    assert (drive(machine) / prefix.LOG_FILE).read_bytes().startswith(log)
    assert all(program(machine, name).is_file() for name in (*make_msi.PROGRAMS, make_msi.NOTICES))
    machine.wait_for_state("disconnected")
    conftest.connect(machine)  # without a login


def test_older_version_is_refused_and_the_newer_stays(machine, packages):
    windows.install(machine, msi=packages[NEWER])
    windows.wait_for_service(machine, "RUNNING")
    assert_refused(machine)
    assert list(windows.installed_products(machine).values()) == [NEWER]
    assert windows.service_state(machine) == "RUNNING"
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
    assert program(installed, make_msi.NOTICES).read_text(encoding="utf-8").endswith(OTHER_BUILD)


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
    remove(connected)
    assert_nothing_is_left_in_force(connected)
    assert all(folder.is_dir() for folder in data_folders(connected))
    assert (drive(connected) / prefix.DATA_FOLDER / "auth" / "session.dat").exists()
    assert seed(connected).read_text() == SEED
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
