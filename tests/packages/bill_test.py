#!/usr/bin/python3
"""The bills of materials beside the packages: valid by SPDX 2.3, and true.

Argument: the folder with packages and bills.
"""

import hashlib
import io
import json
import pathlib
import re
import subprocess
import sys
import tarfile
import unittest

import jsonschema
from license_expression import get_spdx_licensing

SCHEMA = json.loads((pathlib.Path(__file__).parent / "spdx-2.3.schema.json").read_text())


def output(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout


def bills():
    packages = sorted(PACKAGES.glob("*.deb"))
    assert packages, f"no packages in {PACKAGES}"
    for package in packages:
        yield package, json.loads(package.with_suffix(".spdx.json").read_text())


def related(bill, kind):
    """The names of the packages that files of the package are related to so."""
    names = {package["SPDXID"]: package["name"] for package in bill["packages"]}
    return {
        names.get(end)
        for relationship in bill["relationships"]
        if relationship["relationshipType"] == kind
        for end in (relationship["spdxElementId"], relationship["relatedSpdxElement"])
    } - {None}


class Bills(unittest.TestCase):
    def test_are_valid(self):
        jsonschema.Draft7Validator.check_schema(SCHEMA)
        for package, bill in bills():
            with self.subTest(package.name):
                jsonschema.validate(bill, SCHEMA, cls=jsonschema.Draft7Validator)

    def test_name_each_element_once_and_relate_what_there_is(self):
        for package, bill in bills():
            with self.subTest(package.name):
                elements = [bill["SPDXID"], *(element["SPDXID"] for element in bill["packages"] + bill["files"])]
                self.assertEqual(len(elements), len(set(elements)))
                ends = {
                    end
                    for relationship in bill["relationships"]
                    for end in (relationship["spdxElementId"], relationship["relatedSpdxElement"])
                }
                self.assertEqual(ends, set(elements))

    def test_name_licences_that_are_known_or_quoted(self):
        for package, bill in bills():
            quoted = {licence["licenseId"] for licence in bill["hasExtractedLicensingInfos"]}
            used = set()
            for element in bill["packages"]:
                with self.subTest(package.name, element=element["name"]):
                    references = set(re.findall(r"LicenseRef-[A-Za-z0-9.-]+", element["licenseDeclared"]))
                    used |= references
                    known = re.sub(r"LicenseRef-[A-Za-z0-9.-]+", "MIT", element["licenseDeclared"])
                    self.assertEqual(get_spdx_licensing().validate(known).errors, [])
            self.assertEqual(used, quoted, package.name)

    def test_list_the_files_as_they_are_in_the_package(self):
        for package, bill in bills():
            with self.subTest(package.name):
                with tarfile.open(fileobj=io.BytesIO(output("dpkg-deb", "--fsys-tarfile", package))) as archive:
                    contents = {
                        member.name: archive.extractfile(member).read() for member in archive if member.isfile()
                    }
                self.assertEqual(sorted(file["fileName"] for file in bill["files"]), sorted(contents))
                for file in bill["files"]:
                    for checksum in file["checksums"]:
                        digest = hashlib.new(checksum["algorithm"], contents[file["fileName"]]).hexdigest()
                        self.assertEqual(checksum["checksumValue"], digest, file["fileName"])

    def test_belong_to_the_package(self):
        for package, bill in bills():
            with self.subTest(package.name):
                own = bill["packages"][0]
                self.assertEqual(
                    [own["name"], own["versionInfo"]],
                    [
                        output("dpkg-deb", "--field", package, field).decode().strip()
                        for field in ("Package", "Version")
                    ],
                )
                self.assertEqual(own["checksums"][0]["checksumValue"], hashlib.sha256(package.read_bytes()).hexdigest())

    def test_name_every_library_that_the_package_depends_on(self):
        for package, bill in bills():
            with self.subTest(package.name):
                depends = output("dpkg-deb", "--field", package, "Depends").decode()
                libraries = {
                    name
                    for name in re.findall(r"(?:^|, )([a-z0-9.+-]+)", depends)
                    if name.startswith("lib") and not name.endswith("-dev")
                }
                linked = related(bill, "DYNAMIC_LINK")
                provided = output("dpkg-query", "--show", "-f", "${Provides}, ", *linked).decode() if linked else ""
                self.assertEqual(libraries - linked - set(re.findall(r"[a-z0-9.+-]+", provided)), set())

    def test_name_what_is_compiled_in(self):
        found = {bill["packages"][0]["name"]: bill for _, bill in bills()}
        self.assertIn("libsqlitecpp-dev", related(found["propertyservice"], "STATIC_LINK"))
        self.assertIn("libcli11-dev", related(found["propctl"], "BUILD_DEPENDENCY_OF"))
        self.assertIn("libjsoncpp-dev", related(found["libpropclient-dev"], "BUILD_DEPENDENCY_OF"))

    def test_give_the_versions_that_are_installed(self):
        for package, bill in bills():
            for element in bill["packages"][1:]:
                with self.subTest(package.name, element=element["name"]):
                    installed = (
                        output("dpkg-query", "--show", "-f", "${Version}\n", element["name"]).decode().splitlines()
                    )
                    self.assertIn(element["versionInfo"], installed)


if __name__ == "__main__":
    PACKAGES = pathlib.Path(sys.argv.pop(1)).resolve()
    unittest.main()
