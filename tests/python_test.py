"""The Python module as a program uses it: python_test.py [-v] [Test.test_NAME...]."""
import csv, ctypes, json, logging, os, re, subprocess, sys, tempfile, threading, unittest, weakref
from datetime import datetime, timedelta, timezone
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path[:0] = [f"{ROOT}/tools/python", f"{ROOT}/scripts"]
import oxevent
from receivers import octets, write_settings

RECORD = oxevent._Record
TEXTS = {name: name + " é𝄞\udcff\udcc3(" for name, kind in RECORD._fields_ if kind is ctypes.c_char_p}  # Not UTF-8.
NUMBERS = {"severity": oxevent.Severity.ERROR, "event_id": 2**64 - 1, "utc_ns": 2**64 - 2, "ptp_ns": 10**18 + 1,
           "pts": -2**63, "value": -0.1, "threshold": 1.7976931348623157e308, "duration_ms": 2**64 - 3}
NOON = datetime(2026, 1, 2, 14, 0, 0, 123456, timezone(timedelta(hours=2)))
NOON_NS = 1767355200123456000
REFUSED = (
    (TypeError, "'mesage'", {"mesage": "x"}), (ValueError, "message must not be empty", {"message": ""}),
    (ValueError, "units must not contain '\\x00' (at 1)", {"units": "a\0"}),
    (ValueError, "units must not contain '\\x00' (at 1)", {"units": b"a\0"}),
    (ValueError, "action must not contain '\\ud800'", {"action": "\ud800"}),
    (TypeError, "source_id must be str or bytes, not 7", {"source_id": 7}),
    (ValueError, "Severity.ERROR (3), not 4", {"severity": 4}), (ValueError, "severity must", {"severity": None}),
    (ValueError, "event_id must be 0 to 18446744073709551615, not -1", {"event_id": -1}),
    (ValueError, "duration_ms must be", {"duration_ms": 2**64}), (ValueError, "pts must be", {"pts": 2**63}),
    (TypeError, "pts must be an integer, not 1.5", {"pts": 1.5}),
    (ValueError, "utc_ns must be a datetime with a time zone", {"utc_ns": NOON.replace(tzinfo=None)}),
    (TypeError, "value must be a number, not '1'", {"value": "1"}),
    (ValueError, "threshold is too large", {"threshold": 10**400}),
    (ValueError, "details_json: Out of range", {"details_json": {"a": float("nan")}}),
    (TypeError, "details_json: Object of type set", {"details_json": [set()]}),
    (oxevent.OxEventError, "oxEvent is not initialized (NOT_INITIALIZED, 0x80050001)", {}))


class Mute(Exception):
    def __str__(self):
        raise self
    __repr__ = __str__


MISSING = "try: oxevent.load()\nexcept OSError as error: print(error)"
PENDING = """
seen = oxevent.register_callback(lambda event: print(event.message))
for number in range(500): oxevent.submit(str(number))
"""
OWN_START = "oxevent.initialize(sys.argv[1])" + PENDING + """
def hammer():
    while True: oxevent.submit("daemon")
threading.excepthook = lambda _: None  # Refused at the end.
threading.Thread(target=hammer, daemon=True).start()
"""
EMBEDDED = "ctypes.CDLL(os.environ['OXEVENT_LIBRARY']).oxEventInitialize(sys.argv[1].encode())" + PENDING
FORK = """
def child():
    try: oxevent.submit("m")
    except oxevent.OxEventError as error: print(error.code.name)
    with oxevent.running(sys.argv[1]):
        oxevent.register_callback(lambda event: print("child:", event.message, flush=True))
        parents.unregister()  # Of the same id as the child's own.
        oxevent.submit("c")
oxevent.initialize(sys.argv[1])
parents = oxevent.register_callback(lambda event: print("parent:", event.message))
process = multiprocessing.get_context("fork").Process(target=child)
process.start(), process.join(), print(process.exitcode)
oxevent.submit("p")
"""


class Test(unittest.TestCase):
    def setUp(self):
        self.events, folder = [], self.enterContext(tempfile.TemporaryDirectory())
        self.settings, self.rows = f"{folder}/settings.xml", Path(folder, "rows.csv")
        debug = {"minimum_severity": "debug"}
        write_settings(self.settings, {"core": debug, "sink\\native\\main": {"enabled": 0},
                                       "sink\\csv\\default": debug | {"enabled": 1, "path": self.rows}})

    def start(self, function):
        self.enterContext(oxevent.running(self.settings))
        return self.enterContext(oxevent.register_callback(function))

    def run_script(self, script, library=os.environ["OXEVENT_LIBRARY"]):
        script = "import ctypes, multiprocessing, os, oxevent, sys, threading\n" + script
        environment = os.environ | {"PYTHONPATH": sys.path[0], "OXEVENT_LIBRARY": library}
        command = [sys.executable, "-Bc", script, self.settings]
        ended = subprocess.run(command, env=environment, capture_output=True, text=True)
        self.assertEqual((ended.returncode, ended.stderr), (0, ""))
        return ended.stdout.splitlines()

    def test_fields_arrive_as_given(self):
        declared = re.findall(r"^  [\w ]+\*? (\w+);", (ROOT / "include/oxEvent.h").read_text(), re.M)
        self.assertEqual(([name for name, _ in RECORD._fields_], ctypes.sizeof(RECORD)), (declared, 152))
        self.start(self.events.append)
        for given, expected in (
                (TEXTS | NUMBERS, TEXTS | NUMBERS), ({name: octets(text) for name, text in TEXTS.items()}, TEXTS),
                ({}, {"event_type": "event", "source_name": "oxEvent", "severity": 1, "details_json": "{}", "pts": 0}),
                ({"utc_ns": NOON, "ptp_ns": NOON}, {"utc_ns": NOON_NS, "ptp_ns": NOON_NS}),
                ({"details_json": {"é": ["\0\udcff"]}}, {"details_json": '{"é": ["\\u0000\\udcff"]}'})):
            oxevent.submit(**{"message": "m"} | given)
            oxevent.flush()
            got = vars(self.events.pop())
            self.assertEqual(got | expected, got)

    def test_what_is_refused_is_named(self):
        oxevent.load()
        for error, text, call, arguments in (
                (OSError, "is already loaded", oxevent.load, {"library": "other.so"}),
                (ValueError, "timeout_s must be above 0", oxevent.flush, {"timeout_s": 0}),
                (ValueError, "path must not contain", oxevent.initialize, {"path": "a\0"}),
                *((error, text, oxevent.submit, {"message": "m"} | fields) for error, text, fields in REFUSED)):
            with self.subTest(text), self.assertRaisesRegex(error, re.escape(text)):
                call(**arguments)
        for library, tried in (("liboxNone.so", "liboxNone.so (from the environment variable OXEVENT_LIBRARY)"),
                               ("", "liboxEvent.so.1 (from the loader's search path")):
            self.assertIn("tried " + tried, *self.run_script(MISSING, library))

    def test_callback_that_raises_fails_the_next_flush(self):
        def fail(event):
            raise {"key": KeyError("key"), "mute": Mute()}[event.message]
        self.start(fail)
        for message, cause, text in (("key", KeyError, "raised KeyError.*FAILURE"), ("mute", Mute, "raised <.*Mute object")):
            fails = self.assertRaisesRegex(oxevent.OxEventError, text)
            with self.assertLogs("oxevent") as logs, fails as at:
                oxevent.submit(message)
                oxevent.flush()
            self.assertIsInstance(at.exception.__cause__, cause)
            self.assertIn(f"{cause.__name__}: ", *logs.output)
        oxevent.flush()

    def test_unregistered_amid_a_delivery(self):
        entered, go_on = threading.Event(), threading.Event()
        callback = self.start(lambda event: (self.events.append(event.message), entered.set(), go_on.wait()))
        oxevent.submit("a")
        oxevent.submit("b")
        entered.wait()
        callback.unregister()
        callback.unregister()
        threading.Timer(0, go_on.set).start()
        oxevent.flush()  # Leaves the interpreter to the callback that it waits for.
        self.assertEqual(self.events, ["a"])

    def test_log_records(self):
        with self.assertRaisesRegex(TypeError, "'sourceid'"):
            oxevent.OxEventHandler(sourceid="x")
        logger, handler = logging.Logger("pump.7"), oxevent.OxEventHandler(source_id="press-4")
        logger.addHandler(handler)
        handler.handleError = lambda record: self.events.append(sys.exc_info()[1])
        self.start(lambda event: (self.events.append(event), logger.error("left out: it would come back")))
        logger.info("m", extra={"oxevent": {"actoin": "raise"}})
        self.assertIn("'actoin'", str(self.events.pop()))
        for level in (5, 10, 20, 30, 40, 50):
            logger.log(level, "%s", level)
        try:
            raise ValueError("bad")
        except ValueError:
            fields = {"action": "raise", "details_json": {"k": 1}}
            logger.exception("a\0\ud800", stack_info=True, extra={"oxevent": fields})
            logger.exception("", extra={"oxevent": {"details_json": "[]"}})
        handler.setFormatter(None)  # Which logging lets stand for its own.
        logger.error("", exc_info=Mute())
        logging.shutdown([weakref.ref(handler)])  # Flushes with the handler locked, while callbacks log.
        self.assertEqual([(event.message, event.severity) for event in self.events[:6]],
                         [("5", 0), ("10", 0), ("20", 1), ("30", 2), ("40", 3), ("50", 3)])
        event, text, mute = self.events[6], self.events[7].message, self.events[8].details_json
        details = json.loads(event.details_json)
        self.assertEqual((event.message, event.action, event.source_name, event.source_id, event.event_type),
                         ("a\\x00\\ud800", "raise", "pump.7", "press-4", "log"))
        self.assertEqual((details["k"], details["exception"]), (1, "ValueError: bad"))
        self.assertIn('raise ValueError("bad")', details["traceback"])
        self.assertIn("test_log_records", details["stack"])
        self.assertTrue(text.endswith("\nValueError: bad"), text)
        self.assertRegex(json.loads(mute)["exception"], "^Mute: <.*Mute object")

    def test_exit_with_pending_events(self):
        for script in (OWN_START, EMBEDDED):
            called = self.run_script(script)
            rows = [row["message"] for row in csv.DictReader(self.rows.read_text().splitlines())]
            self.assertEqual(rows[:500], [*map(str, range(500))])
            self.assertEqual(called, rows if script is OWN_START else rows[:len(called)])
            self.rows.unlink()

    def test_fork(self):
        self.assertEqual(self.run_script(FORK), ["NOT_INITIALIZED", "child: c", "0", "parent: p"])


if __name__ == "__main__":
    unittest.main()
