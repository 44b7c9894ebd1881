"""Every command that README.md shows, run as it stands or as its equal: nothing is built anew here,
nothing installed beyond a temporary folder, and the device is a simulated one."""

import os
import re
import shutil
import unittest

import installed
from installed import BUILD, ROOT, Program, output

PAGE = "README.md"


class ReadmeTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        installed.install(cls)
        cls.checkout = installed.make_checkout(cls.folder / "checkout")
        cls.log = cls.folder / "log"
        # To make, this build looks like every preset's; what would build or test is written down.
        (cls.checkout / "build").mkdir()
        for preset in ("dev", "release"):
            (cls.checkout / "build" / preset).symlink_to(BUILD)
        tools = cls.folder / "tools"
        tools.mkdir()
        for tool, does in {
            "cmake": f'case "$*" in *--preset*) ;; *) exec {os.environ["CMAKE"]} "$@" ;; esac',
            "ctest": "",
            "dpkg-query": "printf 'install ok installed'",  # so that setup finds all it looks for
        }.items():
            (tools / tool).write_text(f'#!/bin/sh\necho "{tool} $*" >>{cls.log}\n{does}\n')
            (tools / tool).chmod(0o755)
        environment = installed.environment(cls.prefix, tools)
        for variable in ("MAKEFLAGS", "MAKELEVEL", "MFLAGS"):  # of the make that runs the tests
            environment.pop(variable, None)
        cls.options = {"cwd": cls.checkout, "env": environment}

    def made(self, command, **variables):
        """What a command prints, and the tools that it called."""
        self.log.write_text("")
        environment = {**self.options["env"], **variables}
        printed = output(command, cwd=self.checkout, env=environment)
        return printed, self.log.read_text()

    def test_commands(self):
        commands = installed.Commands(PAGE)
        self.expect_make(commands)
        self.expect_session(commands)
        self.assertEqual(commands.left, [], "README.md shows commands that no test runs")

    def expect_make(self, commands):
        printed, log = self.made(commands.take("make demo"), KVL_DEMO_SECONDS="3")
        self.assertRegex(printed, r"(?m)LEVEL  \S+ -> \d")
        self.assertIn("cmake --build --preset release\n", log)

        _, log = self.made(commands.take("make test"))
        self.assertRegex(log, r"(?s)dpkg-query .*cmake --build --preset dev\n.*ctest --preset dev -j")

        prefix = self.folder / "prefix"
        self.made(commands.take("make install PREFIX=/usr/local", {"/usr/local": prefix}))
        self.assertRegex(output(prefix / "bin/kvl", "--version"), r"^kvl \d")
        for part in ("include/kvl/control/DecodeCtrl.h", "share/man/man1/kvl.1",
                     "share/bash-completion/completions/kvl"):
            self.assertTrue((prefix / part).is_file(), part)

        package = commands.take("make package")
        if shutil.which("dpkg-shlibdeps"):
            self.made(package)
            (made,) = (self.checkout / "build/package").glob("kvl_*.deb")
            self.assertIn("./usr/bin/kvl\n", output("dpkg-deb", "-c", made))

    def expect_session(self, commands):
        table = f"README-{os.getpid()}"
        script = self.checkout / "scale.kvl"
        text = (ROOT / "examples/scale/scale.kvl").read_text()
        script.write_text(text.replace('TABLE_NAME "SCALE"', f'TABLE_NAME "{table}"'))
        self.assertIn("no faults", output(commands.take("kvl check examples/scale/scale.kvl"),
                                          **self.options))
        self.assertIn(" 0 failed", output(commands.take("kvl test examples/scale"), **self.options))
        self.addCleanup(output, f"kvl table remove {table}", **self.options)
        output(commands.take("kvl table create SCALE --tags examples/scale/scale.tags",
                             {"SCALE": table}), **self.options)
        watch = commands.take("kvl table watch SCALE", {"SCALE": table})
        with Program(str(BUILD / "examples/simulators/scale_simulator")) as scale, \
                Program(watch, **self.options) as watched:
            self.assertEqual(watched.line(), f"watching 5 tags of table {table}")
            run = commands.take(
                "kvl run examples/scale/scale.kvl --port COM1=/dev/ttyUSB0",
                {"examples/scale/scale.kvl": script, "/dev/ttyUSB0": scale.line()})
            with Program(run, **self.options) as session:
                self.assertRegex(watched.line(), r"  WEIGHT  0 -> [\d.]+  ")
                get = commands.take("kvl table get SCALE WEIGHT", {"SCALE": table})
                self.assertRegex(output(get, **self.options), r"^-?[\d.]+\n$")
                code, rest = session.end()
                self.assertEqual(code, 0)
                self.assertRegex(rest, r"(?m)^\d+ bytes received")

    def test_script_makes_of_its_input_what_the_page_shows(self):
        (script,), (console,) = installed.blocks(PAGE, "kvl"), installed.blocks(PAGE, "console")
        folder = self.folder / "console"
        folder.mkdir()
        (folder / "scale.kvl").write_text(script)
        steps = re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", console, re.M)
        self.assertEqual(sum(1 + text.count("\n") for _, text in steps), console.count("\n"))
        for command, printed in steps:
            self.assertEqual(output(command, cwd=folder, env=self.options["env"]), printed)

    def test_links_lead_somewhere(self):
        for page in [ROOT / PAGE, *(ROOT / "docs").glob("*.md")]:
            for link in re.findall(r"\]\(([^)#:]+)[^):]*\)", page.read_text()):
                self.assertTrue((page.parent / link).exists(), f"{page.name}: {link}")


if __name__ == "__main__":
    unittest.main()
