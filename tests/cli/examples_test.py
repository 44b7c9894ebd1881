"""The decoders of examples/: what they make of their input, however it is cut."""

import json
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

import kvl

# folder, its input, how its expected.jsonl cuts it
EXAMPLES = [
    ("gauge", "input.txt", ["--lines"]),
    ("nmea0183", "input.nmea", ["--lines"]),
    ("p1-meter", "input.p1", ["--chunk", "64"]),
    ("scale", "input.txt", ["--lines"]),
]


def files(name, recording):
    folder = kvl.ROOT / "examples" / name
    return folder / f"{name}.kvl", folder / f"{name}.tags", folder / recording


def decode(script, *arguments):
    """The events, the last without the variables that no PUT publishes."""
    events = kvl.replay(script, "--tags", script.with_suffix(".tags"), *arguments)
    names = set(re.findall(r"^\s*PUT \w+, (\w+)$", script.read_text(), re.M))
    events[-1]["variables"] = [v for v in events[-1]["variables"] if v["name"] in names]
    return events


def published(events):
    """What other processes would see: every PUT in its order, and the variables behind them."""
    puts = [(event["tag"], event["hex"]) for event in events if event["event"] == "put"]
    return puts, {v["name"]: kvl.value(v) for v in events[-1]["variables"]}


class ExamplesTest(unittest.TestCase):
    def test_replay_gives_what_is_expected(self):
        for name, recording, cut in EXAMPLES:
            with self.subTest(name):
                script, _, capture = files(name, recording)
                expected = (script.parent / "expected.jsonl").read_text()
                seen = decode(script, capture, *cut)
                self.assertEqual(seen, [json.loads(line) for line in expected.splitlines()])

    def test_batches_cut_anywhere_give_the_same_values(self):
        for name, recording, cut in EXAMPLES:
            script, _, capture = files(name, recording)
            expected = published(decode(script, capture, *cut))
            self.assertTrue(expected[1])
            for cut in (["--chunk", n] for n in (1, 7, 64, 2048, 8191)):
                with self.subTest(name, cut=cut):
                    self.assertEqual(published(decode(script, capture, *cut)), expected)

    def test_scripts_are_without_fault_and_well_laid_out(self):
        scripts = [files(name, recording)[0] for name, recording, _ in EXAMPLES]
        for command in (["check"], ["fmt", "--check"]):
            process = kvl.run(*command, *scripts)
            self.assertEqual(process.returncode, 0, process.stdout + process.stderr)

    def test_input_is_what_its_generator_writes(self):
        for name, recording, _ in EXAMPLES:
            capture = files(name, recording)[2]
            with self.subTest(name), tempfile.TemporaryDirectory() as folder:
                copy = pathlib.Path(folder) / "generate.py"
                copy.write_text((capture.parent / "generate.py").read_text())
                subprocess.run([sys.executable, copy], check=True)
                written = (pathlib.Path(folder) / recording).read_bytes()
                self.assertEqual(written, capture.read_bytes())

    def test_scale_is_asked_again_after_a_second_of_silence(self):
        script, _, capture = files("scale", "input.txt")
        silence = ["--batch", ""]
        events = decode(script, *silence * 22, "--batch", b"ST,GS,+   1".hex(), *silence * 21,
                        "--batch", b"ST,GS,+   2.000kg\r\n".hex())
        poll = r"out READ\r\n"
        shown = [kvl.describe(event) for event in events if event["event"] in ("out", "sleep")]
        self.assertEqual(shown, [poll] + ["sleep 50"] * 20 + [poll] + ["sleep 50"] * 20 +
                         [poll, "sleep 200", poll])
        values = published(events)[1]
        self.assertEqual((values["WEIGHT"], values["STATUS"]), ("2", "0"))


def write_expected():
    """Run by hand after a wanted change: `KVL=... python3 examples_test.py --write`."""
    for name, recording, cut in EXAMPLES:
        script, _, capture = files(name, recording)
        lines = [json.dumps(event) + "\n" for event in decode(script, capture, *cut)]
        (script.parent / "expected.jsonl").write_text("".join(lines))


if __name__ == "__main__":
    if sys.argv[1:] == ["--write"]:
        sys.exit(write_expected())
    unittest.main()
