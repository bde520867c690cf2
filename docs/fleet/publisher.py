#!/usr/bin/python3
"""Publishes each line of standard input to the queue "oxevent" of a broker: publisher.py URL

rsyslog starts it as rsyslog-broker.conf describes. Writes "OK" when it is connected, and again for each line that
the broker has confirmed; the broker confirms an event only when it has written it to its disk. Ends at any failure;
rsyslog then starts the program again and repeats the line that was not confirmed.
"""
import sys

import pika
from pika.adapters.utils.connection_workflow import AMQPConnectorException

PERSISTENT = pika.BasicProperties(content_type="application/json", delivery_mode=2)


def main(url):
    parameters = pika.URLParameters(url)
    parameters.heartbeat = 0  # Nothing would answer heartbeats while the program waits for a line.
    channel = pika.BlockingConnection(parameters).channel()
    channel.queue_declare("oxevent", durable=True)
    channel.confirm_delivery()
    print("OK", flush=True)
    for line in sys.stdin.buffer:
        channel.basic_publish("", "oxevent", line.rstrip(b"\n"), PERSISTENT, mandatory=True)
        print("OK", flush=True)


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    try:
        main(sys.argv[1])
    # AMQPConnectorException: the broker does not answer. It is not a subclass of AMQPError.
    except (pika.exceptions.AMQPError, AMQPConnectorException, OSError) as error:
        sys.exit(f"publisher.py: {error!r}")
