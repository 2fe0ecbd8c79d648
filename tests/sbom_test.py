#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks the SPDX document of an installation against the SPDX 2.3 standard and the installed files.

usage: sbom_test.py PREFIX"""
import hashlib
import json
import os
import re
import sys

PACKAGE_FIELDS = {"SPDXID", "name", "downloadLocation", "filesAnalyzed", "versionInfo"}
FILE_FIELDS = {"SPDXID", "fileName", "checksums", "licenseConcluded", "licenseInfoInFiles"}
LICENCES = {"Apache-2.0", "GPL-2.0-only", "LGPL-2.1-only", "BSD-2-Clause", "BSD-3-Clause", "MIT",
            "NOASSERTION"}


def digest(path, algorithm):
    with open(path, "rb") as file:
        return hashlib.new(algorithm, file.read()).hexdigest()


def check_structure(document):
    assert document["spdxVersion"] == "SPDX-2.3" and document["dataLicense"] == "CC0-1.0"
    assert document["SPDXID"] == "SPDXRef-DOCUMENT" and document["name"]
    assert re.fullmatch(r"urn:uuid:[0-9a-f-]{36}", document["documentNamespace"])
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", document["creationInfo"]["created"])
    assert document["creationInfo"]["creators"][0].startswith("Tool: ")
    for fields, elements in (PACKAGE_FIELDS, document["packages"]), (FILE_FIELDS, document["files"]):
        for element in elements:
            assert fields <= element.keys(), f"{element}: a field is missing"
            assert re.fullmatch(r"SPDXRef-[A-Za-z0-9.-]+", element["SPDXID"]), element
            assert element["licenseConcluded"] in LICENCES, element
            assert element.get("licenseDeclared", "MIT") in LICENCES, element
            assert element.get("versionInfo") != "", element
    ids = [element["SPDXID"] for element in [document] + document["packages"] + document["files"]]
    assert len(ids) == len(set(ids)), "an SPDXID twice"
    for relationship in document["relationships"]:
        for end in "spdxElementId", "relatedSpdxElement":
            assert relationship[end] in ids, f"{relationship}: no such element"


def check_package(document, package, root):
    """Compares a package's files, and its summary of them, with the disk. Returns the files by name."""
    contained = {relationship["relatedSpdxElement"] for relationship in document["relationships"]
                 if relationship["relationshipType"] == "CONTAINS"
                 and relationship["spdxElementId"] == package["SPDXID"]}
    files = {file["fileName"]: file for file in document["files"] if file["SPDXID"] in contained}
    for name, file in files.items():
        told = {sum["algorithm"]: sum["checksumValue"] for sum in file["checksums"]}
        for algorithm in "SHA1", "SHA256":
            assert told[algorithm] == digest(os.path.join(root, name), algorithm), f"{name} differs"
    sums = sorted(file["checksums"][0]["checksumValue"] for file in files.values())
    code = hashlib.sha1("".join(sums).encode()).hexdigest()
    assert package["packageVerificationCode"]["packageVerificationCodeValue"] == code
    found = {licence for file in files.values() for licence in file["licenseInfoInFiles"]}
    assert set(package["licenseInfoFromFiles"]) == found
    return files


def main(prefix):
    source = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    [directory] = [where for where, _, names in os.walk(prefix) if "f2fs_snapshot.spdx.json" in names]
    path = os.path.join(directory, "f2fs_snapshot.spdx.json")
    with open(path, encoding="utf-8") as file:
        document = json.load(file)
    check_structure(document)
    packages = {package["name"]: package for package in document["packages"]}

    installed = check_package(document, packages["f2fs_snapshot"], prefix)
    on_disk = {"./" + os.path.relpath(os.path.join(where, name), prefix)
               for where, _, names in os.walk(prefix) for name in names}
    on_disk = {name for name in on_disk if not os.path.islink(os.path.join(prefix, name))}
    assert installed.keys() == on_disk - {"./" + os.path.relpath(path, prefix)}

    sources = check_package(document, packages["f2fs_snapshot-source"], source)
    driver = check_package(document, packages["f2fs_snapshot-driver"], source)
    for files, licence in (installed, "Apache-2.0"), (sources, "Apache-2.0"), (driver, "GPL-2.0-only"):
        others = [name for name, file in files.items()
                  if file["licenseInfoInFiles"][0] not in (licence, "NONE")]
        assert files and not others, f"not under {licence}: {others}"
    assert all(name.startswith("./driver/") for name in driver)
    code = [name for name in (sources | driver) if re.search(r"\.(cpp|h|c|java)$", name)]
    assert [name for name in code if (sources | driver)[name]["licenseInfoInFiles"] == ["NONE"]] == []


main(sys.argv[1])
