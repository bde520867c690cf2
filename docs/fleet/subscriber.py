#!/usr/bin/python3
"""Stores all events of the queue "oxevent" of a broker in an SQLite database: subscriber.py URL DATABASE

Acknowledges an event only when it is stored, so that the broker delivers it again after a failure. An event that is
already in the database is a duplicate: it is reported on stderr and acknowledged.
"""
import json
import sqlite3
import sys
import time

import pika
from pika.adapters.utils.connection_workflow import AMQPConnectorException

# A document that lacks one of the four fields is always stored: null differs from null in a primary key.
SCHEMA = """CREATE TABLE IF NOT EXISTS events (
  utc_ns INTEGER, hostname TEXT, procid TEXT, event_id INTEGER, document TEXT NOT NULL,
  PRIMARY KEY (utc_ns, hostname, procid, event_id))"""
BATCH_SIZE = 100  # Number of events that the broker sends before it waits for an acknowledgement.


def identity(document):
    """Returns what identifies an event, even across restarts of its host."""
    try:
        fields = json.loads(document)
        key = fields["event"]["utc_ns"], fields["hostname"], fields["procid"], fields["event"]["event_id"]
    except (ValueError, TypeError, KeyError):
        key = ()
    if len(key) == 4 and all(isinstance(part, str) for part in key):
        return key
    return None, None, None, None  # Not an event of oxEvent, or one whose line was truncated.


def store(database, body):
    document = body.decode("utf-8", "replace")
    key = identity(document)
    if database.execute("INSERT OR IGNORE INTO events VALUES (?, ?, ?, ?, ?)", (*key, document)).rowcount == 0:
        print("duplicate:", *key, file=sys.stderr, flush=True)


def receive(url, database):
    """Stores events until the connection fails."""
    with pika.BlockingConnection(pika.URLParameters(url)) as connection:
        channel = connection.channel()
        channel.queue_declare("oxevent", durable=True)
        channel.basic_qos(prefetch_count=BATCH_SIZE)
        for method, _, body in channel.consume("oxevent"):
            store(database, body)
            # Commits and acknowledges together all events that have arrived.
            if channel.get_waiting_message_count() == 0:
                database.commit()
                channel.basic_ack(method.delivery_tag, multiple=True)


def main(url, path):
    database = sqlite3.connect(path)
    database.execute(SCHEMA)
    while True:
        try:
            receive(url, database)
        # AMQPConnectorException: the broker does not answer. It is not a subclass of AMQPError.
        except (pika.exceptions.AMQPError, AMQPConnectorException, OSError) as error:
            database.rollback()  # The broker delivers again what was not acknowledged.
            print(f"subscriber.py: {error!r}", file=sys.stderr, flush=True)
            time.sleep(1)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    main(*sys.argv[1:])
