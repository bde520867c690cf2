"""Kills hosts at random moments: afterwards a real Alertmanager must have the alerts of the conditions that hold.

active_test.py [-v] [Test.test_NAME...]   Environment: PYTHONPATH; OXEVENT_LIBRARY; OXEVENT_ACTIVE_HOST: the host in
C++; optionally OXEVENT_KILLS: number of kills of each host, and OXEVENT_SEED. The Alertmanager itself would resolve an
alert only after five minutes, so each alert that ends earlier has been cleared by a host.
"""
import csv
import os
import random
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

import oxevent
import receivers

KILLS = int(os.environ.get("OXEVENT_KILLS", "4"))
SEED = int(os.environ.get("OXEVENT_SEED", "7"))
LABELS = {1: "info", 2: "warning", 3: "critical"}


def report(truth, reported):
    """Reports how the conditions have changed; returns them, or None if the host is to stop."""
    lines = Path(truth).read_text().split("\n")
    now = dict(line.split(" ") for line in lines if " " in line)
    for source, severity in now.items():
        if reported.get(source) != severity:
            oxevent.submit("m", event_type="test", action="update", source_id=source, severity=int(severity))
    for source in reported.keys() - now.keys():
        oxevent.submit("m", event_type="test", action="clear", source_id=source)
    return None if "stop" in lines else now


def host(settings, truth, file, url):
    with (oxevent.ActiveFile(file, grace_s=0.1) as conditions, oxevent.AlertPoster(url, repeat_interval_s=0.1),
          oxevent.running(settings)):
        print("running", flush=True)
        reported = {}
        while (reported := report(truth, reported)) is not None:
            conditions.poll()
            time.sleep(0.005)


class Test(unittest.TestCase):
    def setUp(self):
        self.directory = Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.truth = self.directory / "truth"
        self.csv = self.directory / "events.csv"
        self.settings = self.directory / "settings.xml"
        self.file = self.directory / "conditions"

    def set_truth(self, conditions, *more):
        self.conditions = conditions
        text = "".join(f"{source} {severity}\n" for source, severity in conditions.items())
        (self.directory / "new").write_text(text + "".join(more))
        (self.directory / "new").rename(self.truth)

    def start(self, *command):
        process = subprocess.Popen([*command, self.settings, self.truth, self.file, self.alertmanager.url],
                                   stdout=subprocess.PIPE, text=True)
        self.addCleanup(process.wait)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.kill)
        self.assertEqual(process.stdout.readline(), "running\n")
        return process

    def alerts(self):
        return {(alert["labels"]["source_id"], alert["labels"]["severity"]) for alert in self.alertmanager.events()}

    def expected(self):
        return {(source, LABELS[severity]) for source, severity in self.conditions.items()}

    def kill_at_random_moments(self, kills, *command):
        """Kills hosts while one condition holds all the time and the others change at random."""
        choose = random.Random(SEED)
        receivers.write_settings(self.settings, {
            "state": {"route_orphan_clear": 1}, "sink\\native\\main": {"enabled": 0},
            "sink\\csv\\default": {"enabled": 1, "path": self.csv, "flush_each_event": 1}})
        self.alertmanager = self.enterContext(receivers.Alertmanager().start(self.directory))
        self.addCleanup(self.alertmanager.child.send_signal, signal.SIGCONT)
        self.set_truth({"steady": 2})
        for kill in range(kills):
            with self.subTest(seed=SEED, kill=kill):
                process = self.start(*command)
                if choose.random() < 0.5:  # What the host reports from now on reaches the file, not the Alertmanager.
                    self.alertmanager.child.send_signal(signal.SIGSTOP)
                for _ in range(2):
                    self.set_truth({"steady": 2} | {f"c{number}": choose.choice((1, 2, 3)) for number in range(6)
                                                    if choose.random() < 0.5})
                    time.sleep(choose.uniform(0, 0.15))
                process.kill()
                process.wait()
                self.alertmanager.child.send_signal(signal.SIGCONT)
                self.set_truth({"steady": 2} | {f"c{number}": 3 for number in range(6) if choose.random() < 0.3})
        process = self.start(*command)
        receivers.await_("the alerts of what holds", lambda: self.alerts() == self.expected())
        self.set_truth(self.conditions, "stop\n")
        self.assertEqual(process.wait(receivers.TIMEOUT_S), 0)
        self.assertEqual(self.alerts(), self.expected())
        rows = csv.DictReader(self.csv.read_text().splitlines())
        self.assertEqual([row for row in rows if (row["source_id"], row["action"]) == ("steady", "clear")], [])

    def test_kills_of_a_host_in_cpp(self):
        self.kill_at_random_moments(KILLS, os.environ["OXEVENT_ACTIVE_HOST"])

    def test_kills_of_a_host_in_python(self):
        self.kill_at_random_moments(KILLS, sys.executable, "-B", __file__, "host")

    def test_python_reads_a_file_of_cpp_and_renames_a_damaged_file(self):
        """The module reads the file of the host in C++; a file with one changed byte is kept under another name."""
        self.kill_at_random_moments(1, os.environ["OXEVENT_ACTIVE_HOST"])
        whole = self.file.read_bytes()
        with oxevent.ActiveFile(self.file) as conditions:
            self.assertEqual(conditions.renamed_to, None)
            self.assertGreater(conditions.unconfirmed(), 0)
        for number in (1, 2):
            damaged = whole.replace(b"steady", b"steads", 1)
            self.file.write_bytes(damaged)
            with self.assertLogs("oxevent"), oxevent.ActiveFile(self.file) as conditions:
                self.assertEqual(conditions.renamed_to, f"{self.file}.damaged-{number}")
            self.assertEqual(Path(conditions.renamed_to).read_bytes(), damaged)
            self.assertEqual(conditions.unconfirmed(), 0)


if __name__ == "__main__":
    host(*sys.argv[2:]) if sys.argv[1:2] == ["host"] else unittest.main()
