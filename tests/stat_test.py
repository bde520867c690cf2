"""Tests oxevent-stat on running processes: stat_test.py [-v] [StatTest.test_NAME...]."""
import ctypes
import json
import os
import re
import subprocess
import sys
import tempfile
import unittest
import urllib.error
import urllib.request
from pathlib import Path

from receivers import TIMEOUT_S, write_settings

ROOT = Path(__file__).resolve().parent.parent
TOOL = os.environ["OXEVENT_STAT"]
SEND = os.environ["OXEVENT_SEND"]
LIBRARY = Path(os.environ["OXEVENT_LIBRARY"])
PR_SET_PTRACER = 0x59616d61
NATIVE_OFF = {"sink\\native\\main": {"enabled": 0}}
BROADCAST = {"enabled": 1, "host": "127.255.255.255"}  # Broadcasts are not permitted: every delivery fails.
HOSTILE = 'a"b\nc\u202e}'
# Executes each line, and prints an empty line when that is done.
HOST = """
import _ctypes, ctypes, os, oxevent, signal, sys

def wait():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG
    signal.pause()

for line in sys.stdin:
    exec(line)
    print(flush=True)
"""
# Loads, starts, reloads, stops and unloads the library without a pause. The names of the two sinks, and so their
# errors, differ in length.
CHURN = """
lib = os.environ["OXEVENT_LIBRARY"]
print(flush=True)
while True:
    library = ctypes.CDLL(lib)
    for path in sys.argv[1:3] * 5:
        library.oxEventInitialize(path.encode())
        for _ in range(20): library.oxEventSubmitSimple(0, 3, b"s", b"m")
        library.oxEventReloadConfig(None)
        library.oxEventFlush(0)
        library.oxEventShutdown()
    _ctypes.dlclose(library._handle)
"""


def permit_reading():
    """Lets every process of the user read this one, unless kernel.yama.ptrace_scope is above 1."""
    ctypes.CDLL(None).prctl(PR_SET_PTRACER, ctypes.c_long(-1))


class StatTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.directory = Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.settings = f"{self.directory}/settings.xml"

    def start(self, *command, library=LIBRARY, **options):
        environment = os.environ | {"OXEVENT_LIBRARY": str(library), "LD_LIBRARY_PATH": str(LIBRARY.parent)}
        process = subprocess.Popen(command, env=environment, text=True, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   preexec_fn=permit_reading, **options)
        self.enterContext(process)
        self.addCleanup(process.kill)
        return process

    def start_host(self, script=HOST, *arguments, **options):
        return self.start(sys.executable, "-Bc", script, *arguments, **options)

    def do(self, host, line):
        host.stdin.write(line + "\n")
        host.stdin.flush()
        return host.stdout.readline()

    def run_tool(self, *arguments, **options):
        return subprocess.run([TOOL, *map(str, arguments)], capture_output=True, text=True, timeout=TIMEOUT_S,
                              check=False, **options)

    def read(self, pid):
        done = self.run_tool("--json", pid)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return json.loads(done.stdout)

    def assert_fails(self, done, status, text):
        self.assertEqual(done.returncode, status, done.stderr)
        self.assertRegex(done.stderr, text)

    def test_follows_the_library_from_load_to_unload(self):
        write_settings(self.settings, NATIVE_OFF | {
            "core": {"queue_size": 7}, "sink\\csv\\default": {"enabled": 1, "minimum_severity": "error",
                                                             "path": f"{self.directory}/events.csv"}})
        host = self.start_host()
        self.assert_fails(self.run_tool(host.pid), 1, "has not loaded the library")
        self.do(host, "oxevent.load()")
        self.assertFalse(self.read(host.pid)["initialized"])
        self.do(host, f"oxevent.initialize({self.settings!r})")
        self.do(host, "[oxevent.submit('m', severity=s, action='raise') for s in (0, 2, 3)]")
        self.do(host, "[oxevent.submit('m', dedupe_key='ended', severity=3, action=a) for a in ('raise', 'clear')]")
        self.do(host, "oxevent.flush()")
        reading = self.read(host.pid)
        self.assertTrue(reading["running"])
        self.assertEqual(reading["queue"], {"pending": 0, "in_delivery": 0, "capacity": 7})
        self.assertEqual([(s["section"], s["delivered"], s["failures"]) for s in reading["sinks"]],
                         [("sink\\csv", 2, 0), ("callbacks", 3, 0)])
        self.assertEqual([reading[name] for name in ("submitted", "emitted", "dropped", "conditions")], [5, 3, 2, 1])
        self.do(host, "oxevent.reload()")
        self.assertEqual([s["delivered"] for s in self.read(host.pid)["sinks"]], [0, 0])
        fork = "pid = os.fork(); pid or (os.write(forked[1], b'x'), wait()); os.read(forked[0], 1)"
        child = self.do(host, f"forked = os.pipe(); {fork}; print(pid, end='')").strip()
        self.assertEqual([self.read(child)[name] for name in ("initialized", "submitted", "sinks")], [False, 0, []])
        self.do(host, "oxevent.shutdown()")
        reading = self.read(host.pid)
        self.assertEqual([reading[name] for name in ("initialized", "running", "submitted", "sinks")],
                         [True, False, 5, []])
        self.do(host, "_ctypes.dlclose(oxevent._library._handle)")
        self.assert_fails(self.run_tool(host.pid), 1, "has not loaded the library")

    def test_reads_a_stripped_program_that_contains_the_library(self):
        program = self.directory / f"test{os.getpid()}-with-a-long-name"  # No other run of this test has that name.
        subprocess.run(["strip", "--strip-all", "-o", program, SEND], check=True)
        write_settings(self.settings, NATIVE_OFF)
        sender = self.start(program, "--json", self.settings, stderr=subprocess.PIPE)
        sender.stdin.write("x\n")
        sender.stdin.flush()
        self.assertIn("line 1", sender.stderr.readline())
        reading = self.read(program.name)
        self.assertEqual((reading["pid"], reading["process"]), (sender.pid, program.name[:15]))

    def test_sees_no_torn_state_while_everything_changes(self):
        names = ("short", 100 * "long")
        paths = []
        for name in names:
            paths.append(f"{self.directory}/{len(name)}.xml")
            sink = BROADCAST | {"port": 1000 + len(name)}
            write_settings(paths[-1], NATIVE_OFF | {f"sink\\syslog\\udp\\{name}": sink})
        host = self.start_host("import _ctypes, ctypes, os, sys" + CHURN, *paths)
        host.stdout.readline()
        seen = set()
        for _ in range(500):
            done = self.run_tool("--json", host.pid)
            if done.returncode != 0:
                self.assertRegex(done.stderr, "has not loaded the library|is busy")
                continue
            reading = json.loads(done.stdout)
            self.assertLessEqual(reading["submitted"], 20)
            self.assertLessEqual(reading["emitted"], reading["submitted"])
            self.assertIn(reading["queue"]["capacity"], (0, 1024))
            for sink in reading["sinks"][:-1]:
                self.assertIn(sink["name"], names)
                if sink["failures"]:
                    self.assertEqual(sink["last_error"], "oxEvent syslog UDP send failed to "
                                     f"127.255.255.255:{1000 + len(sink['name'])} error=13")
                seen.add((sink["name"], sink["failures"] > 0))
        self.assertGreater(len(seen), 1)

    def test_metrics_are_valid_whatever_the_names_are(self):
        write_settings(self.settings, NATIVE_OFF | {"sink\\syslog\\udp\\" + HOSTILE: BROADCAST})
        host = self.start_host()
        self.do(host, f"oxevent.initialize({self.settings!r}); oxevent.submit('m', severity=3); oxevent.flush()")
        metrics = self.run_tool("--prometheus", "--label", 'x\\"\n\udcff', host.pid).stdout
        checked = subprocess.run(["promtool", "check", "metrics"], input=metrics, capture_output=True, text=True,
                                 check=False)
        self.assertEqual((checked.returncode, checked.stdout + checked.stderr), (0, ""))
        self.assertIn('oxevent_sink_failures_total{process="x\\\\\\"\\n\ufffd",section="sink\\\\syslog\\\\udp",'
                      'name="a\\"b\\nc\u202e}"} 1\n', metrics)
        served = set(re.findall("^# TYPE (\\S+)", metrics, re.M))
        for file in ("oxevent-alerts.yml", "oxevent-dashboard.json"):
            named = set(re.findall(r"\boxevent_\w+", (ROOT / "docs" / "stat" / file).read_text()))
            self.assertGreater(len(named), 5)
            self.assertLessEqual(named, served)
        json.loads((ROOT / "docs" / "stat" / "oxevent-dashboard.json").read_text())

    def test_alert_rules_are_valid_and_fire(self):
        command = ["promtool", "test", "rules", ROOT / "tests/stat_alerts.yml"]
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def test_serves_and_writes_metrics_of_a_process_that_ends(self):
        host = self.start_host()
        self.do(host, "oxevent.load()")
        server = self.start(TOOL, "--listen", "0", str(host.pid), stderr=subprocess.DEVNULL)
        url = server.stdout.readline().strip()
        file = self.directory / "oxevent.prom"
        up = f'oxevent_up{{process="{host.pid}"}} '
        for alive in (True, False):
            with urllib.request.urlopen(url, timeout=TIMEOUT_S) as response:
                served = response.read().decode()
            written = self.run_tool("--output", file, host.pid, umask=0o022)
            self.assertEqual(written.returncode, 0 if alive else 1)
            self.assertEqual(file.read_text(), served)
            self.assertIn(f"{up}{alive:d}\n", served)
            self.assertEqual("oxevent_running" in served, alive)
            host.kill()
            host.wait()
        self.assertEqual(file.stat().st_mode & 0o777, 0o644)
        self.assertEqual(list(self.directory.iterdir()), [file])
        with self.assertRaisesRegex(urllib.error.HTTPError, "404"):
            urllib.request.urlopen(url + "x", timeout=TIMEOUT_S)

    def test_says_why_a_process_cannot_be_read(self):
        newer = self.directory / LIBRARY.name
        contents = LIBRARY.read_bytes()
        version = b"oxEvent\0" + (1).to_bytes(8, sys.byteorder)
        self.assertEqual(contents.count(version), 1)
        newer.write_bytes(contents.replace(version, b"oxEvent\0" + (2).to_bytes(8, sys.byteorder)))
        host = self.start_host(library=newer)
        self.do(host, "oxevent.load()")
        self.assert_fails(self.run_tool(host.pid), 1, "in format version 2, but this oxevent-stat reads version 1")
        self.assert_fails(self.run_tool(2**31 - 1), 1, "there is no process 2147483647")
        self.assert_fails(self.run_tool("no such process"), 1, "there is no process 'no such process'")
        self.assert_fails(self.run_tool(0), 2, "PID: '0' is not")


if __name__ == "__main__":
    unittest.main()
