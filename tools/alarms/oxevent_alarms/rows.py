"""Rows of a CSV file, as the library writes them (src/sinks/oxEventText.cpp)."""
import collections
import csv
import re
import string
import sys

HEADER = ("version,event_id,utc_iso,utc_ns,severity,action,event_type,source_id,source_name,dedupe_key,correlation_id,"
          "message,value,threshold,units,duration_ms,ptp_ns,pts,timecode,details_json")
COLUMNS = HEADER.split(",")
VERSION = 65536
# In the order of their ranks. The library would write "unknown" for a severity above error, but refuses such a record.
SEVERITIES = ("debug", "info", "warning", "error", "unknown")
RANK = {name: rank for rank, name in enumerate(SEVERITIES)}
NUMBERS = [(COLUMNS.index(name), kind) for kind, names in (
    (int, ("version", "event_id", "utc_ns", "duration_ms", "ptp_ns", "pts")), (float, ("value", "threshold")))
    for name in names]
ROW_START = re.compile(rb"65536,\d+,\d{4}-\d\d-\d\dT")
ASCII_LOWER = str.maketrans(string.ascii_uppercase, string.ascii_lowercase)

csv.field_size_limit(sys.maxsize)  # The library does not limit the length of a string.


class InputError(Exception):
    """A file cannot be read, or contains a damaged row."""


class Row(collections.namedtuple("Row", COLUMNS)):
    """Columns of whole numbers are int, the others str, in which surrogates stand for bytes that are not UTF-8."""
    __slots__ = ()

    @property
    def key(self):
        return self.dedupe_key or f"{self.source_id}:{self.event_type}"

    @property
    def verb(self):
        """The action in lower case: the library ignores the case of its ASCII letters."""
        return self.action.translate(ASCII_LOWER)


def parse(fields):
    """Returns the row with these fields. Raises ValueError with the reason if they are invalid."""
    if len(fields) != len(COLUMNS):
        raise ValueError(f"{len(fields)} columns instead of {len(COLUMNS)}")
    for column, kind in NUMBERS:
        try:
            number = kind(fields[column])
        except ValueError:
            raise ValueError(f"{COLUMNS[column]} is {fields[column][:20]!r} instead of a number") from None
        fields[column] = number if kind is int else fields[column]
    row = Row._make(fields)
    if row.version != VERSION:
        raise ValueError(f"the version is {row.version} instead of {VERSION}")
    if row.severity not in RANK:
        raise ValueError(f"{row.severity[:20]!r} is not a severity")
    if not 0 <= row.utc_ns < 1 << 64:
        raise ValueError(f"utc_ns is {row.utc_ns}, which is out of range")
    return row


class RowReader:
    """Reads the rows of a file opened in binary mode. rows() ends before an incomplete last row, which the host may still
    be writing; called again when the file has grown, it continues with that row."""

    def __init__(self, file, name, report_skipped=None):
        self.file = file
        self.name = name
        # Called with a text about each damaged row. If None, such a row raises InputError.
        self.report_skipped = report_skipped
        self.restart()

    def restart(self):
        self.line = 0  # Lines before the row that is being read.
        self.row_lines = []  # The lines of that row.
        self.unread = []  # Lines to read again, in reverse order.
        self.tail = b""  # The incomplete last line.

    def rows(self):
        while True:
            rows = csv.reader(self.lines(), strict=True)
            try:
                for fields in rows:
                    if fields != COLUMNS:
                        yield parse(fields)
                    self.begin_row()
                return
            except (csv.Error, ValueError) as error:
                if self.row_lines and self.is_incomplete(error):
                    self.unread = self.row_lines[::-1]
                    self.row_lines = []
                    return
                self.skip(error)

    def lines(self):
        while self.unread:
            yield self.decode(self.unread.pop())
        for line in self.file:
            line = self.tail + line
            self.tail = b""
            if not line.endswith(b"\n"):
                self.tail = line
                return
            yield self.decode(line)

    def decode(self, line):
        self.row_lines.append(line)
        return line.decode("utf-8", "surrogateescape")

    def begin_row(self):
        self.line += len(self.row_lines)
        self.row_lines.clear()

    def is_incomplete(self, error):
        """Returns whether the host may still be writing the row. If a crash has cut the row off in a quoted field,
        other rows follow."""
        return "unexpected end of data" in str(error) and not any(map(ROW_START.match, self.row_lines[1:]))

    def skip(self, error):
        """Skips the damaged row, up to the next line that looks like the beginning of a row."""
        text = f"{self.name}:{self.line + 1}: damaged row: {error}"
        if self.report_skipped is None:
            raise InputError(text)
        self.report_skipped(text)
        rest = self.row_lines[1:]
        while rest and not ROW_START.match(rest[0]):
            del rest[0]
        del self.row_lines[len(self.row_lines) - len(rest):]
        self.unread += rest[::-1]
        self.begin_row()
