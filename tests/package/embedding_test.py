"""The hosts of docs/embedding.md, built as it tells and at work together."""

import contextlib
import os
import re
import subprocess
import textwrap
import unittest

import installed
from installed import PATIENCE, ROOT, Program, output

PAGE = "docs/embedding.md"
HOSTS = ROOT / "examples/hosts"


class EmbeddingTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        installed.install(cls)
        cls.checkout = installed.make_checkout(cls.folder / "checkout")
        cls.options = {"cwd": cls.checkout, "env": installed.environment(cls.prefix)}

    def test_blocks_are_the_programs(self):
        files = [re.sub(r"\s*\n\s*", "\n", file.read_text())
                 for file in HOSTS.iterdir() if file.is_file()]
        blocks = installed.blocks(PAGE, "c", "cpp", "cmake")
        self.assertGreater(len(blocks), 5)
        for block in blocks:
            words = re.sub(r"\s*\n\s*", "\n", textwrap.dedent(block).strip())
            self.assertTrue(any(words in file for file in files), block)

    def test_hosts_build_and_work_together(self):
        commands = installed.Commands(PAGE)
        table = f"HOSTS-{os.getpid()}"
        for command in ("cmake -S examples/hosts -B build/hosts", "cmake --build build/hosts",
                        "c++ -std=c++20 examples/hosts/line_server.cpp -o line_server "
                        "$(pkg-config --cflags --libs kvl)",
                        "cc examples/hosts/table_reader.c -o table_reader "
                        "$(pkg-config --cflags --libs kvl) -pthread"):
            output(commands.take(command), **self.options)
        serve = commands.take("build/hosts/line_server 5021", {"5021": 0})
        create = commands.take("kvl table create HOSTS --tags examples/hosts/level.tags",
                               {"HOSTS": table})
        read = commands.take("build/hosts/table_reader HOSTS LEVEL", {"HOSTS": table})
        decode = commands.take("build/hosts/decode_host examples/hosts/level.kvl",
                               {"examples/hosts/": ""})
        self.assertEqual(commands.left, [])
        self.work_together(table, serve, create, read, decode)
        # The programs of the other build are the same ones.
        with Program("./line_server", **self.options) as server:
            self.assertRegex(server.line(), r"^port \d+$")
        self.assertNotEqual(subprocess.run(["./table_reader", table + "-none", "LEVEL"],
                                           **self.options, capture_output=True).returncode, 0)

    def work_together(self, table, serve, create, read, decode):
        self.addCleanup(output, f"kvl table remove {table}", **self.options)
        output(create, **self.options)
        with Program(serve, **self.options) as server:
            port = re.fullmatch(r"port (\d+)", server.line())[1]
            script = (HOSTS / "level.kvl").read_text()
            (self.checkout / "level.kvl").write_text(
                script.replace("5021", port).replace('"HOSTS"', f'"{table}"'))
            with contextlib.ExitStack() as programs:
                reader = programs.enter_context(Program(read, **self.options))
                # The reader is at its wait before there is anything to be told of.
                self.assertEqual(reader.line(), "LEVEL 0")
                host = programs.enter_context(Program(decode, **self.options))
                self.assertEqual([reader.line() for _ in range(2)], ["LEVEL 12.5", "LEVEL 13"])
                peer = f"127.0.0.1:{port}"
                self.assertEqual([host.line() for _ in range(6)],
                                 [f"connecting {peer}", f"connected {peer}"] +
                                 ["print level published", "sync 1"] * 2)
                code, rest = host.end()
                self.assertEqual((code, rest.split()[-1]), (0, "stopped"))
                with Program(decode, **self.options) as second:  # while the server serves
                    self.assertEqual(second.line(), f"connecting {peer}")
                    self.assertEqual(second.line(), f"connected {peer}")
                    self.expect_served(server)
                    self.assertEqual(second.process.wait(PATIENCE), 1)

    def expect_served(self, server):
        """One client came, answered and left, the next has its place; then the server ends."""
        self.assertEqual(server.line(), "accept 0")
        seen = server.line()
        while seen.startswith("receive 0: "):
            seen = server.line()
        self.assertEqual(seen, "close 0")
        self.assertEqual(server.line(), "accept 0")
        self.assertEqual(server.end()[0], 0)


if __name__ == "__main__":
    unittest.main()
