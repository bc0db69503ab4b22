"""What the MSI asks of Windows Installer, read from its tables: also what Wine does not do."""

import re
import shutil
import struct
import subprocess

import compound_file
import identity
import make_msi
import pytest
from conftest import BUILD, ROOT

PROGRAM = r"C:\Program Files\WireGuard\wireguard.exe"
DEFERRED_AS_SYSTEM, GOES_ON, ROLLBACK = 0x400 | 0x800, 0x40, 0x100
SET_PROPERTY, EXECUTABLE_BY_PROPERTY, INSTALLED_EXECUTABLE = 51, 50, 18
VITAL = 0x8000
NEVER_REMOVED, NEVER_REPLACED, IS_64_BIT = 0x10, 0x80, 0x100


def by(rows, column):
    return {row[column]: row for row in rows}


def test_service_runs_by_itself_in_a_process_of_its_own_as_local_system(table):
    [service] = table("ServiceInstall")
    assert service["Name"] == "TELVOR" and service["StartName"] == "LocalSystem"
    assert (service["ServiceType"], service["StartType"]) == ("16", "2")
    assert int(service["ErrorControl"]) == VITAL | 1
    assert service["Description"] and service["Arguments"] == ""
    key = by(table("Component"), "Component")[service["Component_"]]["KeyPath"]
    assert by(table("File"), "File")[key]["FileName"].endswith("telvor.exe")


def test_service_is_started_stopped_and_removed(table):
    start, stop, stop_at_removal, remove = 0x1, 0x2, 0x20, 0x80
    rows = {row["Name"]: (int(row["Event"]), row["Wait"]) for row in table("ServiceControl")}
    assert rows == {"TELVOR": (start | stop | stop_at_removal | remove, "1"),
                    "WireGuardTunnel$telvor": (stop_at_removal, "1")}


def test_recovery_restarts_after_3_s_30_s_and_10_min_also_after_an_error(table):
    actions, places = by(table("CustomAction"), "Action"), by(table("InstallExecuteSequence"), "Action")
    assert actions["SetRecovery"]["Target"] == (
        "failure TELVOR reset= 900 actions= restart/3000/restart/30000/restart/600000")
    assert actions["RecoverFromErrors"]["Target"] == "failureflag TELVOR 1"
    assert actions["NameServiceTool"]["Target"] == "[System64Folder]sc.exe"
    for name in ("SetRecovery", "RecoverFromErrors"):
        assert actions[name]["Source"] == "ServiceTool"
        assert int(actions[name]["Type"]) == EXECUTABLE_BY_PROPERTY | DEFERRED_AS_SYSTEM | GOES_ON
        assert places[name]["Condition"] == "NOT REMOVE"
        assert int(places["InstallServices"]["Sequence"]) < int(places[name]["Sequence"])
        assert int(places[name]["Sequence"]) < int(places["StartServices"]["Sequence"])


def test_actions_come_in_an_order_that_works(table):
    rows = sorted((row for row in table("InstallExecuteSequence")), key=lambda row: int(row["Sequence"]))
    order = [row["Action"] for row in rows]
    wanted = ["FindRelatedProducts", "AppSearch", "LaunchConditions", "CostFinalize", "NameShell",
              "InstallInitialize", "RemoveExistingProducts",
              "StartAgain", "SetRecoveryAgain", "RecoverFromErrorsAgain",
              "ClearLeftFilters", "StopOrderly", "StopServices", "RemoveTunnel", "RemoveTunnelService",
              "RemoveLeftRoutes",
              "DeleteServices", "RemoveEnvironmentStrings", "RemoveFiles", "RemoveFolders",
              "CreateFolders", "InstallFiles",
              "WriteEnvironmentStrings", "InstallServices", "SetRecovery", "StartServices", "PublishProduct",
              "EraseData", "InstallFinalize"]
    assert [action for action in order if action in wanted] == wanted


def test_commands_run_with_all_rights_and_by_full_paths(table):
    actions = table("CustomAction")
    properties = {row["Source"]: row["Target"] for row in actions if int(row["Type"]) == SET_PROPERTY}
    assert properties and all(target.startswith("[System64Folder]") for target in properties.values())
    commands = {row["Action"]: row for row in actions if int(row["Type"]) != SET_PROPERTY}
    for name, words in {"StopOrderly": "stop", "RemoveLeftRoutes": "routes --remove"}.items():
        own = commands.pop(name)
        assert (own["Source"], own["Target"]) == ("telvorctl.exe", words)
        assert int(own["Type"]) == INSTALLED_EXECUTABLE | DEFERRED_AS_SYSTEM | GOES_ON
    assert len(commands) == 9
    for name, row in commands.items():
        assert row["Source"] in properties
        undoes = ROLLBACK if name.endswith("Again") else 0
        assert int(row["Type"]) == EXECUTABLE_BY_PROPERTY | DEFERRED_AS_SYSTEM | GOES_ON | undoes
        assert len(row["Target"]) <= 255  # the column's width


def test_what_was_left_is_cleared_by_every_removal(table):
    places = by(table("InstallExecuteSequence"), "Action")
    for name in ("ClearLeftFilters", "RemoveTunnel", "RemoveTunnelService", "RemoveLeftRoutes"):
        assert places[name]["Condition"] == 'REMOVE="ALL"'


def test_erasing_is_for_a_removal_that_asks_for_it_alone(table):
    places = by(table("InstallExecuteSequence"), "Action")
    assert places["EraseData"]["Condition"] == (
        'REMOVE="ALL" AND ERASEDATA="1" AND NOT UPGRADINGPRODUCTCODE')


def test_what_a_failed_removal_brings_back_runs_and_recovers_as_before(table):
    actions, places = by(table("CustomAction"), "Action"), by(table("InstallExecuteSequence"), "Action")
    assert actions["StartAgain"]["Target"] == "start TELVOR"
    touched = "Installed AND ($Service = 2 OR $Service = 3)"
    assert places["StartAgain"]["Condition"] == places["StopOrderly"]["Condition"] == touched
    for name in ("SetRecovery", "RecoverFromErrors"):
        assert actions[f"{name}Again"]["Target"] == actions[name]["Target"]
        assert places[f"{name}Again"]["Condition"] == 'REMOVE="ALL"'


def test_wireguard_is_asked_for_at_the_place_where_the_service_looks(table):
    [search], [signature], [place] = table("AppSearch"), table("Signature"), table("DrLocator")
    assert search["Property"] == "WIREGUARDPROGRAM"
    assert search["Signature_"] == signature["Signature"] == place["Signature_"]
    assert place["Path"] + "\\" + signature["FileName"] == PROGRAM
    conditions = {row["Condition"]: row["Description"] for row in table("LaunchCondition")}
    assert PROGRAM in conditions["Installed OR WIREGUARDPROGRAM"]
    assert "https://www.wireguard.com/install" in conditions["Installed OR WIREGUARDPROGRAM"]


def test_other_versions_are_replaced_and_newer_ones_left_alone(table):
    only_detect, from_included, to_included = 0x2, 0x100, 0x200
    version = identity.version()
    rows = {row["ActionProperty"]: (row["VersionMin"], row["VersionMax"], int(row["Attributes"]))
            for row in table("Upgrade")}
    assert rows == {"OLDERVERSION": ("0.0.0", version, from_included),
                    "OTHERBUILD": (version, version, from_included | to_included),
                    "NEWERVERSION": (version, "", only_detect)}
    told = {row["Condition"]: row["Description"] for row in table("LaunchCondition")}
    assert told["Installed OR NOT NEWERVERSION"] == (
        "A newer version of TELVOR is installed already, and it was left as it is. To go back to version "
        f"{version}, remove the newer version first: what the service has stored stays.")


@pytest.mark.parametrize("sequence", ["InstallExecuteSequence", "InstallUISequence"])
def test_launch_conditions_are_asked_once_what_they_ask_for_is_known(table, sequence):
    """The second is gone through first where somebody clicks twice."""
    places = by(table(sequence), "Action")
    asked = ["FindRelatedProducts", "AppSearch", "LaunchConditions", "CostInitialize"]
    assert sorted(asked, key=lambda action: int(places[action]["Sequence"])) == asked
    assert {places[action]["Condition"] for action in asked} == {""}


def test_a_person_s_installer_hands_on_all_that_conditions_ask_for(table):
    """The installer that runs with all rights takes no other public property from one who has them not."""
    conditions = [row["Condition"] for row in table("LaunchCondition") + table("InstallExecuteSequence")]
    words = set(re.findall(r"\b[A-Z]{2,}\b", re.sub(r'"[^"]*"', "", " ".join(conditions))))
    found = {row["ActionProperty"] for row in table("Upgrade")}
    found |= {row["Property"] for row in table("AppSearch")}
    windows_own = {"REMOVE", "UPGRADINGPRODUCTCODE", "NOT", "AND", "OR"}
    handed_on = by(table("Property"), "Property")["SecureCustomProperties"]["Value"].split(";")
    assert set(handed_on) == (words - windows_own) | found


def test_executables_carry_their_version_so_that_newer_ones_replace_older(table):
    files = {row["FileName"].rpartition("|")[2]: row for row in table("File")}
    assert set(files) == {"telvor.exe", "telvorctl.exe", "runtime.seed", "NOTICES.txt"}
    for name in make_msi.PROGRAMS:
        assert files[name]["Version"] == identity.version() + ".0" == version_inside(BUILD / "bin" / name)


def version_inside(path):
    """Of the executable's version resource: behind VS_FIXEDFILEINFO's signature and the structure's version."""
    data = path.read_bytes()
    high, low = struct.unpack_from("<II", data, data.index(struct.pack("<II", 0xFEEF04BD, 0x10000)) + 8)
    return f"{high >> 16}.{high & 0xFFFF}.{low >> 16}.{low & 0xFFFF}"


def test_seed_is_the_administrators(table):
    components = by(table("Component"), "Component")
    assert int(components["Seed"]["Attributes"]) == NEVER_REMOVED | NEVER_REPLACED | IS_64_BIT
    assert {int(row["Attributes"]) for name, row in components.items() if name != "Seed"} == {IS_64_BIT}


def test_path_gets_the_program_folder_and_loses_it_again(table):
    [row] = table("Environment")
    assert row["Name"] == "=-*Path"  # set; removed with the component; the machine's
    assert row["Value"] == "[~];[ProgramFolder]"


def test_seed_names_nothing_that_bypasses():
    lines = (make_msi.HERE / make_msi.SEED).read_text(encoding="utf-8").splitlines()
    assert [line for line in lines if line and not line.startswith("#")] == ["[domains]", "[ips]"]


def test_summary_is_dated_by_the_commit_and_named_by_the_content(msi, files):
    values = compound_file.summary_values(msi)
    assert values[compound_file.CREATED] == values[compound_file.LAST_SAVED] == identity.commit_time()
    wanted = identity.code("package", identity.version(), make_msi.fingerprint(files))
    assert values[compound_file.PACKAGE_CODE] == "{" + wanted + "}"


def test_another_content_gets_another_product_code(msi, files, table, tmp_path):
    [code] = [row["Value"] for row in table("Property") if row["Property"] == "ProductCode"]
    assert re.fullmatch(r"\{[0-9A-F-]{36}\}", code)
    other = tmp_path / "files"
    shutil.copytree(files, other)
    (other / "NOTICES.txt").write_bytes(b"other")
    assert code != "{" + make_msi.make(other, tmp_path / "other.msi") + "}"
    with pytest.MonkeyPatch.context() as patch:
        patch.setenv("SOURCE_DATE_EPOCH", str(identity.commit_time() + 60))
        assert code != "{" + make_msi.make(files, tmp_path / "later.msi") + "}"
    assert code == "{" + make_msi.make(files, tmp_path / "same.msi") + "}"
    assert (tmp_path / "same.msi").read_bytes() == msi.read_bytes()


def test_time_is_that_of_the_commit(monkeypatch):
    monkeypatch.delenv("SOURCE_DATE_EPOCH", raising=False)
    git = ["git", "-c", f"safe.directory={ROOT}", "-C", str(ROOT)]
    told = subprocess.run([*git, "show", "-s", "--format=%ct"], check=True, stdout=subprocess.PIPE, text=True).stdout
    assert identity.commit_time() == int(told)
