"""What oxEvent/journald.h writes, as journalctl reads it: journald_test.py [-v] [JournalTest.test_NAME...].

Starts a systemd-journald of its own in a mount namespace, in which /run is empty and oxevent.catalog the only catalog.
"""
import contextlib
import ctypes
import dataclasses
import json
import os
import re
import socket
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

import oxevent
from receivers import await_, write_settings

ROOT = Path(__file__).resolve().parent.parent
PLUGIN = ctypes.CDLL(os.environ["OXEVENT_JOURNALD_PLUGIN"])
LIBRARY = ctypes.CDLL(os.environ["OXEVENT_LIBRARY"])
JOURNALD = "/lib/systemd/systemd-journald"
READ_JOURNAL = ["journalctl", "--file", "/run/log/journal/*/system.journal"]
MOUNT = """
mount -t tmpfs none /run
mount -t tmpfs none /var/lib/systemd
mount --bind "$0" /usr/lib/systemd/catalog
exec "$@"
"""
NAMESPACE = ["unshare", "--map-root-user", "--mount", "sh", "-euc", MOUNT, ROOT / "tools/journal"]
HOSTILE = "line\nMESSAGE=forged\n\tend @MESSAGE@ \x1b[1m é"


class Journal(ctypes.Structure):
    MessageId = ctypes.CFUNCTYPE(ctypes.c_void_p, ctypes.c_char_p)
    _fields_ = [("message_id", MessageId), ("failures", ctypes.c_uint64), ("error", ctypes.c_int)]


def journalctl(*options):
    return subprocess.check_output([*READ_JOURNAL, "--all", *options], text=True)


def entries():
    return [entry for entry in map(json.loads, journalctl("-o", "json").splitlines()) if "OXEVENT_EVENT_ID" in entry]


def fields_of(entry):
    """Returns the fields of the event. journalctl shows a text with control characters as a list of bytes."""
    texts = {name: bytes(value).decode() if isinstance(value, list) else value for name, value in entry.items()}
    names = [name for name in texts if name.startswith("OXEVENT_")]
    return {name.removeprefix("OXEVENT_").lower(): texts[name] for name in names} | {"message": texts["MESSAGE"]}


class JournalTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.daemon = subprocess.Popen([JOURNALD], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        await_("the start of the journal", lambda: Path("/run/systemd/journal/socket").exists())
        read = [*READ_JOURNAL, "--quiet", "--lines=0"]
        await_("the creation of the journal's file", lambda: subprocess.call(read, stderr=subprocess.DEVNULL) == 0)

    @classmethod
    def tearDownClass(cls):
        cls.daemon.terminate()
        cls.daemon.wait()

    def report(self, *events, journal=None):
        """Reports events. Returns the events that reached the callbacks, and the journal's new entries."""
        journal = journal or Journal()
        received, callback_id, before = [], ctypes.c_uint32(), len(entries())
        with tempfile.TemporaryDirectory() as directory:
            settings = {"sink\\native\\main": {"enabled": 0}, "core": {"minimum_severity": "debug"}}
            write_settings(f"{directory}/settings", settings)
            oxevent.register_callback(received.append)
            LIBRARY.oxEventRegisterCallback(PLUGIN.WriteToJournal, ctypes.byref(journal), ctypes.byref(callback_id))
            with oxevent.running(f"{directory}/settings"):
                for event in events:
                    oxevent.submit(**event)
        await_("the entries", lambda: len(entries()) >= before + len(received) - journal.failures)
        return received, entries()[before:]

    def test_an_entry_has_all_fields_of_the_event(self):
        full = {"message": HOSTILE, "event_type": "fan", "source_id": "fan-2", "source_name": "Fan 2", "severity": 3,
                "dedupe_key": "k", "action": "raise", "correlation_id": "c", "value": 3.2, "threshold": -1e-300,
                "units": "°C", "pts": -5, "duration_ms": 2**64 - 1, "details_json": {"long": "x" * 70000},
                "timecode": "01:00"}
        numbers = [{"message": "m", "value": value} for value in (0.1 + 0.2, 2.0**70, float("inf"), float("nan"))]
        received, written = self.report(full, {"message": "m", "severity": 0}, *numbers)
        self.assertEqual(len(written), 2 + len(numbers))
        for event, entry in zip(received, written):
            expected = {name: str(value) for name, value in dataclasses.asdict(event).items()}
            expected["severity"] = event.severity.name.lower()
            actual = fields_of(entry)
            for name in "value", "threshold":
                self.assertEqual(str(float(actual.pop(name))), expected.pop(name))
            self.assertEqual(actual, expected)
        self.assertEqual(written[0]["OXEVENT_VALUE"], "3.2")

    def test_priority_and_explanation(self):
        subprocess.run(["journalctl", "--update-catalog"], check=True)
        fan = {"event_type": "fan", "source_id": "f"}
        _, written = self.report({"message": "notice", "action": "raised", "severity": 0},
                                 {"message": "up", "action": "RAISE", "severity": 3} | fan,
                                 {"message": "more", "action": "update", "severity": 2} | fan,
                                 {"message": "down", "action": "clear"} | fan)
        self.assertEqual([entry["PRIORITY"] for entry in written], ["7", "3", "4", "6"])
        explained = journalctl("-x", *(f"MESSAGE_ID={entry['MESSAGE_ID']}" for entry in written))
        subjects = re.findall("^\\S+ Subject: (.*)$", explained, re.M)
        self.assertEqual(subjects[-4:], ["notice", "A condition was raised: fan", "A condition has changed: fan",
                                         "A condition was cleared: fan"])

    def test_message_id_of_the_type(self):
        known = ctypes.create_string_buffer(b"0" * 31 + b"7")
        message_id = Journal.MessageId(lambda event_type: ctypes.addressof(known) if event_type == b"known" else None)
        _, written = self.report({"message": "m", "event_type": "known"}, {"message": "m", "event_type": "unknown"},
                                 journal=Journal(message_id=message_id))
        self.assertEqual(written[0]["MESSAGE_ID"], "0" * 31 + "7")
        self.assertNotIn(written[1]["MESSAGE_ID"], (written[0]["MESSAGE_ID"], ""))

    def test_counts_what_the_journal_does_not_accept(self):
        journal = Journal()
        path = Path("/run/systemd/journal/socket")
        path.rename(f"{path}.old")
        with contextlib.closing(socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)) as closed:
            closed.bind(str(path))
        self.addCleanup(Path(f"{path}.old").rename, path)
        self.report({"message": "m"}, journal=journal)
        self.assertEqual((journal.failures, os.strerror(journal.error)), (1, "Connection refused"))


if __name__ == "__main__":
    if os.environ.get("OXEVENT_IN_NAMESPACE") is None:
        os.environ["OXEVENT_IN_NAMESPACE"] = "1"
        os.execvp(NAMESPACE[0], [*NAMESPACE, sys.executable, "-B", *sys.argv])
    unittest.main()
