"""The tools of a script's author: `kvl fmt`, `kvl test` and `kvl new`."""

import json
import unittest

import kvl

UNTIDY = b"VAR N% 0;count\nBEGIN:\nIN  B,N\nMOVE N,1"
TIDY = b"VAR N% 0  ;count\nBEGIN:\n    IN B, N\nMOVE N,1"
ECHO = """DIM BUF$ 16
VAR LEN% 0
BEGIN:
    IN BUF, LEN
    PRINT BUF
END:
"""


class ToolsTest(kvl.FolderTest):
    def exit(self, code, *arguments, stdin=b""):
        process = kvl.run(*arguments, stdin=stdin)
        self.assertEqual(process.returncode, code, process.stderr)
        return process

    def test_fmt_prints_checks_and_writes(self):
        script = self.file("a.kvl", UNTIDY)
        script.chmod(0o640)
        link = self.folder / "link.kvl"
        link.symlink_to(script)
        self.assertEqual(self.exit(0, "fmt", script).stdout, TIDY)
        process = self.exit(0, "fmt", "-", stdin=UNTIDY)
        self.assertEqual(process.stdout, TIDY)
        self.assertIn(b"-:4: warning: ", process.stderr)
        self.assertEqual(self.exit(1, "fmt", "--check", script).stdout, f"{script}\n".encode())
        self.assertEqual(script.read_bytes(), UNTIDY)
        self.exit(0, "fmt", "--write", link)
        self.assertEqual(script.read_bytes(), TIDY)
        self.assertEqual(script.stat().st_mode & 0o777, 0o640)
        self.assertTrue(link.is_symlink())
        self.assertEqual(self.exit(0, "fmt", "--check", script).stdout, b"")
        seen = json.loads(self.exit(0, "fmt", "--check", "--json", script).stdout)
        self.assertEqual((seen["changed"], seen["kept"][0]["line"]), (False, 4))

    def test_fmt_writes_nothing_if_a_name_is_wrong(self):
        script = self.file("a.kvl", UNTIDY)
        self.exit(2, "fmt", "--write", script, self.folder / "missing.kvl")
        self.exit(2, "fmt", "--write", script, "-")
        self.exit(2, "fmt", script, script)
        self.assertEqual(script.read_bytes(), UNTIDY)
        self.assertEqual(sorted(path.name for path in self.folder.iterdir()), ["a.kvl"])

    def test_golden_cases(self):
        script = self.file("echo.kvl", ECHO)
        self.file("echo.tests/options", "# every case\n--no-check --lines")
        self.file("echo.tests/lines.txt", b"ab\ncd")
        self.file("echo.tests/values.input", b"ab\ncd")
        self.file("echo.tests/values.options", "--values LEN,BUF\n")
        self.file("echo.tests/batches.options", "--batch 61")
        self.file("echo.tests/notes.md", "nobody's")
        self.assertIn(b"0 passed, 3 failed", self.exit(1, "test", self.folder).stdout)
        self.assertIn(b"3 updated, 0 failed", self.exit(0, "test", "--update", script).stdout)
        self.assertIn(b"3 passed, 0 failed", self.exit(0, "test", self.folder).stdout)
        tests = self.folder / "echo.tests"
        expected = (tests / "lines.expected").read_text()
        replayed = kvl.run("replay", "--json", "--no-check", "--lines", script, tests / "lines.txt")
        self.assertEqual(expected, replayed.stdout.decode())
        values = tests / "values.expected"
        self.assertEqual(
            values.read_text(),
            '{"variable":"LEN","value":2}\n{"variable":"BUF","value":"cd"}\n',
        )
        values.write_text('{"value": 2, "variable": "LEN"}\r\n{"variable":"BUF","value":"cx"}\n')
        (tests / "lines.expected").write_text(expected + "{}\n")
        output = self.exit(1, "test", self.folder).stdout.decode()
        self.assertIn("lines: line 4 is not as expected", output)
        self.assertIn("values: line 2 is not as expected", output)
        self.assertIn('value: "cx" -> "cd"', output)
        *_, last, counts = map(json.loads, self.exit(1, "test", "--json", script).stdout.splitlines())
        self.assertEqual((last["case"], last["line"]), ("values", 2))
        self.assertEqual(counts, {"passed": 1, "updated": 0, "failed": 2})

    def test_golden_cases_lay_their_tags(self):
        self.file("put.kvl", """TABLE_NAME "T"
EQU LEVEL "LEVEL"
EQU NAME "NAME"
BEGIN:
    PUT LEVEL, 1.1
    PUT NAME, "pump", 4
END:
""")
        self.file("put.tags", "LEVEL float\nNAME text 8\n")
        self.file("put.tests/common.options", "--values LEVEL,NAME")
        self.file("put.tests/own.options", "--values LEVEL")
        self.file("put.tests/own.tags", "LEVEL int32")
        self.file("put.tests/events.options", '--batch "" --batch 61 --events end,put --values NAME')
        self.exit(0, "test", "--update", self.folder)
        for case, expected in [
            ("common", '{"tag":"LEVEL","value":1.1}\n{"tag":"NAME","value":"pump"}\n'),
            ("own", '{"tag":"LEVEL","value":1}\n'),
        ]:
            seen = (self.folder / "put.tests" / f"{case}.expected").read_text()
            self.assertEqual(seen, expected)
        events = (self.folder / "put.tests/events.expected").read_text().splitlines()
        kinds = [json.loads(line).get("event", "value") for line in events]
        self.assertEqual(kinds, ["put", "put"] * 2 + ["end", "value"])  # an empty batch is a pass

    def test_golden_cases_that_can_not_run(self):
        self.exit(1, "test", self.folder)  # no tests at all
        self.exit(2, "test", self.folder / "missing")
        self.file("loop.kvl", "VAR N% 0\nBEGIN:\n    INC N\n    JP BEGIN\nEND:\n")
        self.file("loop.tests/endless.expected", "")
        for options, message in [
            ("", b'"event":"limit"'),
            ("--frobnicate", b"in the case's options"),
            ("--values NOBODY", b"NOBODY"),
            ("--events NOISE", b"in the case's options"),
        ]:
            self.file("loop.tests/options", options + " --no-check")
            self.assertIn(message, self.exit(1, "test", self.folder).stdout)
        self.file("loop.tests/options", "--no-check")
        self.file("loop.tests/endless.a", "")
        self.file("loop.tests/endless.b", "")
        self.assertIn(b"captures of one case", self.exit(1, "test", self.folder).stderr)

    def test_new_scripts_are_tidy_and_run(self):
        for option, media in [("--serial", b"RS232C"), ("--tcp", b"TCP")]:
            script = self.folder / f"{option[2:]}.kvl"
            self.exit(0, "new", script, option)
            self.assertRegex(script.read_bytes(), rb"OPEN MEDIA +" + media)
            self.exit(0, "check", script)
            self.exit(0, "fmt", "--check", script)
            events = kvl.replay(script, "--batch", "31322e350d", "--batch", "0a372e350d0a")
            self.assertEqual([event["pass"] for event in events[:-1]], [2, 2])
            values = {variable["name"]: kvl.value(variable) for variable in events[-1]["variables"]}
            self.assertEqual(values["VALUE"], "7.5")
            script.write_bytes(b"mine")
            self.exit(1, "new", script)
            self.assertEqual(script.read_bytes(), b"mine")
            self.exit(0, "new", "--force", script)
            self.exit(0, "check", script)
        self.exit(0, "new", self.folder / "a\nBEGIN:.kvl")
        self.exit(0, "check", self.folder / "a\nBEGIN:.kvl")
        self.exit(1, "new", self.folder / "no folder" / "a.kvl")

    def test_slips_of_the_keyboard(self):
        for words, message in [
            (["chekc"], b"no command 'chekc'; did you mean 'check'?"),
            (["--color", "never", "replya", "x"], b"did you mean 'replay'?"),
            (["replay", "x", "--jsn"], b"no option '--jsn'; did you mean '--json'?"),
            (["replay", "x", "--colour=never"], b"did you mean '--color'?"),
            (["frobnicate"], b"no command 'frobnicate'\n"),
            (["replay"], b"SCRIPT is required"),
            ([], b"A subcommand is required"),
        ]:
            with self.subTest(words):
                self.assertIn(message, self.exit(2, *words).stderr)


if __name__ == "__main__":
    unittest.main()
