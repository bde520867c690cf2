"""The alarm list as a table, JSON, Prometheus metrics and the output of a Nagios plugin."""
import json

from .rows import COLUMNS, RANK, SEVERITIES
from .text import NS, clean, counted, duration, finite, printable, utc

OK, WARNING, CRITICAL, UNKNOWN = range(4)  # Exit statuses of a Nagios plugin.
STATES = ("OK", "WARNING", "CRITICAL", "UNKNOWN")
LISTED = 20  # Conditions in the output of the plugin: Nagios keeps only 8 KiB of the output.
LISTED_LENGTH = 200  # Characters of each key and message in that output.


def count_by_severity(conditions):
    counts = dict.fromkeys(SEVERITIES[::-1], 0)
    for condition in conditions:
        counts[condition.row.severity] += 1
    return counts


def newest_age_ns(alarms):
    return None if alarms.newest_ns is None else alarms.now_ns - alarms.newest_ns


def summary(alarms, conditions):
    """Returns one line about the list."""
    counts = ", ".join(f"{count} {name}" for name, count in count_by_severity(conditions).items() if count)
    unconfirmed = sum(map(alarms.is_unconfirmed, conditions))
    text = f"{len(conditions)} raised" + (f" ({counts})" if counts else "")
    if unconfirmed:
        text += f", {unconfirmed} of them unconfirmed: an earlier run of the host raised them"
    if not alarms.runs.are_known:
        text += "; restarts unknown: the event ids are not a sequence"
    age = newest_age_ns(alarms)
    return text + ("; no row" if age is None else f"; newest row {duration(age)} old")


def table(alarms, conditions, width):
    """Yields the lines of the table, cut to `width` unless that is None, and the summary."""
    rows = [(condition.row.severity, duration(alarms.age_ns(condition)), str(condition.count),
             "unconfirmed" if alarms.is_unconfirmed(condition) else "raised", printable(condition.key),
             printable(condition.row.message)) for condition in conditions]
    head = ("SEVERITY", "AGE", "COUNT", "STATE", "KEY", "MESSAGE")
    widths = [max(len(row[column]) for row in [head, *rows]) for column in range(len(head) - 1)]
    for row in [head, *rows] if rows else []:
        yield "  ".join([cell.ljust(width) for cell, width in zip(row, widths)] + [row[-1]])[:width]
    yield summary(alarms, conditions)


def row_line(row):
    return (f"{utc(row.utc_ns)}  {row.severity:7}  {printable(row.action) or '-':6}  {printable(row.key)}  "
            f"{printable(row.message)}")


def row_json(row):
    fields = {name: clean(value) if isinstance(value, str) else value for name, value in zip(COLUMNS, row)}
    fields.update(value=finite(row.value), threshold=finite(row.threshold), key=clean(row.key))
    return json.dumps(fields)


def condition_fields(alarms, condition):
    return dict(json.loads(row_json(condition.row)), raised_utc_ns=condition.raised_ns, count=condition.count,
                age_s=alarms.age_ns(condition) / NS, unconfirmed=alarms.is_unconfirmed(condition))


def list_json(alarms, conditions):
    return json.dumps({
        "now_utc_ns": alarms.now_ns, "newest_utc_ns": alarms.newest_ns, "rows": alarms.rows,
        "restarts_known": alarms.runs.are_known,
        "conditions": [condition_fields(alarms, condition) for condition in conditions]}, indent=1)


def label(name, value):
    text = clean(value).replace("\\", "\\\\").replace('"', '\\"').replace("\n", "\\n")
    return f'{name}="{text}"'


def metric(name, help_text, samples):
    """Yields the lines of a gauge. Samples are pairs of labels and a value."""
    if samples:
        yield f"# HELP {name} {help_text}"
        yield f"# TYPE {name} gauge"
    for labels, value in samples:
        yield name + (f"{{{','.join(labels)}}}" if labels else "") + f" {value}"


def seconds(ns):
    return f"{ns // NS}.{ns % NS:09}"


def prometheus(alarms, conditions):
    """Yields the lines in the text format of Prometheus, version 0.0.4."""
    by_severity = [([label("severity", name)], count) for name, count in count_by_severity(conditions).items()]
    yield from metric("oxevent_alarms_raised", "Raised conditions.", by_severity)
    yield from metric("oxevent_alarms_unconfirmed", "Raised conditions that the host's current run has not reported.",
                      [([], sum(map(alarms.is_unconfirmed, conditions)))])
    rows = [([label("severity", name)], alarms.rows_by_severity.get(name, 0)) for name in SEVERITIES[::-1]]
    yield from metric("oxevent_alarms_rows", "Rows in the CSV file and its rotated files.", rows)
    newest = [] if alarms.newest_ns is None else [([], seconds(alarms.newest_ns))]
    yield from metric("oxevent_alarms_newest_row_timestamp_seconds", "Time of the newest row.", newest)
    yield from metric("oxevent_alarms_condition_raised_timestamp_seconds", "Time when the condition was raised.", [
        ([label("key", condition.key), label("severity", condition.row.severity),
          label("event_type", condition.row.event_type), label("source_id", condition.row.source_id),
          label("unconfirmed", str(alarms.is_unconfirmed(condition)).lower())], seconds(condition.raised_ns))
        for condition in conditions])


def plugin_text(text):
    """Returns the text, shortened, and without the character after which Nagios expects performance data."""
    return printable(text).replace("|", "¦")[:LISTED_LENGTH]


def plugin(alarms, conditions, max_age_ns):
    """Returns the output of a Nagios plugin and its exit status."""
    age = newest_age_ns(alarms)
    silent = max_age_ns is not None and (age is None or age > max_age_ns)
    rank = max([RANK[condition.row.severity] for condition in conditions], default=0)
    state = CRITICAL if silent or rank >= RANK["error"] else WARNING if rank == RANK["warning"] else OK
    reason = f"no row in the last {duration(max_age_ns)}; " if silent else ""
    data = plugin_data(alarms, conditions, max_age_ns)
    lines = [f"OXEVENT {STATES[state]} - {reason}{summary(alarms, conditions)} | {data}"]
    lines += [f"{condition.row.severity}: {plugin_text(condition.row.message)} ({plugin_text(condition.key)}, "
              f"{duration(alarms.age_ns(condition))})" for condition in conditions[:LISTED]]
    if len(conditions) > LISTED:
        lines.append(f"and {len(conditions) - LISTED} more")
    return "\n".join(lines), state


def plugin_data(alarms, conditions, max_age_ns):
    counts = count_by_severity(conditions)
    age = newest_age_ns(alarms)
    newest = "U" if age is None else f"{age // NS}s"
    limit = "" if max_age_ns is None else max_age_ns // NS
    unconfirmed = sum(map(alarms.is_unconfirmed, conditions))
    return (f"error={counts['error'] + counts['unknown']};;0;0 warning={counts['warning']};0;;0 "
            f"info={counts['info'] + counts['debug']};;;0 unconfirmed={unconfirmed};;;0 "
            f"newest_row_age={newest};;{limit};0")
