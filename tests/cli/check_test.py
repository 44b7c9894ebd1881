"""`kvl check`: its JSON, its text for people, its exit codes and the watch."""

import json
import os
import signal
import subprocess
import unittest
import unittest.mock

import kvl

GOOD = 'OPEN MEDIA TCP\nOPEN IP 10.0.0.1\nOPEN PORT 5000\nTABLE_NAME "A B"\nBEGIN:\nEND:\n'
BAD = "VAR N% 0\nBEGIN:\n\tMOVE  N ,  QQ ; why\nIN N\nEND:\n"
NOTHING = {"media": 0, "ip": "", "port": "", "baud_rate": -1, "data_bit": -1, "parity_bit": -1,
           "stop_bit": -1}


class CheckTest(kvl.FolderTest):
    def setUp(self):
        super().setUp()
        self.good = self.script("good.kvl", GOOD)
        self.bad = self.script("bad.kvl", BAD)
        self.none = self.folder / "none.kvl"

    def script(self, name, text):
        return self.file(name, text.encode("cp949"))

    def text(self, *arguments):
        return kvl.run("check", *arguments).stderr.decode()

    def test_exit_codes(self):
        for arguments, code in [((self.good,), 0), ((self.good, self.bad), 1),
                                ((self.bad, self.none, self.good), 2), ((), 2),
                                (("--lang", "fr", self.good), 2), (("--watch", "-"), 2)]:
            self.assertEqual(kvl.run("check", *arguments).returncode, code, arguments)
            if code != 2 or self.none in arguments:
                self.assertEqual(kvl.run("check", "--json", *arguments).returncode, code)
        self.assertEqual(kvl.run("check", "-", stdin=BAD.encode()).returncode, 1)

    def test_json(self):
        process = kvl.run("check", "--json", self.good, self.bad, self.none)
        self.assertEqual(process.stderr, b"")
        good, bad, none = map(json.loads, process.stdout.splitlines())
        self.assertEqual(list(good), ["script", "ok", "messages", "comm", "table_name"])
        self.assertEqual(good, {
            "script": str(self.good), "ok": True, "messages": [],
            "comm": NOTHING | {"media": 2, "ip": "10.0.0.1", "port": "5000"}, "table_name": "A B"})
        self.assertEqual(list(good["comm"]), list(NOTHING))
        self.assertFalse(bad["ok"])
        text = "error : line 3, 'QQ' 변수를 찾을수 없습니다..."
        self.assertEqual(bad["messages"][0],
                         {"line": 3, "text": text, "hex": text.encode("cp949").hex()})
        self.assertEqual([m["line"] for m in bad["messages"]], [3, 4])
        self.assertEqual([m["line"] for m in none["messages"]], [None, -1, -1])
        self.assertEqual((none["comm"], none["table_name"]), (NOTHING, ""))

    def test_text_for_people(self):
        self.assertEqual(self.text("--lang", "en", self.bad, self.good).splitlines(), [
            f"{self.bad}:3: error: 'QQ' is no declared variable, or its index is out of range",
            "     3 |  MOVE  N ,  QQ ; why",
            "       |             ^~",
            f"{self.bad}:4: error: 'IN' is used wrongly",
            "     4 | IN N",
            "       | ^~",
            "       = IN buffer, scalar",
            "2 faults in 1 of 2 scripts",
        ])
        self.assertIn(":3: error: 'QQ' 변수를 찾을수 없습니다...\n", self.text("--lang", "ko", self.bad))
        self.assertEqual(self.text("--color", "always", "--lang", "en", self.good),
                         "\x1b[32m1 script checked, no faults\x1b[0m\n")

    def test_language_follows_the_locale(self):
        for locale, korean in [("ko_KR.UTF-8", True), ("C", False)]:
            with unittest.mock.patch.dict(os.environ, {"LC_ALL": locale}):
                self.assertEqual("변수를" in self.text(self.bad), korean)

    def test_markers_stand_under_wide_characters_and_long_lines(self):
        path = self.script("wide.kvl", 'EQU 가 "나"\nEQU "가" 나 다\n' + " " * 300 + "\nVAR N 0\nBEGIN:\nEND:\n")
        self.assertEqual(self.text("--lang", "en", path).splitlines()[-4:], [
            f"{path}:4: error: the name must end in '$', '%' or '#'",
            "     4 | VAR N 0",
            "       |     ^",
            "3 faults in 1 of 1 script",
        ])
        path = self.script("wide.kvl", 'DIM "가나" 0 ;다\nBEGIN:\nEND:\n')
        self.assertEqual(self.text("--lang", "en", path).splitlines()[1:3],
                         ['     1 | DIM "가나" 0 ;다', "       |            ^"])

    def test_benchmarks_run_scripts_that_pass(self):
        scripts = sorted((kvl.ROOT / "bench" / "scripts").glob("*.kvl"))
        self.assertTrue(scripts)
        process = kvl.run("check", *scripts)
        self.assertEqual(process.returncode, 0, process.stdout)

    def test_watch_checks_again_when_a_script_changes(self):
        command = kvl.command("check", "--watch", "--lang", "en", self.bad)
        with subprocess.Popen(command, stderr=subprocess.PIPE, text=True) as process:
            def until(end):
                while not (line := process.stderr.readline()).endswith(end):
                    self.assertTrue(line, "the watch has ended")

            try:
                until("2 faults in 1 of 1 script\n")
                self.bad.write_text(GOOD)
                until("1 script checked, no faults\n")
                self.script("new.kvl", BAD).rename(self.bad)  # as editors save
                until("2 faults in 1 of 1 script\n")
                self.bad.unlink()
                until("can't be read\n")
                self.bad.write_text(GOOD)
                until("1 script checked, no faults\n")
                process.send_signal(signal.SIGINT)
                self.assertEqual(process.wait(60), 0)
            finally:
                process.kill()


if __name__ == "__main__":
    unittest.main()
