"""The Debian packages that build, installer, laboratory and tests need, and how to have them installed.

    python3 lab/requirements.py [--tests] [--proofs] [--bench]     installs what is missing

--tests adds what the tests need, --proofs what the fuzz targets need beside these, --bench what the benchmarks
and the drawings need. The coverage is counted with gcov, which comes with g++.

Everything is looked for where it would be used, so that a program that came another way counts as well.
"""

import importlib.util
import os
import pathlib
import shutil
import subprocess
import sys

# package: what shows that it is there, a program, a file (with a slash) or a Python module (with a colon)
BUILD = {
    "cmake": "cmake",
    "ninja-build": "ninja",
    "g++-mingw-w64-x86-64-posix": "x86_64-w64-mingw32-g++-posix",
    "mingw-w64-x86-64-dev": "/usr/x86_64-w64-mingw32/include/fwpmu.h",
    "binutils-mingw-w64-x86-64": "x86_64-w64-mingw32-objdump",
    "ca-certificates": "/etc/ssl/certs/ca-certificates.crt",
    "nlohmann-json3-dev": "/usr/include/nlohmann/json.hpp",
    "libcli11-dev": "/usr/include/CLI/CLI.hpp",
    "libgtest-dev": "/usr/src/googletest/CMakeLists.txt",
    "npm": "npm",
}
LABORATORY = {
    "wine": "wine",
    "wine64": "/usr/lib/x86_64-linux-gnu/wine/x86_64-windows/kernel32.dll",
    "wireguard-go": "wireguard-go",
    "wireguard-tools": "wg",
    "iproute2": "ip",
    "util-linux": "unshare",
    "curl": "curl",
    "python3-aiohttp": ":aiohttp",
    "python3-argon2": ":argon2",
    "python3-cryptography": ":cryptography",
}
PACKAGE = {
    "wixl": "wixl",
    "msitools": "msibuild",
    "osslsigncode": "osslsigncode",
    "openssl": "openssl",
    "git": "git",
}
TESTS = {
    "g++": "g++",
    "clang-format": "clang-format",
    "python3-pytest": ":pytest",
    "python3-pexpect": ":pexpect",
}

PROOFS = {
    "clang": "clang++",
    "libclang-rt-14-dev": "/usr/lib/llvm-14/lib/clang/14.0.6/lib/linux/libclang_rt.fuzzer-x86_64.a",
}

BENCH = {
    "libbenchmark-dev": "/usr/include/benchmark/benchmark.h",
    "libsimdjson-dev": "/usr/include/simdjson.h",
    "linux-perf": "perf",
    "python3-matplotlib": ":matplotlib",
}


class NotInstalled(Exception):
    """Packages are missing and could not be installed; the text says which and why."""


def is_there(sign):
    if sign.startswith(":"):
        return importlib.util.find_spec(sign[1:]) is not None
    if sign.startswith("/"):
        return pathlib.Path(sign).exists()
    # Administrators' folders are not on every user's path.
    return shutil.which(sign, path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin") is not None


def missing(*groups):
    return [package for group in groups for package, sign in group.items() if not is_there(sign)]


def as_root(command):
    """The command as root would run it. Raises NotInstalled where there is no way to become root."""
    if os.geteuid() == 0:
        return command
    if shutil.which("sudo") is None:
        raise NotInstalled("Root's rights are needed (packages, namespaces, interfaces); sudo is missing.")
    return ["sudo", "--", *command]


def install(*groups, tell=print):
    """Installs what is missing of the groups and touches nothing if all is there."""
    packages = missing(*groups)
    if not packages:
        return
    if shutil.which("apt-get") is None:
        raise NotInstalled(f"no apt-get here; please install what Debian calls: {' '.join(packages)}")
    tell(f"installing {' '.join(packages)}")
    fetch = ["env", "DEBIAN_FRONTEND=noninteractive", "apt-get", "-q"]
    for command in (fetch + ["update"], fetch + ["install", "-y", "--no-install-recommends", *packages]):
        result = subprocess.run(as_root(command), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if result.returncode != 0 and "install" in command:
            raise NotInstalled(f"apt-get could not install {' '.join(packages)}:\n{result.stdout[-2000:]}")
    importlib.invalidate_caches()
    left = missing(*groups)
    if left:
        raise NotInstalled(f"still missing after the installation: {' '.join(left)}")


def main():
    try:
        options = {"--tests": TESTS, "--proofs": PROOFS, "--bench": BENCH}
        chosen = [packages for option, packages in options.items() if option in sys.argv[1:]]
        install(BUILD, PACKAGE, LABORATORY, *chosen)
    except NotInstalled as failure:
        sys.exit(str(failure))


if __name__ == "__main__":
    main()
