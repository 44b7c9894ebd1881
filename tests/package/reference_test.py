"""Manual pages and completion say what --help says, and do what their shells expect."""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

KVL = pathlib.Path(os.environ["KVL"])
REFERENCE = pathlib.Path(os.environ["KVL_REFERENCE"])


def help_of(*command):
    text = subprocess.run([KVL, *command, "--help"], capture_output=True, text=True, check=True)
    return text.stdout


def commands_in(text):
    return re.findall(r"^  (\w+) ", text.partition("Subcommands:")[2], re.M)


class ReferenceTest(unittest.TestCase):
    def test_manual_has_every_command_and_option(self):
        commands = commands_in(help_of())
        self.assertIn("replay", commands)
        self.assertEqual(sorted(page.name for page in (REFERENCE / "man").iterdir()),
                         sorted(["kvl.1"] + [f"kvl-{command}.1" for command in commands]))
        for command in commands:
            page = REFERENCE / "man" / f"kvl-{command}.1"
            text = page.read_text().replace("\\-", "-")
            below = commands_in(help_of(command))
            helps = [help_of(command)] + [help_of(command, word) for word in below]
            for option in set(re.findall(r"^  (?:-\w,)?(--[\w-]+)", "\n".join(helps), re.M)):
                self.assertIn(f"\\fB{option}\\fR", text, page)

    @unittest.skipUnless(shutil.which("groff"), "needs groff")
    def test_manual_is_clean_roff(self):
        for page in (REFERENCE / "man").iterdir():
            process = subprocess.run(["groff", "-man", "-ww", "-z", page], capture_output=True)
            self.assertEqual((process.returncode, process.stderr), (0, b""), page)

    def complete(self, folder, *words):
        """What bash offers for the last word."""
        script = 'source "$0"; COMP_WORDS=(kvl "$@"); COMP_CWORD=$#; _kvl; printf "%s\\n" "${COMPREPLY[@]}"'
        process = subprocess.run(["bash", "-c", script, REFERENCE / "bash" / "kvl", *words],
                                 cwd=folder, capture_output=True, text=True,
                                 env={**os.environ, "PATH": f"{folder}:{os.environ['PATH']}"})
        self.assertEqual(process.stderr, "")
        return process.stdout.split("\n")[:-1]

    def test_bash_offers_what_fits(self):
        with tempfile.TemporaryDirectory() as name:
            folder = pathlib.Path(name)
            (folder / "a.kvl").touch()
            (folder / "b.txt").touch()
            kvl = folder / "kvl"  # one that has a port and a table
            kvl.write_text("""#!/bin/sh
case "$*" in
  "ports --json") echo '{"name":"COM7","device":"/dev/ttyUSB0","alias":"","description":""}' ;;
  "table list --json") echo '{"table":"GAUGES"}'; echo '{"table":"line 1"}' ;;
  "table show T --json") echo '{"tag":"LEVEL","type":3}'; echo '{"tag":"$(touch bad)","type":3}' ;;
esac
""")
            kvl.chmod(0o755)
            for words, offered in [
                (["rep"], ["replay"]),
                (["check", ""], ["a.kvl"]),
                (["check", "--json", "a.kvl", "a"], ["a.kvl"]),
                (["replay", "--max"], ["--max-steps"]),
                (["--color", "al"], ["always"]),
                (["check", "--color", "n"], ["never"]),
                (["replay", "--tags", "b"], ["b.txt"]),
                (["replay", "--chunk", ""], []),
                (["replay", "a.kvl", "b"], ["b.txt"]),
                (["replay", "a.kvl", "b.txt", ""], []),
                (["run", "--port", ""], ["COM7="]),
                (["run", "--port", "COM7", "=", "/dev/ttyU"], ["/dev/ttyUSB0"]),
                (["ports", ""], []),
                (["table", "show", ""], ["GAUGES", "line 1"]),
                (["table", "get", "T", "L"], ["LEVEL"]),
                (["table", "get", "T", "$"], ["$(touch bad)"]),  # offered, never run
            ]:
                if words[0] == "table" and "table" not in commands_in(help_of()):
                    continue
                with self.subTest(words):
                    self.assertEqual(list(filter(None, self.complete(folder, *words))), offered)
            self.assertFalse((folder / "bad").exists())

    @unittest.skipUnless(shutil.which("zsh"), "needs zsh")
    def test_zsh_reads_its_completion(self):
        script = 'fpath=("$0" $fpath); autoload -U compinit; compinit -u -D; print $_comps[kvl]; _kvl_replay'
        process = subprocess.run(["zsh", "-fc", script, REFERENCE / "zsh"], capture_output=True,
                                 text=True)
        self.assertEqual(process.stdout, "_kvl\n")


if __name__ == "__main__":
    unittest.main()
