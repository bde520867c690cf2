"""Reports operational events (alarms, state changes, notices) through the shared library liboxEvent.

    import oxevent

    with oxevent.running("settings.xml"):
        oxevent.submit("Fan 2 stands still", severity=oxevent.Severity.WARNING, source_id="fan-2")

The settings file must exist but may be empty: the library completes it. The file configures the destinations of events:
CSV file, system log, syslog, HTTP, SNMP. action="raise" raises a condition, and action="clear" clears it (see submit).
OxEventHandler turns log records of the logging module into events; register_callback passes each event that reaches the
sinks to a function; AlertPoster posts events as alerts to an Alertmanager.

Any thread may call any function, including from inside a callback. A call that fails in the library raises
OxEventError; an invalid argument raises ValueError or TypeError, whose text names the field if the argument is one of
submit. Strings are str, passed as UTF-8 with surrogateescape, or bytes, passed unchanged.

The first call loads the library: the file that was passed to load(), or that the environment variable OXEVENT_LIBRARY
names, or liboxEvent.so.1 from the loader's search path.

Exit: when the interpreter exits and this module has initialized the library, queued events are delivered for at most
five seconds, to callbacks too. Nothing is delivered after os._exit, with which multiprocessing ends forked children.

Fork (os.fork, multiprocessing): the child starts uninitialized and without callbacks; calls that need a running library
raise OxEventError with the code NOT_INITIALIZED. The child may call initialize itself; a child of multiprocessing
should use running(), which delivers the queued events before the child ends.

This file is the whole module. It needs Python 3.9 or later, the standard library, and Linux.
"""
from __future__ import annotations

import atexit
import contextlib
import copy
import ctypes
import dataclasses
import datetime
import enum
import errno
import functools
import inspect
import itertools
import json
import logging
import math
import operator
import os
import re
import threading
import time
import zlib
from typing import Callable, Iterator, Optional, Union

__all__ = ["ActiveFile", "AlertPoster", "AlertPosterState", "Callback", "Event", "OxEventError", "OxEventHandler",
           "Result", "Severity", "flush", "initialize", "load", "register_callback", "reload", "running", "shutdown",
           "submit"]

Text = Union[str, bytes]
Path = Union[str, bytes, os.PathLike]
Time = Union[int, datetime.datetime]


class Result(enum.IntEnum):
    """Result codes of the library's functions."""

    OK = 0
    NOT_INITIALIZED = 0x80050001  # Not initialized, shutting down, or the process is exiting.
    ALREADY_INITIALIZED = 0x80050002  # Already initialized, or a shutdown is in progress.
    INVALID_ARGUMENT = 0x80050003  # An argument, a record or a settings file was refused.
    NOT_FOUND = 0x80050004  # Unknown callback id, or a stopped alert poster.
    FAILURE = 0x80050005  # A timeout, a failed sink or callback, out of memory, or no thread could be started.


class Severity(enum.IntEnum):
    """The severity of an event: a larger value is more severe."""

    DEBUG = 0
    INFO = 1
    WARNING = 2
    ERROR = 3


class OxEventError(Exception):
    """A call failed: `code` is a Result, `text` the error text."""

    def __init__(self, code: int, text: str):
        super().__init__(code, text)
        self.code = Result(code)
        self.text = text

    def __str__(self) -> str:
        return f"{self.text} ({self.code.name}, {self.code:#x})"


@dataclasses.dataclass(frozen=True)
class Event:
    """An event as a callback receives it. The fields have the names of submit's arguments, and no field is None."""

    event_id: int
    event_type: str
    source_id: str
    source_name: str
    message: str
    severity: Severity
    action: str
    dedupe_key: str
    correlation_id: str
    utc_ns: int
    ptp_ns: int
    pts: int
    timecode: str
    value: float
    threshold: float
    units: str
    duration_ms: int
    details_json: str


_API_VERSION = 0x00010000
_UNSIGNED, _SIGNED, _TEXT = ctypes.c_uint64, ctypes.c_int64, ctypes.c_char_p


class _Record(ctypes.Structure):  # oxEventRecord
    _fields_ = [("struct_size", ctypes.c_uint32), ("version", ctypes.c_uint32), ("event_id", _UNSIGNED),
                ("event_type", _TEXT), ("source_id", _TEXT), ("source_name", _TEXT), ("message", _TEXT),
                ("severity", ctypes.c_uint32), ("action", _TEXT), ("dedupe_key", _TEXT), ("correlation_id", _TEXT),
                ("utc_ns", _UNSIGNED), ("ptp_ns", _UNSIGNED), ("pts", _SIGNED), ("timecode", _TEXT),
                ("value", ctypes.c_double), ("threshold", ctypes.c_double), ("units", _TEXT),
                ("duration_ms", _UNSIGNED), ("details_json", _TEXT)]


class _AlertPosterConfig(ctypes.Structure):  # oxEventAlertPosterConfig
    _fields_ = [("struct_size", ctypes.c_uint32), ("minimum_severity", ctypes.c_uint32), ("url", _TEXT),
                ("headers", _TEXT), ("alertname_prefix", _TEXT), ("conditions_only", ctypes.c_uint32),
                ("repeat_interval_ms", ctypes.c_uint32), ("request_timeout_ms", ctypes.c_uint32),
                ("stop_timeout_ms", ctypes.c_uint32), ("max_bytes", _UNSIGNED)]


class _AlertPosterState(ctypes.Structure):  # oxEventAlertPosterState
    _fields_ = [("struct_size", ctypes.c_uint32), ("last_status", ctypes.c_int32), ("active_alerts", _UNSIGNED),
                ("unposted_alerts", _UNSIGNED), ("posted", _UNSIGNED), ("failed_posts", _UNSIGNED),
                ("refused", _UNSIGNED), ("dropped", _UNSIGNED)]


_CALLBACK = ctypes.CFUNCTYPE(None, ctypes.POINTER(_Record), ctypes.c_void_p)
_FUNCTIONS = {
    "oxEventInitialize": [ctypes.c_char_p], "oxEventShutdown": [], "oxEventSubmit": [ctypes.POINTER(_Record)],
    "oxEventFlush": [ctypes.c_uint32], "oxEventReloadConfig": [ctypes.c_char_p],
    "oxEventRegisterCallback": [_CALLBACK, ctypes.c_void_p, ctypes.POINTER(ctypes.c_uint32)],
    "oxEventUnregisterCallback": [ctypes.c_uint32], "oxEventGetLastError": [ctypes.c_char_p, ctypes.c_uint32],
    "oxEventGetApiVersion": []}
_POSTER_FUNCTIONS = {
    "oxEventAlertPosterStart": [ctypes.POINTER(_AlertPosterConfig), ctypes.POINTER(ctypes.c_uint32)],
    "oxEventAlertPosterStop": [ctypes.c_uint32, ctypes.POINTER(ctypes.c_uint32)],
    "oxEventAlertPosterGetState": [ctypes.c_uint32, ctypes.POINTER(_AlertPosterState)]}
_EPOCH = datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc)
_ESCAPES = str.maketrans({"\\": r"\\", "\t": r"\t", "\n": r"\n"})
_SHUTDOWN_S = 5  # Timeout of the library's own shutdown.
_logger = logging.getLogger("oxevent")

# Guards _library and _exiting, so that no callback is registered and no poster started after _at_exit has begun.
_lock = threading.RLock()
_library = None
_initialized_here = False  # Whether this module, not a program that embeds Python, must shut the library down at exit.
_exiting = False
_posters = {}  # Running posters by id.
_callbacks = {}  # By number, which is the user_data: a late call, after unregister(), finds no entry.
_numbers = itertools.count(1)
_failure = None  # The first failed callback and its exception, until a flush or shutdown reports them.
_delivering = threading.local()  # `on`: this thread is in a callback.


def load(library: Optional[Path] = None) -> None:
    """Load the library from this file, by default from the one that OXEVENT_LIBRARY names or the loader finds.

    Only needed to choose the file; must then precede all other calls. Raises OSError if the library cannot be loaded,
    or if it is already loaded under another name.
    """
    _loaded(library)


def _loaded(library=None):
    global _library
    if _library is not None and library is None:
        return _library
    with _lock:
        if _library is None:
            _library = _open(library)
        elif library is not None and os.fsdecode(library) != _library._name:
            raise OSError(f"cannot load {os.fsdecode(library)}: {_library._name} is already loaded")
    return _library


def _open(library):
    if library is not None:
        name, origin = os.fsdecode(library), "given to load()"
    elif os.environ.get("OXEVENT_LIBRARY"):
        name, origin = os.environ["OXEVENT_LIBRARY"], "from the environment variable OXEVENT_LIBRARY"
    else:
        name, origin = "liboxEvent.so.1", "from the loader's search path; OXEVENT_LIBRARY or load() can name the file"
    try:
        opened = _declared(ctypes.CDLL(name), _FUNCTIONS)
    except (OSError, AttributeError) as error:
        raise OSError(f"cannot load the oxEvent library: tried {name} ({origin}): {error}") from error
    version = opened.oxEventGetApiVersion()
    if version != _API_VERSION:
        raise OSError(f"{name} ({origin}) has API version {version:#x}; this module needs {_API_VERSION:#x}")
    return opened


def _declared(library, functions):
    for function, arguments in functions.items():
        getattr(library, function).argtypes = arguments
        getattr(library, function).restype = ctypes.c_uint32
    return library


@functools.lru_cache(maxsize=None)
def _poster_library():
    directory = os.path.dirname(_loaded()._name)  # Empty if the loader has found liboxEvent.
    return _declared(ctypes.CDLL(os.path.join(directory, "liboxevent-alertposter.so.1")), _POSTER_FUNCTIONS)


def _call(function, *arguments):
    library = _loaded()
    code = getattr(library, function)(*arguments)
    if code != Result.OK:
        text = ctypes.create_string_buffer(8192)
        library.oxEventGetLastError(text, len(text))
        raise OxEventError(code, text.value.decode("utf-8", "surrogateescape"))


def initialize(path: Path) -> None:
    """Load the settings file, open the sinks and start delivering events.

    Raises OxEventError if the file or a setting is refused, a sink cannot be opened, or the library is already
    initialized.
    """
    global _initialized_here
    _call("oxEventInitialize", _path(path))
    _initialized_here = True


def shutdown() -> None:
    """Shut the library down: deliver queued events for at most five seconds, and close the sinks.

    Completes the event in delivery, however long it takes, and unregisters the callbacks. Inside a callback, the queued
    events are discarded instead. Raises OxEventError if the library is not initialized, if events were discarded, if a
    sink could not be flushed, or if a callback raised an exception (see register_callback). In all cases but the first,
    the library is shut down.
    """
    global _initialized_here
    numbers = list(_callbacks)
    try:
        _call("oxEventShutdown")
    except OxEventError as error:
        if error.code == Result.NOT_INITIALIZED:
            numbers.clear()
        raise
    finally:
        _initialized_here = False
        for number in numbers:
            _callbacks.pop(number, None)
    _report_failure()


@contextlib.contextmanager
def running(path: Path) -> Iterator[None]:
    """Context manager that initializes the library and shuts it down: `with oxevent.running("settings.xml"): ...`"""
    initialize(path)
    try:
        yield
    finally:
        shutdown()


def submit(message: Text, *, severity: int = Severity.INFO, event_type: Optional[Text] = None,
           source_id: Optional[Text] = None, source_name: Optional[Text] = None, action: Optional[Text] = None,
           dedupe_key: Optional[Text] = None, correlation_id: Optional[Text] = None, value: float = 0.0,
           threshold: float = 0.0, units: Optional[Text] = None, duration_ms: int = 0,
           details_json: Union[Text, dict, list, None] = None, utc_ns: Time = 0, ptp_ns: Time = 0, pts: int = 0,
           timecode: Optional[Text] = None, event_id: int = 0) -> None:
    """Report an event: queue it and return. Never waits for a file or the network.

    message         human-readable text, required
    severity        a Severity
    event_type      kind of event, "event" if not given
    source_id       identifier of the source
    source_name     display name of the source, "oxEvent" if not given
    action          "raise", "update", "repeat" or "clear" of a condition; with any other action, or none, the event is
                    passed on unchanged
    dedupe_key      identifies the condition; if not given, source_id and event_type do
    correlation_id  links related events
    value, threshold, units   measured value, limit that it was compared with, and their unit
    duration_ms     duration in milliseconds
    details_json    a dict or list, or JSON as a string
    utc_ns, ptp_ns  time of the event: nanoseconds since 1970 or a datetime with a time zone; 0: now
    pts, timecode   media time stamps
    event_id        0: the library assigns the next number of this process

    Success means that the event was accepted, not that it was delivered: an event below the minimum severity is dropped
    and counted. If the queue is full, the setting drop_policy decides whether this event or an older one is dropped and
    counted. Raises OxEventError with NOT_INITIALIZED if the library is not running.
    """
    _call("oxEventSubmit", ctypes.byref(_record(locals())))


def flush(timeout_s: Optional[float] = None) -> None:
    """Wait until all queued events are delivered (timeout_s None: without limit), then flush the sinks.

    Raises OxEventError if the timeout expires, if a sink could not be flushed, or if a callback raised an exception
    (see register_callback). Inside a callback it does not wait: it fails immediately if events are queued. Ctrl-C takes
    effect only when flush returns.
    """
    milliseconds = 0  # The library takes 0 as no limit, so the shortest timeout is 1 ms.
    if timeout_s is not None:
        milliseconds = _milliseconds("timeout_s", timeout_s)
    _call("oxEventFlush", milliseconds)
    _report_failure()


def reload(path: Optional[Path] = None) -> None:
    """Apply the settings of this file, by default the current one.

    Conditions and callbacks are kept, and so are as many queued events as the new queue_size allows.
    Raises OxEventError if the file is refused or a sink cannot be opened; the old settings then stay in effect.
    """
    _call("oxEventReloadConfig", None if path is None else _path(path))


class Callback:
    """A registered callback. Used as a context manager, it is unregistered at the end of the `with` block."""

    def __init__(self, function: Callable[[Event], object]):
        self.function = function
        self._number = next(_numbers)
        self._id = ctypes.c_uint32()

    def unregister(self) -> None:
        """Let no further call begin; a call in progress continues. Unregistering again has no effect."""
        if _callbacks.pop(self._number, None) is None:
            return
        try:
            _call("oxEventUnregisterCallback", self._id)
        except OxEventError as error:
            if error.code != Result.NOT_FOUND:  # A failed initialize or the embedding program has unregistered it.
                raise

    def __enter__(self) -> Callback:
        return self

    def __exit__(self, *_) -> None:
        self.unregister()


def register_callback(function: Callable[[Event], object]) -> Callback:
    """Call function(event) with each Event that reaches the sinks, until unregister() or shutdown().

    The function runs on the library's worker thread, one event at a time; later events wait for it. The returned object
    need not be kept. May be called before initialize.

    An exception from the function, SystemExit included, does not stop the delivery. It is logged immediately, with its
    traceback, to the logger "oxevent", and the next flush or shutdown raises an OxEventError with the code FAILURE
    whose __cause__ is the first exception since the last report.
    """
    if not callable(function):
        raise TypeError(f"function must be callable, not {function!r}")
    _loaded()
    callback = Callback(function)
    with _lock:
        if _exiting:
            raise RuntimeError("register_callback: the interpreter is exiting")
        _callbacks[callback._number] = callback
        try:
            _call("oxEventRegisterCallback", _on_event, callback._number, ctypes.byref(callback._id))
        except BaseException:
            del _callbacks[callback._number]
            raise
    return callback


@dataclasses.dataclass(frozen=True)
class AlertPosterState:
    """What an alert poster has done."""

    last_status: int  # HTTP status of the last post; 0: there was no response, or no post yet.
    active_alerts: int  # Alerts that are posted repeatedly.
    unposted_alerts: int  # Alerts whose latest state has not been posted yet.
    posted: int  # Alerts that the Alertmanager accepted, repetitions included.
    failed_posts: int  # Posts that failed and were or will be retried.
    refused: int  # Alerts that the Alertmanager refused as invalid.
    dropped: int  # Events that were not posted because max_bytes was reached.


class AlertPoster:
    """Posts events as alerts to an Alertmanager, on a thread of its own.

        with oxevent.AlertPoster("http://127.0.0.1:9093/api/v2/alerts"), oxevent.running("settings.xml"):
            ...

    url               begins with http:// or https://, ends in /api/v2/alerts
    headers           {name: value} of further HTTP headers, such as an Authorization
    alertname_prefix  prefix of each alert's name, "OxEvent" if not given
    minimum_severity  events below it are not posted, except clears of active alerts
    conditions_only   whether events that belong to no condition are left out
    repeat_interval_s   interval between two posts of an active alert, well below the Alertmanager's resolve_timeout
    request_timeout_s   time that a post may take
    stop_timeout_s      time that stop() may spend on posts
    max_bytes         memory for alerts and conditions

    Create the poster before initialize, so that it gets every event, and stop it after shutdown; each run of the
    library needs a new poster. A poster that still runs when the interpreter exits is stopped. Raises OSError if
    liboxevent-alertposter.so.1 cannot be loaded, and OxEventError if an argument is refused (INVALID_ARGUMENT: for
    example a URL that does not end in /api/v2/alerts) or the HTTP client, liboxutil-http.so, cannot be loaded. The
    header include/oxEvent/alert_poster.h says which alerts are posted when.
    """

    def __init__(self, url: Text, *, headers: Optional[dict] = None, alertname_prefix: Optional[Text] = None,
                 minimum_severity: int = Severity.DEBUG, conditions_only: bool = False, repeat_interval_s: float = 60,
                 request_timeout_s: float = 3, stop_timeout_s: float = 5, max_bytes: int = 16 * 2**20):
        lines = [_string("headers", f"{name}: {value}") for name, value in (headers or {}).items()]
        config = _AlertPosterConfig(
            struct_size=ctypes.sizeof(_AlertPosterConfig), url=_string("url", url), headers=b"\xa7".join(lines),
            alertname_prefix=None if alertname_prefix is None else _string("alertname_prefix", alertname_prefix),
            minimum_severity=_severity("minimum_severity", minimum_severity), conditions_only=bool(conditions_only),
            repeat_interval_ms=_milliseconds("repeat_interval_s", repeat_interval_s),
            request_timeout_ms=_milliseconds("request_timeout_s", request_timeout_s),
            stop_timeout_ms=_milliseconds("stop_timeout_s", stop_timeout_s),
            max_bytes=_integer(1, 2**64 - 1, "max_bytes", max_bytes))
        self._id = ctypes.c_uint32()
        with _lock:
            if _exiting:
                raise RuntimeError("AlertPoster: the interpreter is exiting")
            code = _poster_library().oxEventAlertPosterStart(ctypes.byref(config), ctypes.byref(self._id))
            if code != Result.OK:
                raise OxEventError(code, f"cannot start a poster for {os.fsdecode(url)}")
            _posters[self._id.value] = self

    def stop(self) -> int:
        """Post the waiting alerts, and each active alert once more, for at most stop_timeout_s; end the poster.

        Returns the number of alerts whose latest state was not posted; 0 if the poster had already been stopped.
        """
        _posters.pop(self._id.value, None)
        unposted = ctypes.c_uint32()
        _poster_library().oxEventAlertPosterStop(self._id, ctypes.byref(unposted))
        return unposted.value

    def state(self) -> AlertPosterState:
        """Return what the poster has done. Raises OxEventError with NOT_FOUND if it is stopped."""
        state = _AlertPosterState(struct_size=ctypes.sizeof(_AlertPosterState))
        code = _poster_library().oxEventAlertPosterGetState(self._id, ctypes.byref(state))
        if code != Result.OK:
            raise OxEventError(code, "the poster is stopped")
        return AlertPosterState(**{name: getattr(state, name) for name, _ in _AlertPosterState._fields_[1:]})

    def __enter__(self) -> AlertPoster:
        return self

    def __exit__(self, *_) -> None:
        self.stop()


class ActiveFile:
    """Keeps the raised conditions in a file, so that a restarted program can clear those that no longer hold.

        with oxevent.ActiveFile("conditions") as conditions, oxevent.running("settings.xml"):
            while True:
                ...  # Raise what holds.
                conditions.poll()
                time.sleep(1)

    After a restart, raise each condition that still holds. poll() clears what has not been raised within grace_s
    seconds, with the severity, type and source of the raise, without which an Alertmanager would not resolve the alert.
    The setting route_orphan_clear of the section state must be on: otherwise the library suppresses these clears, and
    poll() raises PermissionError. A cleared condition stays in the file for keep_cleared_s, and is cleared again after
    a restart, because its clear may have been lost.

    Create the object before an AlertPoster and before initialize; each run of the library needs a new object. A file
    that is damaged or has another format is renamed, and an error is logged; `renamed_to` is the new name of the file,
    or None if the file was not renamed. The format is that of include/oxEvent/active_file.hpp. Raises OSError if the
    file cannot be read or renamed.
    """

    _HEADER = b"oxEvent conditions 1\n"
    _FORMER = "former alert of "  # Begins the key of a clear that must not clear the condition itself.

    def __init__(self, path: Path, grace_s: float = 60, keep_cleared_s: float = 300):
        self._path = os.fsdecode(path)
        self._keep_cleared_s = keep_cleared_s
        self._lock = threading.Lock()  # Guards _entries, _changed and _error.
        self._entries = {}  # (key, severity, event_type, source_id): [state, source_name, due, cleared_before]
        self._changed = False
        self._error = None  # The error of the last write, if it failed.
        self.renamed_to = self._read(time.monotonic() + grace_s)
        self._callback = register_callback(self._on_event)

    def __enter__(self) -> ActiveFile:
        return self

    def __exit__(self, *_) -> None:
        self._callback.unregister()

    def poll(self) -> None:
        """Clear the conditions of a previous process that were not raised again within grace_s.

        Call poll about once a second, on the thread that reports the conditions. Raises OxEventError or OSError if a
        condition could not be cleared or the file could not be written; the next call tries again. PermissionError: the
        library has suppressed a clear, because route_orphan_clear is off, or has dropped it; poll tries again after ten
        seconds.
        """
        now = time.monotonic()
        suppressed = None
        is_due = lambda entry: entry[0] == "inherited" and entry[2] <= now
        with self._lock:
            any_due = any(map(is_due, self._entries.values()))
        if any_due:
            flush(1)  # Afterwards, every raise that was submitted before is in _entries.
            with self._lock:
                due = [(label, entry[1]) for label, entry in self._entries.items() if is_due(entry)]
                raised = {label[0] for label, entry in self._entries.items() if entry[0] == "raised"}
            for label, source_name in due:
                key, severity, event_type, source_id = label
                submit("Cleared: not confirmed after a restart", action="clear", severity=severity,
                       event_type=event_type, source_id=source_id, source_name=source_name,
                       dedupe_key=self._FORMER + key if key in raised else key)
                with self._lock:
                    entry = self._entries.get(label)
                    if entry and entry[0] == "inherited":  # The clear may be dropped before it arrives.
                        entry[2] = now + 10
            flush(1)
            with self._lock:
                inherited = [label for label, _ in due if self._entries.get(label, [""])[0] == "inherited"]
            if inherited:
                reason = r"clear suppressed or dropped: the setting state\route_orphan_clear must be on"
                suppressed = PermissionError(errno.EPERM, reason, inherited[0][0])
        with self._lock:
            over = [label for label, entry in self._entries.items() if entry[0] == "cleared" and entry[2] <= now]
            for label in over:
                del self._entries[label]
            self._changed |= bool(over)
            if self._changed:
                self._write()
            if self._error or suppressed:
                raise self._error or suppressed

    def unconfirmed(self) -> int:
        """Return the number of conditions of a previous process that are neither raised again nor cleared yet."""
        with self._lock:
            return sum(entry[0] == "inherited" for entry in self._entries.values())

    def _on_event(self, event):
        action = event.action.lower()
        if action not in ("raise", "update", "repeat", "clear"):
            return
        key = event.dedupe_key or f"{event.source_id}:{event.event_type}"
        former = action == "clear" and key.startswith(self._FORMER)
        key = key.removeprefix(self._FORMER) if former else key
        label = (key, int(event.severity), event.event_type, event.source_id)
        with self._lock:
            for other, entry in self._entries.items():
                if former or other[0] != key or other == label:
                    continue
                if entry[0] == "raised":
                    self._set_cleared(entry)  # The poster resolves its alert.
                elif entry[0] == "inherited":
                    entry[2:] = -math.inf, True
                    self._changed = True
            entry = self._entries.get(label)
            if action == "clear":
                if entry:
                    self._set_cleared(entry)
            elif not entry or entry[:2] != ["raised", event.source_name]:
                self._entries[label] = ["raised", event.source_name, 0, False]
                self._changed = True
            if self._changed:
                self._write()

    def _set_cleared(self, entry):
        entry[0] = "cleared"
        entry[2] = time.monotonic() + self._keep_cleared_s
        self._changed = True

    def _write(self):
        text = self._HEADER
        for (key, severity, event_type, source_id), (state, source_name, _, cleared) in self._entries.items():
            fields = ("cleared" if cleared or state == "cleared" else "raised", str(severity), event_type, source_id,
                      source_name, key)
            text += "\t".join(field.translate(_ESCAPES) for field in fields).encode("utf-8", "surrogateescape") + b"\n"
        try:
            with open(f"{self._path}.new", "wb") as file:
                file.write(text + b"%d\n" % zlib.adler32(text))
            os.replace(f"{self._path}.new", self._path)
            self._changed, self._error = False, None
        except OSError as error:
            self._error = error

    def _read(self, due):
        try:
            with open(self._path, "rb") as file:
                text = file.read()
        except FileNotFoundError:
            return None
        try:
            body, checksum = text[:text.rindex(b"\n", 0, -1) + 1], text[text.rindex(b"\n", 0, -1) + 1:]
            if not body.startswith(self._HEADER) or checksum != b"%d\n" % zlib.adler32(body):
                raise ValueError("wrong checksum")
            for line in body.decode("utf-8", "surrogateescape").split("\n")[1:-1]:
                state, severity, event_type, source_id, source_name, key = [
                    re.sub(r"\\(.)", lambda match: {"t": "\t", "n": "\n"}.get(match[1], match[1]), field)
                    for field in line.split("\t")]
                cleared = {"raised": False, "cleared": True}[state]
                self._entries[key, int(Severity(int(severity))), event_type, source_id] = [
                    "inherited", source_name, 0 if cleared else due, cleared]
            return None
        except (ValueError, KeyError):
            self._entries.clear()
        for number in itertools.count(1):
            new_name = f"{self._path}.damaged-{number}"
            with contextlib.suppress(FileExistsError):
                os.link(self._path, new_name)  # Unlike a rename, never replaces another file.
                os.unlink(self._path)
                _logger.error("%s is damaged or not a file of conditions; renamed to %s", self._path, new_name)
                return new_name


# The only C callback. It exists as long as the module, so that unregistering frees no code that the worker is running.
@_CALLBACK
def _on_event(record, number):
    global _failure
    callback = _callbacks.get(number)
    if callback is None:
        return
    _delivering.on = True
    try:
        callback.function(_event(record.contents))
    except BaseException as error:
        if _failure is None:
            _failure = (callback.function, error)
        _logger.exception("callback %r raised an exception", callback.function)
    finally:
        _delivering.on = False


def _event(record):
    values = {field.name: getattr(record, field.name) for field in dataclasses.fields(Event)}
    for name, value in values.items():
        if isinstance(value, bytes):
            values[name] = value.decode("utf-8", "surrogateescape")
    values["severity"] = Severity(record.severity)
    return Event(**values)


def _report_failure():
    global _failure
    failure, _failure = _failure, None
    if failure is not None:
        function, error = failure
        text = f"callback {_safe_format(repr, function)} raised {_safe_format(repr, error)}"
        raise OxEventError(Result.FAILURE, text) from error


def _safe_format(convert, value):
    """Return convert(value), or a substitute if convert raises: a failure that cannot be formatted is reported too."""
    try:
        return convert(value)
    except Exception:
        return object.__repr__(value)


# Conversion of arguments to C.

_UNENCODABLE = re.compile("[\0\ud800-\udc7f\udd00-\udfff]")  # NUL, and surrogates that do not represent a byte.


def _record(fields):
    record = _Record(struct_size=ctypes.sizeof(_Record), version=_API_VERSION)
    for name, value in fields.items():
        if value is not None or name == "severity":
            setattr(record, name, _CONVERSIONS[name](name, value))
    if not record.message:
        raise ValueError("message must not be empty")
    return record


def _path(path):
    return _string("path", os.fsencode(path))


def _string(name, value):
    if isinstance(value, (dict, list)) and name == "details_json":
        value = _json(name, value)
    if isinstance(value, str):
        bad = _UNENCODABLE.search(value)
        if bad:
            raise ValueError(f"{name} must not contain {bad[0]!r} (at {bad.start()})")
        return value.encode("utf-8", "surrogateescape")
    if not isinstance(value, bytes):
        raise TypeError(f"{name} must be str or bytes, not {value!r}")
    if b"\0" in value:
        raise ValueError(f"{name} must not contain '\\x00' (at {value.index(0)})")
    return value


def _json(name, value):
    try:
        text = json.dumps(value, ensure_ascii=False, allow_nan=False)
    except (TypeError, ValueError, RecursionError) as error:
        raise type(error)(f"{name}: {error}") from error
    return re.sub("[\ud800-\udfff]", lambda match: f"\\u{ord(match[0]):04x}", text)


def _integer(lowest, highest, name, value):
    if isinstance(value, datetime.datetime) and name in ("utc_ns", "ptp_ns"):
        if value.utcoffset() is None:
            raise ValueError(f"{name} must be a datetime with a time zone, not {value!r}")
        value = (value - _EPOCH) // datetime.timedelta(microseconds=1) * 1000
    try:
        number = operator.index(value)
    except TypeError:
        raise TypeError(f"{name} must be an integer, not {value!r}") from None
    if not lowest <= number <= highest:
        raise ValueError(f"{name} must be {lowest} to {highest}, not {value!r}")
    return number


def _float(name, value):
    try:
        return ctypes.c_double(value).value
    except TypeError:
        raise TypeError(f"{name} must be a number, not {value!r}") from None
    except OverflowError:
        raise ValueError(f"{name} is too large for a float") from None


def _milliseconds(name, seconds):
    if not 0 < seconds <= (2**32 - 1) / 1000:
        raise ValueError(f"{name} must be above 0 and at most 4294967.295, not {seconds!r}")
    return math.ceil(seconds * 1000)


def _severity(name, value):
    try:
        return Severity(value)
    except ValueError:
        choices = ", ".join(f"Severity.{choice.name} ({choice:d})" for choice in Severity)
        raise ValueError(f"{name} must be one of {choices}, not {value!r}") from None


_BY_TYPE = {_TEXT: _string, ctypes.c_double: _float, _UNSIGNED: functools.partial(_integer, 0, 2**64 - 1),
            _SIGNED: functools.partial(_integer, -2**63, 2**63 - 1)}
_CONVERSIONS = {name: _BY_TYPE.get(kind, _severity) for name, kind in _Record._fields_[2:]}


class OxEventHandler(logging.Handler):
    """Reports each log record as an event.

        logging.getLogger().addHandler(oxevent.OxEventHandler(source_id="press-4"))
        logging.warning("Pressure low", extra={"oxevent": {"action": "raise", "dedupe_key": "pressure"}})

    message       the message, as formatted by the handler's formatter
    severity      the highest of INFO, WARNING and ERROR that the record's level reaches; below INFO: DEBUG
    source_name   the logger's name, which tells operators which part of the program reports
    event_type    "log", so that receivers can distinguish log records from other events
    utc_ns        time of the record
    details_json  {"exception": "ValueError: ...", "traceback": "..."} for an exception, {"stack": "..."} for
                  stack_info, added to a dict that is given as details_json; if details_json is given in another form,
                  exception and stack stay in the message

    Arguments of the constructor set fields (of submit) for every record; the dict extra={"oxevent": {...}} sets fields
    of one record. In the message, NUL and surrogates that represent no byte are escaped; an empty message becomes the
    level's name.

    The handler neither initializes the library nor shuts it down. If an event cannot be submitted (the library is not
    running, as in a forked child that did not call initialize; a field is invalid), the handler calls handleError, like
    the handlers of logging. Records logged inside a callback are ignored: they would return as events to the same
    callback, endlessly.
    """

    def __init__(self, level: Union[int, str] = logging.NOTSET, **fields):
        inspect.signature(submit).bind(message="", **fields)  # Raises TypeError for an unknown field.
        super().__init__(level)
        self._fields = fields
        self.setFormatter(logging.Formatter())  # Otherwise basicConfig would set one that adds level and name.

    def handle(self, record: logging.LogRecord):
        """Submit the record if the filters accept it."""
        # Does not take the handler's lock: submit needs no lock, and logging.shutdown holds this one during the flush,
        # which waits for callbacks that log.
        passed = self.filter(record)
        if passed:
            self.emit(passed if isinstance(passed, logging.LogRecord) else record)
        return passed

    def emit(self, record: logging.LogRecord) -> None:
        """Submit the record."""
        if getattr(_delivering, "on", False):
            return
        try:
            submit(**self._event_fields(record))
        except Exception:
            self.handleError(record)

    def flush(self) -> None:
        """Wait until all queued events are delivered, at most five seconds. Does nothing if the library is not running.

        Raises OxEventError like oxevent.flush.
        """
        try:
            flush(_SHUTDOWN_S)
        except OxEventError as error:
            if error.code != Result.NOT_INITIALIZED:
                raise

    def _event_fields(self, record):
        fields = {"severity": max(0, min(record.levelno // 10 - 1, int(Severity.ERROR))), "source_name": record.name,
                  "event_type": "log", "utc_ns": int(record.created * 1e6) * 1000,
                  **self._fields, **getattr(record, "oxevent", {})}
        given = fields.get("details_json")
        details = self._details(record)
        if details and (given is None or isinstance(given, dict)):
            fields["details_json"] = {**(given or {}), **details}
            record = copy.copy(record)
            record.exc_info = record.exc_text = record.stack_info = None
        if "message" not in fields:
            text = _UNENCODABLE.sub(lambda match: match[0].encode("unicode_escape").decode(), self.format(record))
            fields["message"] = text or record.levelname
        return fields

    def _details(self, record):
        details = {}
        formatter = self.formatter or logging.Formatter()
        if record.exc_info and record.exc_info[0]:
            kind, error = record.exc_info[:2]
            traceback = formatter.formatException(record.exc_info)
            details = {"exception": f"{kind.__name__}: {_safe_format(str, error)}", "traceback": traceback}
        elif record.exc_text:
            details = {"traceback": record.exc_text}
        if record.stack_info:
            details["stack"] = formatter.formatStack(record.stack_info)
        return details


# Exit and fork.


def _at_exit():
    # Lets callbacks finish before the interpreter ends: a worker that enters Python after that blocks forever.
    global _exiting
    with _lock:
        _exiting = True
    try:
        if _initialized_here:
            shutdown()
        callbacks = list(_callbacks.values())
        for callback in callbacks:
            callback.unregister()
        if callbacks:  # Waits for their last calls if the embedding program keeps the library running.
            _call("oxEventFlush", _SHUTDOWN_S * 1000)
    except OxEventError as error:
        if error.code != Result.NOT_INITIALIZED:
            _logger.error("at exit: %s", error)
    for poster in list(_posters.values()):
        poster.stop()


def _reset_after_fork_in_child():
    global _lock, _delivering, _failure, _initialized_here
    _lock = threading.RLock()
    _delivering = threading.local()
    _failure = None
    _initialized_here = False
    _callbacks.clear()
    _posters.clear()


atexit.register(_at_exit)
os.register_at_fork(after_in_child=_reset_after_fork_in_child)
