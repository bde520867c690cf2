#!/usr/bin/python3
"""Prints a CSV file of a week, as the library writes it, with made-up alarms: alarm_rows.py ROWS CONDITIONS

The first row of the last day is the first one after a restart of the host."""
import csv
import random
import sys
import time
from pathlib import Path

sys.path.append(str(Path(__file__).parent.parent / "tools" / "alarms"))
sys.dont_write_bytecode = True
from oxevent_alarms.rows import COLUMNS, SEVERITIES, VERSION
from oxevent_alarms.text import DAY_NS, NS

KINDS = (("fan.stopped", 2, "Fan {} stands still"), ("pump.hot", 3, "Pump {} is hot"),
         ("door.open", 1, "Door {} is open"), ("pressure.low", 3, "Pressure of press {} is low"),
         ("coolant.low", 2, "Coolant of mill {} is low"))


def rows(count, conditions):
    chosen = random.Random(3)
    start = time.time_ns() - 7 * DAY_NS
    restart = count * 6 // 7
    raised = set()
    for number in range(count):
        ns = start + int((number + chosen.random()) * 7 * DAY_NS / count)
        if number == restart:
            raised.clear()
        event_id = number % restart + 1
        if chosen.random() < 0.2:
            yield event_id, ns, 1, "", "shift", "plant", "Shift change"
            continue
        which = min(int(chosen.expovariate(9) * conditions), conditions - 1)
        kind, severity, message = KINDS[which % len(KINDS)]
        action = "raise" if which not in raised else chosen.choice(("clear", "clear", "repeat"))
        (raised.discard if action == "clear" else raised.add)(which)
        yield event_id, ns, severity, action, kind, f"line-{which % 4}/{which}", message.format(which)


def main():
    count, conditions = map(int, sys.argv[1:3])
    out = csv.writer(sys.stdout, lineterminator="\n")
    out.writerow(COLUMNS)
    for event_id, ns, severity, action, kind, source, message in rows(count, conditions):
        iso = time.strftime("%Y-%m-%dT%H:%M:%S", time.gmtime(ns // NS)) + f".{ns % NS:09}Z"
        out.writerow([VERSION, event_id, iso, ns, SEVERITIES[severity], action, kind, source, "plant", "", "", message,
                      0, 0, "", 0, ns, 0, "", "{}"])


if __name__ == "__main__":
    main()
