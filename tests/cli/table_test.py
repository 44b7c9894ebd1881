"""`kvl table`, and what `replay` and `run` do with tables."""

import fcntl
import json
import os
import pathlib
import pty
import signal
import socket
import subprocess
import unittest

import kvl

# Names that no other test run has; tags too, since events are named by the tag alone.
TABLE = f"TABLE TEST {os.getpid()}"
LEVEL, COUNT, STATUS, WORD, MODE = (f"{tag}-{os.getpid()}" for tag in "LCSWM")
TAGS = f"{LEVEL} float\n{COUNT} int32\n{STATUS} text 8\n# 16 bits\n{WORD} int16\n{MODE} byte\n"
OBJECTS = pathlib.Path(f"/dev/shm/kvl-{os.getuid()}")

SCRIPT = f"""TABLE_NAME "{TABLE}"
EQU LEVEL "{LEVEL}"
EQU STATUS "{STATUS}"
EQU GONE "GONE-{os.getpid()}"
DIM RX$ 16
VAR LEN% 0
VAR V# 0
BEGIN:
IN RX, LEN
CMP LEN, 0
JPE END
CONV V, RX, 8
PUT LEVEL, V
PUT LEVEL, V
PUT STATUS, RX, 3
PUT GONE, 1
END:
"""


class TableTest(kvl.FolderTest):
    def setUp(self):
        super().setUp()
        self.tags = self.file("plant.tags", TAGS)
        self.addCleanup(kvl.run, "table", "remove", TABLE)

    def table(self, command, *arguments, exit_code=0):
        process = kvl.run("table", command, *arguments)
        self.assertEqual(process.returncode, exit_code, process.stdout + process.stderr)
        return process.stdout.decode() if exit_code == 0 else process.stderr.decode()

    def create(self, *options):
        return self.table("create", TABLE, "--tags", self.tags, *options)

    def get(self, tag):
        return json.loads(self.table("get", TABLE, tag, "--json"))

    def test_a_table_from_its_creation_to_its_removal(self):
        self.assertIn("5 tags", self.create())
        self.assertIn(TABLE, self.table("list").splitlines())
        listed = [json.loads(line) for line in self.table("list", "--json").splitlines()]
        self.assertIn({"table": TABLE}, listed)
        self.assertIn("--replace", self.table("create", TABLE, "--tags", self.tags, exit_code=1))
        for tag, given, shown, value, data in [
            (LEVEL, "-1.5", "-1.5", -1.5, "0000c0bf"),
            (LEVEL, "+0.1", "0.1", 0.1, "cdcccc3d"),
            (COUNT, "-7", "-7", -7, "f9ffffff"),
            (WORD, "-32768", "-32768", -32768, "0080"),
            (MODE, "200", "200", 200, "c8"),
            (STATUS, "ok 한", "ok 한", "ok 한", "6f6b20c7d1000000"),
            (STATUS, "a\x1b[1m\\", r"a\x1b[1m\\", "a\x1b[1m\\", "611b5b316d5c0000"),
        ]:
            with self.subTest(tag=tag, given=given):
                self.assertEqual(self.table("set", TABLE, tag, given), "")
                self.assertEqual(self.table("get", TABLE, tag), shown + "\n")
                seen = self.get(tag)
                self.assertEqual((seen["value"], seen["hex"]), (value, data))
                self.assertEqual((seen["tag"], seen["size"]), (tag, len(data) // 2))
        shown = [json.loads(line) for line in self.table("show", TABLE, "--json").splitlines()]
        self.assertEqual([(tag["tag"], tag["type"]) for tag in shown],
                         [(LEVEL, 3), (COUNT, 2), (STATUS, 4), (WORD, 2), (MODE, 1)])
        lines = self.table("show", TABLE).splitlines()
        self.assertEqual(lines[0].split(), ["TAG", "TYPE", "SIZE", "VALUE"])
        self.assertEqual([line.split()[1] for line in lines[1:]],
                         ["float", "int32", "text", "int16", "byte"])
        self.assertEqual({line[len(LEVEL) :].index(" ") for line in lines[1:]}, {0})
        self.create("--replace")
        self.assertEqual(self.get(LEVEL)["value"], 0)
        self.assertEqual(self.table("remove", TABLE), "")
        self.assertNotIn(TABLE, self.table("list").splitlines())
        if OBJECTS.exists():
            left = [name for name in os.listdir(OBJECTS) if str(os.getpid()) in name]
            self.assertEqual(left, [])

    def test_refusals_say_what_to_do(self):
        self.create()
        bad = self.file("bad.tags", f"{LEVEL} float\n{LEVEL} byte\nX\nY text 0\n")
        other = TABLE + " it's"
        quoted = "'" + TABLE + " it'\\''s'"
        for arguments, exit_code, said in [
            (["show", other], 1, f"kvl table create {quoted} --tags FILE"),
            (["remove", other], 1, other),
            (["get", TABLE, "NONE"], 1, f"kvl table show '{TABLE}'"),
            (["set", TABLE, "NONE", "1"], 1, f"kvl table show '{TABLE}'"),
            (["set", TABLE, WORD, "32768"], 1, "32768"),
            (["set", TABLE, MODE, "-1"], 1, "-1"),
            (["set", TABLE, LEVEL, "nan"], 1, "nan"),
            (["set", TABLE, STATUS, "123456789"], 1, "9 bytes"),
            (["create", other, "--tags", self.folder / "none"], 2, "none"),
            (["create", other, "--tags", bad], 1, f"{bad}:2: error: "),
            (["create", other, "--tags", bad], 1, f"{bad}:3: error: "),
            (["create", other, "--tags", bad], 1, f"{bad}:4: error: "),
            (["create", other], 2, "--tags"),
            (["show", "\N{SNOWMAN}"], 2, "\N{SNOWMAN}"),
            (["show", ""], 2, "''"),
            (["watch", other], 1, f"kvl table create {quoted} --tags FILE"),
            (["watch", TABLE, LEVEL, "NONE"], 1, "NONE"),
            (["get", TABLE], 2, "TAG"),
            ([], 2, "subcommand"),
        ]:
            with self.subTest(arguments=arguments):
                process = kvl.run("table", *arguments)
                self.assertEqual(process.returncode, exit_code, process.stderr)
                self.assertEqual(process.stdout, b"")
                self.assertIn(said, process.stderr.decode())
        self.table("show", other, exit_code=1)  # nothing was laid

    def watch(self, *options):
        """A watch that has begun."""
        live = kvl.Live("table", "watch", TABLE, *options)
        self.addCleanup(live.__exit__)
        self.assertIn(b"watching", live.process.stderr.readline())
        return live

    def test_watch_tells_each_new_value(self):
        self.create()
        all_tags, one = self.watch("--json"), self.watch("--json", LEVEL)
        self.table("set", TABLE, COUNT, 3)
        all_tags.until(tag=COUNT)
        for value in (1.5, 1.5, 2.5):
            self.table("set", TABLE, LEVEL, value)
            event = one.until(tag=LEVEL)
            self.assertEqual(event["value"], value)
        self.assertEqual([e["old"] for e in one.events], [0, 1.5, 1.5])
        self.assertTrue(all(e["rate"] > 0 and e["time"] > 1e9 for e in one.events))
        self.create("--replace")
        self.assertEqual(one.until(tag=LEVEL)["value"], 0)
        self.table("set", TABLE, LEVEL, 4)
        all_tags.until(tag=LEVEL, value=4)
        self.assertEqual(all_tags.events[0]["tag"], COUNT)
        for live, number in ((one, signal.SIGINT), (self.watch("--json"), signal.SIGTERM)):
            live.process.send_signal(number)
            self.assertEqual(live.process.wait(kvl.PATIENCE), 0)
        self.table("remove", TABLE)
        self.assertEqual(all_tags.process.wait(kvl.PATIENCE), 1)
        self.assertIn(b"was removed", all_tags.process.stderr.read())

    def test_watch_that_nobody_reads_can_be_ended(self):
        self.create()
        with subprocess.Popen(
            kvl.command("table", "watch", TABLE, "--json"), stdout=subprocess.PIPE
        ) as watch:
            fcntl.fcntl(watch.stdout, fcntl.F_SETPIPE_SZ, 4096)
            for value in range(150):
                self.table("set", TABLE, LEVEL, value)
            kvl.wait_until_full(watch.stdout)
            watch.terminate()
            self.assertEqual(watch.wait(kvl.PATIENCE), 1)

    def test_watch_for_a_person(self):
        self.create()
        watch = subprocess.Popen(kvl.command("table", "watch", TABLE), stdout=subprocess.PIPE,
                                 stderr=subprocess.PIPE)
        watch.stderr.readline()
        self.table("set", TABLE, STATUS, "on")
        line = watch.stdout.readline().decode()
        self.assertRegex(line, rf'^\d{{4}}-\d\d-\d\d \S+  {STATUS}  "" -> "on"  \d+\.\d/s\n$')
        watch.send_signal(signal.SIGINT)
        self.assertEqual(watch.communicate(timeout=kvl.PATIENCE)[0], b"")
        self.assertEqual(watch.returncode, 0)

    def test_watch_draws_over_itself_on_a_terminal(self):
        self.create()
        near, far = pty.openpty()
        self.addCleanup(os.close, near)
        watch = subprocess.Popen(kvl.command("table", "watch", TABLE, LEVEL, STATUS), stdout=far,
                                 stderr=far, env={**os.environ, "TERM": "xterm"})
        os.close(far)
        seen = ""

        def until(text):
            nonlocal seen
            while text not in seen:
                seen += os.read(near, 4096).decode()

        until(STATUS)
        self.table("set", TABLE, LEVEL, "12.5")
        until("12.5")
        until("\x1b[3A\r")  # the head and two tags
        watch.send_signal(signal.SIGTERM)
        self.assertEqual(watch.wait(kvl.PATIENCE), 0)
        self.assertNotIn("\x1b[?25l", seen)

    def test_damaged_tables_end_no_command_but_in_order(self):
        self.create()
        section = OBJECTS / (TABLE.replace(" ", "%20") + ".section")
        for offset, data in [(0, b"\xff" * 8), (0, b"\0" * 8), (4, b"\4\0\0\0"), (4, b"\0" * 4), (8, b"\xff" * 300), (88, b"\xff" * 4),
                             (124, b"\x04\xff\xff"), (0, os.urandom(400))]:
            with self.subTest(offset=offset, data=data):
                self.create("--replace")
                with open(section, "r+b") as file:
                    file.seek(offset)
                    file.write(data)
                for command in (["show", TABLE], ["get", TABLE, MODE], ["set", TABLE, MODE, "1"],
                                ["watch", TABLE, "NONE"]):
                    self.assertIn(kvl.run("table", *command).returncode, (0, 1), command)
        os.truncate(section, 7)
        self.assertIn(f"kvl table remove '{TABLE}'", self.table("show", TABLE, exit_code=1))
        self.table("remove", TABLE)
        self.create()
        os.unlink(section.with_name(section.stem + "_Sync.semaphore"))
        self.assertIn(STATUS, self.table("show", TABLE))

    def test_a_name_that_is_too_long_leaves_nothing(self):
        for name in ("/" * 80, "x" * 239):
            said = self.table("create", name, "--tags", self.tags, exit_code=1)
            self.assertIn("the name is too long", said)
            self.assertEqual([f for f in os.listdir(OBJECTS) if f.startswith((name, "%2F%2F"))], [])

    def test_replay_lays_a_private_table(self):
        script = self.file("script.kvl", SCRIPT)
        *puts, end = kvl.replay(script, "--no-check", "--tags", self.tags, "--batch", "322e35")
        self.assertEqual([kvl.describe(event) for event in puts],
                         [f"put {LEVEL} 00002040"] * 2 + [f"put {STATUS} 322e350000000000"])
        self.assertEqual([tuple(tag.values()) for tag in end["tags"]],
                         [(LEVEL, 3, "00002040"), (COUNT, 2, "00000000"),
                          (STATUS, 4, "322e350000000000"), (WORD, 2, "0000"), (MODE, 1, "00")])
        shown = kvl.run("replay", script, "--no-check", "--tags", self.tags, "--batch", "31")
        self.assertRegex(shown.stdout.decode(), rf"(?m)^\[1\] put   {LEVEL} = 1$")
        self.table("show", TABLE, exit_code=1)
        bad = self.file("bad.tags", "A\n\nB text\n")
        for tags, exit_code, said in [(bad, 1, f"{bad}:3: error: "), (self.folder, 2, "tag file")]:
            process = kvl.run("replay", "--no-check", script, "--tags", tags)
            self.assertEqual((process.returncode, process.stdout), (exit_code, b""))
            self.assertIn(said, process.stderr.decode())

    def test_run_warns_of_what_its_table_lacks(self):
        listener = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(listener.close)
        line = f"OPEN MEDIA TCP\nOPEN IP 127.0.0.1\nOPEN PORT {listener.getsockname()[1]}\n"
        script = self.file("script.kvl", line + SCRIPT)
        nameless = self.file("nameless.kvl", line + SCRIPT.partition("\n")[2])

        def warnings(path):
            with kvl.Live("run", "--json", path) as live:
                peer, _ = listener.accept()
                live.until(state="connected")
                peer.sendall(b"2.5")
                live.process.send_signal(signal.SIGINT)
                live.until(event="summary")
                tables = [e["name"] for e in live.events if e["event"] == "table"]
                live.process.wait(kvl.PATIENCE)
                peer.close()
                return live.process.stderr.read().decode(), tables

        said, tables = warnings(script)
        self.assertIn(f"kvl table create '{TABLE}' --tags FILE", said)
        self.assertEqual(tables, [TABLE])  # the session made it, for its owner to lay
        self.create()
        said, tables = warnings(script)
        self.assertIn(f"has no tag GONE-{os.getpid()}, ", said)
        self.assertIn("--replace", said)
        self.tags.write_text(TAGS + f"GONE-{os.getpid()} byte\n")
        self.create("--replace")
        self.assertEqual(warnings(script), ("", [TABLE]))
        said, tables = warnings(nameless)
        self.assertIn("TABLE_NAME", said)
        self.assertEqual(tables, [])

    def test_run_publishes_what_the_line_brings(self):
        listener = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(listener.close)
        line = f"OPEN MEDIA TCP\nOPEN IP 127.0.0.1\nOPEN PORT {listener.getsockname()[1]}\n"
        script = self.file("script.kvl", line + SCRIPT)
        self.create()
        watch = self.watch("--json")
        with kvl.Live("run", "--json", script):
            peer, _ = listener.accept()
            peer.sendall(b"2.5")
            watch.until(tag=STATUS, value="2.5")
            peer.close()
        self.assertEqual(self.get(LEVEL)["value"], 2.5)
        self.assertEqual([e["value"] for e in watch.events if e["tag"] == LEVEL][0], 2.5)


if __name__ == "__main__":
    unittest.main()
