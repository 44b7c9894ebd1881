"""docs/architecture.md against the source: the floors and their rule, and every name it gives."""

import pathlib
import re
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = (ROOT / "docs/architecture.md").read_text()
SOURCES = [path for path in (ROOT / "src").rglob("*") if path.suffix in (".h", ".cpp")]
# What a header of standard C++ is called; the rest is somebody's own.
STANDARD = re.compile(r"[a-z_]+|std\w+\.h|(nlohmann|fmt|CLI)/.*")


def floors():
    table = re.findall(r"^\| (\d) \| (.*?) \|", PAGE, re.M)
    return {folder: int(floor) for floor, cell in table
            for folder in re.findall(r"`src/(\w+)/`", cell)}


class ArchitectureTest(unittest.TestCase):
    def test_includes_lead_down(self):
        floor = floors()
        self.assertEqual(sorted(floor), sorted(p.name for p in (ROOT / "src").iterdir() if p.is_dir()))
        for path in SOURCES:
            folder = path.relative_to(ROOT / "src").parts[0]
            for included in re.findall(r'^#include "(\w+)/', path.read_text(), re.M):
                with self.subTest(path=path.name, included=included):
                    self.assertTrue(included == folder or floor[included] < floor[folder])

    def test_only_the_platform_includes_system_headers(self):
        for path in SOURCES:
            if "platform" in path.parts:
                continue
            for included in re.findall(r"^#include <(.*)>", path.read_text(), re.M):
                with self.subTest(path=path.name):
                    self.assertRegex(included, rf"^({STANDARD.pattern})$")

    def test_what_the_page_names_is_there(self):
        text = "\n".join(path.read_text() for path in SOURCES)
        for name in set(re.findall(r"`([^`]+)`", PAGE)):
            with self.subTest(name):
                if "/" in name:
                    self.assertTrue((ROOT / name).exists())
                elif not name.startswith("kvl "):
                    for word in re.findall(r"\w+", name):
                        self.assertRegex(text, rf"(\b|_){word}")


if __name__ == "__main__":
    unittest.main()
