"""Real receivers must understand every field of every event: receivers_test.py [-v] [Test.test_NAME...]."""
import ctypes, dataclasses, json, os, re, socket, sys, tempfile, time, unittest
from datetime import datetime, timezone

sys.path += [sys.path[0] + "/../scripts", sys.path[0] + "/../tools/python"]
import oxevent, receivers
from receivers import octets, text

TEXTS = [field.name for field in dataclasses.fields(oxevent.Event) if field.type == "str"]
SEVERITIES = ("debug", "info", "warning", "error")


def make_events():
    nasty = b'"q" [b] \\b\\ a=b, %s #012 \\u0041 \\n </x>&amp;' + bytes([*range(1, 32), 127]) + octets("é€𝄞")
    for severity, all_texts in enumerate((b"", nasty, b"]", b"\xff\xc3(\xe2\x82\xed\xa0\x80\xc0\x80\xf4\x90\x80\x80")):
        yield dict.fromkeys(TEXTS, all_texts) | {"severity": severity, "message": all_texts + b" \n\n"}
    yield {"event_id": 2**64 - 1, "duration_ms": 2**64 - 2, "ptp_ns": 2**64 - 3, "pts": -(2**63), "utc_ns": 10**18 + 1,
           "value": 1.7976931348623157e308, "threshold": -0.1, "source_id": b"numbers"}
    for size in (31, 63, 127, 255):  # Where what traps and headers keep ends within a character.
        yield {name: octets(name[0] + "é" * size) for name in TEXTS} | {"source_id": b"size %d" % size}


EVENTS = [dict.fromkeys(TEXTS, b"d") | {"event_id": number, "utc_ns": time.time_ns(), "ptp_ns": 1} | event
          for number, event in enumerate(make_events(), 1)]
stamp = lambda ns: f"{datetime.fromtimestamp(ns // 10**9, timezone.utc):%Y-%m-%dT%H:%M:%S}.{ns % 10**9:09d}Z"


def syslog(event):
    parameters = {name: f"{value:g}" if type(value) is float else str(value) for name, value in event.items()}
    token = lambda value: "".join(chr(b) if 33 <= b <= 126 else "_" for b in octets(value)) or "-"
    number = event["severity"]
    return parameters | {"severity": SEVERITIES[number], "pri": str(21 * 8 + (7, 6, 4, 3)[number]),
                         "timestamp": stamp(event["utc_ns"]), "hostname": token(socket.gethostname()),
                         "app_name": "the_app", "procid": str(os.getpid()), "msgid": token(event["event_type"])[:32]}


def trap(event):
    sizes = {"event_id": 32, "event_type": 128, "source_id": 128, "source_name": 128, "action": 64, "message": 2048,
             "dedupe_key": 256, "correlation_id": 128, "utc_ns": 32, "details_json": 2048}
    kept = {name: text(octets(str(event[name]))[:size]) for name, size in sizes.items()}
    return kept | {"severity": str(event["severity"]), "severity_name": SEVERITIES[event["severity"]]}


def native_json(event):
    number = event["severity"]
    return event | {"severity": SEVERITIES[number], "severity_value": number, "severity_code": number}


def cloud_event(event):  # Refused where CloudEvents 1.0 does not allow what the library passes on.
    return {"refused": True} if re.search("[\1\udcff]", event["event_type"]) else {
        "id": str(event["event_id"]), "source": "/plant/7", "type": event["event_type"] or "oxEvent.event",
        "subject": "line-" + (event["source_id"] or event["event_type"] or "event"), "time": stamp(event["utc_ns"]),
        "data": native_json(event)}


class Test(unittest.TestCase):
    def running(self, receiver, settings={}):
        file, off, debug = f"{receiver.directory}/settings.xml", {"enabled": 0}, {"minimum_severity": "debug"}
        receivers.write_settings(file, {"core": debug, "state": off, "sink\\native\\main": off,
                                        receiver.section: receiver.settings | debug | settings})
        return oxevent.running(file)

    def deliver(self, receiver):
        for event in EVENTS:
            oxevent.submit(**event)
        oxevent.flush()
        receivers.await_("the arrival", lambda: len(receiver.events()) >= len(EVENTS))

    def check(self, kind, settings, expected, read=lambda got: got):
        sent = []
        with tempfile.TemporaryDirectory() as folder, kind().start(folder) as receiver, self.running(receiver, settings):
            oxevent.register_callback(lambda event: sent.append({"version": 65536} | vars(event)))
            self.deliver(receiver)
            for event, got in zip(sent, map(read, receiver.events()), strict=True):
                self.assertEqual(got | expected(event), got)

    def test_rsyslog(self):
        self.check(receivers.Rsyslog, {"facility": "LOCAL5", "app_name": "the app"}, syslog)

    def test_snmptrapd(self):
        self.check(receivers.SnmpTrapd, {}, trap)

    def test_nginx(self):
        head = {"status": "204", "method": "POST", "content_type": "application/json; charset=utf-8",
                "accept": "application/json", "user_agent": "oxEvent/1.0", "authorization": "Bearer t"}
        self.check(receivers.HttpReceiver, {"bearer_token": "t"}, lambda event: head | {"body": native_json(event)},
                   lambda got: got | {"body": json.loads(got["body"])})

    def test_cloudevents(self):
        self.check(receivers.CloudEventsReceiver, {"source": "/plant/7", "subject_prefix": "line-"}, cloud_event,
                   lambda got: json.loads(got["body"]) if "body" in got else {"refused": True})

    def test_alertmanager(self):
        posting = ctypes.CDLL(os.environ["OXEVENT_ALERT_POSTER"])
        posting.AlertPosterStart.restype, posting.AlertPosterStop.argtypes = ctypes.c_void_p, [ctypes.c_void_p]
        with tempfile.TemporaryDirectory() as folder, receivers.Alertmanager().start(folder) as receiver:
            poster = posting.AlertPosterStart(octets(receiver.url))
            doors = lambda: "".join(sorted(alert["labels"]["source_id"] for alert in receiver.events()
                                           if alert["labels"]["event_type"] == "door"))
            with self.running(receiver):
                self.deliver(receiver)  # Alertmanager shows those that are well formed.
                for action, source, shown in (("raise", "a", "a"), ("raise", "b", "ab"), ("clear", "a", "b")):
                    oxevent.submit("m", event_type="door", action=action, source_id=source)
                    receivers.await_(f"{action} of {source}", lambda: doors() == shown)
            self.assertEqual(posting.AlertPosterStop(poster), 0)


if __name__ == "__main__":
    unittest.main()
