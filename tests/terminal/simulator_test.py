"""catra-simulator end to end: catra-terminal with a controller device and no
simulator of its own, catra-simulator at the other end of the line."""
import json
import os
import signal
import subprocess
import sys
import tempfile
import time
import unittest

SIMULATOR, TERMINAL, PLUGIN, EXAMPLES = sys.argv[1:5]
UNKNOWN, BLOCKED = "UNKNOWN EVENT", "ALWAYS BLOCKED"
START_UP = ["EVENT_NOT_READY", "EVENT_READY", BLOCKED]
ROAD = START_UP + ["FREE RIGHT", "TURN RIGHT", BLOCKED]


def json_lines(text):
    return [json.loads(line) for line in text.splitlines()]


class Simulator(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())

    def started(self, command, *links):
        process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True)
        self.enterContext(process)
        self.addCleanup(process.kill)
        deadline = time.monotonic() + 30
        while not all(os.path.exists(link) for link in links):
            if process.poll() is not None:
                self.fail(f"{command[0]} ended: {process.stderr.read()}")
            self.assertLess(time.monotonic(), deadline, f"{links} never appeared")
            time.sleep(0.05)
        return process

    def release_and_turn(self, device, simulator):
        """A clockwise release typed into the terminal, a right turn typed into
        the simulator once the side is free: what each printed."""
        with open(os.path.join(EXAMPLES, "terminal.ini")) as example:
            config = example.read().replace("[catra]\n", f"[catra]\ndevice_path = {device}\n")
        with open(os.path.join(self.folder, "terminal.ini"), "w") as written:
            written.write(config)
        script = [{"wait_for": {"bus": "catra_event", "fields": [["event_name", BLOCKED]]}},
                  {"send": "liberate_catra", "fields": {"catra_direction": "clockwise", "uuid": "pair-1"}},
                  {"wait_for": {"bus": "catra_state_changed", "fields": [["state", 0]]}, "timeout_ms": 60000},
                  {"dump": "counters"}, {"dump": "access_events"}]
        terminal = subprocess.Popen([TERMINAL, "--plugin", PLUGIN, "--config", written.name],
                                    stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.enterContext(terminal)
        self.addCleanup(terminal.kill)
        terminal.stdin.write("".join(json.dumps(line) + "\n" for line in script))
        terminal.stdin.close()
        crossed = []
        while {"turnstile": "f"} not in crossed:
            crossed.append(json.loads(simulator.stdout.readline()))
        simulator.stdin.write('{"person": "turn_right"}\n')
        simulator.stdin.flush()
        printed = json_lines(terminal.stdout.read())
        self.assertEqual(terminal.wait(timeout=60), 0)
        simulator.send_signal(signal.SIGINT)
        crossed += json_lines(simulator.communicate(timeout=30)[0])
        self.assertEqual(simulator.returncode, 0)
        dumps = {line["dump"]: line["rows"] for line in printed if "dump" in line}
        self.assertEqual([(row["name"], row["uuid"]) for row in dumps["access_events"]],
                         [("TURN RIGHT", "pair-1")])
        self.assertEqual({row["name"]: row["value"] for row in dumps["counters"]},
                         {"left_turns": 0, "right_turns": 1, "entrance_turns": 1, "exit_turns": 0})
        events = [dict(line["fields"]) for line in printed if line.get("bus") == "catra_event"]
        return events, crossed

    def test_a_release_and_a_turn_cross_a_serial_pair(self):
        terminal_end, simulator_end = (os.path.join(self.folder, end) for end in ("terminal", "simulator"))
        self.started(["socat", f"pty,raw,echo=0,link={terminal_end}",
                      f"pty,raw,echo=0,link={simulator_end}"], terminal_end, simulator_end)
        simulator = self.started([SIMULATOR, "--device", simulator_end, "--baud", "115200"])
        events, crossed = self.release_and_turn(terminal_end, simulator)
        self.assertEqual([(event["event_name"], event["uuid"], event["access_event_id"]) for event in events],
                         [(name, "", 0) for name in START_UP] +
                         [("FREE RIGHT", "pair-1", 0), ("TURN RIGHT", "pair-1", 1), (BLOCKED, "", 0)])
        self.assertEqual(crossed, [
            {"controller": "d"}, {"turnstile": "m"}, {"controller": "f12"}, {"controller": "g13"},
            {"controller": "s14"}, {"controller": "t15"}, {"controller": "e"}, {"turnstile": "l"},
            {"controller": "i"}, {"turnstile": "a"}, {"controller": "r5"}, {"turnstile": "f"},
            {"person": "turn_right", "turned": True}, {"turnstile": "i"}, {"controller": "i"},
            {"turnstile": "a"}])

    def test_a_letter_and_its_nul_read_apart_make_an_unknown_event(self):
        # The terminal's line settings (stty), the events it publishes; the
        # NUL of the last letter may come after the terminal has ended.
        split = [name for letter in ROAD for name in (letter, UNKNOWN)]
        for settings, expected, last_nul in [(["min", "1"], split[:-1], [UNKNOWN]),
                                             (["min", "2", "time", "0"], ROAD, [])]:
            with self.subTest(settings=settings):
                link = os.path.join(self.folder, "turnstile-" + "-".join(settings))
                simulator = self.started([SIMULATOR, "--link", link, "--byte-gap-ms", "5"], link)
                subprocess.run(["stty", "-F", link, *settings], check=True)
                events, _ = self.release_and_turn(link, simulator)
                names = [event["event_name"] for event in events]
                self.assertEqual(names[:len(expected)], expected)
                self.assertIn(names[len(expected):], [[], last_nul])
                self.assertEqual({event["event"] for event in events if event["event_name"] == UNKNOWN},
                                 {-97} if last_nul else set())


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[5:]])
