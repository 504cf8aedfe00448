"""catra-terminal end to end where a scenario cannot show it: what it reports
on standard error, its exit status, the --check report and its JUnit file, a
recorded session replayed, the readable lines on a terminal, a database file."""
import json
import os
import pty
import re
import sqlite3
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree as ElementTree

TERMINAL, PLUGIN, EXAMPLES = sys.argv[1], sys.argv[2], os.path.abspath(sys.argv[3])
CONFIG = os.path.join(EXAMPLES, "terminal.ini")
BLOCKED = '{"wait_for": {"bus": "catra_event", "fields": [["event_name", "ALWAYS BLOCKED"]]}}\n'


def run(*arguments, stdin="", stdout=subprocess.PIPE):
    return subprocess.run([TERMINAL, "--plugin", PLUGIN, *arguments], input=stdin, text=True,
                          stdout=stdout, stderr=subprocess.PIPE, timeout=120)


class Terminal(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()

    def tearDown(self):
        self.folder.cleanup()

    def file(self, name, text=""):
        path = os.path.join(self.folder.name, name)
        with open(path, "w") as written:
            written.write(text)
        return path

    def test_bad_lines_are_reported_and_the_rest_runs(self):
        lines = ['not json', '[1, 2]', '{}', '{"frobnicate": 1}', '', '# a comment',
                 '{"send": 5}', '{"send": "liberate_catra", "fields": {"catra_reason": 1.5}}',
                 '{"send": "catra_state", "extra": 1}', '{"send": "x", "request": "x"}',
                 '{"gpio": "40", "value": 0}', '{"gpio": 40}', '{"person": "jump"}',
                 '{"dump": "everything"}', '{"config": {"key": "gateway"}}', '{"wait_ms": -1}',
                 '{"controller": ""}', '{"expect": []}', '{"expect_none": {"bus": "x"}, "for_ms": "1"}',
                 '{"wait_for": {"bus": "never_sent"}, "timeout_ms": 50}', '{"request": "catra_state"}']
        result = run("--config", CONFIG, stdin=BLOCKED + "\n".join(lines) + "\n")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stderr.splitlines(), [
            "catra-terminal: line 2: not valid JSON (at character 2)",
            "catra-terminal: line 3: a command is one JSON object, not array",
            "catra-terminal: line 4: an empty object: no command",
            'catra-terminal: line 5: unknown command "frobnicate"',
            'catra-terminal: line 8: "send" must be a text',
            'catra-terminal: line 9: field "catra_reason" must be a whole number or a text',
            'catra-terminal: line 10: unexpected key "extra" in a "send" command',
            'catra-terminal: line 11: two commands in one line: "send" and "request"',
            'catra-terminal: line 12: "gpio" must be a whole number',
            'catra-terminal: line 13: "gpio" needs a "value"',
            'catra-terminal: line 14: "person" must be "turn_left" or "turn_right", not "jump"',
            'catra-terminal: line 15: no records called "everything" (access_events, '
            'access_logs, counters, exit_requests, portals)',
            'catra-terminal: line 16: "config" needs a "value"',
            'catra-terminal: line 17: "wait_ms" must be from 0 to 3600000',
            'catra-terminal: line 18: "controller" needs one or more letters',
            'catra-terminal: line 19: "expect" needs an object with the keys and values to look for',
            'catra-terminal: line 20: "for_ms" must be a whole number',
            'catra-terminal: line 21: wait_for {"bus":"never_sent"}: no such line within 50 ms',
            "catra-terminal: 0 of 0 expectations met, 18 lines not run"])
        printed = [json.loads(line) for line in result.stdout.splitlines()]
        self.assertEqual([line for line in printed if "sent" in line or "reply" in line], [
            {"sent": "catra_state", "fields": []},
            {"reply": "catra_state", "replied": True, "fields": [["state", 0], ["default_state", 0]]}])

    def test_a_failed_expectation_shows_where_and_the_nearest_lines(self):
        script = self.file("wrong.jsonl", BLOCKED + "\n".join([
            '{"config": {"module": "catra", "key": "operation_mode", "value": "entrance_open"}}',
            '{"expect": {"bus": "catra_state_changed", "fields": [["state", 1]]}, "timeout_ms": 300}',
            '{"expect": {"controller": "ar"}}',
            '{"expect_none": {"controller": "ar"}}']) + "\n")
        result = run("--config", CONFIG, "--script", script)
        self.assertEqual(result.returncode, 1)
        report = result.stderr.splitlines()
        self.assertRegex(report[0], f'^catra-terminal: {script}:3: expect ' + re.escape(
            '{"bus":"catra_state_changed","fields":[["state",1]]}: no such line within 300 ms; the nearest of '
            'the ') + r'\d+ lines printed since the last action:$')
        self.assertEqual(report[1], '    {"bus":"catra_state_changed","fields":[["state",2]]}')
        self.assertEqual(report[7:], [
            f'catra-terminal: {script}:5: expect_none {{"controller":"ar"}}: printed within 1000 ms '
            'since the last action:', '    {"controller":"ar"}',
            f"catra-terminal: {script}: 1 of 3 expectations met"])

    def test_check_prints_a_line_per_scenario_and_writes_junit(self):
        wrong = self.file("wrong.jsonl", f'# config: {CONFIG}\n{{"expect": {{"controller": "x"}}, "timeout_ms": 10}}\n')
        broken = self.file("broken.ini", "[catra]\nthis line has no equals sign\n")
        bad_config = self.file("bad-config.jsonl", "# config: broken.ini\n" + BLOCKED)
        scenarios = [os.path.join(EXAMPLES, "give-up.jsonl"), wrong, bad_config, "missing.jsonl"]
        junit = os.path.join(self.folder.name, "report.xml")
        result = run("--check", *scenarios, "-j", "2", "--junit", junit)
        self.assertEqual(result.returncode, 1, result.stderr)
        lines = sorted(" ".join(line.split()[:3]) for line in result.stdout.splitlines()
                       if line.startswith(("PASS", "FAIL")))
        self.assertEqual(lines, sorted([f"PASS {scenarios[0]} 8/8", f"FAIL {wrong} 0/1",
                                        f"FAIL {bad_config} 0/0", "FAIL missing.jsonl 0/0"]))
        self.assertIn(f"      {broken}:2: not a section, a key = value or a comment\n", result.stdout)
        self.assertIn("      missing.jsonl: cannot be read\n", result.stdout)
        self.assertRegex(result.stdout.splitlines()[-1], r"^4 scenarios: 1 passed, 3 failed, in \d+\.\d\d s$")
        suite = ElementTree.parse(junit).getroot().find("testsuite")
        self.assertEqual((suite.get("tests"), suite.get("failures")), ("4", "3"))
        cases = {case.get("name"): case for case in suite.findall("testcase")}
        self.assertEqual(sorted(cases), ["bad-config.jsonl", "give-up.jsonl", "missing.jsonl", "wrong.jsonl"])
        self.assertIsNone(cases["give-up.jsonl"].find("failure"))
        failure = cases["wrong.jsonl"].find("failure")
        self.assertTrue(failure.get("message").startswith(f"0 of 1 expectations met: {wrong}:2: expect"))
        self.assertIn('expect {"controller":"x"}: no such line within 10 ms', failure.text)

    def test_a_session_typed_on_standard_input_replays(self):
        recorded = os.path.join(self.folder.name, "session.jsonl")
        session = BLOCKED + "\n".join([
            '{"send": "liberate_catra", "fields": {"catra_direction": "anticlockwise", "uuid": "typed-1"}}',
            '{"wait_for": {"bus": "catra_state_changed", "fields": [["state", 1]]}}',
            '{"person": "turn_left"}', '{"wait_for": {"bus": "catra_state_changed", "fields": [["state", 0]]}}',
            '{"dump": "counters"}']) + "\n"
        self.assertEqual(run("--config", CONFIG, "--record", recorded, stdin=session).returncode, 0)
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
        self.assertRegex(check.stdout, rf"PASS  {recorded}  {len(lines) - 6}/{len(lines) - 6} expectations")

    def test_readable_lines_on_a_terminal(self):
        screen, terminal = pty.openpty()
        process = subprocess.Popen([TERMINAL, "--plugin", PLUGIN, "--config", CONFIG, "--script",
                                    os.path.join(EXAMPLES, "road-of-one-release.jsonl")],
                                   stdout=terminal, stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
        os.close(terminal)
        shown = b""
        while True:
            try:
                chunk = os.read(screen, 65536)
            except OSError:
                break
            if not chunk:
                break
            shown += chunk
        self.assertEqual(process.wait(timeout=60), 0)
        shown = shown.decode().replace("\r\n", "\n")
        for expected in ["\n== An access was granted: the access module asks for a clockwise release.\n",
                         '\nterminal > liberate_catra catra_direction="clockwise" uuid="road-1" catra_reason=1\n',
                         "\ncontroller < r5\n", "\ncontroller > f  FREE RIGHT\n",
                         "\nplug-in  > catra_state_changed state=2\n",
                         "\nperson     turn_right: the turnstile turns\n",
                         "\nreply      catra_state state=0 default_state=0\n", "\ndump       counters: 4 rows\n"]:
            self.assertIn(expected, shown)
        self.assertNotIn("{", shown)

    def test_a_database_file_keeps_the_records(self):
        database = os.path.join(self.folder.name, "records.db")
        result = run("--config", CONFIG, "--db", database, "--script",
                     os.path.join(EXAMPLES, "road-of-one-release.jsonl"))
        self.assertEqual(result.returncode, 0, result.stderr)
        with sqlite3.connect(database) as db:
            rows = lambda sql: [tuple(row) for row in db.execute(sql)]
            self.assertEqual(rows("SELECT module, name, uuid, device_id FROM access_events"),
                             [("catra", "TURN RIGHT", "road-1", 1)])
            self.assertEqual(rows("SELECT name, value FROM counters WHERE value > 0 ORDER BY name"),
                             [("entrance_turns", 1), ("right_turns", 1)])
            self.assertEqual(rows("SELECT portal_id, position, action_id FROM portal_actions ORDER BY portal_id"),
                             [(1, 0, 4), (2, 0, 4)])


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[4:]])
