#!/usr/bin/python3
"""Receives CloudEvents 1.0 in structured mode by HTTP POST on loopback, and validates them.

cloudevents_receiver.py PORT LOG

Responds to a valid event with 204 and appends the document to LOG as one line, once if it arrives repeatedly. Responds
to an invalid event with an error status and the reason, and appends {"refused": reason}. Needs Debian's
python3-jsonschema, and cloudevents.schema.json in the directory of this file.
"""
import hashlib
import json
import re
import sys
import threading
from datetime import date
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path

from jsonschema import Draft7Validator, FormatChecker
from jsonschema.exceptions import best_match

MAX_BODY = 16 << 20  # Bytes.
MAX_REASON = 500  # Characters.
MAX_REMEMBERED = 100_000  # Number of events whose source and id are kept, to detect when they are used again.
LINE_ENDS = bytes.maketrans(b"\r\n", b"  ")  # Valid JSON contains raw line ends only between tokens.

# Requirements of CloudEvents 1.0 that its schema does not express.
ATTRIBUTE_NAME = re.compile("[a-z0-9]+")
FORBIDDEN = re.compile(  # Control characters, surrogates, and the noncharacters of Unicode.
    "[\\x00-\\x1f\\x7f-\\x9f\\ud800-\\udfff\\ufdd0-\\ufdef"
    + "".join(f"\\U{plane:04x}fffe\\U{plane:04x}ffff" for plane in range(17)) + "]")
MEDIA_TYPE = re.compile(r"""[\w!#$&^.+-]+/[\w!#$&^.+-]+(\s*;\s*[\w!#$&^.+-]+=([\w!#$&^.+-]+|"([^"\\]|\\.)*"))*""", re.A)

# RFC 3986, appendix A. Of an IP address in brackets, only the characters are checked.
PCHAR = r"(?:[\w.~!$&'()*+,;=:@-]|%[0-9A-Fa-f]{2})"
AUTHORITY = r"(?:(?:[\w.~!$&'()*+,;=:-]|%[0-9A-Fa-f]{2})*@)?" \
            r"(?:\[[0-9A-Fa-f:.]+\]|(?:[\w.~!$&'()*+,;=-]|%[0-9A-Fa-f]{2})*)(?::\d*)?"
TAIL = rf"(?:\?(?:{PCHAR}|[/?])*)?(?:\#(?:{PCHAR}|[/?])*)?"
HIERARCHY = rf"(?://{AUTHORITY}(?:/{PCHAR}*)*|/(?:{PCHAR}+(?:/{PCHAR}*)*)?|"
URI = re.compile(rf"[A-Za-z][A-Za-z0-9+.-]*:{HIERARCHY}{PCHAR}+(?:/{PCHAR}*)*|){TAIL}", re.A)
RELATIVE = re.compile(rf"{HIERARCHY}(?:(?!:){PCHAR})+(?:/{PCHAR}*)*|){TAIL}", re.A)

# RFC 3339, section 5.6. is_time checks the day of the month; a leap second is accepted in any minute.
TIME = re.compile(r"(\d{4})-(\d\d)-(\d\d)T([01]\d|2[0-3]):[0-5]\d:([0-5]\d|60)(\.\d+)?(Z|[+-]([01]\d|2[0-3]):[0-5]\d)",
                  re.A | re.I)

FORMATS = FormatChecker(formats=())


@FORMATS.checks("uri")
def is_uri(text):
    return not isinstance(text, str) or URI.fullmatch(text) is not None


@FORMATS.checks("uri-reference")
def is_uri_reference(text):
    return not isinstance(text, str) or is_uri(text) or RELATIVE.fullmatch(text) is not None


@FORMATS.checks("date-time", raises=ValueError)
def is_time(text):
    if not isinstance(text, str):
        return True
    parts = TIME.fullmatch(text)
    return parts is not None and bool(date(*map(int, parts.group(1, 2, 3))))


SCHEMA = Draft7Validator(json.loads((Path(__file__).parent / "cloudevents.schema.json").read_text()),
                         format_checker=FORMATS)


class RequestError(Exception):
    def __init__(self, reason, status=400):
        super().__init__(reason[:MAX_REASON])
        self.status = status


def reject_duplicates(pairs):
    names = [name for name, _ in pairs]
    if len(set(names)) < len(names):
        raise RequestError(f"duplicate member among {names}")
    return dict(pairs)


def reject_constant(name):  # NaN or Infinity.
    raise RequestError(f"{name} is not valid JSON")


def parse(body):
    try:
        return json.loads(body.decode("utf-8"), object_pairs_hook=reject_duplicates, parse_constant=reject_constant)
    except UnicodeDecodeError as error:
        raise RequestError(f"not UTF-8: {error}") from None
    except (ValueError, RecursionError) as error:
        raise RequestError(f"not JSON: {error}") from None


def check_attribute(name, value):
    if not ATTRIBUTE_NAME.fullmatch(name):
        raise RequestError(f"{name!r} is not a valid attribute name")
    if value is None or isinstance(value, bool):
        return
    if isinstance(value, int):
        if not -(2**31) <= value < 2**31:
            raise RequestError(f"{name} does not fit into 32 bits: {value}")
    elif not isinstance(value, str):
        raise RequestError(f"{name} has a type that is not allowed for attributes")
    elif found := FORBIDDEN.search(value):
        raise RequestError(f"{name} has the forbidden character U+{ord(found[0]):04X}")


def check(event):
    """Raises RequestError unless the parsed document is a valid CloudEvent."""
    if error := best_match(SCHEMA.iter_errors(event)):
        raise RequestError(f"schema: {error.json_path}: {error.message}")
    for name, value in event.items():
        if name not in ("data", "data_base64"):
            check_attribute(name, value)
    if event["specversion"] != "1.0":
        raise RequestError(f"specversion is {event['specversion']!r}, not '1.0'")
    if event.get("datacontenttype") is not None and not MEDIA_TYPE.fullmatch(event["datacontenttype"]):
        raise RequestError(f"datacontenttype is not a media type: {event['datacontenttype']!r}")
    if event.get("data") is not None and event.get("data_base64") is not None:
        raise RequestError("data and data_base64 are both present")
    if encoded := event.get("data_base64"):
        if not re.fullmatch("(?:[A-Za-z0-9+/]{4})*(?:[A-Za-z0-9+/]{2}==|[A-Za-z0-9+/]{3}=)?", encoded):
            raise RequestError("data_base64 is not Base64")


class EventLog:
    """The log, and what identifies the last MAX_REMEMBERED events. Any thread may call it."""

    def __init__(self, log):
        self.log = log
        self.lock = threading.Lock()
        self.seen = {}  # (source, id): digest of the document.

    def accept(self, body):
        event = parse(body)
        check(event)
        key, digest = (event["source"], event["id"]), hashlib.sha256(body).digest()
        with self.lock:
            if key not in self.seen:
                self.seen[key] = digest
                if len(self.seen) > MAX_REMEMBERED:
                    del self.seen[next(iter(self.seen))]
                self.write(body.translate(LINE_ENDS))
            elif self.seen[key] != digest:  # The same document is a repeated delivery, not an error.
                raise RequestError(f"source {key[0]!r} has already used id {key[1]!r} for another event")

    def refuse(self, reason):
        with self.lock:
            self.write(json.dumps({"refused": reason}).encode())

    def write(self, line):
        self.log.write(line + b"\n")
        self.log.flush()


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True  # The header and the body of a response are sent separately.
    server_version = "cloudevents"
    timeout = 60  # Seconds without a byte.

    def do_POST(self):
        try:
            self.server.event_log.accept(self.body())
            self.respond(204)
        except RequestError as error:
            self.server.event_log.refuse(str(error))
            self.respond(error.status, str(error))

    def body(self):
        length = self.headers.get("Content-Length", "")
        if not re.fullmatch("[0-9]{1,18}", length) or "Transfer-Encoding" in self.headers:
            raise RequestError("Content-Length is required", 411)
        if int(length) > MAX_BODY:
            raise RequestError("the body is too long", 413)
        body = self.rfile.read(int(length))
        if len(body) < int(length):
            raise RequestError("the body ended early")
        kind = self.headers.get_content_type()
        if kind != "application/cloudevents+json":
            raise RequestError(f"the content type is {kind}, not application/cloudevents+json", 415)
        if (charset := self.headers.get_content_charset("utf-8")) != "utf-8":
            raise RequestError(f"the charset is {charset}, not utf-8", 415)
        return body

    def respond(self, status, reason=""):
        text = reason.encode("utf-8", "backslashreplace")
        self.send_response(status)
        if status != 204:
            self.send_header("Content-Type", "text/plain; charset=utf-8")
            self.send_header("Content-Length", str(len(text)))
        if status in (411, 413):  # The body was not read.
            self.send_header("Connection", "close")
        self.end_headers()
        self.wfile.write(text)

    def log_message(self, *_):
        pass


def main():
    if len(sys.argv) != 3 or not sys.argv[1].isdecimal():
        sys.exit(__doc__)
    with open(sys.argv[2], "ab") as log, ThreadingHTTPServer(("127.0.0.1", int(sys.argv[1])), Handler) as server:
        server.event_log = EventLog(log)
        server.serve_forever()


if __name__ == "__main__":
    main()
