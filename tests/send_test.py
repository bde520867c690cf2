"""How oxevent-send reads command lines and JSON lines, and what it reports: send_test.py [-v] [Test.test_NAME...]."""
import contextlib, csv, io, json, os, re, resource, signal, socket, subprocess, sys, tempfile, threading, unittest
from pathlib import Path

sys.path.append(sys.path[0] + "/../scripts")
import receivers

ALL = {"message": "m,\"\n", "severity": "error", "action": "raise", "event_type": "t", "source_id": "s", "source_name": "n",
       "dedupe_key": "k", "correlation_id": "c", "utc_ns": 18446744072999999999, "ptp_ns": 2**64 - 1, "pts": -(2**63),
       "timecode": "01:02", "value": 0.1, "threshold": -2.5e-7, "units": "é", "duration_ms": 2**64 - 2, "event_id": 2**64 - 3,
       "details_json": '{"a": [1, "\\u0000"]}'}
OPTIONS = [word for name, value in ALL.items() if name != "message" for word in
           ("--" + {"utc_ns": "utc"}.get(name, name.replace("_", "-")), str(value))]
DOCUMENT = ALL | {"version": 65536, "severity_value": 3, "severity_code": 3}  # As the webhook sink sends it.
REFUSED = {  # A line, and the expected message.
    '{"version": 2}': "13: version: must be", '{"message": ""}': "1: message: is", '{"message": "\\u0000"}': "13: message: contains a NUL",
    '{"xqts": 1}': "2: xqts: is not a field of an event\n", '{"unit": 1}': "2: unit: is not a field of an event; did you mean units?",
    '{"ptss": 1}': "2: ptss: is not a field of an event; did you mean pts?", '{"version": "65536"}': "13: version: must be 65536",
    '{"message": "m", "\\u009b\\u001b\\u007f\\n\\r\\tÉ": 1}': "18: \\xc2\\x9b\\x1b\\x7f\\n\\r\\tÉ: is not a field of an event",
    '{"message": "m", "message": "n"}': "18: message: appears twice", '{"message": 5}': "13: message: must be a string",
    '{"message": "m", "event_id": 18446744073709551616}': "30: event_id: '18446744073709551616' is not a whole number from 0",
    '{"message": {}}': "13: message: must not be an", '{"message": "m", "value": "1"}': "27: value: must be a number",
    '{"message": "m", "pts": 1.5}': "25: pts: '1.5' is no", '{"message": "m", "severity": "loud"}': "30: severity: 'loud' is not one",
    '{"severity": 2, "severity_code": 3, "message": "m"}': "34: severity_code: contradicts", "5": "1: an event must be a JSON object",
    '{"message": "m" "n"}': "17: invalid JSON: Missing a comma or '}' after an object member\n", "[" * 10**6: "1: an event must be a JSON object",
    '{"severity": "info"}': "1: message: is missing", '["m"]': "1: an event must be a JSON object", '{"message": "m"}\0': "17: invalid JSON: unexpected NUL byte",
    '{"details_json": 1}': "18: details_json: must be a string, an", '{"severity_value": "x"}': "20: severity_value: must be a number",
    '{"utc_ns": true}': "12: utc_ns: must be a number or", '{"' + "x" * 600 + '": 1}': "2: " + "x" * 500 + "\n"}
USAGE = (  # Arguments after the settings file, and the expected message.
    ("m --severty 1", "--severty: no such option; did you mean --severity?"), ("m -x", "-x: no such option"),
    ("m --rqtx 1", "--rqtx: no such option; did you mean --rate?"), ("m --rqxy=1", "--rqxy: no such option"),
    ("m --source x", "--source: ambiguous option"), ("m --severity", "--severity: requires a value"),
    ("m --quiet=1", "--quiet: takes no value"), ("- --count 2", "--count: cannot be combined with events from standard input"),
    ("m n", "'n' is one argument too many: SETTINGS is 'settings.xml', MESSAGE is 'm'"),
    ("", "MESSAGE is missing; see oxevent-send --help"), ("m --value nan", "--value: 'nan' is not a number"),
    ("m --severity 4", "--severity: '4' is not one of debug, info, warning, error or 0 to 3"),
    ("m --count 0", "--count: '0' is not a whole number from 1 to 18446744073709551615"),
    ("m --rate 0.0009", "--rate: '0.0009' is not a number from 0.001 to 1e+06"))
TIMES = {  # Nanoseconds since 1970. Includes the leap second of the RFC 3339 example.
    "1": 1, "18446744073709551615": 2**64 - 1, "1970-01-01T00:00:00.000000001Z": 1, "1970-01-02 23:59:01.5+23:59": 864015 * 10**8,
    "1969-12-31T00:01:02-23:59": 2 * 10**9, "2024-02-29t23:59:59.5z": 1709251199500000000,
    "1990-12-31T15:59:60-08:00": 662688000 * 10**9, "2554-07-21T23:34:32.999999999Z": 18446744072999999999}
NO_TIMES = (
    "", "-1", "18446744073709551616", "2026-03-01T12:00:00", "2026-03-01T12:00Z", "2026-03-01T12:00:00Zx", "2026-3-01T12:00:00Z",
    "1969-12-31T23:59:59Z", "2554-07-21T23:34:33Z", "2026-00-01T00:00:00Z", "2026-02-29T00:00:00Z", "2026-03/01T00:00:00Z",
    "2026-03-01T24:00:00Z", "2026-03-01T12.00:00Z", "2026-03-01T23:60:00Z", "2026-03-01T23:59:61Z", "2026-03-01T12:00:60Z",
    "2026-03-01T12:00:00.Z", "2026-03-01T12:00:00.0000000001Z", "2026-03-01T12:00:00+24:00", "2026-03-01T12:00:00-0100")
CSV, WEBHOOK, OFF = "sink\\csv\\default", "sink\\webhook\\http\\w", {"enabled": 0}


class Test(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())
        for number in signal.SIGHUP, signal.SIGINT:  # Background jobs inherit these as ignored.
            signal.signal(number, signal.SIG_DFL)

    def call(self, *arguments):
        command = [os.environ["OXEVENT_SEND"], *arguments]
        return subprocess.run(command, cwd=self.folder, capture_output=True, encoding="utf-8")

    def webhook(self, *answers):  # A sink whose server gives these answers, then none.
        server = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(server.close)
        def serve():
            for status in answers:
                with server.accept()[0] as connection:
                    while not connection.recv(65536).endswith(b"}"):
                        pass
                    connection.sendall(b"HTTP/1.1 %d Answer\r\nConnection: close\r\nContent-Length: 0\r\n\r\n" % status)
        threading.Thread(target=serve, daemon=True).start()
        return {"enabled": 1, "endpoint_url": "http://127.0.0.1:%d/" % server.getsockname()[1], "request_timeout_ms": 600000}

    def start(self, arguments, sections={}, **streams):
        sections = {"sink\\native\\main": OFF, CSV: {"enabled": 1, "path": "events.csv", "flush_each_event": 1}} | sections
        receivers.write_settings(self.folder + "/settings.xml", sections)
        pipes = dict.fromkeys(("stdin", "stdout", "stderr"), subprocess.PIPE)
        return subprocess.Popen([os.environ["OXEVENT_SEND"], "settings.xml", *arguments], cwd=self.folder,
                                encoding="utf-8", **pipes | streams)

    def send(self, status, arguments, lines=(), sections={}):  # Gives stdout, stderr, and the rows that are new.
        before = len(self.rows())
        process = self.start(arguments, sections)
        out, error = process.communicate("\n".join(lines), timeout=120)
        self.assertEqual(process.returncode, status, out + error)
        return out, error, self.rows()[before:]

    def rows(self):
        path = Path(self.folder, "events.csv")
        return [*csv.DictReader(io.StringIO(path.read_text("utf-8"), newline=""))] if path.exists() else []

    def test_every_field_survives(self):
        object = json.dumps(DOCUMENT | {"details_json": 0}).replace('"details_json": 0', '"details_json": ' + ALL["details_json"])
        for arguments, lines in (([ALL["message"], *OPTIONS], ()), (["-"], [json.dumps(DOCUMENT)]), (["--json"], [object])):
            row = self.send(0, arguments, lines)[2][0]
            numbers = {name: type(value)(row[name]) for name, value in ALL.items() if type(value) is not str}
            self.assertEqual({name: row[name] for name in ALL} | numbers, ALL)
        row = self.send(0, ["default", "--source-id", "s"], ['{"units": null}'])[2]  # Standard input is not read.
        self.assertEqual([(r["message"], r["source_id"], r["severity"]) for r in row], [("default", "s", "info")])

    def test_times_are_those_of_rfc_3339_and_of_64_bits(self):
        lines = [json.dumps({"message": "m", "utc_ns": time}) for time in [*TIMES, *NO_TIMES]]
        out, error, rows = self.send(1, ["-"], lines)
        self.assertEqual([int(row["utc_ns"]) for row in rows], [*TIMES.values()])
        refused = re.findall(r"^oxevent-send: line \d+, column 28: utc_ns: '(.*)' is n", error, re.M)
        self.assertEqual(refused, [*NO_TIMES])

    def test_what_is_refused_is_named_and_the_rest_goes_out(self):
        out, error, rows = self.send(1, ["-", "--source-id", "s"], [*REFUSED, " ", '{"message":"last","source_id":"t","pts":null}'])
        for number, (said, line) in enumerate(zip(REFUSED.values(), error.splitlines(), strict=False), 1):
            self.assertIn(f"line {number}, column {said}", line + "\n")
        self.assertIn(f"refused: {len(REFUSED)}\n", error)
        self.assertEqual([(row["message"], row["source_id"]) for row in rows], [("last", "t")])

    def test_a_command_line_that_cannot_be_followed_is_explained_in_one_line(self):
        for arguments, said in USAGE:
            with self.subTest(arguments):
                self.assertEqual(self.send(2, arguments.split())[:2], ("", f"oxevent-send: {said}\n"))
        self.assertEqual(self.call().stderr, "oxevent-send: SETTINGS is missing; see oxevent-send --help\n")
        self.assertEqual(self.call("settings.xml", "").stderr, "oxevent-send: MESSAGE is empty\n")

    def test_settings_that_do_not_start_the_library_are_explained(self):
        self.assertRegex(self.send(2, ["m"], (), {"core": {"drop_policy": "x"}})[1], "^oxevent-send: Invalid .*\n    Set it to")
        self.assertRegex(self.call("none.xml", "m").stderr, "^oxevent-send: Unable .*\n    No such file;")
        self.assertRegex(self.call(256 * "x", "m").stderr, "^oxevent-send: Unable .*\n    Check with namei")

    def test_help_and_version_go_to_standard_output(self):
        self.assertRegex(self.send(0, ["--version"])[0], r"^oxevent-send \d+\.\d+\.\d+\n$")
        self.assertRegex(self.send(0, ["--help"])[0], "(?s)^Usage: .*\n\nFields of the event:\n  --severity NAME[|]NUMBER    debug, "
                         ".*\n\nReporting:\n  --json                    read .* 60,\n {28}0: never\\)\n.*\nExit status:\n  0 .*\n  2 .*\n$")

    def test_output_that_cannot_be_written_is_a_failure(self):
        with open("/dev/full", "w") as full:
            for arguments, status in (["--help"], 1), (["m"], 1), (["m", "--quiet"], 0):
                process = self.start(arguments, stdout=full)
                said = status * "oxevent-send: standard output: No space left on device\n"
                self.assertEqual((process.communicate()[1], process.returncode), (said, status))

    def test_nothing_is_lost_to_a_full_queue(self):
        messages = [f"{i:0300}" for i in range(500)]  # More than is read at once.
        lines = [json.dumps({"message": message}) for message in messages]
        out, error, rows = self.send(0, ["-"], lines, {"core": {"queue_size": 1}})
        self.assertEqual([row["message"] for row in rows], messages)
        self.assertEqual((out.splitlines()[:2], error), (["submitted: 500", "emitted: 500"], ""))

    def test_the_report_says_what_each_sink_did(self):
        on = {"enabled": 1, "minimum_severity": "warning"}
        cloud = self.webhook(200, 200) | on
        sinks = {"core": {"minimum_severity": "debug"}, CSV: on | {"path": "./events.csv"}, "sink\\cloudevents\\http\\c": cloud,
                 "sink\\syslog\\udp\\a": OFF, "sink\\syslog\\udp\\u": on | {"host": "", "port": 0}, "sink\\alertmanager\\main": on,
                 "sink\\snmp\\trap\\t": on | {"host": "localhost", "port": 0}, WEBHOOK: self.webhook(500, 200) | on,
                 "sink\\native\\main": {"enabled": 1, "minimum_severity": "error"}}
        out, error, _ = self.send(1, ["-"], [f'{{"message": "m", "severity": {severity}}}' for severity in (0, 2, 2)], sinks)
        udp = "by UDP, which does not confirm delivery"
        self.assertEqual({*out.splitlines()}, {
            "submitted: 3", "emitted: 3", f"{CSV}: 2 written to {self.folder}/events.csv",
            f"sink\\syslog\\udp\\u: 2 sent to 127.0.0.1 port 514 {udp}", f"sink\\snmp\\trap\\t: 2 sent to localhost port 162 {udp}",
            "sink\\cloudevents\\http\\c: 2 accepted by " + cloud["endpoint_url"],
            "sink\\alertmanager\\main: 2 formatted, not sent: posting them is the host's task",
            "sink\\native\\main: 0, all are below its minimum_severity (error)"})
        self.assertRegex(error, r"^oxevent-send: sink\\webhook\\http\\w: 1 of 2 failed: .* POST failed.*\n    Run curl.*\n"
                         "oxevent-send: reached no sink: 1, below the minimum_severity of every enabled sink\n$")

    def test_what_did_not_go_out_is_told_with_its_reason(self):
        small = {"core": {"queue_size": 1}, WEBHOOK: self.webhook()}
        displacing = small | {"core": {"queue_size": 1, "drop_policy": "drop_debug_info_first"}}
        burst = "m --count 500 --rate 1000000 --wait 1"
        for sections, arguments, said in (
                ({"core": OFF}, "m", r"default: 0 written to .*\n.*dropped: 1, core\\enabled is off\n"),
                ({}, "m --severity debug", r"dropped: 1, below core\\minimum_severity \(info\)\n"),
                ({"core": {"minimum_severity": "debug"}}, "m --severity 0", r"0, all are below (?s:.*)reached no sink: 1, below"),
                (small, burst, r"dropped: 49[89], the queue was full \(core\\queue_size is 1\)\n(?s:.*)given up: [12] still"),
                (displacing, burst, "dropped: 49[89], the queue was full, and a newer event replaced it\n"),
                ({}, "m --count 3 --action raise --quiet", "^oxevent-send: dropped: 2, suppressed as a duplicate, or as a"),
                ({"state": {"send_clear": 0}}, "m --action clear", r"as a clear \(state\\send_clear is off\), or as a clear or"),
                ({CSV: OFF}, "m --count 1", "emitted: 1\n.*no sink is enabled: no event was delivered\n")):
            with self.subTest(said):
                self.assertRegex("".join(self.send(1, arguments.split(), (), sections)[:2]), said)

    def test_a_file_that_cannot_be_written_has_failed(self):
        limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (50000, 50000))
        said = "".join(self.start(["m" * 60000, "--count", "2", "--action", "raise"], preexec_fn=limit).communicate())
        self.assertRegex(said, r"emitted: 1\noxevent-send: dropped: 1, .*\noxevent-send: sink\\csv\\default: failed: .*\n    .*\n$")

    def test_progress_is_shown_on_a_terminal_until_the_report(self):
        for arguments, answers, said in (
                ("--count 1", (), r"(\r1 submitted, 0 emitted\x1b\[K)+\r\x1b\[Koxevent-send: given up: 1"),
                ("--count 2", (), r"(\r2 of 2 submitted, 0 emitted\x1b\[K)+\r\x1b\[Koxevent-send: given up: 2"),
                ("--count 2 --quiet", (200,), "oxevent-send: given up: 1")):
            reader, terminal = os.openpty()
            process = self.start(["m", "--wait", "3", *arguments.split()], {WEBHOOK: self.webhook(*answers)}, stderr=terminal)
            os.close(terminal)
            shown = b""
            with contextlib.suppress(OSError):  # The terminal's other end is closed.
                while part := os.read(reader, 65536):
                    shown += part
            process.communicate()
            self.assertRegex(shown.decode(), "^" + said)

    def test_descriptors_that_are_closed_do_not_become_those_of_sinks(self):
        error = self.start(["-"], preexec_fn=lambda: os.close(0)).communicate()[1]
        self.assertEqual(error, "oxevent-send: line 1: read: Bad file descriptor\noxevent-send: refused: 1\n")
        process = self.start(["-"], preexec_fn=lambda: os.closerange(1, 3))
        process.communicate('{"mesage": 1}\n{"message": "unmixed"}')
        self.assertEqual([row["message"] for row in self.rows()], ["unmixed"])

    def test_lines_have_up_to_64_mib(self):
        longest = '{"message": "m"'.ljust((64 << 20) - 1) + "}\n"
        error = self.start(["-"]).communicate(longest + "x" * ((64 << 20) + 131072))[1]
        self.assertEqual(error, "oxevent-send: line 2: longer than 64 MiB\noxevent-send: refused: 1\n")

    def test_a_signal_ends_it_with_what_was_reported(self):
        nohup = lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN)
        for number, arguments, sections, before, said in (
                (signal.SIGTERM, "-", {}, nohup, "emitted: 1\n(?s:.*)stopped by SIGTERM\n$"),
                (signal.SIGHUP, "m --count 2 --rate 0.001", {}, None, "emitted: 1\n(?s:.*)stopped by SIGHUP\n$"),
                (signal.SIGINT, "m --wait 1", {WEBHOOK: self.webhook()}, None, "stopped by SIGINT\n.*given up: 1 still waiting")):
            with self.subTest(number.name):
                rows = len(self.rows())
                process = self.start(arguments.split(), sections, preexec_fn=before)
                process.stdin.write('{"message": "m"}\n{"message": "torn')
                process.stdin.flush()
                receivers.await_("a row", lambda: len(self.rows()) > rows)
                receivers.await_("a pause", lambda: "\nState:\tS" in Path(f"/proc/{process.pid}/status").read_text())
                process.send_signal(number)
                self.assertRegex("".join(process.communicate(timeout=60)), said)
                self.assertEqual(process.returncode, -number)

    def test_a_second_signal_ends_it_at_once(self):
        process = self.start("m --wait 0".split(), {WEBHOOK: self.webhook()})
        receivers.await_("the event", self.rows)
        process.send_signal(signal.SIGTERM)
        caught = lambda: int(re.search(r"SigCgt:\t(\w+)", Path(f"/proc/{process.pid}/status").read_text())[1], 16)
        receivers.await_("the first signal", lambda: not caught() & 1 << signal.SIGTERM - 1)
        process.send_signal(signal.SIGTERM)
        self.assertEqual((process.communicate(timeout=60), process.returncode), (("", ""), -signal.SIGTERM))


if __name__ == "__main__":
    unittest.main()
