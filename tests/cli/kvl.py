"""Runs the built `kvl` and reads what it prints. The environment variable KVL may name it."""

import fcntl
import json
import os
import pathlib
import queue
import re
import shlex
import struct
import subprocess
import tempfile
import termios
import threading
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
PATIENCE = 60  # seconds; only bounds a failing test


def command(*arguments):
    return [os.environ.get("KVL", ROOT / "build/dev/src/cli/kvl"), *map(str, arguments)]


def run(*arguments, stdin=b"", timeout=PATIENCE):
    """The finished process; its output is bytes."""
    return subprocess.run(command(*arguments), input=stdin, capture_output=True, timeout=timeout)


class Live:
    """A running command whose standard output is JSON, read event by event."""

    def __init__(self, *arguments, **popen):
        self.process = subprocess.Popen(
            command(*arguments),
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            stdin=subprocess.DEVNULL,
            **popen,
        )
        self.events = []
        self.incoming = queue.Queue()
        threading.Thread(target=self.read, daemon=True).start()

    def read(self):
        for line in self.process.stdout:
            self.incoming.put(json.loads(line))
        self.incoming.put(None)

    def until(self, **wanted):
        """The next event with these fields; what comes ahead of it is kept in `events`."""
        while True:
            event = self.incoming.get(timeout=PATIENCE)
            if event is None:
                raise AssertionError(f"ended without {wanted}: {self.events}")
            self.events.append(event)
            if all(event.get(key) == value for key, value in wanted.items()):
                return event

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()
        self.process.stderr.close()


class FolderTest(unittest.TestCase):
    """A test with a folder of its own."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def file(self, name, content):
        path = self.folder / name
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(content if isinstance(content, bytes) else content.encode())
        return path


def wait_until_full(pipe):
    """Until a pipe that nobody reads takes nothing more."""
    held = -1
    while held != (held := struct.unpack("i", fcntl.ioctl(pipe, termios.FIONREAD, b"0000"))[0]):
        time.sleep(0.5)


def replay(*arguments, stdin=b""):
    """The events of `kvl replay --json`, which must end with 0."""
    process = run("replay", "--json", *arguments, stdin=stdin)
    if process.returncode != 0:
        raise AssertionError(f"exit {process.returncode}: {process.stderr.decode()}")
    return [json.loads(line) for line in process.stdout.splitlines()]


def printable(data):
    r"""ASCII as itself, other bytes as \r, \n, \t, \\ or \xHH."""
    return data.decode("latin-1").encode("unicode_escape").decode()


def value(variable):
    """A variable of the `end` event as a person writes it."""
    data = bytes.fromhex(variable["hex"])
    if variable["type"] == "$":
        if variable["kind"] == "VAR":
            return str(struct.unpack("<b", data)[0])
        return printable(data.split(b"\0")[0])
    form, size = {"%": ("<i", 4), "#": ("<d", 8)}[variable["type"]]
    numbers = [struct.unpack(form, data[i : i + size])[0] for i in range(0, len(data), size)]
    return " ".join(f"{number:.15g}" for number in numbers)


def describe(event):
    """An event other than `end` on one line."""
    kind = event["event"]
    if kind == "out":
        pace = f" ({event['interval']} ms apart)" if event["interval"] else ""
        return f"out {printable(bytes.fromhex(event['hex']))}{pace}"
    if kind == "print":
        return f"print {printable(bytes.fromhex(event['hex']))}"
    if kind == "put":
        return f"put {event['tag']} {event['hex']}"
    if kind == "sync":
        return f"sync {event['value']}"
    return f"sleep {event['ms']}" if kind == "sleep" else kind


class Script:
    """A script that says in its comments what replay must show.

    ;tag NAME TYPE     a tag of the runs' table, as a tag file has it
    ;run ARGUMENTS     a run; a text in quotes is one batch, \\r, \\n and \\xHH being bytes
    ;> EVENT           the events of that run, all of them, in their order
    ;= NAME VALUE      what a variable, or a field of the `end` event, holds then; for a variable
                       `hex` in front of the value shows all its bytes
    """

    def __init__(self, name, text):
        self.name = name
        self.text = text
        self.tags = []
        self.runs = []  # (where, arguments, events, values)
        for number, line in enumerate(text.splitlines(), 1):
            found = re.match(r"\s*;(tag|run|>|=)(?: (.*))?$", line)
            if not found:
                continue
            word, rest = found[1], found[2] or ""
            if word == "tag":
                self.tags.append(rest + "\n")
            elif word == "run":
                self.runs.append((f"{name}:{number}", self.arguments(rest), [], []))
            elif not self.runs:
                raise AssertionError(f"{name}:{number}: no ;run above")
            elif word == ">":
                self.runs[-1][2].append(rest)
            else:
                self.runs[-1][3].append(rest.partition(" ")[::2])

    @staticmethod
    def arguments(text):
        lexer = shlex.shlex(text, posix=False, punctuation_chars=False)
        lexer.whitespace_split = True
        lexer.commenters = ""
        for word in lexer:
            if word.startswith('"'):
                batch = word[1:-1].encode("latin-1").decode("unicode_escape").encode("latin-1")
                yield from ("--batch", batch.hex())
            else:
                yield word

    def failures(self):
        """What is not as the comments say, one text a run."""
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder) / "script.kvl"
            path.write_bytes(self.text.encode("latin-1"))
            table = []
            if self.tags:
                tags = path.with_suffix(".tags")
                tags.write_text("".join(self.tags))
                table = ["--tags", tags]
            for where, arguments, events, values in self.runs:
                *seen, end = replay(path, *table, *arguments)
                seen = [describe(event) for event in seen]
                if seen != events:
                    yield f"{where}:\n expected {events}\n but saw  {seen}"
                yield from self.wrong_values(where, end, values)

    @staticmethod
    def wrong_values(where, end, values):
        variables = {}
        for variable in end["variables"]:
            variables.setdefault(variable["name"], variable)
        for name, expected in values:
            if name in end:
                seen = str(end[name])
            elif name not in variables:
                seen = "no such variable"
            elif expected.startswith("hex "):
                seen = "hex " + variables[name]["hex"]
            else:
                seen = value(variables[name])
            if seen != expected:
                yield f"{where}: {name} is {seen}, not {expected}"
