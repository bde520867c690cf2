"""The Python module as a program uses it: python_test.py [-v] [PythonTest.test_NAME...]."""
import ctypes
import json
import logging
import re
import subprocess
import sys
import tempfile
import unittest
import unittest.mock
import weakref
from datetime import datetime, timedelta, timezone

import oxevent
from receivers import octets, write_settings

RECORD = oxevent._Record
STRINGS = {name: name + " é\udcff" for name, kind in RECORD._fields_ if kind is ctypes.c_char_p}  # Not valid UTF-8.
NUMBERS = {
    "severity": oxevent.Severity.ERROR, "event_id": 2**64 - 1, "utc_ns": 2**64 - 2, "ptp_ns": 10**18 + 1, "pts": -2**63,
    "value": -0.1, "threshold": 1.7976931348623157e308, "duration_ms": 2**64 - 3}
NOON = datetime(2026, 1, 2, 14, 0, 0, 123456, timezone(timedelta(hours=2)))
NOON_NS = 1767355200123456000
REFUSED_FIELDS = (
    ({"mesage": "x"}, TypeError, "'mesage'"),
    ({"message": ""}, ValueError, "message must not be empty"),
    ({"units": b"a\0"}, ValueError, "units must not contain '\\x00' (at 1)"),
    ({"duration_ms": 2**64}, ValueError, "duration_ms must be 0 to 18446744073709551615, not 18446744073709551616"),
    ({"utc_ns": NOON.replace(tzinfo=None)}, ValueError, "utc_ns must be a datetime with a time zone"),
    ({"details_json": {"a": float("nan")}}, ValueError, "details_json: Out of range"),
    ({}, oxevent.OxEventError, "oxEvent is not initialized (NOT_INITIALIZED, 0x80050001)"))

EXIT = """
import oxevent, sys
oxevent.initialize(sys.argv[1])
oxevent.register_callback(lambda event: print(event.message))
for number in range(500):
    oxevent.submit(str(number))
"""
FORK = """
import multiprocessing, oxevent, sys

def child():
    with oxevent.running(sys.argv[1]):
        oxevent.register_callback(lambda event: print("child:", event.message, flush=True))
        callback.unregister()  # The parent's, which has the same id as the child's.
        oxevent.submit("c")

oxevent.initialize(sys.argv[1])
callback = oxevent.register_callback(lambda event: print("parent:", event.message))
process = multiprocessing.get_context("fork").Process(target=child)
process.start()
process.join()
oxevent.submit("p")
"""


class PythonTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        directory = self.enterContext(tempfile.TemporaryDirectory())
        self.events = []
        self.settings = f"{directory}/settings.xml"
        write_settings(self.settings, {"core": {"minimum_severity": "debug"}, "sink\\native\\main": {"enabled": 0}})

    def start(self, callback):
        self.enterContext(oxevent.running(self.settings))
        return self.enterContext(oxevent.register_callback(callback))

    def run_script(self, script):
        """Runs a script in a new process and returns the lines that it prints."""
        command = [sys.executable, "-Bc", script, self.settings]
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return done.stdout.splitlines()

    def test_fields_arrive_as_given(self):
        self.start(self.events.append)
        for given, expected in (
                (STRINGS | NUMBERS, STRINGS | NUMBERS),
                ({name: octets(text) for name, text in STRINGS.items()}, STRINGS),
                ({}, {"event_type": "event", "source_name": "oxEvent", "severity": 1, "details_json": "{}", "pts": 0}),
                ({"utc_ns": NOON, "ptp_ns": NOON}, {"utc_ns": NOON_NS, "ptp_ns": NOON_NS}),
                ({"details_json": {"é": ["\0\udcff"]}}, {"details_json": '{"é": ["\\u0000\\udcff"]}'})):
            oxevent.submit(**{"message": "m"} | given)
            oxevent.flush()
            event = vars(self.events.pop())
            self.assertEqual({name: event[name] for name in expected}, expected)

    def test_invalid_arguments(self):
        oxevent.load()
        for fields, error, text in REFUSED_FIELDS:
            with self.subTest(fields=fields), self.assertRaisesRegex(error, re.escape(text)):
                oxevent.submit(**{"message": "m"} | fields)
        with self.assertRaisesRegex(ValueError, "timeout_s must be above 0"):
            oxevent.flush(0)
        with unittest.mock.patch("oxevent._call") as call:
            oxevent.flush(1e-9)
        call.assert_called_once_with("oxEventFlush", 1)  # 0 would be no limit.

    def test_unregistering_ends_the_calls(self):
        callback = self.start(self.events.append)
        callback.unregister()
        callback.unregister()
        oxevent.submit("m")
        oxevent.flush()
        self.assertEqual(self.events, [])

    def test_a_callback_that_raises_fails_the_next_flush(self):
        error = KeyError("key")

        def fail(event):
            raise error

        self.start(fail)
        expected = self.assertRaisesRegex(oxevent.OxEventError, "raised KeyError.*FAILURE")
        with self.assertLogs("oxevent"), expected as raised:
            oxevent.submit("m")
            oxevent.flush()
        self.assertIs(raised.exception.__cause__, error)
        oxevent.flush()

    def test_a_failed_clear_is_tried_again_at_the_next_poll(self):
        write_settings(self.settings, {"state": {"route_orphan_clear": 1}, "sink\\native\\main": {"enabled": 0}})
        file = f"{self.settings}.conditions"
        with oxevent.ActiveFile(file), oxevent.running(self.settings):
            oxevent.submit("m", action="raise")
        no_memory = oxevent.OxEventError(oxevent.Result.FAILURE, "no memory")
        with oxevent.ActiveFile(file, grace_s=0) as conditions, oxevent.running(self.settings):
            with unittest.mock.patch("oxevent.submit", side_effect=no_memory):
                self.assertRaises(oxevent.OxEventError, conditions.poll)
            conditions.poll()
            oxevent.flush()
            self.assertEqual(conditions.unconfirmed(), 0)

    def test_poll_clears_a_cleared_condition_at_once_and_reports_a_suppressed_clear(self):
        file = f"{self.settings}.conditions"
        with oxevent.ActiveFile(file), oxevent.running(self.settings):
            oxevent.submit("m", action="raise")
            oxevent.submit("m", action="clear")
        with oxevent.ActiveFile(file), oxevent.running(self.settings):
            oxevent.submit("m", action="raise", dedupe_key="other")  # Writes the file again.
        with oxevent.ActiveFile(file) as conditions, oxevent.running(self.settings):
            with self.assertRaisesRegex(PermissionError, "route_orphan_clear"):
                conditions.poll()

    def test_log_records_become_events(self):
        logger = logging.Logger("pump.7")
        handler = oxevent.OxEventHandler(source_id="press-4")
        logger.addHandler(handler)

        def log_in_callback(event):
            self.events.append(event)
            logger.error("ignored: it would return to the callback, endlessly")

        self.start(log_in_callback)
        for level in (5, 10, 20, 30, 40, 50):
            logger.log(level, "%s", level)
        try:
            raise ValueError("bad")
        except ValueError:
            logger.exception("a\0\ud800", extra={"oxevent": {"action": "raise", "details_json": {"k": 1}}})
        logging.shutdown([weakref.ref(handler)])  # Flushes with the handler locked, while callbacks log.
        *levels, event = self.events
        self.assertEqual([event.severity for event in levels], [0, 0, 1, 2, 3, 3])
        self.assertEqual((event.message, event.action, event.event_type), ("a\\x00\\ud800", "raise", "log"))
        self.assertEqual((event.source_name, event.source_id), ("pump.7", "press-4"))
        details = json.loads(event.details_json)
        self.assertEqual((details["k"], details["exception"]), (1, "ValueError: bad"))
        self.assertIn('raise ValueError("bad")', details["traceback"])

    def test_exit_delivers_pending_events(self):
        messages = [str(number) for number in range(500)]
        self.assertEqual(self.run_script(EXIT), messages)

    def test_fork(self):
        self.assertEqual(self.run_script(FORK), ["child: c", "parent: p"])


if __name__ == "__main__":
    unittest.main()
