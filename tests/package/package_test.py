"""The package as its users meet it: installed, found by CMake and pkg-config, as a .deb."""

import os
import pathlib
import re
import shutil
import unittest

import installed
from installed import BUILD, output

CONSUMER = pathlib.Path(__file__).resolve().parent / "consumer"
HOST_OUTPUT = "sync 7\n3 가\n"


class PackageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        installed.install(cls)

    def library(self):
        return installed.library(self.prefix)

    def pkg_config(self, *arguments):
        return output("pkg-config", *arguments, "kvl", env=installed.environment(self.prefix))

    def test_every_part_tells_one_version(self):
        version = re.fullmatch(r"kvl (\d+\.\d+\.\d+)\n", output(self.prefix / "bin/kvl", "--version"))
        self.assertEqual(self.pkg_config("--modversion").strip(), version[1])
        self.assertEqual(self.library().resolve().name, f"libkvl.so.{version[1]}")
        self.assertIn(f"kvl {version[1]}", (self.prefix / "share/man/man1/kvl.1").read_text())

    def test_exports_nothing_but_its_own_names(self):
        own = re.compile(r"(?:(?:vtable|VTT|typeinfo|typeinfo name) for |(?:non-)?virtual thunk to )?"
                         r"kvl::|kvl_\w+$")
        symbols = output("nm", "-DC", "--defined-only", self.library()).splitlines()
        names = [line.split(" ", 2)[2] for line in symbols]
        self.assertIn("kvl_table_open", names)
        self.assertEqual([name for name in names if not own.match(name)], [])

    def test_headers_name_each_other_in_full(self):
        headers = list((self.prefix / "include").rglob("*.h"))
        self.assertTrue(headers)
        for header in headers:
            self.assertNotIn('#include "', header.read_text(), header)

    def test_cmake_finds_it(self):
        for languages in ["C CXX", "C"]:
            build = self.folder / f"build {languages}"
            source = self.folder / f"source {languages}"
            shutil.copytree(CONSUMER, source)
            lists = source / "CMakeLists.txt"
            if languages == "C":  # a project without C++
                lists.write_text(re.sub(r"C CXX|.*\bhost\b.*\n", lambda m: "C" * (m[0] == "C CXX"),
                                        lists.read_text()))
            output(os.environ["CMAKE"], "-S", source, "-B", build, f"-DCMAKE_PREFIX_PATH={self.prefix}")
            output(os.environ["CMAKE"], "--build", build)
            self.assertEqual(output(build / "reader"), "no table\n")
            if languages != "C":
                self.assertEqual(output(build / "host"), HOST_OUTPUT)

    def test_pkg_config_finds_it(self):
        program = self.folder / "reader"
        flags = self.pkg_config("--cflags", "--libs").split()
        output(os.environ.get("CC", "cc"), CONSUMER / "reader.c", "-o", program, *flags)
        self.assertEqual(output(program, env=installed.environment(self.prefix)), "no table\n")

    @unittest.skipUnless(shutil.which("dpkg-shlibdeps"), "needs dpkg-dev")
    def test_debian_package_installs_and_removes_cleanly(self):
        output(os.environ["CPACK"], "-G", "DEB", "--config", BUILD / "CPackConfig.cmake",
               "-B", self.folder / "deb")
        package = next((self.folder / "deb").glob("*.deb"))
        self.assertRegex(output("dpkg-deb", "-f", package, "Depends"), r"libc6 .*libfmt")
        root = self.folder / "root"
        if os.geteuid() == 0:
            (root / "var/lib/dpkg/updates").mkdir(parents=True)
            (root / "var/lib/dpkg/info").mkdir()
            (root / "var/lib/dpkg/status").touch()
            dpkg = ["dpkg", f"--root={root}", "--force-depends", "--force-script-chrootless",
                    f"--log={self.folder / 'dpkg.log'}"]
            output(*dpkg, "--install", package)
        else:
            output("dpkg-deb", "-x", package, root)
        self.assertRegex(output(root / "usr/bin/kvl", "--version"), r"^kvl \d")
        self.assertEqual(len(list((root / "usr/share/man/man1").iterdir())),
                         len(list((self.prefix / "share/man/man1").iterdir())))
        if os.geteuid() == 0:
            output(*dpkg, "--purge", "kvl")
            left = [path for path in root.rglob("*") if path.is_file() and "dpkg" not in path.parts]
            self.assertEqual(left, [])


if __name__ == "__main__":
    unittest.main()
