#!/usr/bin/python3
"""Reads all events from the broker of nchan.conf: subscriber.py URL LOG

Writes each event as one line of LOG before it requests the next one: a JSON object with the position in the broker and
the document as a string. A restart continues after the last complete line. Reports gaps in the ids of a source on stderr.
"""
import json
import sys
import time
import urllib.error
import urllib.request


def report_gap(document, last_ids):
    """Reports ids of the source that are missing before this event. `last_ids`: the highest id of each source so far."""
    try:
        event = json.loads(document)
        source, number = event["source"], int(event["id"])
    except (ValueError, TypeError, KeyError):
        return  # Not a CloudEvent from oxEvent; it is still logged.
    last = last_ids.get(source, 0)
    if number > last + 1:
        print(f"{source}: {last + 1} to {number - 1} missing before {number}", file=sys.stderr, flush=True)
    last_ids[source] = max(number, last)


def main(url, path):
    position, last_ids = {}, {}
    with open(path, "a+b") as log:
        log.seek(0)
        complete_bytes = 0
        for line in log:
            if not line.endswith(b"\n"):
                log.truncate(complete_bytes)  # A crash interrupted the write of the last line.
                break
            complete_bytes += len(line)
            entry = json.loads(line)
            position = entry["position"]
            report_gap(entry["document"], last_ids)
        while True:
            try:
                with urllib.request.urlopen(urllib.request.Request(url, headers=position)) as response:
                    document = response.read().decode("utf-8", "surrogateescape")
                    position = {"If-Modified-Since": response.headers["Last-Modified"],
                                "If-None-Match": response.headers["Etag"]}
            except OSError as error:
                if isinstance(error, urllib.error.HTTPError) and error.code in (304, 408):
                    continue  # No event before the broker's timeout.
                print(f"{url}: {error}", file=sys.stderr, flush=True)
                time.sleep(1)
                continue
            log.write(json.dumps({"position": position, "document": document}).encode() + b"\n")
            log.flush()
            report_gap(document, last_ids)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    main(*sys.argv[1:])
