"""The rules of SPDX 2.3 that a bill of materials in JSON must keep; each breach is one text."""

import hashlib
import re

IDENTIFIER = re.compile(r"SPDXRef-[A-Za-z0-9.-]+")
CREATOR = re.compile(r"(Tool|Person|Organization): .+")
SUPPLIER = re.compile(r"(Person|Organization): .+")
TIME = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ")
ABSOLUTE_URI = re.compile(r"[a-z][a-z0-9+.-]*:[^#]+")
SUM_LENGTHS = {"SHA1": 40, "SHA256": 64}
FILE_TYPES = {"SOURCE", "BINARY", "ARCHIVE", "APPLICATION", "AUDIO", "IMAGE", "TEXT", "VIDEO", "DOCUMENTATION",
              "SPDX", "OTHER"}
RELATIONSHIPS = {"DESCRIBES", "CONTAINS", "STATIC_LINK"}  # of the fifty those that are used here
NO_VALUES = {"NOASSERTION", "NONE"}
LICENSES = {"BSD-2-Clause", "BSD-3-Clause", "CC0-1.0", "GPL-3.0-or-later", "MIT", "ZPL-2.1"}
EXCEPTIONS = {"GCC-exception-3.1"}
REQUIRED = {
    "document": ("spdxVersion", "dataLicense", "SPDXID", "name", "documentNamespace", "creationInfo"),
    "package": ("SPDXID", "name", "downloadLocation", "licenseConcluded", "licenseDeclared", "copyrightText",
                "filesAnalyzed", "versionInfo", "supplier"),
    "file": ("SPDXID", "fileName", "checksums", "licenseConcluded", "copyrightText"),
}


def breaches(document):
    """All that is wrong with the document; none for a good one."""
    found = list(_missing("document", document, "the document"))
    if found:
        return found
    packages, files = document.get("packages", []), document.get("files", [])
    for kind, elements in (("package", packages), ("file", files)):
        for element in elements:
            found += _missing(kind, element, element.get("SPDXID", f"a {kind}"))
    if found:
        return found
    checks = (_head(document), _identifiers(document, packages, files), _licenses(document, packages, files),
              _sums(packages, files), _relationships(document, packages, files))
    return [breach for check in checks for breach in check]


def _missing(kind, element, name):
    return (f"{name} lacks {field}" for field in REQUIRED[kind] if element.get(field) in (None, "", []))


def _head(document):
    if document["spdxVersion"] != "SPDX-2.3" or document["dataLicense"] != "CC0-1.0":
        yield "the version is not 2.3, or the data's licence not CC0-1.0"
    if document["SPDXID"] != "SPDXRef-DOCUMENT":
        yield "the document is not SPDXRef-DOCUMENT"
    if not ABSOLUTE_URI.fullmatch(document["documentNamespace"]):
        yield "the namespace is no absolute URI without a fragment"
    if not TIME.fullmatch(document["creationInfo"].get("created", "")):
        yield "the time of creation is not in UTC to the second"
    creators = document["creationInfo"].get("creators", [])
    if not creators or not all(CREATOR.fullmatch(each) for each in creators):
        yield "a creator is no tool, person or organization"


def _identifiers(document, packages, files):
    names = [each["SPDXID"] for each in packages + files] + [document["SPDXID"]]
    for name in names:
        if not IDENTIFIER.fullmatch(name):
            yield f"{name} is no identifier"
        if names.count(name) > 1:
            yield f"{name} stands for more than one element"
    for each in files:
        if not each["fileName"].startswith("./"):
            yield f"{each['SPDXID']} has no relative name"
        if not set(each.get("fileTypes", [])) <= FILE_TYPES:
            yield f"{each['SPDXID']} has an unknown type"
    for each in packages:
        if each["supplier"] not in NO_VALUES and not SUPPLIER.fullmatch(each["supplier"]):
            yield f"{each['SPDXID']} has a supplier that is neither a person nor an organization"


def _licenses(document, packages, files):
    extracted = document.get("hasExtractedLicensingInfos", [])
    own = {each["licenseId"] for each in extracted if each.get("extractedText")}
    used = set()
    for each in packages + files:
        for field in ("licenseConcluded", "licenseDeclared"):
            expression = each.get(field, "NOASSERTION")
            if expression in NO_VALUES:
                continue
            words = re.sub(r"[()]", " ", expression).split()
            terms = {word for word in words if word not in ("AND", "OR", "WITH")}
            used |= terms
            for term in terms - LICENSES - EXCEPTIONS - own:
                yield f"{each['SPDXID']} names the unknown licence {term}"
    for name in own - used:
        yield f"{name} is explained and not used"


def _sums(packages, files):
    for each in packages + files:
        for checksum in each.get("checksums", []):
            value, length = checksum["checksumValue"], SUM_LENGTHS.get(checksum["algorithm"])
            if length is None or not re.fullmatch(r"[0-9a-f]{%d}" % length, value):
                yield f"{each['SPDXID']} has a sum that is none: {value}"
    for each in files:
        if "SHA1" not in [checksum["algorithm"] for checksum in each["checksums"]]:
            yield f"{each['SPDXID']} has no SHA1, which every file must have"


def _relationships(document, packages, files):
    by_id = {each["SPDXID"]: each for each in packages + files + [document]}
    contained = {each["SPDXID"]: [] for each in packages}
    for each in document.get("relationships", []):
        ends = (each["spdxElementId"], each["relatedSpdxElement"])
        if each["relationshipType"] not in RELATIONSHIPS:
            yield f"{each['relationshipType']} is no relationship"
        for end in ends:
            if end not in by_id:
                yield f"a relationship leads to {end}, which does not exist"
        if each["relationshipType"] == "CONTAINS" and ends[0] in contained and ends[1] in by_id:
            contained[ends[0]].append(by_id[ends[1]])
    described = [each["relatedSpdxElement"] for each in document.get("relationships", [])
                 if each["relationshipType"] == "DESCRIBES"]
    if not described or set(described) != set(document.get("documentDescribes", described)):
        yield "the document does not say what it describes, or says it in two ways"
    for each in packages:
        yield from _analysis(each, contained[each["SPDXID"]])


def _analysis(package, files):
    if not package["filesAnalyzed"]:
        if files or "packageVerificationCode" in package:
            yield f"{package['SPDXID']} says that its files were not looked at, and has some"
        return
    sums = sorted(checksum["checksumValue"] for each in files for checksum in each["checksums"]
                  if checksum["algorithm"] == "SHA1")
    wanted = hashlib.sha1("".join(sums).encode()).hexdigest()
    if package.get("packageVerificationCode", {}).get("packageVerificationCodeValue") != wanted:
        yield f"{package['SPDXID']} has a verification code that is not that of its files"
