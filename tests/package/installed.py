"""An installed kvl to try things with, and the pages that tell how to use it."""

import os
import pathlib
import re
import signal
import subprocess
import tempfile
import threading

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["KVL_BUILD"])
PATIENCE = 60  # seconds; only bounds a failing test


def output(*command, **options):
    """What a command prints; it must end with 0. A single text is the shell's."""
    options.setdefault("shell", len(command) == 1 and isinstance(command[0], str))
    words = command[0] if options["shell"] else [str(word) for word in command]
    process = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                             **options)
    if process.returncode != 0:
        raise AssertionError(f"{command}: exit {process.returncode}\n{process.stdout}")
    return process.stdout


def install(test_class):
    """Installs the build for a test class, which gets `folder` and `prefix`."""
    temporary = tempfile.TemporaryDirectory()
    test_class.addClassCleanup(temporary.cleanup)
    test_class.folder = pathlib.Path(temporary.name)
    first = test_class.folder / "first"
    output(os.environ["CMAKE"], "--install", BUILD, "--prefix", first)
    test_class.prefix = test_class.folder / "moved"  # an installed tree may be moved
    first.rename(test_class.prefix)


def library(prefix):
    return next(prefix.glob("lib*/**/libkvl.so"))


def environment(prefix, *path):
    """As if the prefix were one that every tool looks in; `path` comes ahead of all."""
    folder = library(prefix).parent
    return {**os.environ, "CMAKE_PREFIX_PATH": str(prefix), "LD_LIBRARY_PATH": str(folder),
            "PKG_CONFIG_PATH": str(folder / "pkgconfig"),
            "PATH": ":".join(map(str, [*path, prefix / "bin", os.environ["PATH"]]))}


def blocks(page, *languages):
    """The fenced blocks of a page, without their fences."""
    text = (ROOT / page).read_text()
    return [block for language, block in re.findall(r"^```([^\n]*)\n(.*?)^```$", text, re.M | re.S)
            if language in languages]


class Program:
    """A running program, read line by line and ended like a user does it."""

    def __init__(self, command, **options):
        self.process = subprocess.Popen(command.split(), stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, text=True, **options)
        self.limit = threading.Timer(PATIENCE, self.process.kill)
        self.limit.start()

    def line(self):
        return self.process.stdout.readline().rstrip("\n")

    def end(self):
        """Exit code and the rest of the output."""
        self.process.send_signal(signal.SIGINT)
        rest, _ = self.process.communicate(timeout=PATIENCE)
        return self.process.returncode, rest

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.limit.cancel()
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()


class Commands:
    """The commands of a page's `sh` blocks. Each is taken by the test that runs it."""

    def __init__(self, page):
        lines = "".join(blocks(page, "sh")).splitlines()
        self.left = [line.partition("  #")[0].rstrip() for line in lines]

    def take(self, command, instead=None):
        """The command, with words of it replaced by what a test may use in their place."""
        self.left.remove(command)
        for word, replacement in (instead or {}).items():
            command = command.replace(word, str(replacement))
        return command


def make_checkout(folder):
    """A folder that looks like the source tree, for commands that write into it."""
    folder.mkdir()
    for entry in ROOT.iterdir():
        if entry.name not in ("build", ".git"):
            (folder / entry.name).symlink_to(entry)
    return folder
