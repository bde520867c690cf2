"""Tests oxevent-stat on running processes: stat_test.py [-v] [StatTest.test_NAME...]."""
import ctypes
import itertools
import json
import os
import re
import socket
import struct
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
os.environ["LD_LIBRARY_PATH"] = str(LIBRARY.parent)
NATIVE_OFF = {"sink\\native\\main": {"enabled": 0}}
BROADCAST = {"enabled": 1, "host": "127.255.255.255"}  # Broadcasts are not permitted: every delivery fails.
# Executes each line, and prints an empty line when that is done.
HOST = """
import _ctypes, ctypes, os, oxevent, signal, sys
for line in sys.stdin:
    exec(line)
    print(flush=True)
"""
# Loads, starts, reloads, stops and unloads the library without a pause. The names of the two sinks, and so their
# errors, differ in length.
CHURN = """
import _ctypes, ctypes, os, sys
while True:
    library = ctypes.CDLL(os.environ["OXEVENT_LIBRARY"])
    for path in sys.argv[1:3] * 5:
        library.oxEventInitialize(path.encode())
        for _ in range(20): library.oxEventSubmitSimple(0, 3, b"s", b"m")
        library.oxEventReloadConfig(None)
        library.oxEventFlush(0)
        library.oxEventShutdown()
    _ctypes.dlclose(library._handle)
"""


class StatTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.directory = Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.settings = f"{self.directory}/settings.xml"
        write_settings(self.settings, NATIVE_OFF)

    def start(self, *command, **options):
        pipes = dict.fromkeys(("stdin", "stdout"), subprocess.PIPE)
        permit = lambda: ctypes.CDLL(None).prctl(0x59616d61, ctypes.c_long(-1))  # PR_SET_PTRACER: all may read it.
        process = self.enterContext(subprocess.Popen(command, text=True, preexec_fn=permit, **pipes, **options))
        self.addCleanup(process.kill)
        return process

    def start_host(self, script=HOST, *arguments):
        return self.start(sys.executable, "-Bc", script, *arguments)

    def do(self, host, line):
        host.stdin.write(line + "\n")
        host.stdin.flush()
        return host.stdout.readline()

    def run_tool(self, *arguments, launcher=(), **options):
        return subprocess.run([*launcher, TOOL, *map(str, arguments)], capture_output=True, text=True,
                              timeout=TIMEOUT_S, check=False, **options)

    def read(self, pid):
        done = self.run_tool("--json", pid)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return json.loads(done.stdout)

    def assert_fails(self, done, status, text):
        self.assertEqual(done.returncode, status, done.stderr)
        self.assertRegex(done.stderr, text)

    def test_follows_the_library_until_it_is_unloaded(self):
        write_settings(self.settings, NATIVE_OFF | {
            "core": {"queue_size": 7}, "sink\\csv\\default": {"enabled": 1, "minimum_severity": "error",
                                                             "path": f"{self.directory}/events.csv"}})
        host = self.start_host()
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
        wait = "ctypes.CDLL(None).prctl(1, 9), os.write(forked[1], b'x'), signal.pause()"  # Until the parent's death.
        fork = f"forked = os.pipe(); pid = os.fork(); pid or ({wait}); os.read(forked[0], 1)"
        child = self.do(host, f"{fork}; print(pid, end='')").strip()
        self.assertEqual([self.read(child)[name] for name in ("initialized", "submitted", "sinks")], [False, 0, []])
        self.do(host, "oxevent.shutdown(); _ctypes.dlclose(oxevent._library._handle)")
        self.assert_fails(self.run_tool(host.pid), 1, "has not loaded the library")

    def test_reads_a_stripped_program_that_contains_the_library(self):
        program = self.directory / f"test{os.getpid()}-with-a-long-name"  # No other run of this test has that name.
        subprocess.run(["strip", "--strip-all", "-o", program, SEND], check=True)
        watch = self.start(TOOL, "--watch=1", "--prometheus", program.name, stderr=subprocess.DEVNULL)
        self.assertTrue(any(line.endswith("} 0\n") for line in watch.stdout))
        other = self.start(program.name, "-c", "read x", executable="/bin/sh")
        self.assert_fails(self.run_tool(program.name), 1, f"process {other.pid} .* has not loaded")
        sender = self.start(program, "--json", self.settings)
        reading = self.read(program.name)
        self.assertEqual((reading["pid"], reading["process"]), (sender.pid, program.name[:15]))
        self.assertTrue(any(re.match("oxevent_up.* 1$", line) for line in watch.stdout), "ends without a process")
        self.start(program, "--json", self.settings)
        self.assert_fails(self.run_tool(program.name), 1, "several processes .*; give one of the PIDs( [0-9]+){2}$")

    def test_sees_no_torn_state_while_everything_changes(self):
        names = ("short", 100 * "long")
        for name in names:
            sink = BROADCAST | {"port": 1000 + len(name)}
            write_settings(self.directory / name[:5], NATIVE_OFF | {f"sink\\syslog\\udp\\{name}": sink})
        host = self.start_host(CHURN, *(self.directory / name[:5] for name in names))
        seen = set()
        for _ in range(500):
            done = self.run_tool("--json", host.pid)
            if done.returncode != 0:
                self.assertRegex(done.stderr, "has not loaded the library|is busy")
                continue
            reading = json.loads(done.stdout)
            self.assertTrue(reading["emitted"] <= reading["submitted"] <= 20, reading)
            self.assertIn(reading["queue"]["capacity"], (0, 1024))
            for sink in reading["sinks"][:-1]:
                self.assertIn(sink["name"], names)
                if sink["failures"]:
                    self.assertEqual(sink["last_error"], "oxEvent syslog UDP send failed to "
                                     f"127.255.255.255:{1000 + len(sink['name'])} error=13")
                seen.add((sink["name"], sink["failures"] > 0))
        self.assertGreater(len(seen), 1)

    def test_metrics_are_valid_whatever_the_names_are(self):
        write_settings(self.settings, NATIVE_OFF | {'sink\\syslog\\udp\\a"b\nc\u202e}': BROADCAST})
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
        subprocess.run(["promtool", "test", "rules", ROOT / "tests/stat_alerts.yml"], check=True)

    def test_serves_and_writes_metrics_of_a_process_that_ends(self):
        host = self.start_host()
        self.do(host, "oxevent.load()")
        server = self.start(TOOL, "--listen", "0", str(host.pid), stderr=subprocess.DEVNULL)
        url = server.stdout.readline().strip()
        address = ("127.0.0.1", int(re.search(":([0-9]+)/", url)[1]))
        self.assert_fails(self.run_tool("--listen", address[1], host.pid), 1, "port .*: Address already in use")
        self.enterContext(socket.create_connection(address))  # A client that sends nothing.
        with socket.create_connection(address) as reset:
            reset.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        file = self.directory / "oxevent.prom"
        for alive, query in ((True, ""), (False, "?x=1")):
            with urllib.request.urlopen(url + query, timeout=TIMEOUT_S) as response:
                served = response.read().decode()
            self.assertEqual(self.run_tool("--output", file, host.pid, umask=0o022).returncode, 0 if alive else 1)
            self.assertEqual(file.read_text(), served)
            self.assertIn(f'oxevent_up{{process="{host.pid}"}} {alive:d}\n', served)
            self.assertEqual("oxevent_running" in served, alive)
            host.kill()
            host.wait()
        full = ["sh", "-c", 'trap "" XFSZ; ulimit -f 0; exec "$@"', "sh"]
        self.assert_fails(self.run_tool("--output", file, host.pid, launcher=full), 1, "prom: File too large")
        self.assertEqual(file.stat().st_mode & 0o777, 0o644)
        self.assertEqual(list(self.directory.glob("*prom*")), [file])
        with self.assertRaisesRegex(urllib.error.HTTPError, "404"):
            urllib.request.urlopen(url + "x", timeout=TIMEOUT_S)
        with socket.create_connection(("127.0.0.1", urllib.parse.urlsplit(url).port), TIMEOUT_S) as silent:
            silent.shutdown(socket.SHUT_WR)
            self.assertEqual(silent.recv(1), b"")  # Times out unless the tool closes the connection.

    def test_watches_runs_until_the_process_ends(self):
        host = self.start_host()
        self.do(host, "oxevent.load()")
        tool = self.start("timeout", str(TIMEOUT_S), TOOL, "--watch=1", str(host.pid), stderr=subprocess.DEVNULL)
        readings = ("".join(lines) for blank, lines in itertools.groupby(tool.stdout, "\n".__eq__) if not blank)
        sane = itertools.takewhile(lambda shown: not re.search("[0-9]{15}", shown), readings)  # No negative difference.
        run = f"oxevent.initialize({self.settings!r}); oxevent.submit('m', severity="
        for line, expected in (
                ("", "oxEvent has not been initialized\nsinks: none\n$"),
                (f"{run}1); oxevent.flush()", " 1 emitted, 0 dropped, .*\ndropped: none\n"),
                ("oxevent.submit('m', severity=0)", "\nsince the previous reading: 1 submitted, 0 emitted, 1 dropped"),
                (f"oxevent.shutdown(); {run}0); oxevent.submit('m', severity=0)", "2 submitted, 0 emitted, 2 dropped"),
                (f"oxevent.shutdown(); {run}1); oxevent.shutdown()", "down\ncounters: 1 submitted(?s:.*)sinks: none")):
            self.do(host, line)
            self.assertTrue(any(re.search(expected, shown) for shown in sane), expected)
        host.kill()
        self.assertEqual(tool.wait(TIMEOUT_S), 1)

    def test_passes_over_what_is_no_intact_library(self):
        contents = LIBRARY.read_bytes()
        note = contents.index(struct.pack("=3I8s", 8, 8, 1, b"oxEvent"))
        segment = contents.rindex(struct.pack("=2I", 4, 4), 0, note)  # The program header of the notes.
        block = note + 20 + int.from_bytes(contents[note + 20:note + 28], sys.byteorder)
        far, odd, absent = 8 * b"\x7f", 8 * b"\1", "has not loaded the library"
        for at, damage, error in (
                (4, b"\1", absent), (32, far, absent), (54, b"\0", absent), (segment + 16, far, absent),
                (segment + 40, struct.pack("=Q", 65537), absent), (note + 4, far[:4], absent),
                (note + 4, struct.pack("=I", 4), absent), (note + 8, odd[:4], absent), (note + 20, far, absent),
                (block + 8, struct.pack("=Q", 2), "in format version 2, but this oxevent-stat reads version 1"),
                (block + 16, odd, "is busy"), (block + 24, odd, "is busy"), (block + 32, far, "is busy")):
            with self.subTest(at=at, damage=damage):
                host = self.start_host()
                self.do(host, "oxevent.load(); memory = os.open('/proc/self/mem', os.O_RDWR)")
                start = int(re.search(f"(\\w+)-.*{LIBRARY.name}", Path(f"/proc/{host.pid}/maps").read_text())[1], 16)
                self.do(host, f"os.pwrite(memory, {damage!r}, {start + at})")
                self.assert_fails(self.run_tool(host.pid), 1, error)

    def test_says_why_it_fails(self):
        host = self.start_host()
        other_user = ["setpriv", "--reuid=65534", "--inh-caps=+dac_override", "--ambient-caps=+dac_override"]
        root = ["unshare", "--map-root-user", "-m", "sh", "-ec", "mount -t tmpfs none /proc/sys/kernel; "
                'mkdir /proc/sys/kernel/yama; echo $0 >/proc/sys/kernel/yama/ptrace_scope; exec "$@"']
        for launcher, arguments, status, error in (
                ([], "", 2, "PID or NAME is missing"),
                ([], "1 2", 2, "2: there can be only one"),
                ([], "0", 2, "PID: '0' is not"),
                ([], "--listen 0 --watch 1", 2, "--listen: cannot be combined with --watch"),
                ([], "--json --prometheus 1", 2, "--json: cannot be combined with"),
                ([], "--output none/x 1", 1, "none/x.*: No such file"),
                ([], "2147483647", 1, "there is no process 2147483647"),
                ([], "no_such_process", 1, "there is no process 'no_such_process'"),
                ([] if os.geteuid() else other_user, "1", 1, "process 1 .*: it belongs to the user root; run"),
                ([*root, "3"], str(host.pid), 1, "ptrace_scope is 3: no process"),
                ([*root, "2"], str(host.pid), 1, "root lacks the capability"),
                ([*root, "2", "unshare", "--map-user=1"], str(host.pid), 1, "ptrace_scope is 2; run"),
                ([*root, "1", "unshare", "--map-user=1"], str(host.pid), 1, "ptrace_scope is 1; run"),
                ([*root, "0", "unshare", "--map-user=1"], str(host.pid), 1, "more privileges than oxevent-stat")):
            with self.subTest(error):
                self.assert_fails(self.run_tool(*arguments.split(), launcher=launcher), status, error)
        host.kill()
        os.waitid(os.P_PID, host.pid, os.WEXITED | os.WNOWAIT)
        self.assert_fails(self.run_tool(host.pid), 1, "has ended, or has no memory")


if __name__ == "__main__":
    unittest.main()
