"""Tests the samples of docs/operate.md, and that pages quote their samples: docs_operate.py [-v] [Test.test_NAME...]

Needs a build, in OXEVENT_BUILD.
"""
import ctypes
import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(sys.path[0] + "/../tools/python")
import receivers

ROOT = Path(__file__).resolve().parent.parent
SAMPLES = ROOT / "docs" / "operate"
EXAMPLES = Path(os.environ["OXEVENT_BUILD"]).resolve() / "examples"
NATIVE_OFF = {"sink\\native\\main": {"enabled": 0}}


class Test(unittest.TestCase):
    def setUp(self):
        self.directory = Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.settings = self.directory / "settings.xml"

    def run_program(self, *command, **options):
        done = subprocess.run(command, capture_output=True, text=True, timeout=60, **options)
        self.assertEqual(done.returncode, 0, f"{command}: {done.stdout}{done.stderr}")
        return done.stdout

    def start_watcher(self, *options, **popen_options):
        """Starts a host that reports notices and raises spool.full, the only condition that holds on a machine
        with free disk space and memory."""
        (self.directory / "spool").mkdir()
        (self.directory / "spool" / "file").touch()
        host = subprocess.Popen(
            [EXAMPLES / "oxevent-watch", "--spool", self.directory / "spool", "--max-files", "0", "--period", "50",
             *options, self.settings],
            stdout=subprocess.DEVNULL, **popen_options)
        self.addCleanup(host.wait)
        self.addCleanup(host.kill)
        return host

    def stop(self, host):
        host.terminate()
        self.assertEqual(host.wait(receivers.TIMEOUT_S), 0)

    def test_pages_quote_each_sample(self):
        samples = [("operate.md", sample) for sample in sorted(SAMPLES.iterdir())]
        samples.append(("receivers/alertmanager.md", ROOT / "docs/receivers/alertmanager.yml"))
        for page, sample in samples:
            with self.subTest(sample=sample.name):
                self.assertIn(f"\n{sample.read_text()}```\n", (ROOT / "docs" / page).read_text())

    def test_systemd_accepts_the_unit(self):
        unit = self.directory / "oxevent-watch.service"
        program = "/usr/local/bin/oxevent-watch"
        text = (SAMPLES / unit.name).read_text()
        self.assertIn(f"ExecStart={program} ", text)
        unit.write_text(text.replace(program, str(EXAMPLES / "oxevent-watch")))
        verified = subprocess.run(["systemd-analyze", "verify", unit], capture_output=True, text=True, timeout=60)
        self.assertEqual((verified.returncode, verified.stderr), (0, ""))

    def test_host_runs_under_the_hardening_that_needs_no_service_manager(self):
        """No new privileges, no capabilities, no memory that is writable and executable, and a root file system that
        is read-only except for the host's directory."""
        csv = self.directory / "events.csv"
        receivers.write_settings(self.settings, NATIVE_OFF | {"sink\\csv\\default": {"enabled": 1, "path": csv}})
        harden = 'mount --make-rprivate / && mount --bind "$1" "$1" && mount -o remount,bind,ro / && shift && exec "$@"'
        (self.directory / "spool").mkdir()
        self.run_program("unshare", "--map-root-user", "--mount", "bash", "-c", harden, "harden", self.directory,
                         "setpriv", "--no-new-privs", "--bounding-set=-all", "--inh-caps=-all",
                         EXAMPLES / "oxevent-watch", "--count", "2", "--period", "1", self.settings,
                         preexec_fn=refuse_writable_code)
        self.assertIn("watch.stopped", csv.read_text())

    def test_settings_may_be_read_only(self):
        self.settings.write_text('<config/>\n')
        mount = 'mount --bind "$1" "$1" && mount -o remount,bind,ro "$1" && exec "$2" "$1"'
        lines = self.run_program("unshare", "--map-root-user", "--mount", "bash", "-c", mount, "mount", self.settings,
                                 EXAMPLES / "oxevent-json-lines", input="one\ntwo\n")
        self.assertEqual(lines.count("\n"), 2)
        self.assertEqual(self.settings.read_text(), "<config/>\n")

    def test_rotation_keeps_every_row_and_the_header(self):
        log = self.directory / "events.csv"
        receivers.write_settings(self.settings, NATIVE_OFF | {
            "state": {"dedupe_enabled": 0}, "sink\\csv\\default": {"enabled": 1, "path": log, "flush_each_event": 1}})
        host = self.start_watcher()
        rotated = [self.directory / f"events.csv.{number}" for number in (3, 2, 1)]
        recipe = (SAMPLES / "oxevent-watch.logrotate").read_text()
        signal_command = "systemctl kill --signal=HUP --kill-whom=main oxevent-watch.service"
        self.assertIn(signal_command, recipe)
        recipe = recipe.replace(signal_command, f"kill -HUP {host.pid}").replace("    compress\n", "")
        recipe = recipe.replace("/var/log/oxevent-watch/*.csv", str(log))
        (self.directory / "logrotate.conf").write_text(recipe)
        for _ in rotated:
            rows = receivers.await_("the rows", lambda: receivers.read_log(log))
            self.assertTrue(rows[0].startswith("version,event_id,"), rows[0])
            self.run_program("/usr/sbin/logrotate", "--force", "--state", self.directory / "state",
                             self.directory / "logrotate.conf")
        receivers.await_("the file after the last rotation", lambda: log.exists() and log.stat().st_size > 0)
        self.stop(host)
        ids = []
        for file in [*rotated, log]:
            header, *rows = receivers.read_log(file)
            column = header.split(",").index("event_id")
            ids += [int(row.split(",")[column]) for row in rows]
        self.assertEqual(ids, list(range(1, len(ids) + 1)))

    def test_json_lines_are_the_documents_of_the_webhook(self):
        with receivers.HttpReceiver().start(self.directory) as receiver:
            receivers.write_settings(self.settings, NATIVE_OFF | {receiver.section: receiver.settings})
            messages = 'a "quoted" \\ \t\b\f\x01\x7f é€𝄞\nsecond\n'
            lines = self.run_program(EXAMPLES / "oxevent-json-lines", self.settings, input=messages)
            self.assertEqual(lines.splitlines(), [event["body"] for event in receiver.events()])


def refuse_writable_code():
    pr_set_mdwe, refuse_exec_gain = 65, 1  # Linux 6.3; without effect on an older kernel.
    ctypes.CDLL(None).prctl(pr_set_mdwe, refuse_exec_gain, 0, 0, 0)


if __name__ == "__main__":
    unittest.main()
