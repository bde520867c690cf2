#!/usr/bin/python3
"""Reads all events from the broker of nchan.conf: subscriber.py URL LOG

Each event becomes one line of LOG, written before the next is requested: a JSON object with the position in the broker
and the document as a string. After a restart it continues after the last line. Reports skipped ids of a source on stderr.
"""
import json
import sys
import time
import urllib.error
import urllib.request


def report_gap(document, last):
    """Reports ids that are missing before this event."""
    try:
        event = json.loads(document)
        source, number = event["source"], int(event["id"])
    except (ValueError, TypeError, KeyError):
        return  # Not a CloudEvent from oxEvent; it is still logged.
    if number > last.get(source, 0) + 1:
        print(f"{source}: {last.get(source, 0) + 1} to {number - 1} missing before {number}", file=sys.stderr, flush=True)
    last[source] = max(number, last.get(source, 0))


def main(url, path):
    position, last = {}, {}
    with open(path, "a+b") as log:
        log.seek(0)
        good = 0
        for line in log:
            if not line.endswith(b"\n"):
                log.truncate(good)  # Truncated by a crash.
                break
            good += len(line)
            entry = json.loads(line)
            position = entry["position"]
            report_gap(entry["document"], last)
        while True:
            try:
                with urllib.request.urlopen(urllib.request.Request(url, headers=position)) as answer:
                    document = answer.read().decode("utf-8", "surrogateescape")
                    position = {"If-Modified-Since": answer.headers["Last-Modified"], "If-None-Match": answer.headers["Etag"]}
            except OSError as failure:
                if isinstance(failure, urllib.error.HTTPError) and failure.code in (304, 408):
                    continue  # No event within the broker's timeout.
                print(f"{url}: {failure}", file=sys.stderr, flush=True)
                time.sleep(1)
                continue
            log.write(json.dumps({"position": position, "document": document}).encode() + b"\n")
            log.flush()
            report_gap(document, last)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    main(*sys.argv[1:])
