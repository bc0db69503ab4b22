"""The bill of materials of a package, as SPDX 2.3 in JSON: what is installed, and what is inside of it."""

import hashlib
import json
import pathlib
import re
import time

import components
import identity

DOCUMENT, PRODUCT = "SPDXRef-DOCUMENT", "SPDXRef-Package-TELVOR"
FILE_TYPES = {".exe": "BINARY", ".a": "ARCHIVE", ".o": "BINARY", ".txt": "TEXT", ".seed": "TEXT",
              ".h": "SOURCE", ".hpp": "SOURCE"}
NO_STATEMENT = "NOASSERTION"


def write(build, folder, msi, target):
    """Writes the bill of the MSI, whose files lie in the folder as they are installed."""
    installed = sorted(path for path in folder.iterdir() if path.is_file())
    text = json.dumps(document(build, installed, msi), indent=1, sort_keys=True) + "\n"
    target.write_text(text, encoding="utf-8")


def document(build, installed, msi):
    found = components.collect(build)
    files = [_file(path, path.name, NO_STATEMENT) for path in installed]
    files += [_file(pathlib.Path(path), path, each.kind.license) for each in found for path in each.files]
    by_name = {each["fileName"]: each for each in files}
    packages = [_product(build, msi, [by_name[f"./{path.name}"] for path in installed])]
    packages += [_package(each, [by_name[f".{path}"] for path in each.files]) for each in found]
    name = f"telvor-{identity.version()}"
    content = "\n".join(each["checksums"][-1]["checksumValue"] for each in files)
    return {
        "spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": DOCUMENT, "name": name,
        "documentNamespace": f"urn:uuid:{identity.code('bill', name, _sum(msi, 'sha256'), content).lower()}",
        "creationInfo": {"created": _time(), "creators": [f"Tool: telvor-packaging-{identity.version()}"]},
        "documentDescribes": [PRODUCT],
        "packages": packages, "files": files,
        "hasExtractedLicensingInfos": [_mingw_license(found)],
        "relationships": list(_relationships(found, installed, by_name)),
    }


def _time():
    return time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(identity.commit_time()))


def _sum(path, algorithm):
    return hashlib.new(algorithm, pathlib.Path(path).read_bytes()).hexdigest()


def _checksums(path):
    return [{"algorithm": algorithm.upper(), "checksumValue": _sum(path, algorithm)}
            for algorithm in ("sha1", "sha256")]


def _reference(kind, name):
    return f"SPDXRef-{kind}-" + re.sub(r"[^A-Za-z0-9.-]+", "-", name).strip("-")


def _file(path, name, license_):
    return {"SPDXID": _reference("File", name), "fileName": "./" + name.lstrip("/"),
            "checksums": _checksums(path), "fileTypes": [FILE_TYPES.get(path.suffix, "OTHER")],
            "licenseConcluded": license_, "licenseInfoInFiles": [NO_STATEMENT], "copyrightText": NO_STATEMENT}


def _verification(files):
    """SPDX's one sum over all files of a package."""
    sums = sorted(each["checksums"][0]["checksumValue"] for each in files)
    return {"packageVerificationCodeValue": hashlib.sha1("".join(sums).encode("ascii")).hexdigest()}


def _described(package, files):
    """The package with its files, or told to be without."""
    if not files:
        return {**package, "filesAnalyzed": False}
    return {**package, "filesAnalyzed": True, "packageVerificationCode": _verification(files),
            "licenseInfoFromFiles": [NO_STATEMENT]}


def _control_plane(build):
    """The one that the build is for."""
    cache = (build / "CMakeCache.txt").read_text(encoding="utf-8")
    return re.search(r"^TELVOR_CP_BASE_URL:\w+=(.*)$", cache, re.MULTILINE)[1]


def _product(build, msi, files):
    return _described({
        "SPDXID": PRODUCT, "name": "TELVOR", "versionInfo": identity.version(), "packageFileName": msi.name,
        "supplier": "Organization: TELVOR", "downloadLocation": NO_STATEMENT, "checksums": _checksums(msi),
        "licenseConcluded": NO_STATEMENT, "licenseDeclared": NO_STATEMENT, "copyrightText": NO_STATEMENT,
        "comment": f"For the control plane {_control_plane(build)}.", "primaryPackagePurpose": "INSTALL"}, files)


def _package(component, files):
    package = {
        "SPDXID": _reference("Package", component.kind.name), "name": component.kind.name,
        "versionInfo": component.version, "supplier": component.kind.supplier,
        "homepage": component.kind.homepage,
        "downloadLocation": component.origin if component.origin.startswith("https:") else NO_STATEMENT,
        "licenseConcluded": component.kind.license, "licenseDeclared": component.kind.license,
        "copyrightText": NO_STATEMENT, "primaryPackagePurpose": "LIBRARY"}
    if component.origin.startswith("pkg:"):
        package["externalRefs"] = [{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                                    "referenceLocator": component.origin}]
    if component.sha256:
        package["checksums"] = [{"algorithm": "SHA256", "checksumValue": component.sha256}]
    return _described(package, files)


def _mingw_license(found):
    runtime = next(each for each in found if each.kind is components.RUNTIME)
    text = "\n".join(pathlib.Path(path).read_text(encoding="utf-8") for path in runtime.notices)
    return {"licenseId": "LicenseRef-mingw-w64", "extractedText": text,
            "name": "mingw-w64 runtime: public domain, and the permissive licences of the parts named here"}


def _relationships(found, installed, by_name):
    def relation(one, kind, other):
        return {"spdxElementId": one, "relationshipType": kind, "relatedSpdxElement": other}

    yield relation(DOCUMENT, "DESCRIBES", PRODUCT)
    for path in installed:
        yield relation(PRODUCT, "CONTAINS", by_name[f"./{path.name}"]["SPDXID"])
    for each in found:
        package = _reference("Package", each.kind.name)
        for path in each.files:
            yield relation(package, "CONTAINS", by_name[f".{path}"]["SPDXID"])
        for program in each.programs:
            yield relation(by_name[f"./{program}"]["SPDXID"], "STATIC_LINK", package)
