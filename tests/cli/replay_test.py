"""`kvl replay` itself: how INPUT becomes batches, its limits, its faults, its exit codes."""

import json
import subprocess
import time
import unittest

import kvl

COUNT = """DIM BUF$ 16
VAR LEN% 0
BEGIN:
 IN BUF, LEN
 PRINT BUF
END:
"""
LOOP = """VAR N% 0
BEGIN:
 INC N
 JP BEGIN
END:
"""


class ReplayTest(kvl.FolderTest):
    def test_cutting(self):
        script = self.file("count.kvl", COUNT)
        capture = self.file("capture", b"ab\ncd\0e\n\nf")
        none = self.file("none", b"")
        for arguments, batches in [
            ([capture], [r"ab\ncde\n\nf"]),
            ([capture, "--chunk", 4], [r"ab\nc", r"de\n", r"\nf"]),
            ([capture, "--lines"], [r"ab\n", r"cde\n", r"\n", "f"]),
            (["-", "--chunk", 5], [r"ab\ncd", r"e\n\nf"]),
            (["--batch", "6100 62", "--batch", "", "--batch", "C8"], ["ab", "", r"\xc8"]),
            ([], [""]),
            ([none], []),
            ([none, "--lines"], []),
        ]:
            with self.subTest(arguments=arguments):
                *prints, end = kvl.replay(script, *arguments, stdin=capture.read_bytes())
                self.assertEqual([kvl.describe(p) for p in prints], [f"print {b}" for b in batches])
                self.assertEqual([p["pass"] for p in prints], list(range(1, len(batches) + 1)))
                self.assertEqual((end["passes"], end["result"]), (len(batches), 0))

    def test_limit_ends_each_pass(self):
        script = self.file("loop.kvl", LOOP)
        events = kvl.replay(script, "--max-steps", 6, "--batch", "61", "--batch", "62")
        self.assertEqual([(e["event"], e.get("pass")) for e in events],
                         [("limit", 1), ("limit", 2), ("end", None)])
        self.assertEqual(kvl.value(events[-1]["variables"][0]), "6")
        exact = self.file("exact.kvl", "VAR N% 0\nBEGIN:\n INC N\n INC N\nEND:\n")
        self.assertEqual(len(kvl.replay(exact, "--max-steps", 2)), 1)

    def test_end_lists_every_variable_byte_for_byte(self):
        script = self.file("kinds.kvl", 'VAR A$ -1\nVAR A% 2\nVAR D# 0.5\nDIM B$ 3\nDIM W% 1\n'
                                        'EQU E "a<0D>"\nASSIGN S ""\nBEGIN:\n INC A\nEND:\n')
        end = kvl.replay(script, "--no-check")[-1]
        self.assertEqual(
            [tuple(v.values()) for v in end["variables"]],
            [("A", "VAR", "$", "00"), ("A", "VAR", "%", "02000000"),
             ("D", "VAR", "#", "000000000000e03f"), ("B", "DIM", "$", "000000"),
             ("W", "DIM", "%", "00000000"), ("E", "EQU", "$", "613c30443e"),
             ("S", "ASSIGN", "$", "")])
        self.assertEqual({k: end[k] for k in ("passes", "result", "compare", "interval", "tags")},
                         {"passes": 1, "result": 0, "compare": 0, "interval": 0, "tags": []})

    def test_script_without_instruction_counts_passes(self):
        script = self.file("empty.kvl", "")
        end = kvl.replay(script, "--no-check", "--batch", "61", "--batch", "")[-1]
        self.assertEqual((end["passes"], end["result"]), (2, -1))

    def test_odd_scripts_end_in_order(self):
        line = "A" * 10_000_000
        for name, content in [
            ("binary", bytes(range(256)) * 400),
            ("one line", line),
            ("one main line", "BEGIN:\n" + line + "\n"),
            ("one operand", "BEGIN:\n OUT \"" + line + "\"\nEND:\n"),
            ("no newline", "BEGIN:\nEND:"),
        ]:
            with self.subTest(name):
                script = self.file("odd.kvl", content)
                kvl.replay(script, "--no-check", "--batch", "61", "--max-steps", 1000)

    def test_odd_input_runs(self):
        script = self.file("count.kvl", COUNT)
        for content in (bytes(range(256)) * 400, b"A" * 10_000_000):
            for cut in (["--lines"], ["--chunk", 2048], ["--chunk", 1 << 24]):
                with self.subTest(size=len(content), cut=cut):
                    kvl.replay(script, self.file("capture", content), *cut)

    def test_capture_cut_by_a_power_failure_is_of_use(self):
        script = self.file("count.kvl", COUNT)
        whole = self.file("whole", b"kvl capture 1\n0 61\n")
        cut = self.file("cut", b"kvl capture 1\n0 61\n1000 6262")
        self.assertEqual(kvl.replay(script, cut), kvl.replay(script, whole))
        edited = self.file("edited", whole.read_bytes().replace(b"\n", b"\r\n"))
        self.assertEqual(kvl.replay(script, edited), kvl.replay(script, whole))

    def test_pipe_may_bring_what_begins_like_a_capture(self):
        script = self.file("count.kvl", COUNT)
        for cut in (["--lines"], ["--chunk", 4]):
            command = kvl.command("replay", "--json", script, "-", *cut)
            with subprocess.Popen(
                command, stdin=subprocess.PIPE, stdout=subprocess.PIPE
            ) as process:
                for piece in (b"kvl cap", b"tive\nnext"):
                    process.stdin.write(piece)
                    process.stdin.flush()
                    time.sleep(0.2)
                process.stdin.close()
                events = [json.loads(line) for line in process.stdout]
            whole = self.file("whole", b"kvl captive\nnext")
            self.assertEqual(events, kvl.replay(script, whole, *cut))

    def test_exit_codes(self):
        script = self.file("count.kvl", COUNT)
        capture = self.file("capture", b"ab")
        for arguments, exit_code, said in [
            ([script, capture], 0, ""),
            ([self.folder / "none.kvl"], 2, "none.kvl"),
            ([self.folder], 2, str(self.folder)),
            ([script, self.folder / "none"], 2, "none"),
            ([script, self.folder], 2, str(self.folder)),
            ([script, "--batch", "6"], 2, "hexadecimal"),
            ([script, "--batch", "zz"], 2, "hexadecimal"),
            ([script, capture, "--batch", "61"], 2, "--batch"),
            ([script, capture, "--lines", "--chunk", 3], 2, "--lines"),
            ([script, capture, "--chunk", 0], 2, "--chunk"),
            ([script, "--max-steps", "x"], 2, "--max-steps"),
            ([script, "--unknown"], 2, "--unknown"),
            ([], 2, "SCRIPT"),
            (["--help"], 0, ""),
        ]:
            with self.subTest(arguments=arguments):
                process = kvl.run("replay", *arguments)
                self.assertEqual(process.returncode, exit_code, process.stderr)
                self.assertIn(said, process.stderr.decode())
                self.assertEqual(process.stderr == b"", exit_code == 0)


if __name__ == "__main__":
    unittest.main()
