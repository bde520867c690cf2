#!/usr/bin/python3
"""Receives CloudEvents 1.0 by HTTP POST on loopback, in structured mode, and judges them.

cloudevents_receiver.py PORT LOG

Appends to LOG a line per event, valid ones as they came, for the others {"refused": reason}. Answers 204, or an error
status with the reason. Needs Debian's python3-jsonschema, and cloudevents.schema.json beside this file.
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
MAX_REMEMBERED = 100_000  # Events, to find ids that are used twice.
LINE_ENDS = bytes.maketrans(b"\r\n", b"  ")  # In JSON they stand between tokens only.

# What the text of CloudEvents 1.0 demands beyond its schema.
NAME = re.compile("[a-z0-9]+")
FORBIDDEN = re.compile(  # Control characters, surrogates, and what Unicode calls noncharacters.
    "[\\x00-\\x1f\\x7f-\\x9f\\ud800-\\udfff\\ufdd0-\\ufdef"
    + "".join(f"\\U{plane:04x}fffe\\U{plane:04x}ffff" for plane in range(17)) + "]")
MEDIA_TYPE = re.compile(r"""[\w!#$&^.+-]+/[\w!#$&^.+-]+(\s*;\s*[\w!#$&^.+-]+=([\w!#$&^.+-]+|"([^"\\]|\\.)*"))*""", re.A)

# RFC 3986, appendix A. An address in brackets is checked for its characters only.
PCHAR = r"(?:[\w.~!$&'()*+,;=:@-]|%[0-9A-Fa-f]{2})"
AUTHORITY = r"(?:(?:[\w.~!$&'()*+,;=:-]|%[0-9A-Fa-f]{2})*@)?" \
            r"(?:\[[0-9A-Fa-f:.]+\]|(?:[\w.~!$&'()*+,;=-]|%[0-9A-Fa-f]{2})*)(?::\d*)?"
TAIL = rf"(?:\?(?:{PCHAR}|[/?])*)?(?:\#(?:{PCHAR}|[/?])*)?"
HIERARCHY = rf"(?://{AUTHORITY}(?:/{PCHAR}*)*|/(?:{PCHAR}+(?:/{PCHAR}*)*)?|"
URI = re.compile(rf"[A-Za-z][A-Za-z0-9+.-]*:{HIERARCHY}{PCHAR}+(?:/{PCHAR}*)*|){TAIL}", re.A)
RELATIVE = re.compile(rf"{HIERARCHY}(?:(?!:){PCHAR})+(?:/{PCHAR}*)*|){TAIL}", re.A)

# RFC 3339, section 5.6. The day of the month is checked apart; a leap second may come in any minute.
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


class Refusal(Exception):
    def __init__(self, reason, status=400):
        super().__init__(reason[:MAX_REASON])
        self.status = status


def unique_members(pairs):
    names = [name for name, _ in pairs]
    if len(set(names)) < len(names):
        raise Refusal(f"a member stands twice among {names}")
    return dict(pairs)


def no_constant(word):
    raise Refusal(f"{word} is not JSON")


def parse(body):
    try:
        return json.loads(body.decode("utf-8"), object_pairs_hook=unique_members, parse_constant=no_constant)
    except UnicodeDecodeError as error:
        raise Refusal(f"not UTF-8: {error}") from None
    except (ValueError, RecursionError) as error:
        raise Refusal(f"not JSON: {error}") from None


def check_attribute(name, value):
    if not NAME.fullmatch(name):
        raise Refusal(f"{name!r} is no name for an attribute")
    if value is None or isinstance(value, bool):
        return
    if isinstance(value, int):
        if not -(2**31) <= value < 2**31:
            raise Refusal(f"{name} is beyond 32 bits: {value}")
    elif not isinstance(value, str):
        raise Refusal(f"{name} is of no type that an attribute may have")
    elif found := FORBIDDEN.search(value):
        raise Refusal(f"{name} has the forbidden character U+{ord(found[0]):04X}")


def check(event):
    """Raises a Refusal unless this parsed document is a CloudEvent."""
    if error := best_match(SCHEMA.iter_errors(event)):
        raise Refusal(f"schema: {error.json_path}: {error.message}")
    for name, value in event.items():
        if name not in ("data", "data_base64"):
            check_attribute(name, value)
    if event["specversion"] != "1.0":
        raise Refusal(f"specversion is {event['specversion']!r}, not '1.0'")
    if event.get("datacontenttype") is not None and not MEDIA_TYPE.fullmatch(event["datacontenttype"]):
        raise Refusal(f"datacontenttype is no media type: {event['datacontenttype']!r}")
    if event.get("data") is not None and event.get("data_base64") is not None:
        raise Refusal("both data and data_base64")
    if encoded := event.get("data_base64"):
        if not re.fullmatch("(?:[A-Za-z0-9+/]{4})*(?:[A-Za-z0-9+/]{2}==|[A-Za-z0-9+/]{3}=)?", encoded):
            raise Refusal("data_base64 is not Base64")


class Inbox:
    """The log, and the ids seen since the start. Any thread."""

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
            elif self.seen[key] != digest:  # The same document again is the same event delivered again.
                raise Refusal(f"source {key[0]!r} has used id {key[1]!r} for another event")

    def refuse(self, reason):
        with self.lock:
            self.write(json.dumps({"refused": reason}).encode())

    def write(self, line):
        self.log.write(line + b"\n")
        self.log.flush()


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True  # Header and body are sent as two segments.
    server_version = "cloudevents"
    timeout = 60  # Seconds without a byte.

    def do_POST(self):
        try:
            self.server.inbox.accept(self.body())
            self.answer(204)
        except Refusal as refusal:
            self.server.inbox.refuse(str(refusal))
            self.answer(refusal.status, str(refusal))

    def body(self):
        length = self.headers.get("Content-Length", "")
        if not re.fullmatch("[0-9]{1,18}", length) or "Transfer-Encoding" in self.headers:
            raise Refusal("Content-Length is needed", 411)
        if int(length) > MAX_BODY:
            raise Refusal("too long", 413)
        body = self.rfile.read(int(length))
        if len(body) < int(length):
            raise Refusal("the body ended early")
        kind = self.headers.get_content_type()
        if kind != "application/cloudevents+json":
            raise Refusal(f"the content type is {kind}, not application/cloudevents+json", 415)
        if (charset := self.headers.get_content_charset("utf-8")) != "utf-8":
            raise Refusal(f"the charset is {charset}, not utf-8", 415)
        return body

    def answer(self, status, reason=""):
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
        server.inbox = Inbox(log)
        server.serve_forever()


if __name__ == "__main__":
    main()
