"""The simulated devices do what they say, faults included.

Usage: simulators_test.py SCALE GAUGE
"""

import os
import pathlib
import select
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

SCALE, GAUGE = sys.argv[1:3]
PATIENCE = 30


class Device:
    """A running simulator; `where` is what it printed first."""

    def __init__(self, *command):
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
        self.where = self.process.stdout.readline().strip()

    def __enter__(self):
        return self

    def __exit__(self, *failure):
        self.process.send_signal(signal.SIGTERM)
        try:
            self.code = self.process.wait(PATIENCE)
        finally:
            self.process.kill()
            self.process.stdout.close()


def read_until(fd, done):
    """The bytes up to the end of the line or until `done` holds of them."""
    data = b""
    while not done(data):
        if not select.select([fd], [], [], PATIENCE)[0]:
            raise AssertionError(f"only {data!r} came")
        try:
            chunk = os.read(fd, 65536)
        except OSError:  # hung up
            chunk = b""
        if not chunk:
            break
        data += chunk
    return data


class ScaleTest(unittest.TestCase):
    def ask(self, port, times=1):
        os.write(port, b"READ\r\n" * times)
        return read_until(port, lambda data: data.count(b"\n") >= times)

    def test_answers_only_when_asked(self):
        with Device(SCALE) as scale:
            port = os.open(scale.where, os.O_RDWR | os.O_NOCTTY)
            self.assertEqual(self.ask(port), b"ST,GS,+   0.000kg\r\n")
            os.write(port, b"RE")
            os.write(port, b"AD\r\nNONSENSE\r\n")
            self.assertEqual(read_until(port, lambda d: b"\n" in d), b"US,GS,+   3.200kg\r\n")
            self.assertEqual(select.select([port], [], [], 0.05)[0], [])
            self.assertIn(b"ST,GS,+  12.345kg\r\n", self.ask(port, 3))
            os.close(port)
        self.assertEqual(scale.code, 0)

    def test_link_leads_to_the_line_after_a_hang_up(self):
        with tempfile.TemporaryDirectory() as folder:
            link = pathlib.Path(folder) / "scale"
            with Device(SCALE, "--link", link, "--fault", "hangup", "--every", "2") as scale:
                port = os.open(link, os.O_RDWR | os.O_NOCTTY)
                self.assertEqual(self.ask(port), b"ST,GS,+   0.000kg\r\n")
                self.assertEqual(self.ask(port), b"", "the line is dropped instead")
                os.close(port)
                self.assertEqual(scale.process.stdout.readline().strip(), os.readlink(link))
                port = os.open(link, os.O_RDWR | os.O_NOCTTY)
                self.assertEqual(self.ask(port), b"US,GS,+   9.875kg\r\n")
                os.close(port)

    def test_each_fault_strikes_in_turn(self):
        faults = ["--every", "2", "--fault", "garbage", "--fault", "silence", "--fault", "flood"]
        with Device(SCALE, *faults) as scale:
            port = os.open(scale.where, os.O_RDWR | os.O_NOCTTY)
            self.ask(port)
            os.write(port, b"READ\r\n")
            answer = read_until(port, lambda data: data.endswith(b"US,GS,+   3.200kg\r\n"))
            self.assertGreater(len(answer), 30)
            self.assertEqual(self.ask(port), b"US,GS,+   9.875kg\r\n")
            os.write(port, b"READ\r\n")  # not answered
            self.assertEqual(self.ask(port), b"ST,GS,+  12.345kg\r\n")
            os.write(port, b"READ\r\n")
            flood = read_until(port, lambda data: data.count(b"\n") >= 1000)
            self.assertEqual(flood, b"ST,GS,+  12.345kg\r\n" * 1000)
            os.close(port)


class GaugeTest(unittest.TestCase):
    def listen(self, *options, lines=20):
        with Device(GAUGE, "--rate", "200", *options) as gauge:
            line = socket.create_connection(("127.0.0.1", int(gauge.where)), PATIENCE)
            with line:
                return read_until(line.fileno(), lambda data: data.count(b"\n") >= lines)

    def test_streams_numbered_lines(self):
        lines = self.listen().split(b"\r\n")[:-1]
        numbers = [int(line.split()[5]) for line in lines]
        self.assertEqual(numbers, list(range(numbers[0], numbers[0] + len(numbers))))

    def test_split_lines_come_whole_in_the_end(self):
        lines = self.listen("--fault", "split", "--every", "3").split(b"\r\n")[:-1]
        self.assertTrue(all(len(line.split()) == 6 for line in lines), lines)

    def test_hang_up_ends_the_connection_but_not_the_gauge(self):
        options = ["--fault", "hangup", "--every", "100"]
        with Device(GAUGE, "--rate", "200", *options) as gauge:
            for _ in range(2):
                with socket.create_connection(("127.0.0.1", int(gauge.where)), PATIENCE) as line:
                    data = read_until(line.fileno(), lambda data: False)
                    self.assertLess(data.count(b"\n"), 101)

    def test_ends_by_itself(self):
        self.assertEqual(subprocess.run([GAUGE, "--duration", "0.05"]).returncode, 0)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
