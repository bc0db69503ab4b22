"""The command behind ./package: from the sources to what is handed out."""

import argparse
import hashlib
import shutil
import subprocess
import sys

import identity

BUILD = identity.ROOT / "build" / "windows"
PACKAGE = BUILD / "package"


def base_url_option(control_plane):
    """For CMake: None is the laboratory's, whichever was built for last."""
    return "-UTELVOR_CP_BASE_URL" if control_plane is None else f"-DTELVOR_CP_BASE_URL={control_plane}"


def objection(control_plane):
    """What the build has against this control plane, as a sentence; empty if nothing."""
    command = ["cmake", base_url_option(control_plane), "-P", "cmake/BaseUrl.cmake"]
    done = subprocess.run(command, cwd=identity.ROOT, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    # CMake's first line tells where; the others are the sentence, broken into lines.
    return " ".join(done.stderr.partition("\n")[2].split()) if done.returncode else ""


def build(control_plane):
    for command in (["cmake", "--preset", "windows", base_url_option(control_plane)],
                    ["cmake", "--build", "--preset", "windows", "--target", "telvor", "telvorctl"]):
        done = subprocess.run(command, cwd=identity.ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              text=True)
        if done.returncode != 0:
            raise RuntimeError(f"{' '.join(command)} ended with {done.returncode}:\n{done.stdout[-4000:]}")


def make(signer, build_folder, target):
    """Signed executables in a signed MSI, its bill of materials, and the sums of both, in the target folder;
    gives these three files."""
    import bill_of_materials
    import make_msi
    import sign

    files = target / "files"
    shutil.rmtree(files, ignore_errors=True)
    make_msi.lay_out(files, build_folder)
    for name in make_msi.PROGRAMS:
        sign.sign(signer, files / name)
    msi = target / f"telvor-{identity.version()}.msi"
    make_msi.make(files, msi)
    sign.sign(signer, msi)
    bill = msi.with_suffix(".spdx.json")
    bill_of_materials.write(build_folder, files, msi, bill)
    return [msi, bill, write_sums(target, [msi, bill])]


def write_sums(folder, paths):
    """As sha256sum -c reads it."""
    target = folder / "SHA256SUMS"
    lines = [f"{hashlib.sha256(path.read_bytes()).hexdigest()}  {path.name}\n" for path in paths]
    target.write_text("".join(lines), encoding="ascii")
    return target


def main():
    import sign
    from lab import requirements

    parser = argparse.ArgumentParser(
        prog="./package", description="Builds TELVOR and makes its signed MSI, the bill of materials and the "
        f"sums of both in {PACKAGE.relative_to(identity.ROOT)}.")
    parser.add_argument("--control-plane", metavar="URL", help="base URL of the control plane, fixed by the "
                        "build: https, a host, an optional port, no path; without it the laboratory's")
    sign.add_options(parser)
    options = parser.parse_args()
    try:
        requirements.install(requirements.BUILD, requirements.PACKAGE)
        if wrong := objection(options.control_plane):
            parser.error(wrong)
        signer = sign.signer_of(options)
        print("building telvor.exe and telvorctl.exe", flush=True)
        build(options.control_plane)
        print("signing, packing, signing", flush=True)
        for path in make(signer, BUILD, PACKAGE):
            print(f"  {path.relative_to(identity.ROOT)}")
        print(f"It talks to {options.control_plane or 'the control plane of the laboratory'}.")
        if options.certificate is None:
            print("Signed with a test certificate that no Windows trusts; ./package --help tells of others.")
    except (requirements.NotInstalled, sign.NotSigned, RuntimeError, LookupError) as failure:
        sys.exit(f"./package: {failure}")


if __name__ == "__main__":
    sys.exit(main())
