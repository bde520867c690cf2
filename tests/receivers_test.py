"""Real receivers must understand every field of every event: receivers_test.py [-v] [Test.test_NAME...]."""
import ctypes, itertools, json, math, os, random, re, socket, struct, sys, tempfile, time, unittest
from datetime import datetime, timezone

sys.path.append(sys.path[0] + "/../scripts")
import receivers
from receivers import octets, text

LIBRARY, POSTER = ctypes.CDLL(os.environ["OXEVENT_LIBRARY"]), ctypes.CDLL(os.environ["OXEVENT_ALERT_POSTER"])
POSTER.AlertPosterStart.restype, POSTER.AlertPosterStop.argtypes = ctypes.c_void_p, [ctypes.c_void_p]
FIELDS = re.findall(r"^  ([\w ]+\*?) (\w+);", open(sys.path[0] + "/../include/oxEvent.h").read(), re.M)
RECORD = type("Record", (ctypes.Structure,), {"_fields_": [
    (name, getattr(ctypes, "c_" + kind.removesuffix("_t").replace("const char*", "char_p"))) for kind, name in FIELDS]})
TEXTS, LARGE = ([name for kind, name in FIELDS if kind == wanted] for wanted in ("const char*", "uint64_t"))
DEFAULTS = dict.fromkeys(TEXTS, "") | {"event_type": "event", "source_name": "oxEvent", "details_json": "{}"}
# What receivers change or refuse, because that is how they are. All else must arrive byte for byte.
rsyslog_of_a_cut = lambda line: line[-1:].strip(" ")  # Data without an end: no parameters, and this for a message.
alertmanager = lambda value: re.sub("[\udc80-\udcff]", "\ufffd", value)  # Of each byte that is not UTF-8.
alertmanager_stamp = lambda ns: stamp(ns)[:23] + "Z"  # Three digits of a second.


def cloudevents_refuses(event, taken):  # By the rules of CloudEvents 1.0: the library passes on what it is given.
    texts, strict = ("".join(map(event.get, names)) for names in (TEXTS, ("event_type", "source_id")))
    bad = re.search("[\udc80-\udcff]", texts) or re.search("[\0-\x1f\x7f-\x9f]", strict) or event["event_id"] in taken
    return bool(bad) or taken.add(event["event_id"])


def make_events(count):
    nasty = b'"q" [b] \\b\\ a=b, %s #012 \\u0041 \\n </x>&amp;' + bytes([*range(1, 32), 127]) + octets("é€𝄞")
    for severity, all_texts in enumerate((b"", nasty, b"]", b"\xff\xc3(\xe2\x82\xed\xa0\x80\xc0\x80\xf4\x90\x80\x80")):
        yield dict.fromkeys(TEXTS, all_texts) | {"severity": severity, "message": all_texts + b" \n\n"}
    yield {"severity": 3}
    yield {"event_type": octets("disk~full! /é"), "source_id": b"s/1", "message": b" on s/1 ", "source_name": b"on"}
    yield {"message": octets("m" + "é" * 4500), "source_id": b"cut in the message", "severity": 1}
    yield {"details_json": b"\\" * 5000, "source_id": b"cut in the data"}
    for size in (31, 63, 127, 255):  # Where what traps and headers keep ends within a character.
        yield {name: octets(name[0] + "é" * size) for name in TEXTS} | {"source_id": b"size %d" % size}
    dice = random.Random(20231114)
    good = [*map(octets, '\x01\x1b\x7f"\\][\n\r\t \'=,-/:é\u0085𝄞\ufffd'), b'\\"', b"{}", b"Fan 2", b"%d"]
    reals = (math.nan, -math.nan, math.inf, -math.inf, 5e-324, 1.7976931348623157e308, 0.1, 1234567.0, 1e20, -0.0)
    large = lambda: dice.choice((2**64 - 1, 10**9, 1, *[dice.getrandbits(dice.randint(1, 64)) | 1] * 4))
    for number in range(count):
        pieces = (good + [b"\xff", b"\x80", b"\xe2\x82", b"\xed\xbf\xbf"], good, good[10:18] + good[19:])[number % 3]
        yield {name: b"".join(dice.choices(pieces, k=dice.choice((1, 2, 5, 30, 90)))) for name in TEXTS} | {
            name: large() for name in LARGE} | {
            "source_id": b"%d" % number + dice.choice(good), "severity": dice.randrange(4), "value": dice.choice(reals),
            "threshold": struct.unpack("d", dice.randbytes(8))[0], "pts": dice.choice((-(2**63), 2**63 - 1, -number)),
            "utc_ns": large() % time.time_ns() or 1}  # Past: Alertmanager refuses a start in the future.


EVENTS = [{"message": b"m", "utc_ns": time.time_ns(), "ptp_ns": 1} | event for event in make_events(200)]
stamp = lambda ns: f"{datetime.fromtimestamp(ns // 10**9, timezone.utc):%Y-%m-%dT%H:%M:%S}.{ns % 10**9:09d}Z"
general = lambda x, digits=6: f"{x:.{digits}g}" if x == x else "nan" if math.copysign(1, x) > 0 else "-nan"
read_json = lambda got: json.loads(got["body"], object_pairs_hook=list, parse_int=str, parse_float=str)


def members(event, real):
    keys = ("version event_id severity severity_value severity_code action event_type source_id source_name dedupe_key "
            "correlation_id message utc_ns ptp_ns pts timecode value threshold units duration_ms details_json").split()
    number, severity = event["severity"], ("debug", "info", "warning", "error")[event["severity"]]
    event = event | {"version": 65536, "severity": severity, "severity_value": number, "severity_code": number,
                     "value": real(event["value"]), "threshold": real(event["threshold"])}
    return {name: None if event[name] is None else str(event[name]) for name in keys}


def syslog(event):
    parameters = members(event, general)
    del parameters["severity_value"], parameters["severity_code"], parameters["message"]
    token = lambda value: "".join(chr(b) if 33 <= b <= 126 else "_" for b in octets(value)) or "-"
    header = {"pri": str(21 * 8 + (7, 6, 4, 3)[event["severity"]]), "timestamp": stamp(event["utc_ns"]),
              "hostname": token(socket.gethostname()), "app_name": "the_app", "procid": str(os.getpid()),
              "msgid": token(event["event_type"])[:32]}
    data = (' {}="{}"'.format(name, re.sub(r'(["\\\]])', r"\\\1", value)) for name, value in parameters.items())
    start = "<{}>1 {} {} {} {} {} ".format(*header.values()) + "[velmora@32473" + "".join(data) + "] "
    line = text(octets(start + event["message"])[:8192])
    if not line.startswith(start):
        return header | {"message": rsyslog_of_a_cut(line), "raw": line}
    return header | parameters | {"message": line[len(start):], "raw": line}


def trap(event):
    sizes = {"event_id": 32, "event_type": 128, "source_id": 128, "source_name": 128, "action": 64, "message": 2048,
             "dedupe_key": 256, "correlation_id": 128, "utc_ns": 32, "details_json": 2048}
    kept = {name: text(octets(str(event[name]))[:size]) for name, size in sizes.items()}
    return kept | {"severity": str(event["severity"]), "severity_name": members(event, general)["severity"]}


def native_json(event):  # Members in order, numbers as they stand there.
    return [*members(event, lambda value: general(value, 17) if math.isfinite(value) else None).items()]


def cloud_event(event):
    return [("specversion", "1.0"), ("id", str(event["event_id"])), ("source", "/plant/7"), (
        "type", event["event_type"] or "oxEvent.event"), ("time", stamp(event["utc_ns"])), (
        "subject", "line-" + (event["source_id"] or event["event_type"] or "event")), (
        "datacontenttype", "application/json"), ("data", native_json(event))]


def alert(event):
    kind, source, message, name = (event[key] for key in ("event_type", "source_id", "message", "source_name"))
    safe = lambda value, other: re.sub("^_", "", re.sub("[^A-Za-z0-9_.:-]+", "_", value).lower().rstrip("_")) or other
    number = lambda value: general(value) if math.isfinite(value) else ""
    labels = {"alertname": "OxEvent" + ("".join(map(str.capitalize, re.findall("[A-Za-z0-9]+", kind))) or "Event"),
              "severity": ("info", "info", "warning", "critical")[event["severity"]], "action": "raise",
              "event_type": safe(kind, "event")} | ({"source_id": safe(source, "source")} if source else {})
    annotations = {"summary": message, "ox_event_id": str(event["event_id"]), "ox_source_name": name,
                   "description": message + (" on " + name if octets(name) not in octets(message) else ""),
                   "ox_dedupe_key": event["dedupe_key"] or kind + (source and ":" + source), "ox_units": event["units"],
                   "ox_value": number(event["value"]), "ox_threshold": number(event["threshold"])}
    return {"labels": labels, "annotations": {name: alertmanager(value) for name, value in annotations.items()},
            "startsAt": alertmanager_stamp(event["utc_ns"])}


class Test(unittest.TestCase):
    def submit(self, event, ids=itertools.count(1)):  # Gives the event as the library must take it. ids: it counts.
        record, number = RECORD(struct_size=ctypes.sizeof(RECORD), version=65536, **event), next(ids)
        self.assertEqual(LIBRARY.oxEventSubmit(ctypes.byref(record)), 0)
        event = {name: getattr(record, name) for kind, name in FIELDS} | {"event_id": record.event_id or number}
        return {name: DEFAULTS[name] if value is None else text(value) if name in TEXTS else value
                for name, value in event.items()}

    def deliver(self, receiver, settings):  # Waits after each 20: UDP loses what comes too fast.
        file, off, debug = f"{receiver.folder}/settings.xml", {"enabled": 0}, {"minimum_severity": "debug"}
        receivers.write_settings(file, {"core": debug, "state": off, "sink\\native\\main": off,
                                        receiver.section: receiver.settings | debug | settings})
        self.assertEqual(LIBRARY.oxEventInitialize(octets(file)), 0)
        self.addCleanup(LIBRARY.oxEventShutdown)
        taken = []
        for first in range(0, len(EVENTS), 20):
            taken += map(self.submit, EVENTS[first:first + 20])
            self.assertEqual(LIBRARY.oxEventFlush(0), 0)
            receivers.await_("the arrival", lambda: len(receiver.events()) >= len(taken))
        return taken

    def check(self, kind, settings, expected, read=dict):
        with tempfile.TemporaryDirectory() as folder, kind().start(folder) as receiver:
            taken = self.deliver(receiver, settings)
            for event, got in zip(taken, receiver.events(), strict=True):
                self.assertEqual(read(got), expected(event))

    def test_rsyslog(self):
        self.check(receivers.Rsyslog, {"facility": "LOCAL5", "app_name": "the app"}, syslog)

    def test_snmptrapd(self):
        self.check(receivers.SnmpTrapd, {}, trap)

    def test_nginx(self):
        head = {"status": "204", "method": "POST", "content_type": "application/json; charset=utf-8",
                "accept": "application/json", "user_agent": "oxEvent/1.0", "authorization": "Bearer t"}
        self.check(receivers.HttpReceiver, {"bearer_token": "t"}, lambda event: head | {"body": native_json(event)},
                   lambda got: {name: got[name] for name in head} | {"body": read_json(got)})

    def test_cloudevents(self):
        self.check(receivers.CloudEventsReceiver, {"source": "/plant/7", "subject_prefix": "line-"},
                   lambda event, taken=set(): cloudevents_refuses(event, taken) or cloud_event(event),
                   lambda got: "refused" in got or read_json(got))

    def test_alertmanager(self):
        labels = lambda alert: sorted(alert["labels"].items())
        with tempfile.TemporaryDirectory() as folder, receivers.Alertmanager().start(folder) as receiver:
            poster = POSTER.AlertPosterStart(octets(receiver.url))
            taken = self.deliver(receiver, {})
            received = [{name: got[name] for name in alert(taken[0])} for got in receiver.events()]
            self.assertEqual(sorted(received, key=labels), sorted(map(alert, taken), key=labels))
            doors = lambda: sorted(dict(x)["source_id"] for x in map(labels, receiver.events()) if "door" in str(x))
            for action, source, shown in ((b"raise", b"a", "a"), (b"raise", b"b", "ab"), (b"clear", b"a", "b")):
                self.submit({"message": b"m", "event_type": b"door", "action": action, "source_id": source})
                receivers.await_(f"{action} of {source}", lambda: doors() == list(shown))
            LIBRARY.oxEventShutdown()
            self.assertEqual(POSTER.AlertPosterStop(poster), 0)


if __name__ == "__main__":
    unittest.main()
