"""The findings of oxevent-check, and its agreement with the library: check_test.py [-v] [CheckTest.test_NAME...]."""
import contextlib
import ctypes
import fnmatch
import itertools
import json
import os
import subprocess
import tempfile
import unittest
from pathlib import Path

from receivers import write_settings

TOOL = os.environ["OXEVENT_CHECK"]
LIBRARY = ctypes.CDLL(os.environ["OXEVENT_LIBRARY"])

CSV = "sink/csv/c"
NATIVE = "sink/native/n"
SYSLOG = "sink/syslog/udp/s"
SNMP = "sink/snmp/trap/t"
WEBHOOK = "sink/webhook/http/w"
ALERTMANAGER = "sink/alertmanager/a"
ON = {"enabled": 1}
OFF = {"enabled": 0}
POSTING = {"enabled": 1, "endpoint_url": "https://h.example/in"}
UNENCRYPTED = {"enabled": 1, "endpoint_url": "http://h/"}


def in_events(elements):
    return f'<config><key name="QVX"><key name="Events">\n{elements}</key></key></config>'


def describe(finding):
    """Formats a finding as KEY: SEVERITY CODE: TEXT -> REMEDY. KEY is relative to QVX\\Events, with / as separator."""
    key = finding["key"].removeprefix("QVX\\Events\\").replace("\\", "/")
    return f"{key}: {finding['severity']} {finding['code']}: {finding['text']} -> {finding['remedy']}"


def findings_in(output):
    """Returns the findings, except the one about the system log of the machine that runs the test."""
    return [finding for finding in json.loads(output) if finding["code"] != "no-system-log"]


class CheckTest(unittest.TestCase):
    """Settings are a document, or {key: {name: value}} with keys relative to QVX\\Events and / as separator."""
    maxDiff = None

    def setUp(self):
        self.enterContext(contextlib.chdir(self.enterContext(tempfile.TemporaryDirectory())))
        self.addCleanup(os.umask, os.umask(0o077))

    def write(self, settings, path="0.xml"):
        if isinstance(settings, str):
            Path(path).write_text(settings, errors="surrogateescape")
        else:
            write_settings(path, {key.replace("/", "\\"): values for key, values in settings.items()})

    def run_tool(self, *arguments):
        def files():
            return {path: (path.stat().st_ino, path.stat().st_mtime_ns, path.read_bytes()) for path in Path().iterdir()}
        before = files()
        done = subprocess.run([TOOL, *arguments], capture_output=True, encoding="utf-8", check=False)
        self.assertEqual(files(), before, "the tool must change no file")
        return done

    def start_error(self):
        """Returns the error text of oxEventInitialize, or "" if the library starts; it then completes the file."""
        text = ctypes.create_string_buffer(4096)
        if LIBRARY.oxEventInitialize(b"0.xml") == 0:
            LIBRARY.oxEventShutdown()
        else:
            LIBRARY.oxEventGetLastError(text, len(text))
        return text.value.decode()

    def expect(self, settings, *expected, options=()):
        """Expects exactly these findings, in this order. Each is the beginning of a result of describe(); * is anything."""
        with self.subTest(settings):
            self.write(settings)
            done = self.run_tool("--json", *options, "0.xml")
            found = []
            for finding, pattern in itertools.zip_longest(map(describe, findings_in(done.stdout)), expected):
                is_expected = finding and pattern and fnmatch.fnmatchcase(finding, pattern + "*")
                found.append(pattern if is_expected else finding)
            self.assertEqual(found, list(expected))
            severities = " ".join(expected)
            self.assertEqual(done.returncode, 2 if ": error " in severities else 1 if ": warning " in severities else 0)
            if done.returncode == 2:
                last_line = self.run_tool("0.xml").stdout.splitlines()[-1]
                error = self.start_error()
                outcome = f"not start: {error}" if error else "start without the sections named in the errors"
                self.assertEqual(last_line, f"0.xml: the library would {outcome}")

    def expect_values(self, section, others, setting, good, bad):
        """Expects no finding for good values of a setting, and a finding for each value in `bad`, {code: values}. The
        code may be followed by a text, with * for anything. `others`: the other settings of the section."""
        for code, values in ({None: good} | bad).items():
            for value in values:
                with self.subTest(setting=setting, value=value):
                    self.write({section: others | {setting: value}})
                    found = self.run_tool("--json", "0.xml").stdout
                    self.assertNotIn("p4ssword", found)
                    texts = [f"{finding['code']}: {finding['text']}" for finding in findings_in(found)]
                    self.assertTrue(not texts if code is None else fnmatch.filter(texts, code + "*"), texts)

    def test_numbers_switches_and_words(self):
        self.expect_values("core", {}, "queue_size", ["1", "4294967295", " 10 "], {
            "no-number": ["", "2x", "-1", "1 0", "4294967296"]})
        self.expect_values(SYSLOG, ON, "port", ["0", "65535"], {"sink-refused": ["65536"]})
        self.expect_values(WEBHOOK, POSTING, "connect_timeout_ms", ["0", "50"], {"short-time": ["1", "49"]})
        self.expect_values("core", {}, "minimum_severity", ["\t1 ", "debug"], {"bad-value": ["4", " info"]})
        self.expect_values(WEBHOOK, POSTING, "tls_verify", ["1", "on"], {"odd-switch": ["2"], "tls-unverified": ["0"]})
        self.expect_values(WEBHOOK, POSTING, "payload_mode", ["", "NATIVE"], {"sink-refused": ["json"]})
        self.expect_values(NATIVE, {}, "facility", ["LOCAL7"], {"unknown-word": ["x"]})

    def test_strings(self):
        self.expect_values(SYSLOG, ON, "app_name", [48 * "a", "!~"], {"cut": [49 * "a"], "changed": ["a b", "a\x7f"]})
        self.expect_values(ALERTMANAGER, {}, "alertname_prefix", ["aZ9_"], {"changed": ["a-b"]})
        self.expect_values(CSV, ON, "path", ["a b", "a.csv", "a~/b", "é"], {
            "control": ["a\tb", "a\x7f"],
            "blanks": [" a", "a\t"],
            "bad-path": ["a/", ".", "~/a", "file:a", "a$b"]})

    def test_addresses(self):
        self.expect_values(SYSLOG, ON, "host", ["::1", "fe80::1%lo", "a-b_c.d.", "é", "1-2", "10.0.0.1", 253 * "a"], {
            "empty": [""],
            "bad-host: *brackets": ["[::1]"],
            "bad-host: *the port is": ["h:80"],
            "bad-host": ["a..b", ".a", 254 * "a", "http://h", "a!b", "a b", "10.0.0.256"]})
        self.expect_values(SNMP, ON, "trap_oid", ["1.39", "2.47", "2.47.48", "0.0.4294967295"], {
            "empty": [""],
            "bad-oid": ["1", "1.40", "3.1", "1.3.4294967296", "1.3.x", ".1.3", "2.48", "2.48.1", "2.4294967295"]})
        self.expect_values(WEBHOOK, ON, "endpoint_url", ["https://u@h/~", "http://h"], {
            "secret-in-url": ["http://u:p4ssword@h/", "https://u:p4ssword@h/"],
            "alertmanager-url": ["https://h/api/v2/alerts", "https://h/am/api/v1/alerts?x"],
            "bad-url: *as %XX": ["http://u:p4ssword@h/a b", "http://h/ /", "http://é", "http://\x7f"],
            "bad-url": ["https://u:p4ssword@h:99999/", "http://", "https:///x", "http://?x", "http://#x",
                        "https://:443/"]})
        loopback = ["HTTPS://h/", "http://LOCALHOST", "http://127.9.9.9/", "http://[::1]:80/", "http://a.localhost/"]
        self.expect_values(WEBHOOK, ON | {"bearer_token": "t"}, "endpoint_url", loopback, {
            "secret-in-clear": ["http://h/", "http://localhost.example", "http://[::2]/"]})
        good_uris = ["a%09", "%fF%aA", "a#b", "//[::1]/x", "A+1-.z:b", "a/1:c", "/-._~:?@!$&'()*+,="]
        bad_uris = ["a%2", "%/0", "%:0", "%0g", "%`0", "[a]", "a]", "///[x]", "//[::1", "a b", "é", "a^", "a#b#",
                    ":a", "9a:b", "+a:b", "a_b:c"]  # RFC 3986, appendix A.
        self.expect_values(WEBHOOK, POSTING | {"payload_mode": "cloudevents"}, "cloudevents_source", good_uris, {
            "bad-uri": bad_uris})

    def test_credentials_and_header_lines(self):
        self.expect_values(SNMP, ON, "community", ["public"], {"empty": [""]})
        self.expect_values(WEBHOOK, POSTING, "bearer_token", ["", "a-b"], {
            "bad-token": ["Bearer t", "BASIC t", "Authorization:t", "a b"],
            "blanks": ["a b ", "\ta"]})
        self.expect_values(WEBHOOK, POSTING, "basic_username", [""], {"no-password": ["u"], "bad-username": ["u:v"]})
        self.expect_values(WEBHOOK, POSTING, "basic_password", [""], {"no-username": ["p"]})
        good_lines = ["Az9!#$%&'*+-.^_`~: 1", " a: b\tc ", "a:1||b:2", "X-B:\t2"]
        self.expect_values(WEBHOOK, POSTING | {"basic_username": "u", "basic_password": "p"}, "headers", good_lines, {
            "bad-header: *line 2": ["a: 1|b", "a: 1\n(: 1"],
            "bad-header": ["a(: 1", "é: 1", ": 1", "p4ssword", "X-A : 1", "X-A\t: 1"],
            "reserved-header": ["content-length: 1", "Expect : 1", "user-agent: a", "X-oxEvent-tls-verify: 0"]})
        self.expect_values(WEBHOOK, UNENCRYPTED, "headers", ["X-Plant: a key"], {
            "secret-in-clear": ["X-Auth: 1", "X-Token: 1", "X-Key: 1", "Cookie: 1", "X-Secret: 1", "X-Password: 1"]})

    def test_settings_without_effect(self):
        self.expect_values(NATIVE, {}, "category", ["", "events"], {"no-effect": ["mine"]})
        self.expect_values(WEBHOOK, POSTING, "cloudevents_source", ["", "/oxEvent"], {"no-effect": ["/a"]})
        self.expect_values(WEBHOOK, POSTING, "cloudevents_subject_prefix", [""], {"no-effect": ["p"]})
        self.expect_values(WEBHOOK, {}, "endpoint_url", [""], {"filled-in-but-off": ["https://h/"]})
        self.expect_values(SNMP, {}, "community", ["cobalt"], {"filled-in-but-off": ["public"]})
        self.expect_values(SYSLOG, {}, "host", ["127.0.0.1"], {"filled-in-but-off": ["h"]})
        self.expect_values(CSV, {}, "path", [""], {"filled-in-but-off": ["log.csv"]})
        self.expect({ALERTMANAGER: {"url": "x"}}, f"{ALERTMANAGER}/url: warning no-effect")

    def test_values_that_the_library_refuses(self):
        self.expect({"core": {"enabled": "maybe", "queue_size": "x"}},
                    r"core/enabled: error bad-value: Invalid boolean value for QVX\Events\core\enabled: maybe -> * 1, ",
                    "core/queue_size: warning no-number: 'x' * from 1 to *: the default 1024 applies -> Write only ")
        self.expect({CSV: {"enabled": "on ", "path": "l"}}, f"{CSV}/enabled: error bad-value: * -> Remove the lead")
        self.expect({CSV: ON | {"path": ""}, SYSLOG: ON | {"port": 65536}, SNMP: ON | {"version": "3", "port": 70000}},
                    f"{CSV}/path: error sink-refused: oxEvent CSV ",
                    f"{SYSLOG}/port: error sink-refused: * -> Set a port from 0 to 65535; 0 means the default port.",
                    f"{SNMP}/version: error sink-refused: SNMPv3 ",
                    f"{SNMP}/port: error sink-refused: *127.0.0.1:70000 ")
        self.expect({SYSLOG: {"port": "5000000000"}}, f"{SYSLOG}/port: warning no-number: * -> Set * from 0 to 65535.")
        self.expect({"core": {"drop_policy": "drop_nevest", "minimum_severity": "critical"}},
                    "core/drop_policy: error *; did you mean drop_newest?",
                    "core/minimum_severity: error *; error is the highest ")
        self.expect({WEBHOOK: ON}, f"{WEBHOOK}/*: error sink-refused: oxEvent webhook sink requires an http:// ")
        self.expect({WEBHOOK: ON | {"payload_mode": "cloudevent", "endpoint_url": "ftp://h"}},
                    f"{WEBHOOK}/payload_mode: error sink-refused: * -> Set it to *; did you mean cloudevents?",
                    f"{WEBHOOK}/endpoint_url: error sink-refused")
        self.expect({WEBHOOK: {"payload_mode": "json"}}, f"{WEBHOOK}/payload_mode: warning sink-refused: * would not ")

    def test_unknown_and_misplaced_names(self):
        self.expect({"core": {"Q-u-e-u-e S i z e": 1}}, "core/*: warning unknown-value: *; did you mean queue_size?")
        self.expect({"core/enabled": {}}, "core/enabled: warning key-for-value")
        self.expect({"core/csv": {"path": "x"}}, r"core/csv: warning misplaced: * -> Move it to QVX\Events\sink\csv, ")
        self.expect({"sink": {"zzz": 1}}, r"sink/zzz: warning unknown-value: * -> Keys below QVX\Events\sink: csv, ")
        self.expect({"sink": {"native": 1}}, 'sink/native: warning value-for-key: * -> Write <key name="native">.')
        self.expect({"sink/csv/path": {}}, r"sink/csv/path: warning key-for-value: * below QVX\Events\sink\csv, ")
        self.expect({"sink/csv/ a": {}}, "sink/csv/ a: warning blanks")
        self.expect({"sink/csv/enabled": {"flush_each_event": 0}})
        self.expect({"udp/a": {"app_name": "x"}}, r"udp: warning misplaced: * it belongs in QVX\Events\sink\syslog")
        self.expect({"sink/syslog/d": ON | {"path": "x"}}, r"sink/syslog/d: warning misplaced: *\Events\sink\csv\d -> ")
        self.expect({"sink/webhook": ON | {"zzz": 1}},
                    r"sink/webhook/enabled: warning unknown-value: * -> Settings belong *\http, such as default",
                    "sink/webhook/zzz: warning unknown-value: * -> Keys ")
        self.expect({"sink/native": {"enabled": 1}}, "sink/native: note misplaced", "*/enabled: warning misplaced")
        self.expect({"sink/native": {"enabled": 1, "facility": "user"}},
                    "sink/native: note misplaced", "*/enabled: warning misplaced", "*/facility: warning misplaced")

    def test_elements_and_names_that_the_library_ignores(self):
        core = '<key name="core">%s</key>'
        for elements, *expected in (
                ['<note>kept</note><note name="x"/><key name="core"><!-- kept --></key>'],
                ['<setting name="core"/>', "core: warning unknown-element: the library ignores the element <setting>"],
                ['<KEY name="state"/>', "state: warning unknown-element: *; did you mean key?"],
                ['<core/>', "QVX/Events: warning unknown-element: *<core> -> "],
                [core % '<value name="queue_size">7<b/><c/></value>', "core/queue_size: warning nested: *<b>"],
                [core % '<value name="enabled" value="0">1</value>', "core/enabled: warning text-in-attribute"],
                [core % '<value name="enabled">1</value><value name="enabled"/>', "core/enabled: warning twice"],
                [core % '<value name=""/>', "core/: warning bad-name: *is empty: "],
                [core % f'<value name="{511 * "x"}"/>', f"core/{511 * 'x'}: warning *: no such setting here -> "],
                [core % f'<value name="{512 * "x"}"/>', f"core/{80 * 'x'}: warning bad-name: *is too long: "],
                [core % r'<key name="a\b"/>', "core/a/b: warning bad-name: *is a path: the library ignores it -> "],
                [r'<key name="sink\csv"/>', "sink/csv: error bad-name: *is a path: *, with everything in it"],
                [r'<key name="sink"><key name="csv"><key name="a\b"/></key></key>', "sink/csv/a/b: error bad-name"]):
            self.expect(in_events(elements), *expected)

    def test_elements_outside_of_the_librarys_keys(self):  # The host may keep its own keys outside of QVX\Events.
        events = '<key name="%s"><key name="Events"><key name="core"><value name="queue_size"/></key></key></key>'
        for elements, *expected in (
                ['<key name="QVX.Player"/><key name="OVX/Events"/><key name="Evnts"/><value name="core">x</value>y'],
                ['<key name="core"><value name="speed"/></key><key name="H"><key name="Events"/></key><kye name="a"/>'],
                ['<key nam="a"/><key name="a"/><key name="a"/><key name=""/><key name="a\\b"/>'],
                ['<key name="core"><value name="queue_size"/></key>', r"core: warning misplaced: * in QVX\Events"],
                ['<key name="QVX/Events/core"/>', "QVX/Events/core: warning unknown-key: *; each key of a path is an "],
                [events % "H", "H: warning unknown-key: *; did you mean QVX? -> Keys below the root: QVX."],
                ['<key name="QVX\\Events"/>', "QVX/Events: error bad-name"],
                ['<key name="QVX"/><value name="QVX"/>', "QVX: warning value-for-key"],
                ['<key nam="QVX"/>', ": warning no-name"],
                ['<key name="QVX"/><key name="QVX"/>', "QVX: warning twice"],
                ['<kye name="QVX"/>', "QVX: warning unknown-element"]):
            self.expect(f"<config>{elements}</config>", *expected)

    def test_sinks_with_the_same_destination(self):
        urls = ["HTTPS://H/?a", "https://h/?b", "https://h/a?b", "http://h:443/?a", "https://g/?a", "https://h:443/?a"]
        for sink, setting, *settings in (  # The last sink has the destination of the first.
                ("csv", "path", {"path": "a"}, {"path": "b"}, {"path": "./a"}),
                ("syslog/udp", "host", {"host": "H", "port": 0}, {}, {"host": "h", "port": 514}),
                ("snmp/trap", "host", {"host": "H", "port": 0}, {}, {"host": "h", "port": 162}),
                ("native", "facility", {"facility": "local4"}, {"facility": "mail"}, {}),
                ("webhook/http", "endpoint_url", *[{"endpoint_url": url} for url in urls])):
            self.expect({f"sink/{sink}/{number}": ON | one for number, one in enumerate(settings)},
                        f"sink/{sink}/0/{setting}: note same-destination",
                        f"sink/{sink}/{len(settings) - 1}/{setting}: warning same-destination: *sink\\*\\0: each ")
        self.expect({CSV: ON | {"path": "./0.xml"}}, f"{CSV}/path: warning own-file")

    def test_csv_files_that_cannot_be_written(self):
        here = os.getcwd()
        Path("old").touch()
        Path("ro").mkdir()
        read_only = ["unshare", "--map-root-user", "-m", "sh", "-c", 'mount -t tmpfs -o ro none ro && exec "$@"', "sh"]
        for path, status, expected in (("old", 0, "[]"), ("new/x", 0, "[]"),
                                       ("old/a/x", 1, f"({here}/old: Not a directory)"),
                                       ("ro/x", 0, f"({here}/ro: Read-only file system)")):
            self.write({NATIVE: OFF, CSV: ON | {"path": f"{here}/{path}"}})
            done = subprocess.run([*read_only, TOOL, "--json", "0.xml"], capture_output=True, text=True, check=False)
            self.assertIn(expected, done.stdout, path)
            self.assertEqual(done.returncode, status, path)
        self.assertFalse(Path("new").exists())

    def test_events_that_reach_no_sink(self):
        self.expect({"core": OFF}, "core/enabled: warning all-off")
        self.expect({NATIVE: OFF, "sink/native/m": OFF}, f"{NATIVE}/enabled: warning no-sink")
        self.expect(
            {"core": {"minimum_severity": "warning"},
             "sink/csv/a": ON | {"path": "a", "minimum_severity": "info"},
             "sink/csv/b": ON | {"path": "b", "minimum_severity": 0},
             "sink/csv/c": ON | {"path": "c", "minimum_severity": 2}},
            "core/minimum_severity: note severity-hidden",
            "sink/csv/a/minimum_severity: warning severity-hidden: * core, warning, drops",
            "sink/csv/b/minimum_severity: warning severity-hidden")
        self.expect({"core": {"minimum_severity": "error"}}, "core/minimum_severity: warning clears-hidden: *1800 s")
        self.expect({"core": {"minimum_severity": "error"}, "state": {"default_repeat_interval_sec": 0}},
                    "core/minimum_severity: warning clears-hidden: *a new raise is sent as a repeat")
        self.expect({"core": {"minimum_severity": 3}, "state": {"enabled": 0}})
        self.expect({ALERTMANAGER: ON, NATIVE: OFF},
                    f"{ALERTMANAGER}/enabled: note sends-nothing", f"{NATIVE}/*: warning no-sink")

    def test_delays_while_endpoints_do_not_answer(self):
        over_64_bits = {"request_timeout_ms": 2147483650, "backoff_ms": 2147483648, "retry_count": 4294967294}
        for settings, *expected in (
                ({"request_timeout_ms": 60049}, "request_timeout_ms: warning shutdown-delay: * 60 s in * 65 s"),
                (over_64_bits, "retry_count: warning *: * a century or more in * a century"),
                ({"retry_count": 4294967295}, "retry_count: warning no-try", "retry_count: note *: * 0 s in * 5 s"),
                ({"connect_timeout_ms": 5001}, "retry_count: note *: * 5 s *", "connect_timeout_ms: note no-effect")):
            expected = [f"{WEBHOOK}/{finding}" for finding in expected]
            self.expect({NATIVE: OFF, WEBHOOK: POSTING | settings}, *expected, options=["--verbose"])
        self.expect(
            {"sink/cloudevents/http/a": UNENCRYPTED | {"timeout_ms": 35000},
             "sink/cloudevents/http/b": ON | {"endpoint_url": "https://g/", "timeout_ms": 36000}},
            "sink/cloudevents/http/b/endpoint_url: warning tls-unverified",
            "sink/cloudevents/http/b/timeout_ms: warning shutdown-delay: * 71 s in * 76 s")

    def test_text_and_status_of_several_files(self):
        sinks = '<key name="sink"><key name="csv"><key name="c"><value name="enabled">1</value></key></key>' \
                '<key name="native"><key name="n"><value name="enabled">0</value></key></key></key>'
        self.write(in_events('<key name="core">\n <value name="queue_sise\x85">1</value></key>' + sinks), "warned.xml")
        self.write(in_events('<key name="core"><value name="queue_size">0</value></key>' + sinks), "refused.xml")
        self.write({"state": OFF, NATIVE: OFF, CSV: ON | {"path": "f"}}, "good.xml")
        done = self.run_tool("refused.xml", "warned.xml", "good.xml")
        self.assertEqual(done.returncode, 2)
        self.assertEqual(done.stdout, r"""refused.xml:2:18: error: QVX\Events\core\queue_size: queue_size must be """
                         r"""greater than zero
    Set a number above 0; the default is 1024.
refused.xml: the library would not start: queue_size must be greater than zero
warned.xml:3:2: warning: QVX\Events\core\queue_sise\xc2\x85: no such setting here; did you mean queue_size?
    The settings of this key: enabled, minimum_severity, queue_size, drop_policy.
good.xml: no problems
""")
        self.assertEqual(self.run_tool("good.xml", "warned.xml").returncode, 1)
        found = findings_in(self.run_tool("--json", "--verbose", "good.xml", "good.xml", "warned.xml").stdout)
        self.assertEqual([(finding["severity"], finding["key"].removeprefix("QVX\\Events\\")) for finding in found],
                         [("note", r"state\enabled")] * 2 + [("warning", "core\\queue_sise\x85")])

    def test_json_is_utf_8(self):
        for value, shown in (("é\udce2\udc82(", "é\ufffd\ufffd("), (61 * "\udc80", "...")):
            self.write(in_events(f'<key name="core"><value name="queue_size">{value}</value></key>'))
            self.assertIn(f"'{shown}' is not a number", self.run_tool("--json", "0.xml").stdout)

    def test_files_that_cannot_be_loaded(self):
        self.write("\n<config>\n<!-- a\n -- b\n--></config>")
        self.write("<config", "open.xml")
        for path, position, reason in (
                ("0.xml", "4:2", "The file contains a comment with -- inside. Fix the file at this "),
                ("open.xml", "1:7", "Error parsing start element tag. Fix "),
                ("none", "1:1", "No such file or directory. Name a "),
                (".", "1:1", "not a regular file. "),
                ("/proc/self/mem", "1:1", "it cannot be read. ")):
            done = self.run_tool(path)
            self.assertEqual(done.returncode, 2)
            self.assertIn(f"{path}:{position}: error: Unable to open oxEvent config: {path}\n    {reason}", done.stdout)

    def test_completes_as_the_library_does(self):
        for settings in (in_events('<!-- kept --><key name="core"><note>kept</note></key>'), ""):
            self.write(settings)
            completed = self.run_tool("--complete", "0.xml").stdout
            self.assertEqual(self.start_error(), "")
            self.assertEqual(completed, Path("0.xml").read_text())
        self.assertEqual(self.run_tool("--complete", "0.xml").stdout, completed)  # The file is complete already.
        self.write({"core": {"queue_size": 0}})
        refused = self.run_tool("--complete", "0.xml")
        self.assertEqual((refused.returncode, refused.stdout), (2, ""))
        self.assertEqual(refused.stderr, "oxevent-check: queue_size must be greater than zero\n")

    @unittest.skipUnless(os.geteuid() == 0, "only root can act as another user")
    def test_secrets_that_another_user_can_read(self):
        of_webhook = {"bearer_token": "t", "headers": "a: b|X-Key: k", "basic_username": "u", "basic_password": "p"}
        self.write({WEBHOOK: POSTING | of_webhook, SNMP: {"community": "cobalt"},
                    "sink/webhook/http/v": {"endpoint_url": "https://u:p@h/", "bearer_token": "", "headers": "a:b"}})
        for mode, owner, user, who in (
                (0o604, 0, 0, "every user of the machine may read"),
                (0o606, 0, 0, "every user of the machine may change"),
                (0o640, 0, 7777, None),
                (0o640, 7777, 7777, None),
                (0o640, 1, 0, None),
                (0o640, 1, 7777, "its owner, who is neither root nor you, may read")):
            with self.subTest(mode=oct(mode), owner=owner, user=user):
                os.chmod("0.xml", mode)
                os.chown("0.xml", owner, -1)
                command = ["setpriv", f"--reuid={user}", "--inh-caps=+dac_override", "--ambient-caps=+dac_override"]
                done = subprocess.run([*command, TOOL, "--json", "0.xml"], capture_output=True, check=False)
                found = [finding for finding in json.loads(done.stdout) if finding["code"] == "secret-readable"]
                secrets = ["bearer_token", "headers", "basic_password", "endpoint_url"] if who else []
                self.assertEqual({finding["key"].rpartition("\\")[2]: finding["text"] for finding in found},
                                 dict.fromkeys(secrets, f"is a secret in a file that {who}"))

    def test_invalid_command_lines(self):
        for arguments, complaint in (
                ([], "no FILE"),
                (["--complete", "a", "b"], "b: --complete takes one FILE"),
                (["--explain", "que_size"], "que_size: no such key; did you mean queue_size?")):
            with self.subTest(arguments):
                done = self.run_tool(*arguments)
                self.assertEqual((done.returncode, done.stdout, done.stderr), (2, "", f"oxevent-check: {complaint}\n"))

    def test_explains_each_setting_below_a_key(self):
        for key, count in (("enabled", 9), ("QVX", 77), ("webhook", 16), ("sink.csv.a", 5)):
            with self.subTest(key):
                explanations = self.run_tool("--explain", key).stdout.split("\n\n")
                self.assertEqual([text.count("QVX\\") for text in explanations], [1] * count)


if __name__ == "__main__":
    unittest.main()
