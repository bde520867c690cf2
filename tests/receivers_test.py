"""Real receivers must understand every field of every event: receivers_test.py [-v] [Test.test_NAME...]."""
import dataclasses
import json
import os
import re
import socket
import tempfile
import time
import unittest
from datetime import datetime, timezone

import oxevent
import receivers
from receivers import octets, text

STRINGS = [field.name for field in dataclasses.fields(oxevent.Event) if field.type == "str"]
SEVERITIES = ("debug", "info", "warning", "error")
PRIORITIES = [str(21 * 8 + severity) for severity in (7, 6, 4, 3)]  # Of local5: RFC 5424, section 6.2.1.
MIB = receivers.Mib()


def make_events():
    special = b'"q" [b] \\b\\ a=b, %s #012 \\u0041 \\n </x>&amp;' + bytes([*range(1, 32), 127]) + octets("é€𝄞")
    not_utf_8 = b"\xff\xc3(\xe2\x82\xed\xa0\x80\xc0\x80\xf4\x90\x80\x80"
    for severity, string in enumerate((b"", special, b"]", not_utf_8)):
        yield dict.fromkeys(STRINGS, string) | {"severity": severity, "message": string + b" \n\n"}
    yield {"event_id": 2**64 - 1, "duration_ms": 2**64 - 2, "ptp_ns": 2**64 - 3, "pts": -2**63, "utc_ns": 10**18 + 1,
           "value": 1.7976931348623157e308, "threshold": -0.1}
    for size in (31, 63, 127, 255):  # Truncating to 32, 64, 128 or 256 bytes would split a character.
        yield {name: octets(name[0] + size * "é") for name in STRINGS if name != "source_id"}


DEFAULTS = dict.fromkeys(STRINGS, b"d") | {"ptp_ns": 1}
EVENTS = [DEFAULTS | {"event_id": number, "utc_ns": time.time_ns(), "source_id": octets(f"event {number}")} | event
          for number, event in enumerate(make_events(), 1)]


def timestamp(ns):
    return f"{datetime.fromtimestamp(ns // 10**9, timezone.utc):%Y-%m-%dT%H:%M:%S}.{ns % 10**9:09d}Z"


def syslog_message(event):
    def token(value):
        return "".join(chr(byte) if 33 <= byte <= 126 else "_" for byte in octets(value)) or "-"
    parameters = {name: f"{value:g}" if isinstance(value, float) else str(value) for name, value in event.items()}
    return parameters | {
        "severity": SEVERITIES[event["severity"]], "pri": PRIORITIES[event["severity"]],
        "timestamp": timestamp(event["utc_ns"]), "hostname": token(socket.gethostname()), "app_name": "the_app",
        "procid": str(os.getpid()), "msgid": token(event["event_type"])[:32]}


def trap(event):
    values = event | {"severity_name": SEVERITIES[event["severity"]]}
    objects = {name: text(octets(str(values[name]))[:MIB.sizes.get(name)]) for name in MIB.fields.values()}
    return {"trap": MIB.trap} | objects


def native_json(event):
    number = event["severity"]
    return event | {"severity": SEVERITIES[number], "severity_value": number, "severity_code": number}


def cloud_event(event):
    if re.search("[\1\udcff]", event["event_type"]):  # Forbidden by CloudEvents 1.0, but the library passes them on.
        return {"refused": True}
    return {
        "id": str(event["event_id"]), "source": "/plant/7", "type": event["event_type"] or "oxEvent.event",
        "subject": "line-" + (event["source_id"] or event["event_type"] or "event"), "time": timestamp(event["utc_ns"]),
        "data": native_json(event)}


class Test(unittest.TestCase):
    maxDiff = None

    def running(self, receiver, settings={}):
        debug = {"minimum_severity": "debug"}
        off = {"enabled": 0}
        sink = receiver.settings | debug | settings
        path = f"{receiver.directory}/settings.xml"
        receivers.write_settings(path, {"core": debug, "state": off, "sink\\native\\main": off, receiver.section: sink})
        return oxevent.running(path)

    def deliver(self, receiver):
        for event in EVENTS:
            oxevent.submit(**event)
        oxevent.flush()
        receivers.await_("the arrival of every event", lambda: len(receiver.events()) >= len(EVENTS))

    def check(self, kind, settings, expected, read=lambda received: received):
        """Compares what the receiver has parsed with `expected` of each event, field by field."""
        sent = []
        with tempfile.TemporaryDirectory() as path, kind().start(path) as receiver, self.running(receiver, settings):
            oxevent.register_callback(lambda event: sent.append({"version": 65536} | vars(event)))
            self.deliver(receiver)
            for event, received in zip(sent, map(read, receiver.events()), strict=True):
                with self.subTest(event_id=event["event_id"]):
                    self.assertEqual(received, received | expected(event))

    def test_rsyslog(self):
        self.check(receivers.Rsyslog, {"facility": "LOCAL5", "app_name": "the app"}, syslog_message)

    def test_six_digits(self):
        """The relay changes only the fraction of the timestamp: nine digits become six."""
        wire = self.enterContext(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
        wire.bind(("127.0.0.1", 0))
        wire.settimeout(receivers.TIMEOUT_S)
        relay = receivers.SixDigits()
        relay.target_port = wire.getsockname()[1]
        relay.section = receivers.Rsyslog.section
        with tempfile.TemporaryDirectory() as path, relay.start(path), self.running(relay, {"port": relay.target_port}):
            for event in EVENTS:
                oxevent.submit(**event)
                sent = wire.recv(65536)
                wire.sendto(sent, ("127.0.0.1", relay.port))
                self.assertEqual(wire.recv(65536), re.sub(rb"(\.\d{6})\d{3}Z ", rb"\1Z ", sent, count=1))

    def test_snmptrapd(self):
        """The trap is as the MIB describes it."""
        def read(received):
            self.assertEqual(list(received), ["trap", *MIB.fields.values()])
            return received
        self.check(receivers.SnmpTrapd, {}, trap, read)

    def test_nginx(self):
        header = {"status": "204", "method": "POST", "authorization": "Bearer t"}
        self.check(receivers.HttpReceiver, {"bearer_token": "t"}, lambda event: header | native_json(event),
                   lambda received: received | json.loads(received["body"]))

    def test_cloudevents(self):
        self.check(receivers.CloudEventsReceiver, {"source": "/plant/7", "subject_prefix": "line-"}, cloud_event,
                   lambda received: json.loads(received["body"]) if "body" in received else {"refused": True})

    def test_alertmanager(self):
        with tempfile.TemporaryDirectory() as path, receivers.Alertmanager().start(path) as receiver:
            def has(*sources):
                return set(sources) <= {alert["labels"].get("source_id") for alert in receiver.events()}

            poster = oxevent.AlertPoster(receiver.url, repeat_interval_s=3600)
            with self.running(receiver):
                self.deliver(receiver)
                oxevent.submit("m", action="raise", source_id="before")
                receivers.await_("the alert before the outage", lambda: has("before"))
                receiver.stop()
                oxevent.submit("m", action="raise", source_id="during")
                receivers.await_("a failed post", lambda: poster.state().failed_posts > 0)
                receiver.run()  # It has forgotten its alerts, which would be repeated only after an hour.
                receivers.await_("both alerts after the outage", lambda: has("before", "during"))
            self.assertEqual(poster.stop(), 0)


if __name__ == "__main__":
    unittest.main()
