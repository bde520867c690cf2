#!/usr/bin/python3
"""Reads all events from the broker of nchan.conf: subscriber.py URL LOG

Each event becomes one line of LOG, written before the next is asked for: a JSON object with the broker's position and
the document as a text. Started again it goes on behind the last line. Ids that a source has skipped are told on stderr.
"""
import json
import sys
import time
import urllib.error
import urllib.request


def note(document, last):
    """Tells of a gap before this event."""
    try:
        event = json.loads(document)
        source, number = event["source"], int(event["id"])
    except (ValueError, TypeError, KeyError):
        return  # No CloudEvent of oxEvent's; it is in the log.
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
                log.truncate(good)  # Torn by a crash.
                break
            good += len(line)
            entry = json.loads(line)
            position = entry["position"]
            note(entry["document"], last)
        while True:
            try:
                with urllib.request.urlopen(urllib.request.Request(url, headers=position)) as answer:
                    document = answer.read().decode("utf-8", "surrogateescape")
                    position = {"If-Modified-Since": answer.headers["Last-Modified"], "If-None-Match": answer.headers["Etag"]}
            except OSError as failure:
                if isinstance(failure, urllib.error.HTTPError) and failure.code in (304, 408):
                    continue  # Nothing came for a while.
                print(f"{url}: {failure}", file=sys.stderr, flush=True)
                time.sleep(1)
                continue
            log.write(json.dumps({"position": position, "document": document}).encode() + b"\n")
            log.flush()
            note(document, last)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    main(*sys.argv[1:])
