"""`kvl run` from outside: a session on a socket and on a pseudo-terminal, from its start to Ctrl-C."""

import fcntl
import json
import os
import pathlib
import pty
import queue
import resource
import signal
import socket
import subprocess
import tempfile
import time
import tty
import unittest

import kvl
from kvl import PATIENCE

ECHO = """VAR N% 0
DIM RX$ 8192
VAR LEN% 0
BEGIN:
IN RX, LEN
CMP LEN, 0
JPE END
INC N
PRINT RX
PRINT N
OUT RX
END:
"""
PAGE = (kvl.ROOT / "docs/running.md").read_text()
SERIAL = """OPEN MEDIA RS232C
OPEN PORT COM7
OPEN BAUD_RATE 9600
OPEN DATA_BIT 8
OPEN PARITY_BIT NONE
OPEN STOP_BIT 1
"""


class Session(kvl.Live):
    """A running `kvl run --json`."""

    def __init__(self, script, *options, **popen):
        self.folder = tempfile.TemporaryDirectory()
        self.script = pathlib.Path(self.folder.name) / "script.kvl"
        self.script.write_text(script)
        super().__init__("run", "--json", *options, self.script, **popen)

    def end(self, number=signal.SIGINT):
        """The exit code after a signal, with all events read; None waits for the end alone."""
        if number is not None:
            self.process.send_signal(number)
        self.until(event="summary")
        words = {word for e in self.events for word in (*e, e["event"], e.get("state", "state"))}
        untold = [word for word in words if f"`{word}`" not in PAGE]
        if untold:
            raise AssertionError(f"docs/running.md does not tell of {untold}")
        return self.process.wait(PATIENCE)

    def states(self):
        return [event["state"] for event in self.events if event["event"] == "state"]

    def prints(self):
        events = [event for event in self.events if event["event"] == "print"]
        return [bytes.fromhex(event["hex"]).decode() for event in events]

    def __exit__(self, *_):
        super().__exit__()
        self.folder.cleanup()


class Terminal:
    """A pseudo-terminal whose device has a name of its own, as a by-id link has."""

    def __init__(self, folder):
        self.device = pathlib.Path(folder) / "ttyLine"
        self.plug()

    def plug(self):
        self.near, far = pty.openpty()
        tty.setraw(far)
        self.device.unlink(missing_ok=True)
        self.device.symlink_to(os.ttyname(far))
        self.far = far

    def unplug(self):
        os.close(self.near)
        os.close(self.far)


class RunTest(kvl.FolderTest):
    def setUp(self):
        super().setUp()
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.listener.settimeout(PATIENCE)
        port = self.listener.getsockname()[1]
        self.tcp = f"OPEN MEDIA TCP\nOPEN IP 127.0.0.1\nOPEN PORT {port}\n"
        self.addCleanup(self.listener.close)

    def accept(self):
        peer, _ = self.listener.accept()
        peer.settimeout(PATIENCE)
        self.addCleanup(peer.close)
        return peer

    def test_session_ends_in_order_with_either_signal(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            with Session(self.tcp + ECHO, "--trace") as session:
                peer = self.accept()
                peer.sendall(b"\x00A\xff")
                self.assertEqual(peer.recv(16), b"A\xff")
                session.until(event="sent", hex="41ff")
                self.assertEqual(session.end(number), 0)
                self.assertEqual(session.states(), ["connecting", "connected", "stopped"])
                received = [e for e in session.events if e["event"] == "received"]
                self.assertEqual([e["hex"] for e in received], ["0041ff"])
                summary = session.events[-1]
                self.assertEqual(
                    (summary["received"], summary["sent"], summary["dropped"]), (3, 2, 0)
                )
                times = [e["time"] for e in session.events if "time" in e]
                self.assertEqual(times, sorted(times))

    def test_end_of_the_terminal_ends_it_in_order_unless_it_is_to_stay(self):
        with Session(self.tcp + ECHO) as session:
            self.accept()
            session.until(state="connected")
            self.assertEqual(session.end(signal.SIGHUP), 0)
        stays = lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN)
        with Session(self.tcp + ECHO, preexec_fn=stays) as session:
            peer = self.accept()
            session.process.send_signal(signal.SIGHUP)
            peer.sendall(b"on")
            self.assertEqual(peer.recv(16), b"on")
            self.assertEqual(session.end(), 0)

    def test_output_that_nobody_takes_holds_up_neither_the_answers_nor_the_end(self):
        script = self.file("script.kvl", self.tcp + ECHO)
        for errors in (subprocess.PIPE, subprocess.STDOUT):
            command = kvl.command("run", "--trace", script)
            with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=errors) as process:
                peer = self.accept()
                for _ in range(200):
                    peer.sendall(b"x" * 200)
                    peer.recv(4096)
                kvl.wait_until_full(process.stdout)
                peer.sendall(b"still")
                while not peer.recv(4096).endswith(b"still"):
                    pass
                process.terminate()
                self.assertEqual(process.wait(PATIENCE), 1)
                if errors == subprocess.PIPE:
                    self.assertIn(b"nobody took them", process.stderr.read())

    def test_reader_that_comes_late_gets_all_to_the_summary(self):
        flood = self.tcp + 'BEGIN:\nTURN:\nPRINT "' + "A" * 50 + '"\nJP TURN\nEND:\n'
        command = kvl.command("run", "--json", self.file("script.kvl", flood))
        with subprocess.Popen(command, stdout=subprocess.PIPE) as process:
            self.accept()
            memory = pathlib.Path(f"/proc/{process.pid}/statm")
            held = None
            while held != (held := memory.read_text()):  # the list of what waits still grows
                time.sleep(0.5)
            process.terminate()
            *_, summary = map(json.loads, process.stdout)
            self.assertEqual(summary["event"], "summary")
            self.assertGreater(summary["unsaid"], 0)
            self.assertEqual(process.wait(PATIENCE), 0)

    def test_warning_that_nobody_takes_holds_up_no_output(self):
        read, write = os.pipe()
        os.set_blocking(write, False)
        with self.assertRaises(BlockingIOError):
            while True:
                os.write(write, b"x" * 4096)
        os.set_blocking(write, True)
        body = f'EQU T "TAG"\nTABLE_NAME "NONE {os.getpid()}"\nBEGIN:\nPUT T, 1\nEND:\n'
        script = self.file("script.kvl", self.tcp + body)
        with subprocess.Popen(
            kvl.command("run", "--json", script), stdout=subprocess.PIPE, stderr=write
        ) as process:
            self.accept()
            while b'"connected"' not in process.stdout.readline():
                pass
            process.terminate()
            self.assertEqual(process.wait(PATIENCE), 0)
        os.close(read)
        os.close(write)
        kvl.run("table", "remove", f"NONE {os.getpid()}")

    def test_sync_is_answered_and_told(self):
        with Session(self.tcp + ECHO.replace("OUT RX", "SYNC 7\nSYNC 8\nOUT RX")) as session:
            peer = self.accept()
            start = time.monotonic()
            for _ in range(10):
                peer.sendall(b"x")
                peer.recv(16)
            self.assertLess(time.monotonic() - start, 10)  # 20 s if nobody answered
            self.assertEqual(session.end(), 0)
            values = [e["value"] for e in session.events if e["event"] == "sync"]
            self.assertEqual(values, [7, 8] * 10)

    def test_output_that_cannot_be_written_is_told_once_and_the_session_goes_on(self):
        script = self.file("script.kvl", self.tcp + ECHO)
        read, unread = os.pipe()
        os.close(read)
        for output in (os.open("/dev/full", os.O_WRONLY), unread):
            process = subprocess.Popen(
                kvl.command("run", "--trace", script), stdout=output, stderr=subprocess.PIPE
            )
            os.close(output)
            peer = self.accept()
            for text in (b"one", b"two"):
                peer.sendall(text)
                self.assertEqual(peer.recv(16), text)
            process.send_signal(signal.SIGINT)
            errors = process.communicate(timeout=PATIENCE)[1].decode()
            self.assertEqual(process.returncode, 1)
            self.assertEqual(errors.count("standard output can't be written; the work goes on"), 1)
            self.assertIn("lines were not printed", errors)

    def test_stream_that_is_missing_is_not_taken_for_the_line(self):
        script = self.file("script.kvl", self.tcp + ECHO)
        for closed, code in ((">&-", 1), ("<&-", 0), ("2>&-", 0), ("<&- >&- 2>&-", 1)):
            command = ["sh", "-c", f'exec "$@" {closed}', "sh", *kvl.command("run", "--trace", script)]
            with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as process:
                peer = self.accept()
                for text in (b"one", b"two"):
                    peer.sendall(text)
                    self.assertEqual(peer.recv(999), text)
                process.terminate()
                self.assertEqual(peer.recv(999), b"")
                self.assertEqual(process.wait(PATIENCE), code)

    def test_what_the_line_did_not_take_is_not_sent(self):
        self.listener.close()
        poll = "BEGIN:\nOUT \"poll\"\nDELAY 10\nSLEEP 50\nEND:\n"
        with Session(self.tcp + poll, "--trace") as session:
            session.until(event="unsent", hex=b"poll".hex())
            session.until(event="unsent", hex=b"p".hex())
            self.assertEqual(session.end(), 0)
            summary = session.events[-1]
            self.assertEqual(summary["sent"], 0)
            told = [e["hex"] for e in session.events if e["event"] == "unsent"]
            self.assertEqual(summary["unsent"], sum(len(text) // 2 for text in told))

    def test_last_bytes_are_decoded_however_slow_the_script(self):
        slow = ECHO.replace("PRINT RX", "SLEEP 1000\nPRINT RX")
        with Session(self.tcp + slow, "--no-reconnect") as session:
            peer = self.accept()
            peer.sendall(b"last")
            peer.close()
            self.assertEqual(session.end(None), 1)
            self.assertEqual(session.prints(), ["last", "1"])
            self.assertEqual(session.events[-1]["undecoded"], 0)

    def test_lines_for_a_person(self):
        with Session(self.tcp + ECHO) as helper:  # its script file serves the plain one too
            self.accept()
            helper.until(state="connected")
            command = [helper.process.args[0], "run", "--trace", "--no-reconnect", helper.script]
            plain = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            peer = self.accept()
            peer.sendall(b"hi")
            peer.recv(16)
            peer.close()
            output, errors = plain.communicate(timeout=PATIENCE)
        self.assertEqual((plain.returncode, errors), (1, b""))
        text = output.decode()
        for part in ("connected", "closed by peer", "stopped", '6869  "hi"', "2 bytes received"):
            self.assertIn(part, text)
        self.assertRegex(text, r"(?m)^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}  state ")

    def test_lost_connection_is_made_again_with_the_variables_as_they_were(self):
        with Session(self.tcp + ECHO) as session:
            for text in (b"one", b"two"):
                peer = self.accept()
                peer.sendall(text)
                self.assertEqual(peer.recv(16), text)
                peer.close()
            session.until(state="reconnecting")
            session.until(state="reconnecting")
            self.assertEqual(session.end(), 0)
            self.assertEqual(session.prints(), ["one", "1", "two", "2"])
            once = ["connected", "closed by peer", "reconnecting"]
            self.assertEqual(session.states(), ["connecting", *once, *once, "stopped"])

    def test_peer_that_is_not_there_is_one_line_and_not_one_per_try(self):
        self.listener.close()
        with Session(self.tcp + ECHO) as session:
            event = session.until(state="reconnecting")
            self.assertEqual(event["text"], "The attempt to connect was forcefully rejected.")
            with self.assertRaises(queue.Empty):
                session.incoming.get(timeout=2)  # two or three tries
            self.assertEqual(session.end(), 0)
        with Session(self.tcp + ECHO, "--no-reconnect") as session:
            self.assertEqual(session.end(None), 1)
            self.assertEqual(session.states(), ["connecting", "failed", "stopped"])

    def test_serial_line_by_a_name_that_stays_through_an_unplugging(self):
        terminal = Terminal(self.folder)
        with Session(SERIAL + ECHO, "--port", f"COM7={terminal.device}") as session:
            session.until(state="opened")
            os.write(terminal.near, b"one")
            self.assertEqual(os.read(terminal.near, 16), b"one")
            terminal.unplug()
            session.until(state="lost")
            session.until(state="reconnecting")
            terminal.plug()
            session.until(state="opened")
            os.write(terminal.near, b"two")
            self.assertEqual(os.read(terminal.near, 16), b"two")
            self.assertEqual(session.end(), 0)
            self.assertEqual(session.prints(), ["one", "1", "two", "2"])
        with Session(SERIAL + ECHO, "--port", f"COM7={terminal.device}", "--no-reconnect") as session:
            session.until(state="opened")
            self.assertIn("another program uses it", self.failure(terminal.device))
            terminal.unplug()
            self.assertEqual(session.end(None), 1)
            self.assertEqual(session.states(), ["opened", "lost", "stopped"])

    def failure(self, device):
        """Why a port can't be opened."""
        with Session(SERIAL + ECHO, "--port", f"COM7={device}", "--no-reconnect") as session:
            text = session.until(state="failed")["text"]
            self.assertIn(f"COM7 ({device})", text)
            self.assertEqual(session.end(None), 1)
            return text

    def test_port_that_cannot_be_opened_says_why(self):
        file = self.folder / "저울"
        self.assertIn("there is no such", self.failure(file))
        file.write_bytes(b"")
        self.assertIn("no serial port", self.failure(file))

    def test_capture_that_can_no_longer_be_written_ends_at_a_record(self):
        limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (64, 64))
        capture = self.folder / "capture"
        with Session(self.tcp + ECHO, "--capture", capture, preexec_fn=limit) as session:
            peer = self.accept()
            for text in (b"first one", b"then twenty bytes at", b"three"):
                peer.sendall(text)
                self.assertEqual(peer.recv(64), text)
            self.assertEqual(session.end(), 1)
            self.assertEqual(session.process.stderr.read().count(b"the capture ends here"), 1)
            self.assertEqual(session.prints()[::2], ["first one", "then twenty bytes at", "three"])
            events = kvl.replay(session.script, capture)
            prints = [e["hex"] for e in events if e["event"] == "print"]
            self.assertEqual(bytes.fromhex(prints[0]), b"first one")
            self.assertEqual(len(prints), 2)

    def test_capture_that_nobody_takes_holds_up_neither_the_answers_nor_the_end(self):
        capture = self.folder / "capture"
        os.mkfifo(capture)
        reader = os.open(capture, os.O_RDONLY | os.O_NONBLOCK)
        fcntl.fcntl(reader, fcntl.F_SETPIPE_SZ, 4096)
        with Session(self.tcp + ECHO, "--capture", capture) as session:
            peer = self.accept()
            for _ in range(100):
                peer.sendall(b"x" * 50)
                peer.recv(64)
            self.assertEqual(session.end(), 1)
            self.assertIn(b"could not be written in full", session.process.stderr.read())
        os.close(reader)

    def test_capture_replays_what_the_line_brought(self):
        capture = self.folder / "capture"
        capture.write_text("of a day before")
        with Session("BEGIN:\nADD\nEND:\n", "--capture", capture) as session:
            session.process.wait(PATIENCE)
            self.assertEqual(session.process.returncode, 1)
        self.assertEqual(capture.read_text(), "of a day before")
        with Session(self.tcp + ECHO, "--capture", capture) as session:
            peer = self.accept()
            for text in (b"one", b"\x00tw\x00o"):
                peer.sendall(text)
                peer.recv(16)
            self.assertEqual(session.end(), 0)
            for options in ([], ["--real-time"]):
                events = kvl.replay(session.script, capture, *options)
                prints = [e["hex"] for e in events if e["event"] == "print"]
                self.assertEqual([bytes.fromhex(p).decode() for p in prints], session.prints())
        self.assertEqual(session.prints(), ["one", "1", "two", "2"])

    def test_wrong_use(self):
        script = self.file("script.kvl", self.tcp + ECHO)
        lineless = self.file("lineless.kvl", "BEGIN:\nEND:\n")
        nowhere = self.folder / "nowhere" / "file"
        for code, *arguments in (
            (2, nowhere),
            (2, "--port", "COM7", script),
            (2, "--port", "=x", script),
            (2, "--capture", nowhere, script),
            (2, "--capture", script, script),
            (2, "--capture", "/dev/full", script),
            (2, "--capture", "-", script),
            (2, "--capture", "", script),
            (1, lineless),
        ):
            process = kvl.run("run", *arguments, timeout=PATIENCE)
            self.assertEqual(process.returncode, code, arguments)
            self.assertTrue(process.stderr)

    def test_flood_is_counted(self):
        slow = ECHO.replace("OUT RX", "SLEEP 20")
        with Session(self.tcp + slow) as session:
            peer = self.accept()
            for _ in range(64):
                peer.sendall(b"f" * 16384)
            peer.close()
            session.until(state="closed by peer")
            self.assertEqual(session.end(), 0)
            summary = session.events[-1]
            self.assertEqual(summary["received"], 64 * 16384)
            self.assertGreater(summary["dropped"], 0)

    def test_ports_lists_what_there_is(self):
        process = kvl.run("ports", "--json")
        self.assertEqual(process.returncode, 0)
        for number, line in enumerate(process.stdout.splitlines(), 1):
            self.assertEqual(json.loads(line)["name"], f"COM{number}")


if __name__ == "__main__":
    unittest.main()
