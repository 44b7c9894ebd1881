"""Whole scripts: those of tests/scripts and those of the language guide say what they must show."""

import re
import unittest

import kvl

GUIDE = kvl.ROOT / "docs" / "language.md"


def snippets():
    """The ```kvl blocks of the guide: (first line, whether complete, text)."""
    text = GUIDE.read_text()
    for found in re.finditer(r"^```kvl( fragment)?\n(.*?)^```$", text, re.M | re.S):
        yield text.count("\n", 0, found.start()) + 2, found[1] is None, found[2]


class ScriptsTest(unittest.TestCase):
    def check(self, name, text):
        with self.subTest(name):
            script = kvl.Script(name, text)
            self.assertTrue(script.runs, "no ;run in it")
            failures = list(script.failures())
            self.assertFalse(failures, "\n".join(failures))

    def test_scripts_do_what_their_comments_say(self):
        for path in sorted((kvl.ROOT / "tests" / "scripts").glob("*.kvl")):
            self.check(path.name, path.read_text("latin-1"))

    def test_snippets_of_the_guide_do_what_their_comments_say(self):
        frame = None  # the guide's first complete script declares what its fragments use
        for line, complete, text in snippets():
            if complete:
                frame = frame or text
                self.check(f"language.md:{line}", text)
            else:
                body = frame.partition("BEGIN:\n")[0] + "BEGIN:\n" + text + "END:\n"
                body += "" if ";run" in text else ";run\n"
                self.check(f"language.md:{line}", body)

    def test_guide_has_a_section_for_every_instruction(self):
        table = (kvl.ROOT / "src" / "script" / "instruction_set.h").read_text()
        keywords = re.findall(r"^  X\( ?\d+, (\w+),", table, re.M)
        headings = " ".join(re.findall(r"^#+ (.*)$", GUIDE.read_text(), re.M))
        self.assertEqual(len(keywords), 31)
        self.assertEqual([k for k in keywords if not re.search(rf"`{k}`", headings)], [])


if __name__ == "__main__":
    unittest.main()
