#!/usr/bin/env python3
"""The Python part of scripts/demo.

demo_helper.py set SETTINGS KEY NAME VALUE     change one setting, KEY below QVX\\Events
demo_helper.py receive SOCKET FILE             act as the system log until SIGTERM: write one line per datagram
demo_helper.py alert WORK raised|over          exit with 0 if the Alertmanager has the alert (raised) or not (over)
demo_helper.py report WORK PID [LOG]           print and check the events of the watcher PID
"""
import csv
import json
import os
import re
import signal
import socket
import sys
import time
import xml.etree.ElementTree as ElementTree

import receivers

CONDITION = "spool.full"
COLUMNS = ("utc_iso", "severity", "action", "event_type", "value", "threshold", "units", "duration_ms", "message")
MAX_WIDTHS = {"utc_iso": 24, "message": 44}  # Longer cells are truncated.

# How to read a receiver's events, with the field names of the CSV file.
VIEWS = {
    "rsyslog": (receivers.Rsyslog, lambda event: event),
    "snmptrapd": (receivers.SnmpTrapd, lambda event: event | {"severity": event["severity_name"]}),
    "nginx": (receivers.HttpReceiver, lambda event: json.loads(event["body"])),
}
COMPARED = ("severity", "action", "event_type", "source_id", "source_name", "message", "dedupe_key", "correlation_id",
            "utc_ns", "details_json")


def set_value(path, key, name, value):
    parser = ElementTree.XMLParser(target=ElementTree.TreeBuilder(insert_comments=True))
    root = ElementTree.parse(path, parser).getroot()
    node = root
    for part in ["QVX", "Events", *key.split("\\")]:
        node = next((child for child in node.findall("key") if child.get("name") == part), None)
        if node is None:
            sys.exit(f"{path}: no key '{part}' of {key}")
    setting = next((child for child in node.findall("value") if child.get("name") == name), None)
    if setting is None:  # The library does not add settings whose default is empty.
        setting = ElementTree.SubElement(node, "value", name=name)
    setting.text = value
    with open(path + ".new", "w", encoding="utf-8") as file:
        file.write('<?xml version="1.0" encoding="UTF-8"?>\n')
        file.write(ElementTree.tostring(root, encoding="unicode") + "\n")
    os.replace(path + ".new", path)


def receive(socket_path, log_path):
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as receiver, open(log_path, "ab", buffering=0) as log:
        receiver.bind(socket_path)  # Fails if a system log runs.
        try:
            os.chmod(socket_path, 0o666)
            while True:
                log.write(receiver.recv(65536).rstrip(b"\n\0") + b"\n")
        finally:
            os.unlink(socket_path)


def cut(text, width):
    return text if len(text) <= width else text[: width - 1] + "…"


def print_events(rows):
    print_table([COLUMNS] + [[cut(row[name], MAX_WIDTHS.get(name, 14)) for name in COLUMNS] for row in rows])


def print_table(cells):
    widths = [max(map(len, column)) for column in zip(*cells)]
    for line in cells:
        print("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip())


def read_csv(path):
    with open(path, newline="", encoding="utf-8") as file:
        return list(csv.DictReader(file, strict=True))


def read_log(path, pid):
    with open(path, encoding="utf-8", errors="replace") as file:
        return [line.rstrip("\n") for line in file if f"[{pid}]: oxEvent " in line]


def alert(work, wanted):
    alertmanager = receivers.Alertmanager().attach(os.path.join(work, "receivers"))
    alerts = [alert for alert in alertmanager.events() if alert["labels"]["event_type"] == CONDITION]
    if wanted == "raised":
        with open(os.path.join(work, "alerts.json"), "w", encoding="utf-8") as file:
            json.dump(alerts, file)
    sys.exit(0 if bool(alerts) == (wanted == "raised") else 1)


def read_views(work, rows):
    """Returns the received events by receiver and event id. Waits at most 10 s for late ones."""
    directory = os.path.join(work, "receivers")
    deadline = time.monotonic() + 10
    while True:
        views = {name: {str(event["event_id"]): event for event in map(view, receiver().attach(directory).events())}
                 for name, (receiver, view) in VIEWS.items()}
        if all(row["event_id"] in view for view in views.values() for row in rows) or time.monotonic() > deadline:
            return views
        time.sleep(0.1)


def print_views(rows, views):
    summary = lambda event: " ".join(event[name] or "-" for name in ("severity", "action", "event_type")) if event else "?"
    print_table([("event", "CSV file", *VIEWS)] +
                [(row["event_id"], summary(row), *(summary(views[name].get(row["event_id"])) for name in VIEWS))
                 for row in rows])


def print_alerts(work):
    with open(os.path.join(work, "alerts.json"), encoding="utf-8") as file:
        for alert in json.load(file):
            print(f"{alert['status']['state']}, since {alert['startsAt']}: {alert['annotations']['description']}")
            print("  labels: " + ", ".join(f"{name}={text}" for name, text in alert["labels"].items()))
    print("after the clear: no such alert")


def view_faults(rows, views):
    for row in rows:
        for name, events in views.items():
            event = events.get(row["event_id"], {})
            wrong = [field for field in COMPARED if str(event.get(field)) != row[field]]
            if wrong:
                yield f"{name}: event {row['event_id']}, {row['action']} {row['event_type']}: wrong {', '.join(wrong)}"


def faults(rows, lines, delivered, suppressed):
    """Yields a description of each deviation from the expected events."""
    actions = [row["action"] for row in rows if row["event_type"] == CONDITION]
    if not re.fullmatch(r"raise( (update|repeat))*( update)( (update|repeat))* clear", " ".join(actions)):
        yield f"the condition's events are: {' '.join(actions)}"
    if "repeat" not in actions:
        yield "there was no repeat"
    if suppressed < 1:
        yield "no duplicate was suppressed"
    if len(rows) != delivered:
        yield f"the CSV file has {len(rows)} events, but the callback received {delivered}"
    for row in rows if lines is not None else []:
        start = f"oxEvent event_id={row['event_id']} severity={row['severity']} action={row['action'] or '-'} "
        if sum(start in line for line in lines) != 1:
            yield f"the system log lacks or repeats event {row['event_id']}, {row['action']} {row['event_type']}"


def report(work, pid, log_path=None):
    rows = read_csv(os.path.join(work, "events.csv"))
    print("\n== events.csv ==")
    print_events(rows)
    lines = None
    if log_path is not None:
        lines = read_log(log_path, pid)
        print("\n== system log ==")
        for line in lines:
            print(cut(line, 230))
    views = read_views(work, rows)
    print("\n== events as each receiver has parsed them ==")
    print_views(rows, views)
    print("\n== Alertmanager ==")
    print_alerts(work)
    with open(os.path.join(work, "watch.out"), encoding="utf-8") as file:
        summary = re.search(r"^clean shutdown; reported (\d+) events, (\d+) delivered .*, 0 refused$", file.read(), re.M)
    if summary is None:
        sys.exit("demo: FAILED: the watcher did not report a clean shutdown")
    reported, delivered = map(int, summary.groups())
    found = [*faults(rows, lines, delivered, reported - delivered), *view_faults(rows, views)]
    for fault in found:
        print(f"demo: FAILED: {fault}", file=sys.stderr)
    count = lambda action: sum(row["action"] == action for row in rows)
    print(f"\ndemo: {count('raise')} raised, {count('update')} updated, {reported - delivered} suppressed duplicates, "
          f"{count('repeat')} repeated, {count('clear')} cleared")
    sys.exit(1 if found else 0)


COMMANDS = {"set": set_value, "receive": receive, "alert": alert, "report": report}

if __name__ == "__main__":
    if len(sys.argv) < 2 or sys.argv[1] not in COMMANDS:
        sys.exit(__doc__)
    sys.stdout.reconfigure(errors="replace")  # A terminal may lack some characters.
    COMMANDS[sys.argv[1]](*sys.argv[2:])
