"""`scripts/demo` and the picture of it: what they show, and that the demo leaves nothing behind. BUILD
names the build tree."""

import os
import pathlib
import re
import signal
import subprocess
import tempfile
import time
import unittest
import xml.etree.ElementTree

import kvl

BUILD = os.environ.get("BUILD", kvl.ROOT / "build/dev")
OBJECTS = pathlib.Path(f"/dev/shm/kvl-{os.getuid()}")


class DemoTest(unittest.TestCase):
    def start(self, folder, seconds):
        environment = {**os.environ, "TMPDIR": folder, "KVL_DEMO_SECONDS": str(seconds)}
        return subprocess.Popen([kvl.ROOT / "scripts/demo", BUILD], env=environment,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, start_new_session=True)

    def expect_nothing_left(self, demo, folder):
        self.assertEqual(os.listdir(folder), [])
        deadline = time.monotonic() + kvl.PATIENCE
        while time.monotonic() < deadline:  # what was killed is gone when the system says so
            try:
                os.killpg(demo.pid, 0)
            except ProcessLookupError:
                break
            time.sleep(0.05)
        else:
            self.fail("a process was left behind")
        left = [name for name in os.listdir(OBJECTS) if name.startswith(f"DEMO-{demo.pid}")]
        self.assertEqual(left, [])

    def test_shows_live_values_and_ends_by_itself(self):
        with tempfile.TemporaryDirectory() as folder:
            demo = self.start(folder, 3)
            output, errors = demo.communicate(timeout=kvl.PATIENCE)
            self.assertEqual(demo.returncode, 0, errors)
            for part in (r"\d  LEVEL  \S+ -> \d+", r"\d  STATE  .* -> \"good\"",
                         r"^\d+ bytes received"):
                self.assertRegex(output.decode(), "(?m)" + part)
            self.expect_nothing_left(demo, folder)

    def test_ends_in_order_when_interrupted(self):
        for send, number in ((os.killpg, signal.SIGINT), (os.kill, signal.SIGTERM)):
            with self.subTest(number), tempfile.TemporaryDirectory() as folder:
                demo = self.start(folder, 600)
                while b" -> " not in demo.stdout.readline():
                    pass
                send(demo.pid, number)
                demo.communicate(timeout=kvl.PATIENCE)
                self.assertEqual(demo.returncode, 0)
                self.expect_nothing_left(demo, folder)

    def test_is_drawn_as_it_looks_on_a_terminal(self):
        with tempfile.TemporaryDirectory() as folder:
            made = pathlib.Path(folder) / "picture.svg"
            subprocess.run([kvl.ROOT / "scripts/picture", BUILD, made], check=True,
                           env={**os.environ, "KVL_DEMO_SECONDS": "3"}, timeout=kvl.PATIENCE)
            kept = kvl.ROOT / "docs/live-table.svg"
            tags = re.findall(r"^(\w+) ", (kvl.ROOT / "examples/gauge/gauge.tags").read_text(), re.M)
            for picture in (made, kept):
                texts = [element.text for element in xml.etree.ElementTree.parse(picture).iter()]
                rows = [text for text in texts if text in tags]
                self.assertEqual(rows, tags)  # each once: the table was drawn over itself
                self.assertGreater(sum(text is not None and text.endswith("/s") for text in texts), 3)


if __name__ == "__main__":
    unittest.main()
