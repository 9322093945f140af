#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Prints the bill of materials of an installation, as SPDX 2.3 JSON: bill_of_materials.py ROOT VERSION COMMIT

What is linked is read from the installed programs, not from a list; the libraries that leave no trace in a program
(headers, and the static C library) are the development packages of Packaging/debian/control that no program links."""
import datetime
import json
import os
import pathlib
import re
import subprocess
import sys


def output(*command: str) -> str:
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def is_program(path: pathlib.Path) -> bool:
    return path.is_file() and not path.is_symlink() and path.read_bytes()[:4] == b"\x7fELF"


def linked_libraries(program: pathlib.Path) -> list[str]:
    return re.findall(r"\(NEEDED\).*\[(.*)\]", output("readelf", "-d", str(program)))


def package_of_library(name: str) -> str | None:
    found = subprocess.run(["dpkg-query", "-S", f"*/{name}"], capture_output=True, text=True, check=False).stdout
    owners = [line.split(": ")[0].split(":")[0] for line in found.splitlines() if line.endswith("/" + name)]
    return owners[0] if owners else None


def licence(package: str) -> str:
    """What the package's machine-readable copyright file says of its files as a whole; many have none."""
    path = pathlib.Path("/usr/share/doc") / package / "copyright"
    text = path.read_text(encoding="utf-8", errors="replace") if path.exists() else ""
    whole = re.search(r"(?ms)^Files:\s*\*\s*\n(.*?)(?=^\s*$|\Z)", text)
    found = re.search(r"(?m)^License:\s*(\S+)\s*$", whole.group(1)) if whole else None
    known = {"expat": "MIT", "mit": "MIT", "apache-2.0": "Apache-2.0", "bsl-1.0": "BSL-1.0", "boost-1.0": "BSL-1.0",
             "lgpl-2.1+": "LGPL-2.1-or-later", "bsd-3-clause": "BSD-3-Clause", "bsd-2-clause": "BSD-2-Clause",
             "lgpl-3": "LGPL-3.0-only", "public-domain": "NOASSERTION", "asl-2": "Apache-2.0"}
    return known.get(found.group(1).lower(), "NOASSERTION") if found else "NOASSERTION"


def main() -> int:
    root, version, commit = pathlib.Path(sys.argv[1]), sys.argv[2], sys.argv[3]
    control = (pathlib.Path(__file__).resolve().parent.parent / "Packaging/debian/control").read_text(encoding="utf-8")
    build_depends = re.search(r"(?ms)^Build-Depends:(.*?)^(?=\S)", control).group(1)
    headers = re.findall(r"[a-z0-9.+-]+-dev\b", build_depends)
    programs = [path for path in sorted(root.rglob("*")) if is_program(path)]
    if not programs:
        sys.exit("bill_of_materials: there is no program below " + str(root))

    linked: set[str] = set()
    for program in programs:
        for library in linked_libraries(program):
            package = package_of_library(library)
            if package is None:
                sys.exit(f"bill_of_materials: no package has {library}, which {program.name} links")
            linked.add(package)
    sources = {package: output("dpkg-query", "-f", "${source:Package}", "-W", package) for package in linked}
    static = [each for each in headers if output("dpkg-query", "-f", "${source:Package}", "-W", each) not in sources.values()]

    def identifier(package: str) -> str:
        return "SPDXRef-" + re.sub(r"[^A-Za-z0-9.-]", "-", package)

    def described(package: str) -> dict:
        release = output("dpkg-query", "-f", "${Version}", "-W", package)
        return {"SPDXID": identifier(package), "name": package, "versionInfo": release, "supplier": "Organization: Debian",
                "downloadLocation": "NOASSERTION", "filesAnalyzed": False, "licenseConcluded": licence(package),
                "licenseDeclared": licence(package), "copyrightText": "NOASSERTION",
                "externalRefs": [{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                                  "referenceLocator": f"pkg:deb/debian/{package}@{release}"}]}

    created = datetime.datetime.fromtimestamp(int(os.environ["SOURCE_DATE_EPOCH"]), datetime.timezone.utc)
    document = {
        "spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT",
        "name": f"vimbrel-{version}", "documentNamespace": f"urn:vimbrel:spdx:{version}:{commit}",
        "creationInfo": {"created": created.strftime("%Y-%m-%dT%H:%M:%SZ"), "creators": ["Tool: bill_of_materials.py"]},
        "packages": [{"SPDXID": "SPDXRef-vimbrel", "name": "vimbrel", "versionInfo": f"{version} ({commit})",
                      "downloadLocation": "NOASSERTION", "filesAnalyzed": False, "licenseConcluded": "Apache-2.0",
                      "licenseDeclared": "Apache-2.0", "copyrightText": "NOASSERTION"},
                     *(described(package) for package in sorted(linked) + sorted(static))],
        "relationships": [
            {"spdxElementId": "SPDXRef-DOCUMENT", "relationshipType": "DESCRIBES", "relatedSpdxElement": "SPDXRef-vimbrel"},
            *({"spdxElementId": "SPDXRef-vimbrel", "relationshipType": kind, "relatedSpdxElement": identifier(package)}
              for kind, packages in (("DYNAMIC_LINK", linked), ("STATIC_LINK", static)) for package in sorted(packages))],
    }
    print(json.dumps(document, indent=1, sort_keys=True))
    return 0


if __name__ == "__main__":
    sys.exit(main())
