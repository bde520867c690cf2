"""What oxevent-send makes of command lines and JSON lines, and what it says became of them."""
import csv, json, os, re, signal, socket, subprocess, sys, tempfile, unittest

sys.path.append(sys.path[0] + "/../scripts")
import receivers

ALL = {"message": "m,\"\n", "severity": "error", "action": "raise", "event_type": "t", "source_id": "s", "source_name": "n",
       "dedupe_key": "k", "correlation_id": "c", "utc_ns": 18446744072999999999, "ptp_ns": 2**64 - 1, "pts": -(2**63),
       "timecode": "01:02", "value": 0.1, "threshold": -2.5e-7, "units": "é", "duration_ms": 2**64 - 2, "event_id": 2**64 - 3,
       "details_json": '{"a": [1, "\\u0000"]}'}
OPTIONS = [word for name, value in ALL.items() if name != "message" for word in
           ("--" + {"utc_ns": "utc"}.get(name, name.replace("_", "-")), str(value))]
DOCUMENT = ALL | {"version": 65536, "severity_value": 3, "severity_code": 3}  # As the webhook sink sends it.
REFUSED = {  # A line, and what is said of it.
    '{"message": "m", "sevrity": 1}': "18: sevrity: is no field of an event; did you mean severity?",
    '{"message": "m", "\\u001b[2J\\u009b2Jé": 1}': "18: \\x1b[2J\\xc2\\x9b2Jé: is no field of an event",
    '{"message": "m", "message": "n"}': "18: message: is there twice",
    '{"message": 5}': "13: message: must be a text",
    '{"message": "\\u0000"}': "13: message: holds a NUL",
    '{"message": "m", "event_id": 18446744073709551616}': "30: event_id: '18446744073709551616' is not a whole number from 0",
    '{"message": "m", "pts": 1.5}': "25: pts: '1.5' is not a whole number",
    '{"message": "m", "value": "1"}': "27: value: must be a number",
    '{"message": "m", "severity": "loud"}': "30: severity: 'loud' is none of",
    '{"severity": 2, "severity_code": 3, "message": "m"}': "34: severity_code: contradicts",
    '{"message": "m", "version": 2}': "29: version: must be 65536",
    '{"message": "m", "utc_ns": "2026-02-29T00:00:00Z"}': "28: utc_ns: '2026-02-29T00:00:00Z' is neither",
    '{"severity": "info"}': "1: message: is missing", '["m"]': "1: an event is an object", '{"message": "m" "n"}': "17: no JSON",
    '{"message": "m"}\0': "17: no JSON: a NUL", "[" * 10**6: "1: an event is an object"}
USAGE = (  # Arguments behind the settings file, and what is said of them.
    ("m --severty 1", "--severty: no such option; did you mean --severity"), ("m --pts", "--pts: its value is missing"),
    ("m --quiet=1", "--quiet: takes no value"), ("m --pts 9223372036854775808", "--pts: '9223372036854775808' is not"),
    ("m n", "'n' is one argument too many"), ("- --count 2", "--count: not with"), ("", "MESSAGE is missing"),
    ("m --utc 2026-13-01T00:00:00Z", "--utc: '2026-13-01"), ("m --rate 0", "--rate: '0' is not a number from"))


class Test(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)

    def start(self, arguments, sections={}):
        file, off = self.folder.name + "/settings.xml", {"enabled": 0}
        receivers.write_settings(file, {"sink\\native\\main": off, "sink\\csv\\default": {
            "enabled": 1, "path": self.folder.name + "/events.csv", "flush_each_event": 1}} | sections)
        return subprocess.Popen([os.environ["OXEVENT_SEND"], file, *arguments], stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, encoding="utf-8")

    def send(self, status, arguments, lines=(), sections={}):  # Gives stdout, stderr, and the rows that are new.
        before = len(self.rows())
        process = self.start(arguments, sections)
        out, error = process.communicate("\n".join(lines), timeout=120)
        self.assertEqual(process.returncode, status, out + error)
        return out, error, self.rows()[before:]

    def rows(self):
        path = self.folder.name + "/events.csv"
        if not os.path.exists(path):
            return []
        with open(path, newline="", encoding="utf-8") as file:
            return [*csv.DictReader(file)]

    def test_every_field_survives(self):
        object = json.dumps(DOCUMENT | {"details_json": 0}).replace('"details_json": 0', '"details_json": ' + ALL["details_json"])
        for arguments, lines in (([ALL["message"], *OPTIONS], ()), (["-"], [json.dumps(DOCUMENT)]), (["--json"], [object])):
            row = self.send(0, arguments, lines)[2][0]
            numbers = {name: type(value)(row[name]) for name, value in ALL.items() if type(value) is not str}
            self.assertEqual({name: row[name] for name in ALL} | numbers, ALL)
        for time, ns in ("1970-01-01T01:00:00.000000007+01:00", 7), ("2024-02-29t23:59:60.5z", 1709251200500000000):
            self.assertEqual(self.send(0, ["m", "--utc", time])[2][0]["utc_ns"], str(ns))
        row = self.send(0, ["default", "--source-id", "s"], ['{"units": null}'])[2]  # Standard input is not read.
        self.assertEqual([(r["message"], r["source_id"], r["severity"]) for r in row], [("default", "s", "info")])

    def test_what_is_refused_is_named_and_the_rest_goes_out(self):
        out, error, rows = self.send(1, ["-", "--source-id", "s"], [*REFUSED, " ", '{"message":"last","source_id":"t"}'])
        for number, (said, line) in enumerate(zip(REFUSED.values(), error.splitlines(), strict=False), 1):
            self.assertIn(f"line {number}, column {said}", line)
        self.assertIn(f"refused: {len(REFUSED)}", error)
        self.assertEqual([(row["message"], row["source_id"]) for row in rows], [("last", "t")])
        command = ["sh", "-c", '"$0" "$@" >&- 2>&-', os.environ["OXEVENT_SEND"], self.folder.name + "/settings.xml", "-"]
        subprocess.run(command, input=b'{"mesage": 1}\n{"message": "unmixed"}')
        self.assertEqual([row["message"] for row in self.rows()], ["last", "unmixed"])
        for arguments, said in USAGE:
            self.assertIn(said, self.send(2, arguments.split())[1])
        self.assertIn("Invalid drop_policy", self.send(2, ["m"], (), {"core": {"drop_policy": "x"}})[1])

    def test_nothing_is_lost_to_a_full_queue(self):
        lines = [f'{{"message": "{i}"}}' for i in range(5000)]
        out, error, rows = self.send(0, ["-"], lines, {"core": {"queue_size": 16}})
        self.assertEqual([row["message"] for row in rows], [str(i) for i in range(5000)])
        self.assertRegex(out, r"emitted: 5000\nsink\\csv\\default: 5000 written to /.*/events.csv")

    def test_what_did_not_go_out_is_told(self):
        with socket.create_server(("127.0.0.1", 0)) as server:
            hook = lambda port: {"sink\\webhook\\http\\w": {"enabled": 1, "endpoint_url": f"http://127.0.0.1:{port}/",
                                                            "request_timeout_ms": 600000}}
            stuck = {"core": {"queue_size": 1}} | hook(server.getsockname()[1])  # It never answers.
            _, error, _ = self.send(1, "m --count 5 --rate 1000000 --wait 1".split(), (), stuck)
            self.assertRegex(error, r"dropped: [34], the queue was full (?s:.*)given up: [12] still waiting")
        closed = hook(receivers.free_port(socket.SOCK_STREAM))
        out, error, rows = self.send(1, "m --count 2 --action raise --quiet".split(), (), closed)
        self.assertRegex(error, r"dropped: 1, suppressed (?s:.*)sink\\webhook\\http\\w: 1 of 1 failed: .*POST failed.*\n +Try curl")
        self.assertEqual((out, len(rows)), ("", 1))
        error = self.send(1, ["m"], (), {"sink\\csv\\default": {"enabled": 1, "path": self.folder.name + "/x.csv", "minimum_severity": "error"}})[1]
        self.assertIn("went nowhere: 1", error)
        self.assertIn("dropped: 1, below core\\minimum_severity", self.send(1, "m --severity 0".split())[1])
        held = {"state": {"send_clear": 0}, "sink\\syslog\\udp\\u": {"enabled": 1, "host": ""}}
        lines = ['{"message": "m", "action": "raise"}', '{"message": "m", "action": "clear"}']
        out, error, _ = self.send(1, ["-"], lines, held)
        self.assertRegex(out + error, r"udp\\u: 1 sent to 127\.0\.0\.1 port 5140 (?s:.*)send_clear is off")

    def test_a_signal_ends_it_with_what_was_reported(self):
        process = self.start(["-"])
        process.stdin.write('{"message": "1"}\n{"message": "2"}\n{"message": "torn')
        process.stdin.flush()
        receivers.await_("two rows", lambda: len(self.rows()) == 2)
        process.send_signal(signal.SIGTERM)
        out, error = process.communicate(timeout=60)
        self.assertEqual((process.returncode, len(self.rows())), (-signal.SIGTERM, 2))
        self.assertIn("emitted: 2", out)
        self.assertIn("stopped by SIGTERM", error)


if __name__ == "__main__":
    unittest.main()
