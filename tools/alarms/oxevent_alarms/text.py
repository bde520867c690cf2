"""Formats strings, times and durations for people and programs, and parses times and durations."""
import datetime
import math
import re

NS = 10**9
DAY_NS = 86400 * NS
UNITS_NS = {"s": NS, "m": 60 * NS, "h": 3600 * NS, "d": DAY_NS, "w": 7 * DAY_NS}
TIME = re.compile(r"(\d{4}-\d\d-\d\d)(?:[Tt ](\d\d:\d\d)(:\d\d)?(\.\d{1,9})?(?:[Zz]|([+-]\d\d:\d\d))?)?")


def clean(text):
    """Returns a string that can be encoded: U+FFFD stands for bytes that are not UTF-8."""
    return text.encode("utf-8", "surrogateescape").decode("utf-8", "replace")


def printable(text):
    """Returns one line, without characters that control a terminal or the direction of the text."""
    return "".join(c if c.isprintable() else c.encode("unicode_escape").decode() for c in clean(text))


def utc(ns, fraction="milliseconds"):
    time = datetime.datetime.fromtimestamp(ns // NS, datetime.timezone.utc)
    return time.replace(microsecond=ns % NS // 1000).isoformat(timespec=fraction).replace("+00:00", "Z")


def duration(ns):
    """Returns a duration in at most two units, rounded down."""
    seconds = max(0, ns) // NS
    if seconds < 60:
        return f"{seconds} s"
    minutes = seconds // 60
    if minutes < 60:
        return f"{minutes} min"
    hours = minutes // 60
    return f"{hours} h {minutes % 60:02} min" if hours < 24 else f"{hours // 24} d {hours % 24:02} h"


def counted(count, noun):
    return f"{count:,} {noun}" + ("" if count == 1 else "s")


def finite(number):
    """Converts a text to a number for JSON, or to None (null) for NaN and infinities, which JSON cannot represent."""
    value = float(number)
    return value if math.isfinite(value) else None


def parse_duration(text):
    match = re.fullmatch(r"(\d{1,9})([smhdw])", text)
    if not match:
        raise ValueError(f"'{text}' is not a duration such as 90s, 15m, 2h, 7d or 4w")
    return int(match[1]) * UNITS_NS[match[2]]


def parse_time(text, now_ns):
    """Parses a time, or a duration that is to be subtracted from now. Returns nanoseconds since 1970."""
    match = TIME.fullmatch(text)
    if not match:
        try:
            return now_ns - parse_duration(text)
        except ValueError:
            raise ValueError(
                f"'{text}' is neither a time such as 2026-03-01T12:00:00Z nor a duration such as 2h") from None
    day, minute, second, fraction, zone = match.groups()
    time = datetime.datetime.fromisoformat(f"{day}T{minute or '00:00'}{second or ':00'}{zone or '+00:00'}")
    return int(time.timestamp()) * NS + int((fraction or ".0")[1:].ljust(9, "0"))
