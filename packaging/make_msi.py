"""Makes the MSI from the built executables.

    make_msi.py BUILD MSI

BUILD is the build directory for Windows. The same input gives the same bytes, wherever and whenever.
"""

import argparse
import hashlib
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

import compound_file
import identity
import notices

HERE = pathlib.Path(__file__).resolve().parent
PROGRAMS = ("telvor.exe", "telvorctl.exe")
SEED, NOTICES = "runtime.seed", "NOTICES.txt"
SOURCES = ("telvor.wxs", "tables.sql", "make_msi.py", "compound_file.py")


def statements(version):
    """The statements of tables.sql for this version, without the comments."""
    lines = (HERE / "tables.sql").read_text(encoding="ascii").replace("$(Version)", version).splitlines()
    paragraphs = "\n".join(line for line in lines if not line.startswith("--")).split("\n\n")
    return [paragraph.strip() for paragraph in paragraphs if paragraph.strip()]


def lay_out(folder, build):
    """All files of the package in one new folder."""
    folder.mkdir(parents=True)
    for name in PROGRAMS:
        shutil.copyfile(build / "bin" / name, folder / name)
    texts = {SEED: (HERE / SEED).read_text(encoding="utf-8"), NOTICES: notices.text(build)}
    for name, text in texts.items():
        (folder / name).write_bytes(text.replace("\n", "\r\n").encode("utf-8"))


def fingerprint(folder):
    """Stands for all that goes into the package, the time that it is dated by included."""
    sums = [hashlib.sha256(path.read_bytes()).hexdigest() for path in sorted(folder.iterdir())]
    sums += [hashlib.sha256((HERE / name).read_bytes()).hexdigest() for name in SOURCES]
    return "\n".join([str(identity.commit_time()), *sums])


def run(command, folder):
    # gcab writes the local time of the files into the cabinet.
    result = subprocess.run(command, cwd=folder, env={**os.environ, "TZ": "UTC", "LC_ALL": "C.UTF-8"},
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if result.returncode != 0 or "CRITICAL" in result.stdout or "WARNING" in result.stdout:
        raise RuntimeError(f"{command[0]} ended with {result.returncode}:\n{result.stdout.strip()}")


def make(folder, msi, version=None):
    """Makes the MSI of the files that were laid out; gives the product code. Another version than the tree's
    is for tests of upgrades."""
    version = version or identity.version()
    for path in folder.iterdir():  # the cabinet holds their times
        os.utime(path, (identity.commit_time(),) * 2)
    content = fingerprint(folder)
    product_code = identity.code("product", version, content)
    with tempfile.TemporaryDirectory() as work:
        made = pathlib.Path(work) / "telvor.msi"
        run(["wixl", "--arch", "x64", "-D", f"Version={version}", "-D", f"ProductCode={product_code}",
             "-o", str(made), str(HERE / "telvor.wxs")], folder)
        run(["msibuild", str(made), "-q", *statements(version)], folder)
        compound_file.settle(made, identity.code("package", version, content), identity.commit_time())
        msi.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(made, msi)
    return product_code


def main():
    parser = argparse.ArgumentParser(description="Makes the MSI from the built executables.")
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("msi", type=pathlib.Path)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as work:
        folder = pathlib.Path(work) / "files"
        lay_out(folder, options.build)
        make(folder, options.msi)
    print(f"{options.msi}: {options.msi.stat().st_size} bytes")


if __name__ == "__main__":
    sys.exit(main())
