"""catra-terminal end to end where a scenario cannot show it: what it reports
on standard error, its exit status, the --check report and its JUnit file, a
recorded session replayed, the readable lines on a terminal and a database
file."""
import contextlib
import json
import os
import signal
import pty
import sqlite3
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree as ElementTree

TERMINAL, PLUGIN, EXAMPLES = sys.argv[1], sys.argv[2], os.path.abspath(sys.argv[3])
CONFIG = os.path.join(EXAMPLES, "terminal.ini")
ROAD = os.path.join(EXAMPLES, "road-of-one-release.jsonl")
BLOCKED = '{"wait_for": {"bus": "catra_event", "fields": [["event_name", "ALWAYS BLOCKED"]]}}'


def run(*arguments, stdin="", stdout=subprocess.PIPE):
    return subprocess.run([TERMINAL, "--plugin", PLUGIN, *arguments], input=stdin, text=True,
                          stdout=stdout, stderr=subprocess.PIPE, timeout=120)


def script(*lines):
    """A script that first waits for the plug-in's start-up, then runs the lines."""
    return "\n".join([BLOCKED, *lines]) + "\n"


class Terminal(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())

    def file(self, name, text):
        path = os.path.join(self.folder, name)
        with open(path, "w") as written:
            written.write(text)
        return path

    def test_bad_lines_are_reported_and_the_rest_runs(self):
        # Each line of the script after the start-up wait, and what it is
        # reported with (the parser's errors are tests/lines/bad_lines.tsv).
        lines = [
            ('not json', "not valid JSON (at character 2)"), ('', None), ('# a comment', None),
            ('{"dump": "everything"}',
             'no records called "everything" (access_events, access_logs, counters, exit_requests, portals)'),
            ('{"wait_for": {"bus": "never_sent"}, "timeout_ms": 50}',
             'wait_for {"bus":"never_sent"}: no such line within 50 ms'),
            ('{"request": "catra_state"}', None)]
        result = run("--config", CONFIG, stdin=script(*(line for line, _ in lines)))
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stderr.splitlines(), [
            f"catra-terminal: line {number}: {error}" for number, (_, error) in enumerate(lines, 2) if error
        ] + ["catra-terminal: 0 of 0 expectations met, 3 lines not run"])
        printed = [json.loads(line) for line in result.stdout.splitlines()]
        self.assertEqual([line for line in printed if "sent" in line or "reply" in line], [
            {"sent": "catra_state", "fields": []},
            {"reply": "catra_state", "replied": True, "fields": [["state", 0], ["default_state", 0]]}])
        # Without a configuration the plug-in does not start: one bad line, and an expectation met
        # that does not pass a session whose init failure no line expects.
        one = self.file("one.jsonl", "not json\n")
        self.assertEqual(run("--script", one).stderr.splitlines()[-1],
                         f"catra-terminal: {one}: 0 of 0 expectations met, 1 line not run")
        self.assertEqual(run("--script", self.file("met.jsonl", '{"expect_none": {"controller": "r5"}}\n')).returncode, 1)

    def test_check_prints_a_line_per_scenario_and_writes_junit(self):
        wrong = self.file("wrong.jsonl", f'# config: {CONFIG}\n{{"expect": {{"controller": "x"}}, "timeout_ms": 10}}\n')
        broken = self.file("broken.ini", "[catra]\nthis line has no equals sign\n")
        bad_config = self.file("bad-config.jsonl", "# config: broken.ini\n" + script())
        # A mistyped line, no expectation at all, an init failure that no line expects.
        typo = self.file("typo.jsonl", f'# config: {CONFIG}\n{{"expcet": 1}}\n{{"expect": {{"controller": "d"}}}}\n')
        empty = self.file("empty.jsonl", f"# config: {CONFIG}\n" + script())
        self.file("no-fi1.ini", open(CONFIG).read().replace("\nfi1 =", "\nno_fi1 ="))
        init = self.file("init.jsonl", '# config: no-fi1.ini\n{"expect_none": {"controller": "r5"}}\n{"person": "turn_left"}\n')
        scenarios = [os.path.join(EXAMPLES, "give-up.jsonl"), wrong, bad_config, "missing.jsonl", typo, empty, init]
        junit = os.path.join(self.folder, "report.xml")
        result = run("--check", *scenarios, "-j", "2", "--junit", junit)
        self.assertEqual(result.returncode, 1, result.stderr)
        lines = sorted(" ".join(line.split()[:3]) for line in result.stdout.splitlines()
                       if line.startswith(("PASS", "FAIL")))
        self.assertEqual(lines, sorted([f"PASS {scenarios[0]} 8/8", f"FAIL {wrong} 0/1", f"FAIL {bad_config} 0/0",
                                        "FAIL missing.jsonl 0/0", f"FAIL {typo} 1/1", f"FAIL {empty} 0/0",
                                        f"FAIL {init} 1/1"]))
        for reason in [f"{typo}:2: unknown command \"expcet\"", "the scenario states no expectations",
                       "the plug-in did not start: Parameter catra.fi1 not found",
                       f'{init}:3: "person" is not run: the plug-in did not start']:
            self.assertIn(f"\n      {reason}\n", result.stdout)
        self.assertIn(f"      {broken}:2: not a section, a key = value or a comment\n", result.stdout)
        self.assertIn("      missing.jsonl: cannot be read\n", result.stdout)
        self.assertIn(f"{wrong}: scenario files are checked with --check", run(wrong).stderr)
        self.assertRegex(result.stdout.splitlines()[-1], r"^7 scenarios: 1 passed, 6 failed, in \d+\.\d\d s$")
        # The report's document is tests/terminal/junit_test.cpp's.
        suite = ElementTree.parse(junit).getroot().find("testsuite")
        self.assertEqual((suite.get("tests"), suite.get("failures")), ("7", "6"))

    def test_a_session_typed_on_standard_input_replays(self):
        recorded = os.path.join(self.folder, "session.jsonl")
        # No wait for the start-up: the terminal runs the first line once it is over.
        session = "\n".join([
            '{"send": "liberate_catra", "fields": {"catra_direction": "anticlockwise", "uuid": "typed-1"}}',
            '{"wait_for": {"bus": "catra_state_changed", "fields": [["state", 1]]}}',
            '{"person": "turn_left"}', '{"wait_for": {"bus": "catra_state_changed", "fields": [["state", 0]]}}',
            '{"dump": "counters"}']) + "\n"
        self.assertEqual(run("--config", CONFIG, "--record", recorded, stdin=session).returncode, 0)
        unwritable = run("--record", os.path.join(self.folder, "none", "s.jsonl"))
        self.assertEqual((unwritable.returncode, unwritable.stdout), (1, ""))  # nothing ran
        with open(recorded) as text:
            lines = [json.loads(line) for line in text if not line.startswith("#")]
        self.assertEqual([line for line in lines if "expect" not in line],
                         [json.loads(line) for line in session.splitlines()])
        self.assertIn({"expect": {"bus": "catra_event", "fields": [["event", 7], ["event_name", "TURN LEFT"],
                                                                   ["uuid", "typed-1"], ["access_event_id", 1]]}},
                      lines)
        self.assertIn({"expect": {"controller": "l5"}}, lines)
        check = run("--check", recorded)
        self.assertEqual(check.returncode, 0, check.stdout)
        self.assertRegex(check.stdout, rf"PASS  {recorded}  {len(lines) - 5}/{len(lines) - 5} expectations")

    def test_readable_lines_on_a_terminal_and_the_records_in_a_file(self):
        screen, terminal = pty.openpty()
        database = os.path.join(self.folder, "records.db")
        process = subprocess.Popen([TERMINAL, "--plugin", PLUGIN, "--config", CONFIG, "--script", ROAD,
                                    "--db", database],
                                   stdout=terminal, stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
        os.close(terminal)
        chunks = []
        with contextlib.suppress(OSError):  # the screen's reads end with EIO once the program exits
            while chunk := os.read(screen, 65536):
                chunks.append(chunk)
        self.assertEqual(process.wait(timeout=60), 0)
        shown = b"".join(chunks).decode().replace("\r\n", "\n")
        # Each kind's telling is tests/lines/line_test.cpp's.
        for expected in ["\n== An access was granted: the access module asks for a clockwise release.\n",
                         "\ncontroller > f  FREE RIGHT\n", "\ndump       counters: 4 rows\n"]:
            self.assertIn(expected, shown)
        self.assertNotIn("{", shown)
        with sqlite3.connect(database) as db:
            rows = lambda sql: [tuple(row) for row in db.execute(sql)]
            self.assertEqual(rows("SELECT module, name, uuid, device_id FROM access_events"),
                             [("catra", "TURN RIGHT", "road-1", 1)])
            self.assertEqual(rows("SELECT name, value FROM counters WHERE value > 0 ORDER BY name"),
                             [("entrance_turns", 1), ("right_turns", 1)])
            self.assertEqual(rows("SELECT portal_id, position, action_id FROM portal_actions ORDER BY portal_id"),
                             [(1, 0, 4), (2, 0, 4)])

    def test_sigterm_stops_the_session(self):
        process = subprocess.Popen([TERMINAL, "--plugin", PLUGIN, "--config", CONFIG], stdin=subprocess.PIPE,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        process.stdout.readline()  # the session runs: the stop signals are its own
        process.send_signal(signal.SIGTERM)
        said = process.communicate(timeout=30)[1]
        self.assertEqual(process.returncode, 128 + signal.SIGTERM, said)
        self.assertTrue(said.startswith("catra-terminal: stopped by SIGTERM"), said)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[4:]])
