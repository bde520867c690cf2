"""oxevent-check finds seeded mistakes at their lines, and nothing in valid files: check_mistakes_test.py OXEVENT_CHECK.

Each file is made from a seed; a failure names the files, which are kept then.
"""
import json, os, random, shutil, subprocess, sys, tempfile
from xml.sax.saxutils import quoteattr, escape

VALID, MISTAKEN = 200, 500
SWITCH = ["1", "0", "true", "FALSE", "Yes", "no", "on", "Off", "enabled", "disabled"]
SEVERITIES = [["debug", "0"], ["info", "Information", "1"], ["warning", "WARN", "2"], ["error", "err", "3"]]
FACILITIES = "kern user mail daemon auth security authpriv cron ftp local0 local3 LOCAL7".split()
HOSTS = ["127.0.0.1", "::1", "10.20.30.40", "collector.plant.example", "localhost"]
URLS = ["http://127.0.0.1:8080/events", "https://hooks.plant.example/a/b?c=d&e=f", "HTTP://[::1]:9000/", "https://h"]
OIDS = ["1.3.6.1.4.1.32473.1.1", "1.3.6.1.4.1.32473.9", "2.47.3"]
SOURCES = ["/oxEvent", "//plant-7.example/packer?run=17", "urn:uuid:6e8bc430-9c3a-11d9-9669-0800200c9a66", "a%20b"]
HEADERS = ["X-Plant: 7", "X-A: 1|X-B: two words", "Authorization: Bearer abc"]
TEXTS = ["packer", "Line 7", "é€𝄞", "a&b <c> \"d\""]
number = lambda low, high: lambda r: str(r.randint(low, high))
one = lambda *values: lambda r: r.choice(values)
switch = one(*SWITCH)

CORE = {"queue_size": number(1, 2**32 - 1), "drop_policy": one("drop_newest", "Newest", "drop", "debug_info_first")}
STATE = {"enabled": switch, "dedupe_enabled": switch, "default_repeat_interval_sec": number(0, 2**32 - 1),
         "send_clear": switch, "route_orphan_clear": switch}
SINKS = {
    r"sink\csv": {"path": lambda r: f"/var/log/plant/{r.getrandbits(60)}.csv", "flush_each_event": switch},
    r"sink\syslog\udp": {"host": one(*HOSTS), "port": number(1, 65535), "facility": one(*FACILITIES, "uucp", "lpr"),
                         "app_name": one("packer", "line-7")},
    r"sink\native": {"source_name": lambda r: f"packer {r.getrandbits(30)}", "facility": one(*FACILITIES)},
    r"sink\cloudevents\http": {"endpoint_url": lambda r: f"http://h{r.getrandbits(60)}/", "source": one(*SOURCES),
                               "subject_prefix": one(*TEXTS), "timeout_ms": number(500, 5000)},
    r"sink\webhook\http": {
        "endpoint_url": lambda r: r.choice(URLS) + str(r.getrandbits(60)), "headers": one(*HEADERS[:2]),
        "payload_mode": one("CloudEvents", "cloudevents_structured"), "connect_timeout_ms": number(500, 3000),
        "request_timeout_ms": number(3000, 5000), "tls_verify": one("1", "true"), "retry_count": one("0"),
        "backoff_ms": number(0, 1000), "cloudevents_source": one(*SOURCES), "cloudevents_subject_prefix": one(*TEXTS)},
    r"sink\snmp\trap": {"host": one(*HOSTS), "port": number(1, 65535), "community": one("cobalt"),
                        "version": one("2c", "V2C", "snmpv2c"), "enterprise_oid": one(*OIDS), "trap_oid": one(*OIDS)},
    r"sink\alertmanager": {"send_resolved": switch, "allow_source_label": switch,
                           "alertname_prefix": one("Plant", "A_b")}}
NEEDED = ("path", "endpoint_url", "payload_mode", "port", "source_name")  # Also what tells two sinks apart.


class Node:
    def __init__(self, name, text=None):
        self.name, self.text, self.children = name, text, []
        self.tag, self.attribute = "key" if text is None else "value", "name"

    def child(self, name, text=None):
        found = next((c for c in self.children if c.name == name), None)
        if not found:
            found = Node(name, text)
            self.children.append(found)
        elif text is not None:
            found.text = text
        return found

    def at(self, path):
        return self.child(path.partition("\\")[0]).at(path.partition("\\")[2]) if path else self

    def lines(self):
        begin = f"<{self.tag} {self.attribute}={quoteattr(self.name)}>"
        if self.text is not None:
            yield self, f"{begin}{escape(self.text)}</{self.tag}>"
            return
        yield self, begin
        for child in self.children:
            yield from child.lines()
        yield None, f"</{self.tag}>"


class File:
    """A valid one, to be spoiled."""

    def __init__(self, seed):
        self.r = r = random.Random(seed)
        self.root, self.mode = Node("QVX"), 0o600
        self.events = self.root.at("Events")
        self.instances = []
        self.minimum = r.randrange(3)
        core = self.events.at("core")
        core.child("minimum_severity", r.choice(SEVERITIES[self.minimum]))
        self.fill(core, CORE), self.fill(self.events.at("state"), STATE)
        kinds = r.sample(sorted(SINKS), r.randint(1, 4))
        for kind in kinds:
            count = 1 if "native" in kind else r.randint(1, 2)  # Two would write to the one log of the machine.
            for name in r.sample(["default", "main", "a", "b-2", "Plant 7"], count):
                self.instance(kind, name)
        r.shuffle(self.events.children)

    def fill(self, key, values):
        for name in self.r.sample(sorted(values), self.r.randint(0, len(values))):
            key.child(name, values[name](self.r))

    def instance(self, kind=None, name="x"):
        """An enabled sink's key."""
        kind = kind or self.r.choice(sorted(SINKS))
        key = self.events.at(kind).at(name)
        key.child("enabled", "1")
        key.child("minimum_severity", self.r.choice(SEVERITIES[self.r.randint(self.minimum, 3)]))
        self.fill(key, SINKS[kind])
        for needed in NEEDED:
            if needed in SINKS[kind]:
                key.child(needed, SINKS[kind][needed](self.r))
        self.instances.append(key)
        return key

    def write(self, path, spoil=lambda text: text):
        """Gives the line of each node."""
        lines = [(None, '<?xml version="1.0" encoding="UTF-8"?>'), (None, "<config>"), *self.root.lines()]
        other = Node("OtherProgram")
        other.child("setting", "7")
        lines += [*other.lines(), (None, "</config>")]
        for _ in range(self.r.randrange(4)):
            remark = self.r.choice(["", "<!-- a remark -->", "<!-- two\nlines -->"])
            lines.insert(self.r.randint(2, len(lines) - 1), (None, remark))
        at, number = {}, 1
        for node, line in lines:
            at[node] = number
            number += line.count("\n") + 1
        with open(path, "w", encoding="utf-8") as file:
            file.write(spoil("\n".join(line for _, line in lines) + "\n"))
        os.chmod(path, self.mode)
        return at


def misspelled(r, word, known):
    while True:
        i = r.randrange(len(word))
        wrong = r.choice([word[:i] + word[i + 1:], word[:i] + word[i] + word[i:], word[:i] + "x" + word[i + 1:],
                          word[:i] + word[i + 1:i + 2] + word[i] + word[i + 2:], word.upper(), word.replace("_", "-")])
        if wrong not in {word, *known}:
            return wrong


def bad(kind, name, *texts):
    """A value of an enabled sink, or of a key that is no sink."""
    def spoil(f):
        key = f.events.at(kind) if kind in ("core", "state") else f.instance(kind)
        return [key.child(name, f.r.choice(texts))]
    return spoil


def value_name(f):
    node = f.r.choice([v for k in (*f.instances, f.events.at("core")) for v in k.children])
    node.name = misspelled(f.r, node.name, [v for values in (CORE, STATE, *SINKS.values()) for v in values])
    return [node]


def key_name(f):
    path = f.r.choice(["core", "state", *SINKS])
    if path in SINKS:
        f.instance(path)
    node = f.events.at("\\".join(path.split("\\")[:f.r.randint(1, path.count("\\") + 1)]))
    node.name = misspelled(f.r, node.name, ["core", "state", "sink", "csv", "syslog", "udp", "native", "http", "trap"])
    return [node]


def blanks(f):
    node = f.r.choice([v for k in f.instances for v in k.children if not v.text.isdigit()])  # Numbers may have some.
    node.text = f.r.choice([" {}", "{} ", "\t{}", "{}\n"]).format(node.text)
    return [node]


def twice(f):
    key = f.r.choice(f.instances)
    first = f.r.choice(key.children)
    key.children.append(Node(first.name, first.text))
    return [key.children[-1], first]


def too_high(f):
    kind = f.r.choice([k for k in SINKS if k.count("\\") == 2])
    key = f.events.at(kind.rpartition("\\")[0]).at("default")
    return [key, key.child("enabled", "1")]


def without_instance(f):
    kind = f.r.choice(sorted(SINKS))
    return [f.events.at(kind).child("enabled", "1"), f.events.at(kind)]


def value_for_key(f):
    f.events.children = [c for c in f.events.children if c.name != "state"]
    return [f.events.child("state", "1")]


def wrong_element(f):
    node = f.r.choice([v for k in f.instances for v in k.children])
    if f.r.random() < 0.5:
        node.tag = f.r.choice(["vaule", "Value", "val"])
    else:
        node.attribute = f.r.choice(["nme", "Name", "id"])
    return [node]


def incomplete(f):
    kind, name = f.r.choice([(r"sink\webhook\http", "endpoint_url"), (r"sink\cloudevents\http", "endpoint_url"),
                             (r"sink\csv", "path")])
    key = f.instance(kind)
    node = key.child(name)
    if name != "path" and f.r.random() < 0.5:
        key.children.remove(node)
        return [key, key.child("enabled")]
    node.text = ""
    return [node]


def secret(f):
    f.mode = f.r.choice([0o644, 0o640 | 0o004, 0o664, 0o666])
    return [f.instance(r"sink\webhook\http").child(f.r.choice(["bearer_token", "basic_password"]), "k3y")]


def slow(f):
    key = f.instance(r"sink\webhook\http")
    return [key.child("retry_count", str(f.r.randint(50, 10**6))),
            key.child("request_timeout_ms", str(f.r.randint(5000, 60000))), key]


def hidden(f):
    core = f.events.at("core")
    if f.r.random() < 0.5:
        return [core.child("enabled", f.r.choice(["0", "off", "No"]))]
    for key in f.instances:
        key.child("minimum_severity", "info")
    core.child("minimum_severity", f.r.choice(SEVERITIES[3]))
    return [key.child("minimum_severity") for key in (core, *f.instances)]


def all_off(f):
    for key in [*f.instances, f.instance(r"sink\native", "main")]:
        key.child("enabled", "0")
    return [f.events.at("sink"), *(k.child("enabled") for k in f.instances)]


def one_path(f):
    return [f.instance(r"sink\csv", name).child("path", "/var/log/one.csv") for name in ("p", "q")]


def long_text(f):
    if f.r.random() < 0.5:
        return [f.instance(r"sink\csv").child("path", "/var/log/" + "x" * f.r.randint(2040, 4000))]
    return [f.instance(r"sink\syslog\udp").child("app_name", "p" * f.r.randint(49, 200))]


def broken(f):
    """No XML any more. A reader may notice first at a line behind the break."""
    node = f.r.choice([v for k in f.instances for v in k.children])
    node.text = "MARK"
    wrong = f.r.choice(["<", "&nosuch", "</key>", "<!--"])
    mark = "MARK</value>" if wrong == "</key>" else "MARK"
    return [node], lambda text: text.replace(mark, wrong)


NUMBERS = ["ten", "1k", "-1", "0x10", "4294967296", "1.5", "5s", "1 000", "+5"]
WORDS = ["maybe", "ture", "y", "2x", "onn"]
BAD_URLS = ["htp://h/", "http:/h/", "http//h", "ftp://h/", "h.example/events", "http://", "http://h:99999/",
    "http://a b/",
            "https://:443/", "http://h:80a/"]
BAD_OIDS = ["1.3.6..1", "1.3.6.a", "3.1.2", "2.48.3", "1.40.1", ".1.3.6.1", "1.3.6.1.4.1.4294967296", "1", "1.3.6.1.",
    "iso.3.6", "1 3 6"]
BAD_URIS = ["a b", "//host/ü x", "http://[", "%zz", "<plant>", "a\\b"]
MISTAKES = [
    value_name, value_name, value_name, key_name, key_name, blanks, blanks, twice, too_high, without_instance,
    value_for_key,
    wrong_element, incomplete, incomplete, secret, slow, hidden, all_off, one_path, long_text, broken,
    bad("core", "queue_size", "0", *NUMBERS), bad("state", "default_repeat_interval_sec", *NUMBERS),
    bad(r"sink\syslog\udp", "port", "65536", "70000", *NUMBERS), bad(r"sink\snmp\trap", "port", "65536", "1000000"),
    bad(r"sink\webhook\http", "request_timeout_ms", *NUMBERS), bad(r"sink\webhook\http", "retry_count", "4294967295"),
    bad("state", "send_clear", *WORDS), bad(r"sink\csv", "flush_each_event", *WORDS), bad(r"sink\native", "enabled",
    *WORDS),
    bad("core", "minimum_severity", "4", "notice", "critical", "warnings"),
    bad(r"sink\alertmanager", "minimum_severity", "7", "alert", "infos"), bad("core", "drop_policy", "oldest",
    "drop-newest"),
    bad(r"sink\syslog\udp", "facility", "local8", "locale0", "deamon"), bad(r"sink\native", "facility", "syslog",
    "Local 4"),
    bad(r"sink\webhook\http", "payload_mode", "json", "cloudevent", "native-json"), bad(r"sink\snmp\trap", "version",
    "1", "3", "v2"),
    bad(r"sink\webhook\http", "endpoint_url", *BAD_URLS), bad(r"sink\cloudevents\http", "endpoint_url", *BAD_URLS),
    bad(r"sink\snmp\trap", "enterprise_oid", *BAD_OIDS), bad(r"sink\snmp\trap", "trap_oid", *BAD_OIDS),
    bad(r"sink\cloudevents\http", "source", *BAD_URIS),
    bad(r"sink\webhook\http", "headers", "no colon here", "X-A 1|X-B: 2", "Content-Length: 5", ": empty"),
    bad(r"sink\alertmanager", "url", "http://alerts.example:9093/api/v2/alerts")]


def findings(program, files):
    run = subprocess.run([program, "--json", *files], stdout=subprocess.PIPE, text=True, errors="surrogateescape")
    assert run.returncode in (0, 1, 2), run.returncode
    found = {file: [] for file in files}
    for finding in json.loads(run.stdout):
        found[finding["file"]].append(finding)
    return found


def main(program):
    folder = tempfile.mkdtemp(prefix="oxevent_check_")
    expected = {}
    for seed in range(VALID):
        path = f"{folder}/valid-{seed}.xml"
        File(seed).write(path)
        expected[path] = None
    for seed in range(MISTAKEN):
        file, mistake = File(VALID + seed), MISTAKES[seed % len(MISTAKES)]
        name = getattr(mistake, "__name__", "mistake")
        path = f"{folder}/{seed}-{name}.xml"
        spoilt = mistake(file)
        nodes, spoil = spoilt if isinstance(spoilt, tuple) else (spoilt, lambda text: text)
        lines = file.write(path, spoil)
        last = open(path).read().count("\n") if mistake is broken else 0
        expected[path] = {lines[node] for node in nodes} | set(range(lines[nodes[0]], last + 1))
    found = findings(program, [*expected])
    serious = lambda path: [f for f in found[path] if f["severity"] != "note"]
    noise = [path for path, lines in expected.items() if lines is None and serious(path)]
    missed = [path for path, lines in expected.items() if lines and not lines & {f["line"] for f in serious(path)}]
    for path in (noise + missed)[:40]:
        told = [f"{f['line']}: {f['code']}: {f['text']}" for f in serious(path)]
        print(path, f"expected: {sorted(expected[path] or [])}", *told, sep="\n  ")
    print(f"{MISTAKEN - len(missed)} of {MISTAKEN} mistakes found at their lines, "
          f"{len(noise)} of {VALID} valid files complained of")
    if noise or missed:
        sys.exit(f"the files are in {folder}")
    shutil.rmtree(folder)


if __name__ == "__main__":
    main(sys.argv[1])
