#!/usr/bin/python3
"""Writes a bill of materials beside each package: NAME_VERSION_ARCHITECTURE.spdx.json, in the form of SPDX 2.3.

It lists the files of the package, and the Debian packages whose code is in them or is linked to them: their versions as
they are installed here, and the licences that their copyright files declare. The same packages get the same bill.

Argument: the build tree, which holds the packages in packages/, and what ninja knows about their making.
"""

import collections
import datetime
import hashlib
import io
import json
import os
import pathlib
import re
import subprocess
import sys
import tarfile
import tempfile
import urllib.parse

# The names that Debian and SPDX give them.
SPDX_NAMES = {
    "Apache-2.0": "Apache-2.0",
    "BSD-2-clause": "BSD-2-Clause",
    "BSD-3-clause": "BSD-3-Clause",
    "BSL-1.0": "BSL-1.0",
    "CC0-1.0": "CC0-1.0",
    "EDL-1.0": "BSD-3-Clause",
    "EPL-2.0": "EPL-2.0",
    "Expat": "MIT",
    "MIT": "MIT",
    "Zlib": "Zlib",
}
GNU_NAME = re.compile(r"((?:L|A)?GPL|GFDL)-(\d(?:\.\d)?)(\+?)")


def run(*command, **options):
    return subprocess.run([str(word) for word in command], check=True, stdout=subprocess.PIPE, **options).stdout


def lines(*command, **options):
    return run(*command, **options).decode().splitlines()


def identifier(*parts):
    return "SPDXRef-" + re.sub(r"[^A-Za-z0-9.]+", "-", "-".join(parts).replace("+", "p")).strip("-")


def paragraphs(text):
    """The stanzas of a Debian control file, each with its fields."""
    for stanza in re.split(r"\n\s*\n", text):
        yield {name: value.strip() for name, value in re.findall(r"(?m)^([\w-]+):((?:.*\n?)(?:^[ \t].*\n?)*)", stanza)}


class Licences:
    """The licences of packages as SPDX expressions, with the text of each that SPDX has no name for."""

    def __init__(self):
        self.texts = {}

    def of(self, source, copyright_file):
        """The licence of a source package, and a remark on parts of it that have another."""
        text = copyright_file.read_text(errors="replace")
        stanzas = list(paragraphs(text))
        whole = next(
            (stanza for stanza in stanzas if stanza.get("Files", "").split() == ["*"] and stanza.get("License")), None
        )
        if whole is None:
            return self.own(source, "", text), None
        others = sorted(
            {
                f'{first_line(stanza["License"])} ({" ".join(stanza["Files"].split())})'
                for stanza in stanzas
                if "License" in stanza and "Files" in stanza and stanza is not whole
            }
        )
        texts = {first_line(stanza["License"]): stanza["License"] for stanza in stanzas if "License" in stanza}
        expression = self.expression(source, first_line(whole["License"]), texts)
        return expression, "Parts of the sources, by Debian's copyright file: " + "; ".join(others) if others else None

    def expression(self, source, names, texts):
        words = []
        for name in re.split(r"\s+(and|or)\s+", names):
            gnu = GNU_NAME.fullmatch(name)
            if name in ("and", "or"):
                words.append(name.upper())
            elif gnu:
                number = gnu[2] if "." in gnu[2] else f"{gnu[2]}.0"
                words.append(f'{gnu[1]}-{number}-{"or-later" if gnu[3] else "only"}')
            else:
                known = {debian.lower(): spdx for debian, spdx in SPDX_NAMES.items()}.get(name.lower())
                words.append(known or self.own(source, name, texts.get(name, name)))
        return " ".join(words)

    def own(self, source, name, text):
        """A name for a licence that SPDX does not know, numbered where packages of a source differ in it."""
        reference = identifier(source, name).replace("SPDXRef-", "LicenseRef-")
        number = 1
        while self.texts.setdefault(f"{reference}-{number}", text.strip()) != text.strip():
            number += 1
        return f"{reference}-{number}"


def first_line(text):
    return text.split("\n", 1)[0].strip()


class Debian:
    """The packages that are installed here."""

    def __init__(self, architecture):
        self.architecture = architecture
        self.libraries = "/" + lines("dpkg-architecture", f"-a{architecture}", "-qDEB_HOST_MULTIARCH")[0]
        release = dict(line.split("=", 1) for line in pathlib.Path("/etc/os-release").read_text().splitlines())
        self.release = release["VERSION_CODENAME"]

    def owners(self, patterns):
        """The packages that hold files of these names, of the architecture built for where there are several."""
        if not patterns:
            return set()
        found = subprocess.run(
            ["dpkg-query", "--search", *sorted(patterns)], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True
        ).stdout
        packages = {
            name.strip()
            for line in found.splitlines()
            if not line.startswith("diversion by")
            for name in line.split(": ")[0].split(",")
        }
        return {package for package in packages if package.split(":")[-1] in (self.architecture, package)}

    def element(self, package, licences):
        form = "${Package}\n${Version}\n${Architecture}\n${source:Package}\n${source:Version}\n${Homepage}"
        name, version, architecture, source, source_version, *homepage = lines(
            "dpkg-query", "--show", "-f", form, package
        )
        expression, remark = licences.of(source, pathlib.Path(f"/usr/share/doc/{name}/copyright"))
        url = (
            f"pkg:deb/debian/{urllib.parse.quote(name)}@{urllib.parse.quote(version, safe='')}"
            f"?arch={architecture}&distro={self.release}"
        )
        element = {
            "SPDXID": identifier("Package", name),
            "name": name,
            "versionInfo": version,
            "supplier": "Organization: Debian",
            "downloadLocation": "NOASSERTION",
            "filesAnalyzed": False,
            "sourceInfo": f"built from the source package {source} {source_version}",
            "licenseConcluded": "NOASSERTION",
            "licenseDeclared": expression,
            "copyrightText": "NOASSERTION",
            "externalRefs": [
                {"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl", "referenceLocator": url}
            ],
        }
        if homepage and homepage[0]:
            element["homepage"] = homepage[0]
        if remark:
            element["licenseComments"] = remark
        return element


class Build:
    """The build as ninja knows it."""

    def __init__(self, directory):
        self.directory = directory
        self.outputs = {line.split(": ")[0] for line in self.ninja("targets", "all")}

    def ninja(self, tool, *arguments):
        return [
            line
            for line in lines("ninja", "-C", self.directory, "-t", tool, *arguments)
            if not line.startswith("ninja: ")
        ]

    def inputs(self, name):
        """Static libraries and headers from elsewhere that are in the output with this file name."""
        target = next(
            (
                output
                for output in self.outputs
                if output.rsplit("/", 1)[-1] == name
                and "/CMakeFiles/" not in f"/{output}"
                and "_object_order_" not in output
            ),
            None,
        )
        if target is None:
            return set(), set()
        inputs = self.ninja("inputs", target)
        objects = [path for path in inputs if path.endswith(".o")]
        headers = {
            os.path.realpath(line.strip()) for line in self.ninja("deps", *objects) if line.startswith("    /usr/")
        }
        return {path for path in inputs if path.startswith("/usr/") and path.endswith(".a")}, headers


def needed_libraries(content):
    """The shared libraries that a program names, nothing for what is not one."""
    if not content.startswith(b"\x7fELF"):
        return set()
    with tempfile.NamedTemporaryFile() as program:
        program.write(content)
        program.flush()
        dynamic = run("readelf", "--dynamic", "--wide", program.name).decode()
    return set(re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic))


def describe(package, build, created):
    name, version, architecture, homepage = (
        run("dpkg-deb", "--field", package, field).decode().strip()
        for field in ("Package", "Version", "Architecture", "Homepage")
    )
    debian = Debian(lines("dpkg", "--print-architecture")[0] if architecture == "all" else architecture)
    licences = Licences()
    uses = collections.defaultdict(set)
    files = []
    copyright_file = pathlib.Path(__file__).parent / "copyright"
    with tarfile.open(fileobj=io.BytesIO(run("dpkg-deb", "--fsys-tarfile", package))) as archive:
        for member in sorted((member for member in archive if member.isfile()), key=lambda member: member.name):
            content = archive.extractfile(member).read()
            file = identifier(
                "File", member.name.removeprefix("./"), hashlib.sha1(member.name.encode()).hexdigest()[:8]
            )
            files.append(
                {
                    "SPDXID": file,
                    "fileName": member.name,
                    "copyrightText": "NOASSERTION",
                    "licenseConcluded": "NOASSERTION",
                    "licenseInfoInFiles": ["NOASSERTION"],
                    "checksums": [
                        {"algorithm": "SHA1", "checksumValue": hashlib.sha1(content).hexdigest()},
                        {"algorithm": "SHA256", "checksumValue": hashlib.sha256(content).hexdigest()},
                    ],
                }
            )
            if not content.startswith((b"\x7fELF", b"!<arch>\n")):
                continue
            archives, headers = build.inputs(os.path.basename(member.name))
            for kind, patterns in (
                ("DYNAMIC_LINK", {f"*{debian.libraries}/{library}" for library in needed_libraries(content)}),
                ("STATIC_LINK", archives),
                ("BUILD_DEPENDENCY_OF", headers),
            ):
                for owner in debian.owners(patterns):
                    uses[owner].add((kind, file))

    sums = "".join(sorted(file["checksums"][0]["checksumValue"] for file in files))
    expression, remark = licences.of("PropertyService", copyright_file)
    own = {
        "SPDXID": identifier("Package", name),
        "name": name,
        "versionInfo": version,
        "supplier": "Organization: PropertyService maintainers",
        "downloadLocation": "NOASSERTION",
        "filesAnalyzed": True,
        "packageFileName": package.name,
        "packageVerificationCode": {"packageVerificationCodeValue": hashlib.sha1(sums.encode()).hexdigest()},
        "checksums": [{"algorithm": "SHA256", "checksumValue": hashlib.sha256(package.read_bytes()).hexdigest()}],
        "licenseConcluded": "NOASSERTION",
        "licenseDeclared": expression,
        "licenseInfoFromFiles": ["NOASSERTION"],
        "copyrightText": next(
            stanza["Copyright"] for stanza in paragraphs(copyright_file.read_text()) if "Copyright" in stanza
        ),
    }
    elements = {owner: debian.element(owner, licences) for owner in sorted(uses)}
    relationships = [("SPDXRef-DOCUMENT", "DESCRIBES", own["SPDXID"])]
    relationships += [(own["SPDXID"], "CONTAINS", file["SPDXID"]) for file in files]
    for owner, element in elements.items():
        relationships += [
            (element["SPDXID"], kind, file) if kind == "BUILD_DEPENDENCY_OF" else (file, kind, element["SPDXID"])
            for kind, file in sorted(uses[owner])
        ]
    return {
        "spdxVersion": "SPDX-2.3",
        "dataLicense": "CC0-1.0",
        "SPDXID": "SPDXRef-DOCUMENT",
        "name": package.stem,
        "documentNamespace": "https://propertyservice.invalid/spdx/"
        + package.stem
        + "-"
        + own["checksums"][0]["checksumValue"],
        "creationInfo": {
            "created": created,
            "creators": ["Tool: PropertyService-packaging/bill.py", "Organization: PropertyService maintainers"],
        },
        "packages": [own, *elements.values()],
        "files": files,
        "hasExtractedLicensingInfos": [
            {"licenseId": reference, "extractedText": text} for reference, text in sorted(licences.texts.items())
        ],
        "relationships": [
            {"spdxElementId": element, "relationshipType": kind, "relatedSpdxElement": related}
            for element, kind, related in relationships
        ],
    }


def main():
    directory = pathlib.Path(sys.argv[1])
    build = Build(directory)
    created = datetime.datetime.fromtimestamp(int(os.environ["SOURCE_DATE_EPOCH"]), datetime.timezone.utc)
    for package in sorted((directory / "packages").glob("*.deb")):
        bill = describe(package, build, created.strftime("%Y-%m-%dT%H:%M:%SZ"))
        package.with_suffix(".spdx.json").write_text(json.dumps(bill, indent=1) + "\n")


if __name__ == "__main__":
    main()
