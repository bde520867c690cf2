"""oxevent-alarms on files with known rows: alarms_test.py [-v] [AlarmsTest.test_NAME...]."""
import csv
import gzip
import io
import itertools
import json
import os
import select
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

from browser import Browser
from receivers import TIMEOUT_S

ROOT = Path(__file__).resolve().parent.parent
TOOL = ROOT / "tools" / "alarms" / "oxevent-alarms"
HEADER = ("version,event_id,utc_iso,utc_ns,severity,action,event_type,source_id,source_name,dedupe_key,correlation_id,"
          "message,value,threshold,units,duration_ms,ptp_ns,pts,timecode,details_json")
S = 10**9
HOSTILE = ('</script><script>document.title="ran"</script><img src=x onerror=document.title="ran">'
           '\x1b[2J\u202e"\\\n|{}&lt;')
NOW = time.time_ns()
EVENT_IDS = itertools.count(1)


def row(key, action="raise", ago_s=60, event_id=None, severity="warning", message="m", source_id="s", event_type="t"):
    ns = NOW - ago_s * S
    iso = time.strftime("%Y-%m-%dT%H:%M:%S", time.gmtime(ns // S)) + f".{ns % S:09}Z"
    event_id = next(EVENT_IDS) if event_id is None else event_id
    return [65536, event_id, iso, ns, severity, action, event_type, source_id, "n", key, "", message, 1.5, "nan", "u",
            0, ns, -1, "", "{}"]


def document(*rows, header=True):
    text = io.StringIO()
    csv.writer(text, lineterminator="\n").writerows(([HEADER.split(",")] if header else []) + list(rows))
    return text.getvalue()


class AlarmsTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.directory = Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.file = self.directory / "events.csv"

    def run_tool(self, *options):
        return subprocess.run([TOOL, *options, self.file], capture_output=True, text=True, timeout=120, check=False)

    def raised(self, *options):
        done = self.run_tool("--json", *options)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return json.loads(done.stdout)["conditions"]

    def keys(self, *options):
        return [condition["key"] for condition in self.raised(*options)]

    def test_list_has_the_severest_first_with_age_count_and_key(self):
        self.file.write_text(document(
            row("a", ago_s=90), row("a", "Repeat", 80), row("", "raise", 70), row("gone"), row("gone", "CLEAR"),
            row("note", "ack"), row("e", "update", 50, severity="error")))
        self.assertEqual(
            [(one["key"], one["severity"], one["count"], NOW - one["raised_utc_ns"]) for one in self.raised()],
            [("e", "error", 1, 50 * S), ("s:t", "warning", 1, 70 * S), ("a", "warning", 2, 90 * S)])
        self.assertIn("3 raised (1 error, 2 warning); newest row", self.run_tool().stdout)

    def test_condition_of_an_earlier_run_is_unconfirmed(self):
        # Rows are (event id, key) for a raise, or (event id, key, action).
        cases = {
            "the last row falls back": ([(1, "a"), (9, "b"), (3, "c")], ["a", "b"]),
            "a run of one row": ([(1, "a"), (1, "b"), (2, "c")], ["a"]),
            "a late row": ([(1, "a"), (9, "b"), (7, "c"), (10, "d")], []),
            "a late row before a restart": ([(1, "a"), (9, "b"), (7, "c"), (10, "d"), (1, "e"), (2, "f")], [*"abcd"]),
            "raised again": ([(8, "a"), (9, "b"), (1, "a")], ["b"]),
            "an update shows that the process is the same": ([(8, "a"), (9, "b"), (3, "c"), (4, "a", "update")], []),
            "ids that the host sets": ([(7, str(number)) for number in range(20)], [])}
        for name, (rows, expected) in cases.items():
            with self.subTest(name):
                self.file.write_text(document(*(row(key, *action, event_id=number) for number, key, *action in rows)))
                self.assertEqual(sorted(one["key"] for one in self.raised() if one["unconfirmed"]), expected)
                self.assertFalse([one for one in self.raised("--own-ids") if one["unconfirmed"]])

    def test_rotated_files_are_read_in_the_order_of_their_rows(self):
        steps = [row("k", event_id=number, message=f"{number}") for number in range(1, 6)]
        (self.directory / "events.csv-20260101").write_text(document(steps[0]))
        (self.directory / "events.csv.10.gz").write_bytes(gzip.compress(document(steps[1]).encode()))
        (self.directory / "events.csv.2").write_text(document(steps[2]))
        (self.directory / "events.csv.2.gz").write_bytes(b"being compressed")
        (self.directory / "events.csv.1").write_text(document(steps[3]))
        (self.directory / "events.csv.bak").write_text("no rotated file")
        self.file.write_text(document(steps[4], header=False))
        lines = self.run_tool("--json", "--history", "k").stdout.splitlines()
        self.assertEqual([json.loads(line)["message"] for line in lines], ["1", "2", "3", "4", "5"])
        self.assertEqual(self.raised("--no-rotated")[0]["count"], 1)
        self.file.unlink()  # As between the two steps of a rotation.
        self.assertEqual(self.raised()[0]["message"], "4")

    def test_times_select_rows_and_the_state_at_a_moment(self):
        self.file.write_text(document(row("a", ago_s=7300), row("b", ago_s=3700), row("a", "clear", 1800), row("c")))
        self.assertEqual(self.keys("--until", "1h"), ["b", "a"])
        self.assertEqual(self.keys("--since", "1h"), ["c"])
        history = self.run_tool("--history", "a", "--since", row("a", ago_s=1801)[2]).stdout
        self.assertEqual(history.count("\n"), 1, history)

    def test_row_that_the_host_is_writing_is_not_an_error(self):
        whole = document(row("a"), row("b", message='two\n"lines"'))
        for end in ("65536,", '"two', '"two\n', '""lines""', "{}"):
            with self.subTest(end):
                self.file.write_text(whole[:whole.rindex(end) + len(end)])
                self.assertEqual(self.keys(), ["a"])

    def test_damaged_row_is_reported_with_file_and_line(self):
        torn = document(row("torn", message='two\n"quoted"'), header=False)
        cases = {
            "columns": ("65536,1\n", "2 columns instead of 20"),
            "no number": (document(row("x", event_id="one"), header=False), "event_id is 'one' instead of a number"),
            "severity": (document(row("x", severity="bad"), header=False), "'bad' is not a severity"),
            "torn in quotes": (torn[:torn.index("quoted")] + "\n", "unexpected end of data")}
        for name, (damage, reason) in cases.items():
            with self.subTest(name):
                before = document(row("a", message="two\nlines"))
                self.file.write_text(before + damage + document(row("b"), header=False))
                where = f"{self.file}:4: damaged row: "
                listed = self.run_tool()
                self.assertEqual((listed.returncode, listed.stdout), (1, ""))
                self.assertIn(where + reason, listed.stderr)
                skipped = self.run_tool("--skip-damaged", "--json")
                self.assertIn(where, skipped.stderr)
                self.assertEqual(skipped.stderr.count("damaged"), 1)
                self.assertEqual([one["key"] for one in json.loads(skipped.stdout)["conditions"]], ["a", "b"])

    def test_plugin_reports_states_and_performance_data(self):
        error, warning = row("e", severity="error", message="a|b"), row("w")
        cases = (
            ([row("i", severity="info")], [], 0, "OK", "error=0;;0;0 warning=0;0;;0 info=1;;;0 unconfirmed=0;;;0"),
            ([warning], ["--max-age", "1h"], 1, "WARNING", "warning=1;0;;0 info=0;;;0 unconfirmed=0"),
            ([warning, error], [], 2, "CRITICAL", "error=1;;0;0 warning=1;0;;0"),
            ([warning, error], ["--max-age", "never"], 3, "UNKNOWN", "'never' is not a duration"),
            ([row("w", "clear")], ["--max-age", "30s"], 2, "CRITICAL", ";;30;0"),
            ([row("w", ago_s=-10**6)], ["--max-age", "30s"], 2, "CRITICAL", "newest_row_age=U;;30;0"))
        for rows, options, status, state, part in cases:
            with self.subTest(state, options=options):
                self.file.write_text(document(*rows))
                done = self.run_tool("--check", *options)
                self.assertEqual(done.returncode, status, done.stdout + done.stderr)
                self.assertTrue(done.stdout.startswith(f"OXEVENT {state} - "), done.stdout)
                self.assertIn(part, done.stdout.splitlines()[0])
                self.assertLessEqual(done.stdout.count("|"), 1)
        self.file.unlink()
        self.assertEqual(self.run_tool("--check").returncode, 3)

    def test_every_output_takes_hostile_strings(self):
        raw = document(row(HOSTILE, message=HOSTILE)).encode() + document(row("b\udcff"), header=False).encode(
            "utf-8", "surrogateescape")
        self.file.write_bytes(raw)
        self.assertEqual(self.keys(), [HOSTILE, "b\ufffd"])
        metrics = self.run_tool("--prometheus").stdout
        checked = subprocess.run(["promtool", "check", "metrics"], input=metrics, capture_output=True, text=True,
                                 check=False)
        self.assertEqual((checked.returncode, checked.stdout + checked.stderr), (0, ""), metrics)
        for options in ((), ("--check",), ("--history", HOSTILE)):
            lines = self.run_tool(*options).stdout
            self.assertTrue(all(line.isprintable() for line in lines.splitlines()), lines)

    def test_follow_survives_rotation_and_truncation(self):
        self.file.write_text(document(row("old")))
        follower = subprocess.Popen([TOOL, "--follow", "--since", "1h", self.file], stdout=subprocess.PIPE, bufsize=0)
        self.addCleanup(follower.stdout.close)
        self.addCleanup(follower.wait)
        self.addCleanup(follower.kill)

        def expect(key):
            self.assertTrue(select.select([follower.stdout], [], [], TIMEOUT_S)[0], f"no row of {key}")
            self.assertIn(f"  {key}  m", follower.stdout.readline().decode())

        def append(file, key):
            file.write(document(row(key), header=False))
            file.flush()
            expect(key)

        expect("old")
        with open(self.file, "a") as host:
            append(host, "before")
            self.file.rename(f"{self.file}.1")
            append(host, "renamed")
            self.file.write_text(document(row("new")))
            expect("new")
            append(host, "buffered")  # The library writes it after it has created the new file.
        with open(self.file, "a") as host:
            host.write(document(row("last"), header=False) + "65536,an incomplete row")
        expect("last")  # The tool has read everything before it flushes its output.
        os.truncate(self.file, 0)
        with open(self.file, "a") as host:
            append(host, "truncated")

    def test_page_shows_100000_rows_and_runs_none_of_them(self):
        actions = ("raise", "clear")
        rows = [row(f"k{number % 500}", actions[number // 500 % 2], 100000 - number, number, message=f"m {number}")
                for number in range(99998)]
        page = self.directory / "page.html"
        rows += [row(HOSTILE, message=HOSTILE, event_id=99998), row("last", event_id=99999)]
        self.file.write_text(document(*rows))
        self.assertEqual(self.run_tool("--html", page).returncode, 0)
        with Browser() as browser:
            browser.open(page.as_uri())
            count = ("[...document.querySelectorAll('%s')]"
                     ".filter(element => getComputedStyle(element).display !== 'none').length").__mod__
            self.assertEqual(browser.evaluate("document.title"), "Alarms in events.csv")
            self.assertEqual(browser.evaluate("performance.getEntriesByType('resource').length"), 0)
            self.assertEqual(browser.evaluate("document.images.length"), 0)
            self.assertEqual(browser.evaluate("document.getElementById('matches').value"), "100,000 events")
            self.assertEqual(browser.evaluate(count(".lane[data-rank]")), 502)
            self.assertLess(browser.evaluate(count("#events tbody tr")), 1000)
            events = browser.evaluate("document.querySelector('#events').innerText")
            self.assertIn("</script><script>document.title=", events)
            browser.evaluate("text.value = 'K499'; filter()")
            self.assertEqual(browser.evaluate("document.getElementById('matches').value"), "199 events")

    def test_page_counts_each_period_that_the_rows_touch(self):
        page = self.directory / "page.html"
        now_s = NOW // S
        bursts = now_s % 600 + 1, now_s % 600  # The last second of one period and the first of the next.
        rows = [row(f"{ago_s} {number}", ago_s=ago_s) for ago_s in bursts for number in range(11)]
        self.file.write_text(document(*rows))
        newest_iso = rows[-1][2]
        self.run_tool("--html", page, "--until", newest_iso)
        self.assertIn("2 (100.0%)", page.read_text())


if __name__ == "__main__":
    unittest.main()
