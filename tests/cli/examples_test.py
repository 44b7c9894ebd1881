"""The decoders of examples/: their golden tests, and that it doesn't matter how their input is cut."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

import kvl

SCRIPTS = sorted((kvl.ROOT / "examples").glob("*/*.kvl"))


def recording(script):
    (found,) = (file for file in script.with_suffix(".tests").glob("recording.*")
                if file.suffix not in (".expected", ".options"))
    return found


def published(script, *cut):
    """What other processes would see: every PUT in its order, and the tags in the end."""
    *events, end = kvl.replay(script, recording(script), "--tags", script.with_suffix(".tags"), *cut)
    return [(e["tag"], e["hex"]) for e in events if e["event"] == "put"], end["tags"]


class ExamplesTest(unittest.TestCase):
    def test_golden_tests_pass(self):
        process = kvl.run("test", kvl.ROOT / "examples")
        self.assertEqual(process.returncode, 0, process.stdout.decode() + process.stderr.decode())
        for script in SCRIPTS:
            self.assertIn(f"{script.with_suffix('.tests')}/recording\n", process.stdout.decode())

    def test_batches_cut_anywhere_give_the_same_values(self):
        for script in SCRIPTS:
            expected = published(script, "--lines")
            self.assertTrue(expected[0])
            for cut in (["--chunk", n] for n in (1, 7, 64, 2048, 8191)):
                with self.subTest(script.name, cut=cut):
                    self.assertEqual(published(script, *cut), expected)

    def test_scripts_are_without_fault_and_well_laid_out(self):
        for command in (["check"], ["fmt", "--check"]):
            process = kvl.run(*command, *SCRIPTS)
            self.assertEqual(process.returncode, 0, process.stdout + process.stderr)

    def test_recordings_are_what_their_generators_write(self):
        for generator in (kvl.ROOT / "examples").glob("*/generate.py"):
            (script,) = generator.parent.glob("*.kvl")
            with self.subTest(script.name), tempfile.TemporaryDirectory() as folder:
                copy = pathlib.Path(folder) / "generate.py"
                copy.write_text(generator.read_text())
                written = copy.parent / recording(script).relative_to(script.parent)
                written.parent.mkdir()
                subprocess.run([sys.executable, copy], check=True)
                self.assertEqual(written.read_bytes(), recording(script).read_bytes())


if __name__ == "__main__":
    unittest.main()
