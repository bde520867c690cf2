"""What gdb shows of a process and a core file, and the trace points: inside_test.py [-v] [InsideTest.test_NAME...]."""
import json
import os
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from receivers import write_settings

ROOT = Path(__file__).resolve().parent.parent
PYTHON = os.path.realpath(sys.executable)
LIBRARY = Path(os.environ["OXEVENT_LIBRARY"])
TRACE_POINTS = {"submit": 3, "drop": 4, "emit": 3, "sink_failure": 3, "flush": 1}  # Each with its number of arguments.
# A raised condition, and a full queue behind a callback that does not return.
BUSY = r"""
import oxevent, sys, threading
oxevent.initialize(sys.argv[1])
for _ in range(2):
    oxevent.submit("Fan 2", severity=2, action="raise", dedupe_key=50 * "fan-2/", utc_ns=10**18 + 1, event_id=98)
    oxevent.flush()
entered = threading.Event()

def block(event):
    entered.set()
    threading.Event().wait()

oxevent.register_callback(block)
oxevent.submit("in delivery", event_id=99)
entered.wait()
for number, severity in enumerate((0, 1, 1, 2, 3, 3, 1, 3, 2)):
    oxevent.submit(f"door\n{number} é", severity=severity, event_id=100 + number, action="raise")
print(flush=True)
input()
"""
BUSY_STATE = f"""counters: 12 submitted, 1 emitted, 6 dropped, 1 sink failures, 0 sink warnings
dropped: 1 filtered, 1 refused, 3 displaced, 1 suppressed
queue: 4 of 4 pending, drop debug info first; 1 in delivery
  id 103, warning, raise: door\\n3 é
  id 104, error, raise: door\\n4 é
  id 105, error, raise: door\\n5 é
  id 107, error, raise: door\\n7 é
conditions: 1 raised
  {(50 * "fan-2/")[:200]}..., last sent 2001-09-09T01:46:40.000000001Z
sinks:
  sink\\syslog\\udp noc: 2 failures, the last: oxEvent syslog UDP send failed to 127.255.255.255:5140 error=13
  callbacks: no failure
"""
# Random events, whose times exceed the repeat interval now and then, and rotations of the CSV file, as by logrotate.
RANDOM = r"""
import gzip, os, oxevent, random, sys
chosen = random.Random(1)
csv = sys.argv[2]

def rotate(count):
    oxevent.flush()
    for number in range(count, 1, -1):
        os.rename(f"{csv}.{number}.gz", f"{csv}.{number + 1}.gz")
    if count:
        with open(f"{csv}.1", "rb") as file, gzip.open(f"{csv}.2.gz", "wb") as packed:
            packed.write(file.read())
    os.rename(csv, f"{csv}.1")
    oxevent.reload()

oxevent.initialize(sys.argv[1])
utc_ns = 10**18
for number in range(10_000):
    utc_ns += chosen.randrange(-10, 60) * 10**9
    name = chosen.randrange(200)
    oxevent.submit(
        chosen.choice(("m", 'a, "b"\n\nc', "é")), severity=chosen.randrange(4), utc_ns=utc_ns,
        action=chosen.choice(("raise", "RAISE", "update", "Update", "repeat", "clear", "Clear", "ack", "")),
        dedupe_key=chosen.choice(("", f"key,\n {name}")), source_id=f"source:{name}", event_type=f'"{name % 3}"')
    if number % 1000 == 999:
        rotate(number // 1000)
oxevent.flush()
print(flush=True)
input()
"""


class InsideTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.directory = self.enterContext(tempfile.TemporaryDirectory())
        self.settings = f"{self.directory}/settings.xml"
        write_settings(self.settings, {
            "core": {"queue_size": 4, "drop_policy": "drop_debug_info_first"},
            "sink\\native\\main": {"enabled": 0},
            "sink\\syslog\\udp\\noc": {"enabled": 1, "host": "127.255.255.255"}})  # Broadcasts are not permitted.

    def start_host(self, script, *arguments):
        host = subprocess.Popen([PYTHON, "-Bc", script, self.settings, *arguments], text=True, stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE)
        self.enterContext(host)
        self.addCleanup(host.kill)
        self.assertEqual(host.stdout.readline(), "\n")
        return str(host.pid)

    def gdb(self, *arguments, commands=("oxevent",)):
        options = ["-nx", "-batch", "-iex", "set debuginfod enabled off", "-x", f"{ROOT}/tools/oxevent-gdb.py"]
        for command in commands:
            options += ["-ex", command]
        done = subprocess.run(["gdb", *arguments, *options], capture_output=True, text=True, check=False)
        return done.stdout + done.stderr

    def test_shows_the_state_of_a_process_and_of_a_core_as_oxevent_stat_does(self):
        pid = self.start_host(BUSY)
        core = f"{self.directory}/core"
        expected = f"oxEvent is initialized with {self.settings}\n{BUSY_STATE}"
        self.assertIn(expected, self.gdb("-p", pid, commands=["oxevent", f"generate-core-file {core}"]))
        self.assertIn(expected, self.gdb(PYTHON, core))
        figures = subprocess.run([os.environ["OXEVENT_STAT"], pid], capture_output=True, text=True, check=True).stdout
        for what in ("counters: .*", "dropped: .*", r"queue: \d+ of \d+ pending", r"\d+ in delivery", "conditions: .*",
                     "[0-9]+ failures, the last: .*"):
            self.assertEqual(re.findall(what, figures), re.findall(what, BUSY_STATE))

    def test_alarm_list_of_the_csv_file_is_that_of_the_process(self):
        csv = f"{self.directory}/events.csv"
        write_settings(self.settings, {
            "core": {"minimum_severity": "debug", "queue_size": 10_000},
            "sink\\native\\main": {"enabled": 0},
            "sink\\csv\\default": {"enabled": 1, "path": csv, "minimum_severity": "debug"}})
        pid = self.start_host(RANDOM, csv)
        shown = re.findall("^  .*, last sent .*Z$", self.gdb("-p", pid, commands=["oxevent conditions 1000"]), re.M)
        listed = subprocess.run([f"{ROOT}/tools/alarms/oxevent-alarms", "--json", csv], capture_output=True, check=True)
        conditions = json.loads(listed.stdout)["conditions"]
        self.assertGreater(len(conditions), 100)
        self.assertFalse([one for one in conditions if one["unconfirmed"]])
        expected = [f"  {one['key']}, last sent {one['utc_iso']}".replace("\n", "\\n") for one in conditions]
        self.assertEqual(sorted(shown), sorted(expected))

    def test_trace_points_have_their_arguments(self):
        notes = subprocess.run(["readelf", "-n", LIBRARY], capture_output=True, text=True, check=True).stdout
        found = re.findall(r"Provider: oxevent\n +Name: (\w+)\n.*\n +Arguments: (.*)", notes)
        self.assertEqual({(name, len(arguments.split())) for name, arguments in found}, set(TRACE_POINTS.items()))


if __name__ == "__main__":
    unittest.main()
