"""How oxevent-send reads its input, and what it reports: send_test.py [-v] [SendTest.test_NAME...]."""
import csv
import json
import os
import re
import signal
import socket
import subprocess
import tempfile
import threading
import unittest
from pathlib import Path

from receivers import await_, write_settings

TOOL = os.environ["OXEVENT_SEND"]
CSV = "sink\\csv\\default"
NATIVE = "sink\\native\\main"
WEBHOOK = "sink\\webhook\\http\\w"
CLOUDEVENTS = "sink\\cloudevents\\http\\c"
OFF = {"enabled": 0}

FIELDS = {
    "message": "m,\"\n", "severity": "error", "action": "raise", "event_type": "t", "source_id": "s",
    "source_name": "n", "dedupe_key": "k", "correlation_id": "c", "utc_ns": 18446744072999999999, "ptp_ns": 2**64 - 1,
    "pts": -2**63, "timecode": "01:02", "value": 0.1, "threshold": -2.5e-7, "units": "é", "duration_ms": 2**64 - 2,
    "details_json": '{"a": [1], "b": "\\u0000"}', "event_id": 2**64 - 3}
REFUSED_LINES = (  # Each with its column and the beginning of the error text.
    ('["m"]', "1: an event must be a JSON object"),
    ('{"message": "m" "n"}', "17: invalid JSON: Missing a comma or '}' after an object member\n"),
    ('{"message": "m"}\0', "17: invalid JSON: unexpected NUL byte"),
    ('{"details_json": ' + 10**6 * "[", "1000018: invalid JSON"),
    ('{"severity": "info"}', "1: message: is missing"),
    ('{"message": ""}', "1: message: is empty"),
    ('{"message": "\\u0000"}', "13: message: contains a NUL"),
    ('{"message": 5}', "13: message: must be a string\n"),
    ('{"version": {}}', "13: version: must not be an object"),
    ('{"message": "m", "message": "n"}', "18: message: appears twice"),
    ('{"version": "65536"}', "13: version: must be 65536"),
    ('{"unit": 1}', "2: unit: is not a field of an event; did you mean units?"),
    ('{"\\u0080\\u009f\\u001b\\u007f\\n\\r\\tÉ°": 1}', "2: \\xc2\\x80\\xc2\\x9f\\x1b\\x7f\\n\\r\\tÉ°: is not a field"),
    ('{"' + 600 * "x" + '": 1}', "2: " + 500 * "x" + "\n"),
    ('{"event_id": 18446744073709551616}', "14: event_id: '18446744073709551616' is not a whole number from 0"),
    ('{"severity": 2, "severity_code": 3}', "34: severity_code: contradicts"),
    ('{"severity_value": "x"}', "20: severity_value: must be a number\n"),
    ('{"details_json": 1}', "18: details_json: must be a string, an object"),
    ('{"utc_ns": true}', "12: utc_ns: must be a number or a string"))
INVALID_ARGUMENTS = (  # The arguments after the settings file, and the error text.
    ("", "MESSAGE is missing; see oxevent-send --help"),
    ("m n", "'n' is one argument too many: SETTINGS is 'settings.xml', MESSAGE is 'm'"),
    ("m -x", "-x: no such option"),
    ("m --source x", "--source: ambiguous option"),
    ("m --severity", "--severity: requires a value"),
    ("m --severity 4", "--severity: '4' is not one of debug, info, warning, error or 0 to 3"),
    ("m --value x", "--value: 'x' is not a number"),
    ("m --quiet=1", "--quiet: takes no value"),
    ("m --count 0", "--count: '0' is not a whole number from 1 to 18446744073709551615"),
    ("m --rate 0.0009", "--rate: '0.0009' is not a number from 0.001 to 1e+06"),
    ("- --count 2", "--count: cannot be combined with events from standard input"))
TIMES = {  # Nanoseconds since 1970. Includes the leap second of an example in RFC 3339.
    "1": 1, "18446744073709551615": 2**64 - 1,
    "1970-01-01T00:00:00.000000001Z": 1, "2554-07-21T23:34:32.999999999Z": 18446744072999999999,
    "1970-01-02 23:59:01.5+23:59": 864015 * 10**8, "1969-12-31T00:01:02-23:59": 2 * 10**9,
    "2024-02-29t23:59:59.5z": 1709251199500000000, "1990-12-31T15:59:60-08:00": 662688000 * 10**9}
INVALID_TIMES = (
    "", "-1", "18446744073709551616", "2026-03-01T12:00:00", "2026-03-01T12:00Z", "2026-03-01T12:00:00Zx",
    "2026-3-01T12:00:00Z", "1969-12-31T23:59:59Z", "2554-07-21T23:34:33Z", "2026-00-01T00:00:00Z",
    "2026-02-29T00:00:00Z", "2026-03/01T00:00:00Z", "2026-03-01T24:00:00Z", "2026-03-01T12.00:00Z",
    "2026-03-01T12:00:00.5", "2026-03-01T23:60:00Z", "2026-03-01T23:59:61Z", "2026-03-01T12:00:60Z",
    "2026-03-01T12:00:00.Z", "2026-03-01T12:00:00.0000000001Z", "2026-03-01T12:00:00+24:00", "2026-03-01T12:00:00-0100")


class SendTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.directory = self.enterContext(tempfile.TemporaryDirectory())
        for number in (signal.SIGHUP, signal.SIGINT):  # A background job inherits them as ignored.
            signal.signal(number, signal.SIG_DFL)

    def webhook(self, *statuses):
        """Returns settings of a webhook sink whose server responds with these statuses, and then no more."""
        server = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(server.close)

        def serve():
            for status in statuses:
                with server.accept()[0] as connection:
                    while not connection.recv(65536).endswith(b"}"):
                        pass
                    response = f"HTTP/1.1 {status} Status\r\nConnection: close\r\nContent-Length: 0\r\n\r\n"
                    connection.sendall(response.encode())

        threading.Thread(target=serve, daemon=True).start()
        url = f"http://127.0.0.1:{server.getsockname()[1]}/"
        return {"enabled": 1, "endpoint_url": url, "request_timeout_ms": 600000}

    def start(self, *arguments, sections={}, launcher=(), **options):
        """Starts the tool with settings of a CSV sink and of these sections. `launcher`: a command that runs it."""
        csv_sink = {"enabled": 1, "path": "events.csv", "flush_each_event": 1}
        write_settings(f"{self.directory}/settings.xml", {NATIVE: OFF, CSV: csv_sink} | sections)
        pipes = dict.fromkeys(("stdin", "stdout", "stderr"), subprocess.PIPE)
        command = [*launcher, TOOL, "settings.xml", *arguments]
        return subprocess.Popen(command, cwd=self.directory, encoding="utf-8", **pipes | options)

    def send(self, *arguments, status=0, lines=(), sections={}, **options):
        """Runs the tool and returns its output, its errors, and the rows that it has added."""
        before = len(self.rows())
        process = self.start(*arguments, sections=sections, **options)
        output, errors = process.communicate("\n".join(lines), timeout=120)
        self.assertEqual(process.returncode, status, f"{output}{errors}")
        return output, errors, self.rows()[before:]

    def rows(self):
        path = Path(self.directory, "events.csv")
        path.touch()
        with path.open(encoding="utf-8", newline="") as file:
            return list(csv.DictReader(file))

    def test_every_field_survives(self):
        options = []
        for name, value in FIELDS.items():
            if name != "message":
                options += ["--" + name.replace("_", "-").replace("utc-ns", "utc"), str(value)]
        document = json.dumps(FIELDS | {"version": 65536, "severity_value": 3, "severity_code": 3})
        with_object = document.replace(json.dumps(FIELDS["details_json"]), FIELDS["details_json"])
        for arguments, lines in (([FIELDS["message"], *options], []), (["-"], [document]), (["--json"], [with_object])):
            (row,) = self.send(*arguments, lines=lines)[2]
            self.assertEqual({name: type(value)(row[name]) for name, value in FIELDS.items()}, FIELDS)

    def test_times_follow_rfc_3339_and_fit_64_bits(self):
        lines = [json.dumps({"message": "m", "utc_ns": time}) for time in [*TIMES, *INVALID_TIMES]]
        output, errors, rows = self.send("-", lines=lines, status=1)
        self.assertEqual([int(row["utc_ns"]) for row in rows], list(TIMES.values()))
        refused = re.findall(r"^oxevent-send: line \d+, column 28: utc_ns: '(.*)' is n", errors, re.MULTILINE)
        self.assertEqual(refused, list(INVALID_TIMES))

    def test_refused_lines_are_reported_and_the_others_sent(self):
        lines = [line for line, _ in REFUSED_LINES]
        good = [" ", '{"message": "m", "units": null}', '{"message": "last", "source_id": "t"}']
        output, errors, rows = self.send("-", "--source-id", "s", lines=lines + good, status=1)
        for number, ((line, expected), error) in enumerate(zip(REFUSED_LINES, errors.splitlines(True)), 1):
            with self.subTest(line[:100]):
                self.assertIn(f"oxevent-send: line {number}, column {expected}", error)
        self.assertIn(f"refused: {len(REFUSED_LINES)}\n", errors)
        self.assertIn(f"{CSV}: 2 written to", output)
        self.assertEqual([(row["message"], row["source_id"]) for row in rows], [("m", "s"), ("last", "t")])

    def test_invalid_command_lines(self):
        for arguments, error in INVALID_ARGUMENTS:
            with self.subTest(arguments):
                self.assertEqual(self.send(*arguments.split(), status=2), ("", f"oxevent-send: {error}\n", []))
        self.assertEqual(self.send("", status=2)[1], "oxevent-send: MESSAGE is empty\n")
        done = subprocess.run([TOOL], stderr=subprocess.PIPE, text=True, check=False)
        self.assertEqual(done.stderr, "oxevent-send: SETTINGS is missing; see oxevent-send --help\n")

    def test_settings_with_which_the_library_does_not_start(self):
        error = self.send("m", sections={"core": {"drop_policy": "x"}}, status=2)[1]
        self.assertRegex(error, "^oxevent-send: Invalid .*\n    Set it to drop_newest")
        self.assertRegex(self.send("m", launcher=["env", "-C", "/"], status=2)[1], "settings.xml\n    No such file; an")

    def test_output_that_cannot_be_written_is_a_failure(self):
        error = "oxevent-send: standard output: No space left on device\n"
        with open("/dev/full", "w") as full:
            self.assertEqual(self.send("--help", stdout=full, status=1)[1], error)
            self.assertEqual(self.send("m", stdout=full, status=1)[1], error)
            self.assertEqual(self.send("m", "--quiet", stdout=full)[1], "")

    def test_nothing_is_lost_to_a_full_queue(self):
        messages = [f"{number:0300}" for number in range(500)]  # More than the tool reads at a time.
        lines = [json.dumps({"message": message}) for message in messages]
        output, errors, rows = self.send("-", lines=lines, sections={"core": {"queue_size": 1}})
        self.assertEqual([row["message"] for row in rows], messages)
        self.assertEqual((output.splitlines()[:2], errors), (["submitted: 500", "emitted: 500"], ""))

    def test_reports_what_each_sink_did(self):
        warnings = {"enabled": 1, "minimum_severity": "warning"}
        cloudevents = self.webhook(200, 200) | warnings
        sections = {
            "core": {"minimum_severity": "debug"},
            CSV: warnings | {"path": "./events.csv"},
            NATIVE: {"enabled": 1, "minimum_severity": "error"},
            WEBHOOK: self.webhook(500, 200) | warnings,
            CLOUDEVENTS: cloudevents,
            "sink\\syslog\\udp\\off": OFF,
            "sink\\syslog\\udp\\u": warnings | {"host": "", "port": 0},
            "sink\\snmp\\trap\\t": warnings | {"host": "localhost", "port": 0}}
        lines = [f'{{"message": "m", "severity": {severity}}}' for severity in (0, 2, 2)]
        output, errors, _ = self.send("-", lines=lines, sections=sections, status=1)
        udp = "by UDP, which does not confirm delivery"
        self.assertEqual(set(output.splitlines()), {
            "submitted: 3",
            "emitted: 3",
            f"{CSV}: 2 written to {self.directory}/events.csv",
            f"{NATIVE}: 0: every event is below its minimum_severity (error)",
            f"{CLOUDEVENTS}: 2 accepted by {cloudevents['endpoint_url']}",
            f"sink\\syslog\\udp\\u: 2 sent to 127.0.0.1 port 514 {udp}",
            f"sink\\snmp\\trap\\t: 2 sent to localhost port 162 {udp}"})
        self.assertRegex(errors, r"^oxevent-send: sink\\webhook\\http\\w: 1 of 2 failed: .* 500\)\n    .*run curl.*\n"
                         "oxevent-send: reached no sink: 1, below the minimum_severity of .* that delivers events\n$")

    def test_reports_why_events_were_not_delivered(self):
        stuck = {WEBHOOK: self.webhook(), "core": {"queue_size": 1}}
        alerts = {"sink\\alertmanager\\a": {"enabled": 1}}
        burst = "m --count 500 --rate 1000000 --wait 2"
        for sections, arguments, expected in (
                ({"core": OFF}, "m", r"0 written to .*\n.*dropped: 1, core\\enabled is off\n"),
                ({}, "m --severity 0 --action rise", r"rise is none .*\n.* 1, below core\\minimum_severity \(info\)\n"),
                (stuck, burst, r"dropped: 49[89], the queue was full \(core\\queue_size is 1\)\n.*given up: [12] "),
                ({WEBHOOK: self.webhook() | {"request_timeout_ms": 9}}, "m", "no response, although the endpoint"),
                ({WEBHOOK: {"enabled": 1, "endpoint_url": "http://127.0.0.1:1/"}}, "m", "Failed to connect to 127"),
                ({}, "m --count 3 --action raise --quiet", "^oxevent-send: dropped: 2, suppressed as a duplicate, or "),
                ({"state": {"send_clear": 0}}, "m --action clear", r"as a clear \(state\\send_clear is off\), or"),
                ({CSV: {"enabled": 1, "path": "/dev/full"}}, "m --count 2 --action raise --wait 9",
                 r"dropped: 1, .*\noxevent-send: sink\\csv\\default: failed: .*\n    .*\n$"),
                ({CSV: OFF} | alerts, "m --severity error", "1 formatted, not sent: .*\n.*no sink that delivers .*: ")):
            with self.subTest(expected):
                output, errors, _ = self.send(*arguments.split(), sections=sections, status=1)
                self.assertRegex(output + errors, expected)
                self.assertNotIn("\x1b", errors, "shows the progress, but not on a terminal")

    def test_reports_whether_there_is_a_system_log(self):
        path = f"{self.directory}/log"
        command = 'mount -t tmpfs none /dev && ln -s "$0" /dev/log && exec "$@"'
        native = {"sections": {NATIVE: {"enabled": 1}},
                  "launcher": ["unshare", "--map-root-user", "-m", "sh", "-c", command, path]}
        self.assertRegex(self.send("m", status=1, **native)[1],
                         r"^oxevent-send: sink\\native\\main: cannot connect to /dev/log \(No such file .*\)")
        for kind in socket.SOCK_STREAM, socket.SOCK_DGRAM:
            with self.subTest(kind), socket.socket(socket.AF_UNIX, kind) as log:
                Path(path).unlink(missing_ok=True)
                log.bind(path)
                if kind == socket.SOCK_STREAM:
                    log.listen()
                self.assertIn("1 handed to the system log", self.send("m", **native)[0])

    def test_closed_descriptors_do_not_become_those_of_sinks(self):
        errors = self.send("-", status=1, preexec_fn=lambda: os.close(0))[1]
        self.assertEqual(errors, "oxevent-send: line 1: read: Bad file descriptor\noxevent-send: refused: 1\n")
        process = self.start("-", preexec_fn=lambda: os.closerange(1, 3))
        process.communicate('{"mesage": 1}\n{"message": "unmixed"}')
        self.assertEqual([row["message"] for row in self.rows()], ["unmixed"])

    def test_lines_have_at_most_64_mib(self):
        longest = '{"message": "m"'.ljust((64 << 20) - 1) + "}"
        too_long = "x" * ((64 << 20) + 131072)
        errors = self.send("-", lines=[longest, too_long], status=1)[1]
        self.assertEqual(errors, "oxevent-send: line 2: longer than 64 MiB\noxevent-send: refused: 1\n")

    def test_a_signal_stops_the_reporting(self):
        stuck = {WEBHOOK: self.webhook()}
        for number, launcher, arguments, sections, expected in (
                (signal.SIGTERM, ["nohup"], "-", {}, "emitted: 1\n(?s:.*)stopped by SIGTERM\n$"),
                (signal.SIGHUP, [], "m --count 2 --rate 0.001", {}, "emitted: 1\n(?s:.*)stopped by SIGHUP\n$"),
                (signal.SIGINT, [], "m --wait 1", stuck, "stopped by SIGINT\n.*given up: 1 still waiting")):
            with self.subTest(number.name):
                before = len(self.rows())
                process = self.start(*arguments.split(), sections=sections, launcher=launcher)
                process.stdin.write('{"message": "m"}\n{"message": "torn')
                process.stdin.flush()
                await_("a row", lambda: len(self.rows()) > before)
                await_("a pause", lambda: "\nState:\tS" in Path(f"/proc/{process.pid}/status").read_text())
                process.send_signal(number)
                self.assertRegex("".join(process.communicate(timeout=60)), expected)
                self.assertEqual(process.returncode, -number)


if __name__ == "__main__":
    unittest.main()
