"""What oxevent-check says, where each limit is, and what the library says: check_test.py [-v] [Test.test_NAME...]."""
import ctypes, fnmatch, json, os, pathlib, re, subprocess, tempfile, unittest
from xml.sax.saxutils import escape

TOOL, LIBRARY = os.environ["OXEVENT_CHECK"], ctypes.CDLL(os.environ["OXEVENT_LIBRARY"])
DEFAULTS = (pathlib.Path(__file__).parent.parent / "docs" / "default-settings.xml").read_bytes()

# Settings, as `document` takes them.
CORE, NATIVE, CSV, SYSLOG = "core>;", "sink>;native>;n>;", "sink>;csv>;c>;", "sink>;syslog>;udp>;s>;"
SNMP, WEBHOOK, ALERTS = "sink>;snmp>;trap>;t>;", "sink>;webhook>;http>;w>;", "sink>;alertmanager>;a>;"
ON, URL = "enabled=1;", "endpoint_url=https://h.example/in;"
POST, PLAIN = WEBHOOK + ON + URL, WEBHOOK + ON + "endpoint_url=http://h/;"
CLOUD, CLOUDEVENTS = POST + "payload_mode=cloudevents;", "sink>;cloudevents>;http>;c>;" + ON + URL

NUMBER = "no-number: '{}' is not a number from 0 to 4294967295: the default "
OVER = " applies, and the library writes it to the file"
FACILITY = "unknown-word: '{}' is not a facility: the default local4 applies"
HOST, OID = "bad-host: '{}' is not a host name or address: ", "bad-oid: '{}' is not an object identifier: "
URI, NO_URL = "bad-uri: '{}' is not a URI reference: ", "bad-url: '{}' is not an http or https URL: "
# Each setting within the elements above it, texts of it that are no mistake, and what is said of others: CODE or CODE: TEXT
# of a finding, in which {} stands for these.
LIMITS = [
    (CORE, "queue_size", ["1", "4294967295"], {NUMBER + "1024" + OVER: ["2x", "4294967296"]}),
    ("state>;", "default_repeat_interval_sec", ["0"], {NUMBER + "1800" + OVER: [""]}),
    (POST, "retry_count", ["0"], {NUMBER + "0" + OVER: ["-1"]}),
    (POST, "connect_timeout_ms", ["0", "50"], {"short-time: {} ms is hardly enough for a request": ["1", "49"]}),
    (POST, "tls_verify", ["1", "on"], {"odd-switch: '{}' counts as on": ["2"], "tls-unverified": ["0"]}),
    (SYSLOG + ON, "port", ["0", "65535"], {"sink-refused": ["65536"]}),
    (SNMP + ON, "port", ["0", "65535"], {"sink-refused": ["65536"]}),
    (POST, "payload_mode", ["", "NATIVE"], {"sink-refused": ["json"]}),
    (SYSLOG + ON, "app_name", [48 * "a", "!~"], {"cut": [49 * "a"], "changed": ["a b", "a\x7f", "é"]}),
    (SYSLOG, "app_name", ["x"], {"changed": ["x y"]}),
    (ALERTS + ON, "alertname_prefix", [2047 * "a", "aZ9_"], {"cut": [2048 * "a"], "changed": ["a-b"]}),
    (NATIVE, "category", ["", "events"], {"no-effect": ["mine"]}),
    (NATIVE, "source_name", ["a b", "é"], {"control": ["a\tb", "a\x7f"]}),
    (NATIVE, "facility", ["LOCAL7"], {
        FACILITY: ["x", 60 * "x"],
        FACILITY.format(59 * "x" + "..."): [59 * "x" + "é"],
        FACILITY.format(60 * "x" + "..."): [61 * "x"],
        FACILITY.format("..."): [61 * "\udc80"],
        FACILITY.format("\ufffd\ufffd("): ["\udce2\udc82("]}),
    (CSV + ON, "path", ["a b", "a.csv", "a~/b"], {
        "control": ["a\tb", "a\x7f"],
        "blanks": [" a", "a\t"],
        "cut: has 2048 bytes; everything beyond 2047 is cut off": [2048 * "x"],
        "bad-path: '{}' names a directory": ["a/", "."],
        "bad-path: '{}' is used literally: ~, variables and URLs are not expanded": ["~/a", "file:a", "a$b"]}),
    (SYSLOG + ON, "host", ["::1", "fe80::1%lo", "a-b_c.d.", "é", "1-2", "10.0.0.1", 253 * "a"], {
        HOST + "malformed name": ["a..b", ".a"],
        HOST.format(60 * "a" + "...") + "malformed name": [254 * "a"],
        HOST + "it begins with a scheme": ["http://h"],
        HOST + "brackets are for URLs": ["[::1]"],
        HOST + "the port is a separate setting": ["h:80"],
        HOST + "it contains characters that no name may have": ["a!b", "a b"],
        HOST + "malformed IPv4 address": ["10.0.0.256"]}),
    (SNMP + ON, "trap_oid", ["1.39", "2.47", "2.47.48", "0.0.4294967295"], {
        OID + "every event to this sink fails": ["1", "1.40", "3.1", "1.3.4294967296", "1.3.x", ".1.3"],
        OID + "traps can carry only 2.0 to 2.47": ["2.48", "2.48.1", "2.4294967295"]}),
    (POST, "cloudevents_source", ["", "/oxEvent"], {"no-effect": ["/a"]}),
    (POST, "cloudevents_subject_prefix", [""], {"no-effect": ["b"]}),
    (CLOUD, "cloudevents_source", ["a%09", "%fF", "a#b", "//[::1]/x", "A+1-.z:b", "a/1:c", "/-._~:?@!$&'()*+,="], {
        URI + "% without two hex digits": ["a%2", "%/0", "%:0", "%0g", "%`0"],
        URI + "brackets outside the host": ["[a]", "a]", "///[x]"],
        URI + "[ without ]": ["//[::1"],
        URI + "a character that must be written as %XX": ["a b", "é", "a^"],
        URI + "a second #": ["a#b#"],
        URI + "no scheme before the colon": [":a", "1a:b", "+a:b", "a_b:c"]}),
    (POST, "bearer_token", ["", "a-b"], {
        "bad-token: begins with what the sink adds itself: Authorization: Bearer": [
            "Bearer t", "BASIC t", "Authorization:t"],
        "bad-token: contains white space, which no token may (RFC 6750, section 2.1)": ["a b"],
        "blanks": ["a b ", "\ta"]}),
    (POST, "basic_username", [""], {"no-password": ["u"]}),
    (POST, "basic_password", [""], {"no-username": ["p"]}),
    (POST + "basic_password=p;", "basic_username", ["u"], {"bad-username": ["u:v"]}),
    (POST, "headers", ["Az9!#$%&'*+-.^_`~: 1", " a: b\tc ", "a:1||b:2", "X-B:\t2"], {
        "bad-header: a header name contains a character that is not allowed, so that every POST fails: line 1": ["a(: 1", "é: 1"],
        "bad-header: a line without a name and a colon is ignored: line 1": [": 1", "p4ssword"],
        "bad-header: a line without a name and a colon is ignored: line 3": ["a:1||b:2|c|d:4"],
        "bad-header: x-a: has white space before its colon; the HTTP client removes it": ["X-A : 1", "X-A\t: 1"],
        "reserved-header": ["content-length: 1", "transfer-encoding: 1", "Expect : 1", "content-type: a", "user-agent: a",
                            "X-oxEvent-tls-verify: 0"]}),
    (PLAIN, "headers", ["X-Plant: key"], {"secret-in-clear": [
        "X-Auth: 1", "X-Token: 1", "X-Key: 1", "Cookie: 1", "X-Secret: 1", "X-Password: 1"]}),
    (WEBHOOK + ON + "bearer_token=t;", "endpoint_url",
     ["HTTPS://h/", "http://LOCALHOST", "http://127.9.9.9/", "http://[::1]:80/", "http://a.localhost/"],
     {"secret-in-clear: plain http sends the sink's secrets unencrypted": [
         "http://h/", "http://localhost.example", "http://[::2]/"]}),
    (WEBHOOK + ON, "endpoint_url", ["https://u@h/", "http://h"], {
        "secret-in-url": ["http://u:p4ssword@h/", "https://u:p4ssword@h/"],
        "bad-url": ["https://u:p4ssword@h:99999/", "http://u:p4ssword@h/a b"],
        NO_URL + "no host": ["http://", "https:///x", "http://?x", "http://#x", "https://:443/"],
        NO_URL + "spaces and non-ASCII characters must be written as %XX": ["http://h/a b", "http://h/é", "http://h/\x7f"]}),
    (WEBHOOK, "endpoint_url", [""], {"filled-in-but-off": ["https://h/"]}),
    (WEBHOOK, "headers", [""], {"filled-in-but-off": ["a: b"]}),
    (WEBHOOK, "bearer_token", [""], {"filled-in-but-off": ["t"]}),
    (SNMP, "community", ["cobalt"], {"filled-in-but-off": ["public"]}),
    (SYSLOG, "host", ["127.0.0.1"], {"filled-in-but-off": ["h"]}),
    (CSV, "path", [""], {"filled-in-but-off": ["log.csv"]}),
]

# Settings, or a whole <config>; then each finding in its order: LINE:COLUMN SEVERITY CODE, or that and a pattern of its
# text. "-> " and a pattern of its remedy may follow.
CASES = [
    ("core>;queue_size= 10 ;enabled=\t1;minimum_severity=1 ",),
    ("core>;<!-- kept -->;minimum_severity=debug;<;<note>kept</note>;" + POST + "bearer_token=t",),
    ("core>;minimum_severity=error;<;state>;enabled=0",),
    ("core>;minimum_severity=error;<;state>;dedupe_enabled=0",),
    # Values that the loader or a sink refuses.
    ("core>;enabled=maybe;queue_size=ten;minimum_severity=warnin",
     r"3:1 error bad-value: Invalid boolean value for QVX\Events\core\enabled: maybe",
     "-> Accepted (case-insensitive): 1, true, yes, on, enabled, 0, false, no, off, disabled",
     "4:1 warning no-number: *'ten'*: the default 1024 applies", "5:1 error bad-value", "-> Accepted *; did you mean warning?"),
    ("core>;queue_size=1 0;enabled= on;minimum_severity= 4;<;state>;send_clear=on ", "3:1 warning no-number",
     "4:1 error bad-value", "-> Remove the leading or trailing white space, which counts.", "5:1 error bad-value",
     "-> Accepted (case-insensitive): debug, info, information, warning, warn, error, err", "8:1 error bad-value"),
    (CSV + "enabled=on ;path=log.csv", "5:1 error bad-value"),
    (CSV + ON + "path=;<;d>;" + ON + "path=;", "6:1 error sink-refused", "10:1 error sink-refused"),
    (SYSLOG + ON + "port=65536", "7:1 error sink-refused", "-> A port is 0 to 65535; 0 means the default port."),
    (SNMP + ON + "version=3;port=70000", "7:1 error sink-refused: SNMPv3 *", "8:1 error sink-refused: *127.0.0.1:70000 *"),
    (WEBHOOK + ON, "5:1 error sink-refused: oxEvent webhook sink requires an http:// or https:// endpoint_url"),
    (WEBHOOK + "payload_mode=cloudevent;endpoint_url=ftp://h;" + ON, "6:1 error sink-refused",
     "-> Set it to native_json or cloudevents, *; did you mean cloudevents?", "7:1 error sink-refused"),
    (WEBHOOK + "enabled=0;payload_mode=json;endpoint_url=h", "6:1 warning filled-in-but-off: the sink is off, *",
     "-> * or remove endpoint_url.", "7:1 warning sink-refused: * would not start *: oxEvent webhook payload_mode *",
     "8:1 warning sink-refused", "8:1 note filled-in-but-off"),
    (ALERTS + "authorization_token=t", "5:1 warning no-effect", "-> Leave its default. Read, *"),
    # What has no place in the file.
    ("core>;port=1;zzz=1;zzz=1;<value name='Q-u-e-u-e S i z e'/>",
     r"3:1 warning unknown-value: * setting here; QVX\Events\sink\syslog\udp has one of that name",
     "-> The settings of this key: enabled, minimum_severity, queue_size, drop_policy.",
     "4:1 warning unknown-value: * setting here", "5:1 warning twice", "6:1 warning unknown-value: *; did you mean queue_size?"),
    ("sink>;zzz=1;zzy>", "3:1 warning unknown-value: * value here",
     r"-> Keys below QVX\Events\sink: csv, syslog, native, *", "4:1 warning unknown-key: * key here"),
    ("sink>;native>;enabled=1;source_name=x;facility=user", "3:1 note misplaced",
     "4:1 warning misplaced", "5:1 warning misplaced", "6:1 warning misplaced"),
    ("sink>;csv>;path>;<; a>;<;enabled>;flush_each_event=0", "4:1 warning key-for-value",
     r"-> Settings are values in an instance key below QVX\Events\sink\csv, such as default.", "6:1 warning blanks"),
    ("core>;enabled>;<;csv>;path=x", "3:1 warning key-for-value", '-> Write <value name="enabled">TEXT</value>.',
     "5:1 warning misplaced", r"-> Move it to QVX\Events\sink\csv, where its settings belong."),
    ("core>;foo>;bar=x;enabled=1;minimum_severity=info", "3:1 warning misplaced", "-> Remove it."),
    ("state=1", "2:1 warning value-for-key", '-> Write <key name="state">.'),
    ("sink>;core>;queue_size=5", r"3:1 warning misplaced: * its settings belong in QVX\Events\core"),
    ("zz>;community=x;path=a;flush_each_event=0", r"2:1 warning misplaced: * its settings belong in QVX\Events\sink\csv\zz"),
    ("udp>;a>;app_name=x", r"2:1 warning misplaced: * it belongs in QVX\Events\sink\syslog"),
    ("udp>;a>;zzz=1;<;<;state>;zzz>", "2:1 warning unknown-key", "8:1 warning misplaced"),
    ("sink>;http>;w>;auth_header=t", r"3:1 warning misplaced: * it belongs in QVX\Events\sink\cloudevents"),
    ("Core>;queue_size=5;<;snk>;csv>;c>;path=x",
     "2:1 warning unknown-key: *; did you mean core?", "5:1 warning unknown-key: *; did you mean sink?"),
    ("<setting name='core'/>;<vaule name='x'/>;<note name='x'/>;<KEY name='state'/>",
     "2:1 warning unknown-element: the library ignores the element <setting>",
     "3:1 warning unknown-element: *<vaule>*; did you mean value?", "5:1 warning unknown-element: *; did you mean key?"),
    ("core>;<value>1</value>;<key/>", "3:1 warning no-name", '-> Write <value name="NAME">.', "4:1 warning no-name"),
    ("core>;<value name='queue_size'>7<b/><c/></value>;<value name='drop_policy' value='newest'>drop<!-- x --></value>",
     "3:1 warning nested: *<b>*", "4:1 warning text-in-attribute"),
    (f'core>;<value name=""/>;<value name="{511 * "x"}"/>;<value name="{512 * "x"}"/>;<value name="a\\b"/>',
     "3:1 warning bad-name: *is empty: *", "4:1 warning unknown-value",
     "5:1 warning bad-name: *is too long: *", "6:1 warning bad-name: *is a path: the library ignores it"),
    ('<key name="sink\\csv"/>;sink>;csv>;<key name="a\\b"/>;<key name="n"><key name="a\\b"/></key>',
     "2:1 error bad-name: *is a path: *, with everything in it", "5:1 error bad-name", "6:15 warning bad-name"),
    # Above the library's own keys.
    ('<config><key name="QVX.Player"/><key name="OVX/Events"/><key name="Evnts"/><value name="core">x</value>y</config>',),
    ('<config><key name="core"><value name="speed"/></key><key name="H"><key name="Events"/></key></config>',),
    ('<config><key name="core"><value name="queue_size"/></key></config>', r"1:9 warning misplaced: * it belongs in QVX\Events"),
    ('<config><key name="QVX/Events/core"/></config>',
     "1:9 warning unknown-key: *; each key of a path is an element of its own", "-> Keys below the root: QVX."),
    ('<config><key name="QVX"><key name="Events.core"/></key></config>',
     "1:25 warning unknown-key", "-> Keys below QVX: Events."),
    ('<config><key name="H"><key name="Events"><key name="core"><value name="queue_size"/></key></key></key></config>',
     "1:9 warning unknown-key: *; did you mean QVX?"),
    ('<config><key name="QVX\\Events"/><key name=""/><key name="a\\b"/></config>', "1:9 error bad-name"),
    ('<config><key name="a"/><key name="a"/><key name="QVX"/>\n <value name="QVX"/> <key name="QVX"/></config>',
     "2:2 warning value-for-key", "2:22 warning twice"),
    ('<config><key nam="QVX"/><key nam="a"/><kye name="QVX"/><kye name="a"/></config>',
     "1:9 warning no-name", "1:39 warning unknown-element"),
    ('<config><key name="QVX"><key name="Events">a<![CDATA[b]]><!--c--> \n</key></key></config>',
     "1:25 warning stray-text: *'a'*", "1:25 warning stray-text: *'b'*"),
    # Sinks together.
    (CSV + ON + "path=a;<;d>;" + ON + "path=./a;<;e>;" + ON + "path=0.xml", "6:1 note same-destination",
     r"10:1 warning same-destination: * the same file as QVX\Events\sink\csv\c: *, in any order", "14:1 warning own-file"),
    (WEBHOOK + ON + "endpoint_url=HTTPS://H/?a;<;v>;" + ON + "endpoint_url=https://h:443/?a;<;u>;" + ON +
     "endpoint_url=https://h/?b;<;t>;" + ON + "endpoint_url=https://h/a?b;<;s>;" + ON +
     "endpoint_url=http://h:443/?a;<;r>;" + ON + "endpoint_url=https://g/?a", "7:1 note same-destination",
     r"11:1 warning same-destination: * the same destination as QVX\Events\sink\webhook\http\w: each event appears twice"),
    (SYSLOG + ON + "host=A;port=0;<;t>;" + ON + "host=a;port=514;<;u>;" + ON + "host=a;port=515",
     "7:1 note same-destination", "12:1 warning same-destination"),
    (SNMP + ON + "port=0;<;u>;" + ON + "host=127.0.0.1;port=162;<;v>;" + ON + "port=163",
     "5:1 note same-destination", "11:1 warning same-destination"),
    (NATIVE + "facility=local4;<;m>;facility=x;<;o>;facility=local3",
     "5:1 note same-destination", "8:1 warning unknown-word", "8:1 warning same-destination"),
    ("core>;enabled=0", "3:1 warning all-off"),
    (NATIVE + "enabled=0;<;m>;enabled=0", "5:1 warning no-sink"),
    ("core>;minimum_severity=warning;<;" + CSV + ON + "path=a;minimum_severity=info;<;d>;" + ON +
     "path=b;minimum_severity=0;<;e>;" + ON + "path=c;minimum_severity=2;<;f>;minimum_severity=0",
     "3:1 note severity-hidden", "10:1 warning severity-hidden", "15:1 warning severity-hidden: * core, warning, drops"),
    ("core>;minimum_severity=error;<;state>;default_repeat_interval_sec=5", "3:1 warning clears-hidden: * before 5 s"),
    (SNMP + ON + "host=;community=;trap_oid=",
     "7:1 warning empty: * 127.0.0.1 *", "8:1 warning empty: * cobalt *", "9:1 warning empty: * 1.3.6.1.4.1.32473.*"),
    # The HTTP sinks.
    (POST + "bearer_token=t;basic_username=u;basic_password=p;headers=Authorization: x", "8:1 note two-authorizations",
     "9:1 warning two-authorizations: * 3 *", "11:1 note two-authorizations"),
    (CLOUDEVENTS + "auth_header=Authorization: a|AUTHORIZATION: b",
     "7:1 warning tls-unverified", "8:1 warning two-authorizations: * 2 *"),
    (PLAIN + "tls_verify=0;bearer_token=t;headers=X-Key: k",
     "7:1 warning secret-in-clear", "9:1 note secret-in-clear", "10:1 note secret-in-clear"),
    (WEBHOOK + "bearer_token=;basic_username=u:v", "7:1 warning no-password", "7:1 warning bad-username"),
    (POST + "request_timeout_ms=60049", "8:1 warning shutdown-delay: * 60 s in * 65 s"),
    (POST + "request_timeout_ms=40000;retry_count=1", "8:1 warning shutdown-delay: * 80.3 s in * 85.3 s"),
    (POST + "retry_count=1;backoff_ms=55000", "8:1 warning shutdown-delay: * 65 s in * 70 s"),
    (POST + "retry_count=11;request_timeout_ms=6000", "8:1 warning shutdown-delay: * 74.8 s in * 79.8 s"),
    (POST + "retry_count=199;request_timeout_ms=0;backoff_ms=0", "8:1 warning shutdown-delay: * 1049.8 s in * 1054.8 s"),
    (POST + "retry_count=3155759999;request_timeout_ms=750;connect_timeout_ms=700",
     "8:1 warning shutdown-delay: * 3155759999.8 s in * a century *"),
    (POST + "retry_count=3155760000;request_timeout_ms=750;connect_timeout_ms=700",
     "8:1 warning shutdown-delay: * a century * a century *"),
    (POST + "retry_count=4294967294;request_timeout_ms=2147483650;backoff_ms=2147483648",  # 2^64 ms and 25 days.
     "8:1 warning shutdown-delay: * a century * a century *"),
    (CLOUDEVENTS + "timeout_ms=35000;<;d>;" + ON + "endpoint_url=https://g/;timeout_ms=36000",
     "7:1 warning tls-unverified", "12:1 warning tls-unverified", "13:1 warning shutdown-delay: * 71 s in * 76 s"),
]
DETAILS = [  # With --verbose.
    (POST + "request_timeout_ms=60000", "8:1 note shutdown-delay: * 60 s in * 65 s"),
    (POST + "request_timeout_ms=0;connect_timeout_ms=6000", "5:1 note shutdown-delay: * 5 s in * 10 s"),
    (POST + "connect_timeout_ms=5000", "5:1 note shutdown-delay"),
    (POST + "connect_timeout_ms=5001", "5:1 note shutdown-delay", "8:1 note no-effect"),
    (POST + "retry_count=4294967295;backoff_ms=9", "8:1 warning no-try", "8:1 note shutdown-delay: * 0 s in * 5 s"),
    ("state>;enabled=0", "3:1 note no-state"),
    ("state>;dedupe_enabled=0", "3:1 note no-state"),
    (ALERTS + ON, "5:1 note sends-nothing"),
]


def document(settings):
    """Elements of QVX\\Events, one a line from line 2 on: a key is NAME>, its end <, a value NAME=TEXT, others as they are."""
    lines, open_keys = [], 0
    for token in settings.strip(";").split(";"):
        value = re.fullmatch(r"(\w+)=(.*)", token)
        is_key = token.endswith(">") and not token.startswith("<")
        open_keys += is_key - (token == "<")
        lines.append(f'<value name="{value[1]}">{escape(value[2])}</value>' if value else
                     f'<key name="{token[:-1]}">' if is_key else "</key>" if token == "<" else token)
    return '<config><key name="QVX"><key name="Events">\n' + "\n".join(lines) + (open_keys + 2) * "</key>" + "</config>"


class Test(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.addCleanup(os.chdir, os.getcwd())
        os.chdir(folder.name)

    def write(self, content, path="0.xml"):
        if isinstance(content, str):
            text = content if content.startswith(("<config", "<?xml")) else document(content)
            content = text.encode(errors="surrogateescape")
        with open(os.open(path, os.O_CREAT | os.O_TRUNC | os.O_WRONLY, 0o600), "wb") as file:
            file.write(content)

    def run_tool(self, *arguments):  # Which leaves everything as it is.
        def state():
            return [(e.name, e.stat().st_ino, e.stat().st_mtime_ns, pathlib.Path(e).read_bytes()) for e in os.scandir()]
        before = state()
        done = subprocess.run([TOOL, *arguments], capture_output=True, encoding="utf-8", check=False)
        self.assertEqual(state(), before)
        return done

    def findings(self, contents, *options):  # Of each, all in one run.
        paths = [f"{number}.xml" for number in range(len(contents))]
        for path, content in zip(paths, contents):
            self.write(content, path)
        found = json.loads(self.run_tool("--json", *options, *paths).stdout)
        return [[finding for finding in found if finding["file"] == path] for path in paths]

    def refusal(self):  # The library's; empty: it starts, which completes the file.
        text = ctypes.create_string_buffer(4096)
        if LIBRARY.oxEventInitialize(b"0.xml") == 0:
            LIBRARY.oxEventShutdown()
        else:
            LIBRARY.oxEventGetLastError(text, len(text))
        return text.value.decode()

    def check(self, settings, expected, *options):
        said = []
        for f in self.findings([settings], *options)[0]:
            self.assertNotEqual(f["remedy"], "")
            short = f"{f['line']}:{f['column']} {f['severity']} {f['code']}"
            for whole, form in ((f"{short}: {f['text']}", short), ("-> " + f["remedy"], None)):
                pattern = expected[len(said)] if len(said) < len(expected) else ""
                if pattern == form or fnmatch.fnmatchcase(whole, pattern):
                    said.append(pattern)
                elif form:
                    said.append(whole)
        self.assertEqual(said, expected)

    def test_limits_of_values(self):
        rows = [(f"{above}{setting}={text}", text, finding) for above, setting, good, bad in LIMITS
                for finding, texts in [("", good), *bad.items()] for text in texts]
        for (settings, text, finding), found in zip(rows, self.findings([row[0] for row in rows])):
            with self.subTest(settings):
                said = [f"{f['code']}: {f['text']}" for f in found] + [f["code"] for f in found]
                self.assertNotIn("p4ssword", str(found))
                if finding:
                    self.assertIn(finding.format(text), said)
                else:
                    self.assertEqual(said, [])

    def test_findings(self):
        for settings, *expected in CASES:
            with self.subTest(settings):
                self.check(settings, expected)
                done = self.run_tool("0.xml")
                status = 2 if re.search(r"\b\d+:\d+ error ", " ".join(expected)) else 1 if expected else 0
                self.assertEqual((done.returncode, done.stdout.endswith("0.xml: no problems\n")), (status, status == 0))
                if status == 2:
                    refusal = self.refusal()
                    outcome = f"not start: {refusal}" if refusal else "start without the sections named in the errors"
                    self.assertEqual(done.stdout.splitlines()[-1], f"0.xml: the library would {outcome}")

    def test_details(self):
        for settings, *expected in DETAILS:
            with self.subTest(settings):
                self.check(settings, ["1:1 note host-lines", *expected], "--verbose")
        self.check(NATIVE + "enabled=0;<;<;csv>;c>;enabled=1;path=a", [], "--verbose")

    def test_every_misspelt_name_is_told_at_its_line(self):
        lines, files = DEFAULTS.decode().splitlines(), []
        for number, line in enumerate(lines):
            for word in re.findall('name="(?!default"|main")([^"]*)"', line):  # Those are free: the names of instances.
                for slip in (word[1:], word[:-1], word + "x", word[0] + word, word[1] + word[0] + word[2:], word.swapcase()):
                    wrong = line.replace(f'"{word}"', f'"{slip}"')
                    files.append((number + 1, wrong, "\n".join([*lines[:number], wrong, *lines[number + 1:]])))
        for (number, wrong, _), found in zip(files, self.findings([text for *_, text in files])):
            with self.subTest(wrong):
                self.assertIn(number, [finding["line"] for finding in found])

    def test_text_and_status_of_several_files(self):
        self.write("core>;<value name='queue_sise\x85'>1</value>", "warned.xml")
        self.write("core>;queue_size=0", "refused.xml")
        self.write("state>;enabled=0", "good.xml")
        done = self.run_tool("refused.xml", "warned.xml", "good.xml")
        self.assertEqual((done.returncode, done.stdout), (2, r"""refused.xml:3:1: error: QVX\Events\core\queue_size: queue_size must be greater than zero
    Set a number above 0; the default is 1024.
refused.xml: the library would not start: queue_size must be greater than zero
warned.xml:3:1: warning: QVX\Events\core\queue_sise\xc2\x85: no such setting here; did you mean queue_size?
    The settings of this key: enabled, minimum_severity, queue_size, drop_policy.
good.xml: no problems
"""))
        self.assertEqual(self.run_tool("good.xml", "warned.xml").returncode, 1)
        found = json.loads(self.run_tool("--json", "--verbose", "good.xml", "good.xml", "warned.xml").stdout)
        self.assertEqual([finding["severity"] for finding in found], ["note"] * 5 + ["warning"])

    def test_files_that_are_no_settings_files(self):
        for content, position, reason in (
                (b"<config>\n <a>\n</config>", (3, 3), "Start-end tags mismatch"),
                (b"<config/>\n <b/>", (2, 3), "a second root element"),
                (b"x", (1, 1), "text outside the root element"),
                (b"<config>\0", (1, 9), "a control byte, which XML cannot hold"),
                (b"<config>\n&#0;", (2, 4), "Start-end tags mismatch"),
                (b"<config>\n\n<!-- a\n -- b\n--></config>", (4, 2), "a comment with -- inside"),
                (b"<config\n a='1\n&#1;'/>", (3, 1), "a reference to a character that XML cannot hold")):
            with self.subTest(content):
                (f,), = self.findings([content])
                self.assertEqual((f["code"], f["severity"], f["text"]), ("not-xml", "error", self.refusal()))
                self.assertEqual((f["line"], f["column"], f["remedy"]), (*position, f"{reason}. Fix the file at this position."))

    def test_files_that_cannot_be_read(self):
        self.write("core>;", "long.xml")
        os.truncate("long.xml", (64 << 20) + 1)
        for path, reason in (("none", "No such file or directory"), (".", "not a regular file"), ("/dev/zero", "not a regular file"),
                             ("long.xml", "larger than 64 MiB"), ("/proc/self/mem", "it cannot be read")):
            with self.subTest(path):
                done = self.run_tool(path)
                self.assertEqual((done.returncode, done.stdout.partition(". ")[0]),
                                 (2, f"{path}:1:1: error: Unable to open oxEvent config: {path}\n    {reason}"))

    def test_completes_as_the_library_does(self):
        for content in (CASES[0][0], CASES[1][0], DEFAULTS, b""):
            self.write(content)
            completed = self.run_tool("--complete", "0.xml").stdout.encode()
            self.assertEqual((self.refusal(), completed), ("", pathlib.Path("0.xml").read_bytes()))
        self.assertEqual(completed, DEFAULTS)
        self.write("core>;queue_size=0")
        refused = self.run_tool("--complete", "0.xml")
        self.assertEqual((refused.returncode, refused.stdout, refused.stderr),
                         (2, "", "oxevent-check: queue_size must be greater than zero\n"))

    def test_who_may_read_the_secrets(self):
        self.write(POST + "bearer_token=t;headers=a: b|X-Key: k;basic_username=u;basic_password=p;<;v>;" + ON +
                   "endpoint_url=https://u:p@h/;bearer_token=;headers=a:b;<;<;<;snmp>;trap>;t>;community=cobalt")
        for mode, who in ((0o640, None), (0o604, "read"), (0o602, "change"), (0o606, "change")):
            os.chmod("0.xml", mode)
            found = [f for f in json.loads(self.run_tool("--json", "0.xml").stdout) if f["code"] == "secret-readable"]
            text = f"is a secret in a file that every user of the machine may {who}"
            self.assertEqual([(f["line"], f["text"], f["remedy"]) for f in found],
                             [(line, text, "Run chmod o-rw on the file, or use mode 0640 with a dedicated group.") for line in (8, 9, 11, 15) if who])

    @unittest.skipUnless(os.geteuid() == 0, "only root gives a file to another user")
    def test_a_file_with_secrets_that_another_user_owns(self):
        self.write(POST + "bearer_token=t")
        for owner, user, is_reported in ((0, 7777, False), (7777, 7777, False), (1, 0, False), (1, 7777, True)):
            with self.subTest(owner=owner, user=user):
                os.chown("0.xml", owner, -1)
                done = subprocess.run(["setpriv", f"--reuid={user}", "--inh-caps=+dac_override", "--ambient-caps=+dac_override",
                                       TOOL, "--json", "0.xml"], capture_output=True, check=False)
                self.assertEqual([(finding["text"], finding["remedy"]) for finding in json.loads(done.stdout)],
                                 [("is a secret in a file that its owner, who is neither root nor you, may read",
                                   "Give the file to the user that the library runs as: chown.")] if is_reported else [])

    def test_command_lines_that_cannot_be_followed(self):
        for arguments, complaint in (
                ([], "no FILE"),
                (["--explain", "core", "f.xml"], "f.xml: --explain takes no FILE"),
                (["--complete", "a", "b"], "b: --complete takes one FILE"),
                (["--jsn", "a"], "--jsn: no such option; did you mean --json?"),
                (["--explain", "que_size"], "que_size: no such key; did you mean queue_size?"),
                (["--explain", "sink/csv/path/x"], r"sink/csv/path/x: no such key; did you mean sink\csv\path?"),
                (["--explain", "sink/csv/NAME/pth"], r"sink/csv/NAME/pth: no such key; did you mean sink\csv\NAME\path?")):
            with self.subTest(arguments):
                done = self.run_tool(*arguments)
                self.assertEqual((done.returncode, done.stdout, done.stderr), (2, "", f"oxevent-check: {complaint}\n"))

    def test_help_and_version(self):
        self.assertRegex(self.run_tool("--help").stdout, "(?s)^Usage: oxevent-check .*\n  --explain KEY  ")
        self.assertRegex(self.run_tool("--version").stdout, r"^oxevent-check \d+\.\d+\.\d+\n$")

    def test_explains(self):
        self.assertEqual(self.run_tool("--explain", r"sink\syslog\udp\any\app_name").stdout,
                         "QVX\\Events\\sink\\syslog\\udp\\NAME\\app_name\n"
                         "    APP-NAME of the messages, at most 48 characters.\n"
                         "    Type:       a string\n    At most:    48 bytes\n    Default:    oxEvent\n")
        self.assertIn(" 3\n    Default:    info\n    Accepts:    debug, info, information, warning, warn, error, err (case-insensitive)\n",
                      self.run_tool("--explain", "QVX/Events/core.minimum_severity").stdout)
        for key, count in (("enabled", 9), ("host", 2), ("QVX", 77), ("core", 5), ("sink/csv", 5), ("sink/csv/path", 1),
                           ("sink.csv.mine", 5), ("/core//queue_size", 1), (r"sink\syslog", 7)):
            with self.subTest(key):
                said = self.run_tool("--explain", key).stdout
                self.assertEqual((said.count("QVX\\"), said.count("\n\n")), (count, count - 1))


if __name__ == "__main__":
    unittest.main()
