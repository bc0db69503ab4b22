"""The Windows of one laboratory: a Wine prefix, with all that TELVOR needs to be installed and run in it.

A prefix takes a quarter of a minute to make, so one is kept as a template and copied. Its system folder is
only linked: nothing writes there, and it is nine tenths of the whole.
"""

import contextlib
import fcntl
import hashlib
import os
import pathlib
import shutil
import subprocess
import tempfile

from lab import network, product

SERVICE = "TELVOR"
PROGRAM_FOLDER = "Program Files/TELVOR"
WIREGUARD_FOLDER = "Program Files/WireGuard"
STAGE_FOLDER = "VPN/stage"
DATA_FOLDER = "ProgramData/TELVOR"
LOG_FILE = "ProgramData/sorvanik-vpn/vpnservice.log"
# Debian's Wine notes in the prefix what its server's folder is called, and counts on a name of this length.
SERVER_NOTE, SERVER_FOLDER = "wineserver", "wine-server"
EXECUTABLE = r"C:\Program Files\TELVOR\telvor.exe"
TELVORCTL = r"C:\Program Files\TELVOR\telvorctl.exe"
WIREGUARD_PROGRAMS = ("wireguard.exe", "wg.exe")
# Replaced by stand-ins for these programs alone: every other one keeps Wine's own.
REPLACED_LIBRARIES = ("fwpuclnt", "iphlpapi")
REPLACED_FOR = {"telvor.exe": REPLACED_LIBRARIES, "telvorctl.exe": ("iphlpapi",)}
# Key, value, kind, data. Wine makes a service's ProgramData from the public user's folder: with that folder
# told to be the real one, a service finds what every other program and every Windows has.
REGISTRY = tuple(
    (rf"HKEY_CURRENT_USER\Software\Wine\AppDefaults\{program}\DllOverrides", library, "REG_SZ", "native")
    for program, libraries in REPLACED_FOR.items() for library in libraries
) + (
    (r"HKEY_LOCAL_MACHINE\Software\Microsoft\Windows NT\CurrentVersion\ProfileList", "Public", "REG_EXPAND_SZ",
     r"C:\ProgramData"),
)


def environment(prefix, home, server):
    """What Wine programs run with: their own prefix and home, no chatter, no desktop integration.

    Wine's server makes a folder below the one given for it, and leaves that behind."""
    kept = {key: value for key, value in os.environ.items()
            if not key.startswith(("WINE", "XDG_", "DISPLAY", "WAYLAND"))}
    return {**kept, "WINEPREFIX": str(prefix), "WINEARCH": "win64", "WINEDEBUG": "-all", "HOME": str(home),
            "TMPDIR": str(server), "WINEDLLOVERRIDES": "winemenubuilder.exe,mscoree,mshtml=d"}


def make_server_folder(prefix, server):
    """Wine would make it by itself, but its first two programs at once would hinder each other."""
    (pathlib.Path(server) / SERVER_FOLDER).mkdir(mode=0o700)
    note = pathlib.Path(prefix) / SERVER_NOTE
    note.unlink(missing_ok=True)  # the template's
    note.write_text(SERVER_FOLDER, encoding="ascii")
    note.chmod(0o400)


def wine_version():
    return subprocess.run(["wine", "--version"], check=True, stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL, text=True).stdout.split()[0]


def template(cache):
    """The finished prefix to copy from, made if it is not there; safe against others that want it as well."""
    cache = pathlib.Path(cache)
    cache.mkdir(parents=True, exist_ok=True)
    recipe = hashlib.sha256(repr(REGISTRY).encode()).hexdigest()[:8]
    finished = cache / f"prefix-{wine_version()}-{recipe}"
    with open(cache / "lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not finished.exists():
            _make_template(cache, finished)
    return finished


def _make_template(cache, finished):
    work = pathlib.Path(tempfile.mkdtemp(prefix="making-", dir=cache))
    try:
        prefix, home = work / "prefix", work / "home"
        home.mkdir()
        name = network.host_name(network.CLIENT.name)
        (work / "registry.reg").write_text(_registry_file(), encoding="utf-16")
        commands = [["wineboot", "-i"], ["wine", "reg", "import", str(work / "registry.reg")]]
        script = 'hostname "$0" && "$@"; code=$?; wineserver -w; exit $code'
        for command in commands:
            _run(["unshare", "--uts", "sh", "-c", script, name, *command], environment(prefix, home, work))
        _cut_links(prefix / "drive_c" / "users")
        prefix.rename(finished)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    if "SUDO_UID" in os.environ:  # the build folder is the user's, and so is all that lies in it
        owner = f"{os.environ['SUDO_UID']}:{os.environ['SUDO_GID']}"
        subprocess.run(["chown", "-R", "--no-dereference", owner, str(cache)], check=True)


def _registry_file():
    lines = ["Windows Registry Editor Version 5.00"]
    for key, value, kind, data in REGISTRY:
        expandable = ",".join(f"{byte:02x}" for byte in (data + "\0").encode("utf-16-le"))
        written = {"REG_SZ": f'"{data}"', "REG_EXPAND_SZ": f"hex(2):{expandable}"}[kind]
        lines += ["", f"[{key}]", f'"{value}"={written}']
    return "\r\n".join([*lines, ""])


def _run(command, env):
    result = subprocess.run(command, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True)
    if result.returncode != 0:
        raise RuntimeError(f"{' '.join(command)} ended with {result.returncode}: {result.stdout.strip()}")


def _cut_links(users):
    """Wine links a user's folders to those of the real one; a laboratory's Windows has folders of its own."""
    for folder in users.glob("*/*"):
        if folder.is_symlink():
            folder.unlink()
            folder.mkdir()


def copy(source, target):
    """A prefix of one's own from the template."""
    drive = str(pathlib.Path(source) / "drive_c")
    shutil.copytree(source, target, symlinks=True,
                    ignore=lambda folder, _: {"windows"} if str(folder) == drive else set())
    source, target = (pathlib.Path(folder) / "drive_c" / "windows" for folder in (source, target))
    try:
        shutil.copytree(source, target, symlinks=True, copy_function=os.link)
    except (OSError, shutil.Error):  # the template is on another disk
        shutil.rmtree(target, ignore_errors=True)
        shutil.copytree(source, target, symlinks=True)


def lay_standins(prefix, build, seed):
    """What is there before TELVOR is installed: WireGuard, the stand-ins for what of Windows Wine lacks, which
    must lie beside the executable, and the administrator's policy."""
    drive = pathlib.Path(prefix) / "drive_c"
    standins = build / "lab"
    program, wireguard = drive / PROGRAM_FOLDER, drive / WIREGUARD_FOLDER
    for folder in (program / "data", wireguard):
        folder.mkdir(parents=True)
    for library in REPLACED_LIBRARIES:
        shutil.copy(standins / f"{library}.dll", program)
    shutil.copy(drive / "windows/system32/iphlpapi.dll", program / "iphlpapi_wine.dll")
    for name in WIREGUARD_PROGRAMS:
        shutil.copy(standins / name, wireguard)
    (program / "data" / "runtime.seed").write_text(seed, encoding="utf-8")


def installer(build):
    """The MSI of the build, as it is before it is signed."""
    return build / "package" / "unsigned" / f"telvor-{product.version()}.msi"


def needed_files(build):
    """The built files that stand-ins, installation, pipe driver and the counter of handles need."""
    names = [f"{library}.dll" for library in REPLACED_LIBRARIES]
    names += [*WIREGUARD_PROGRAMS, "pipe_client.exe", "handle_count.exe"]
    return [installer(build)] + [build / "lab" / name for name in names]


def remove(prefix):
    with contextlib.suppress(FileNotFoundError):
        shutil.rmtree(prefix)
