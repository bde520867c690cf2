#!/usr/bin/python3
"""Starts what receives events, as plain children on loopback with the configurations of docs/receivers.

receivers.py run FOLDER [NAME...]   start them (without names: all), write FOLDER/NAME/port each, stop them on SIGTERM
receivers.py show FOLDER [NAME...]  print what each has understood, one JSON object per event

As a module:
    with Rsyslog().start(folder) as rsyslog:
        ...  # Events to UDP port rsyslog.port.
        for event in rsyslog.events(): ...

Texts are str; bytes that are not UTF-8 appear in them as with errors="surrogateescape". Nothing outside the folder is
written, and a receiver does not outlive its parent.
"""
import atexit
import ctypes
import json
import os
import re
import signal
import socket
import subprocess
import sys
import time
import urllib.request
import xml.etree.ElementTree as ElementTree
from pathlib import Path

RECIPES = Path(__file__).parent.parent / "docs" / "receivers"
PATIENCE = 30  # Seconds for what must happen anyway, however busy the machine.
PR_SET_PDEATHSIG = 1
AS_ROOT = " user root;" if os.geteuid() == 0 else ""  # In a user namespace of one user there is no other for workers.


def free_port(kind):
    with socket.socket(socket.AF_INET, kind) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def await_(what, condition):
    """Polls until the condition holds and returns what it gave."""
    deadline = time.monotonic() + PATIENCE
    while not (result := condition()):
        if time.monotonic() > deadline:
            raise TimeoutError(f"{what} did not happen in {PATIENCE} s")
        time.sleep(0.01)
    return result


def text(data):
    return data.decode("utf-8", "surrogateescape")


def octets(value):
    return value.encode("utf-8", "surrogateescape")


def read_log(path):
    """The complete lines so far."""
    return text(path.read_bytes()).split("\n")[:-1] if path.exists() else []


def write_settings(path, sections):
    """A settings file for the library, from {key below QVX\\Events: {name: value}}."""
    root = ElementTree.Element("config")
    for key, values in sections.items():
        node = root
        for part in ("QVX", "Events", *key.split("\\")):
            inner = node.find(f"key[@name='{part}']")
            node = ElementTree.SubElement(node, "key", name=part) if inner is None else inner
        for name, value in values.items():
            ElementTree.SubElement(node, "value", name=name).text = str(value)
    ElementTree.ElementTree(root).write(path, "utf-8", xml_declaration=True)


class Receiver:
    """What they share. Subclasses: `command`, `parse`, and what differs."""

    kind = socket.SOCK_STREAM
    path = ""  # Of the URL.
    log = "events.log"

    def start(self, folder):
        self.attach(folder)
        self.folder.mkdir(parents=True)
        self.port = free_port(self.kind)
        return self.run()

    def run(self):
        """Starts it, again too: with the folder and the port that it had."""
        libc = ctypes.CDLL(None)
        with open(self.folder / "output", "ab") as output:
            self.child = subprocess.Popen(
                self.command(), cwd=self.folder, env=os.environ | self.environment(), stdin=subprocess.DEVNULL,
                stdout=output, stderr=output, preexec_fn=lambda: libc.prctl(PR_SET_PDEATHSIG, signal.SIGTERM))
        atexit.register(self.stop)
        try:
            await_(f"the start of {self.name}", self.ready)
        except BaseException:
            self.stop()
            raise
        (self.folder / "port").write_text(f"{self.port}\n")
        return self

    def attach(self, folder):
        """To read what a receiver has received that another process has started."""
        self.name = type(self).__name__.lower()
        self.folder = Path(folder).absolute() / self.name
        port = self.folder / "port"
        self.port = int(port.read_text()) if port.exists() else None
        return self

    def stop(self):
        atexit.unregister(self.stop)
        self.child.terminate()
        try:
            self.child.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            self.child.kill()
            self.child.wait()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    @property
    def url(self):
        return f"http://127.0.0.1:{self.port}{self.path}"

    def ready(self):
        if self.child.poll() is not None:
            output = (self.folder / "output").read_text(errors="replace")
            raise RuntimeError(f"{self.name} ended with {self.child.returncode}: {output[-2000:]}")
        return self.listens()

    def listens(self):
        if self.kind == socket.SOCK_STREAM:
            with socket.socket() as probe:
                return probe.connect_ex(("127.0.0.1", self.port)) == 0
        # A datagram would be an event, and a bind would be in the receiver's way.
        return f" 0100007F:{self.port:04X} " in Path("/proc/net/udp").read_text()

    def environment(self):
        return {}

    @property
    def settings(self):
        """What makes the library send there, to stand in its `section`."""
        return {"enabled": 1} | ({"port": self.port} if self.kind == socket.SOCK_DGRAM else {"endpoint_url": self.url})

    def parse(self, line):
        return json.loads(line)

    def events(self):
        """Of each event what was understood, in the order of arrival."""
        return [self.parse(line) for line in read_log(self.folder / self.log)]


class Rsyslog(Receiver):
    """The header's fields, the structured data's parameters, "message", and "raw": the datagram as it came."""

    kind = socket.SOCK_DGRAM
    section = "sink\\syslog\\udp\\default"

    def command(self):
        return ["rsyslogd", "-n", "-iNONE", "-f", RECIPES / "rsyslog.conf"]

    def environment(self):
        return {"OXEVENT_SYSLOG_PORT": str(self.port), "OXEVENT_SYSLOG_FOLDER": str(self.folder)}

    def parse(self, line):
        event = super().parse(line)
        return event | event.pop("event", {})  # Without one where the data does not end.


class SnmpTrapd(Receiver):
    """The objects' values by their fields' names."""

    kind = socket.SOCK_DGRAM
    section = "sink\\snmp\\trap\\default"
    FIELDS = ("severity", "severity_name", "event_id", "event_type", "source_id", "source_name", "action", "message",
              "dedupe_key", "correlation_id", "utc_ns", "details_json")
    FIRST, OBJECTS = ".1.3.6.1.2.1.1.3.0", ".1.3.6.1.4.1.32473.1.1.1."
    # A text is in quotes, or in hexadecimal where a byte is not printable. A text may go over several lines.
    BINDING = re.compile(r'^(\.[0-9.]+) = (?:(?:STRING: )?"((?:[^"\\]|\\.)*)"|Hex-STRING: ([0-9A-F ]*)|\w+: (\S+))',
                         re.DOTALL | re.MULTILINE)

    def command(self):
        return ["snmptrapd", "-f", "-C", "-c", RECIPES / "snmptrapd.conf", "-Lf", self.log,
                f"udp:127.0.0.1:{self.port}"]

    def events(self):
        events = []
        for oid, quoted, hexadecimal, other in self.BINDING.findall("\n".join(read_log(self.folder / self.log))):
            if oid == self.FIRST:
                events.append({})
            elif oid.startswith(self.OBJECTS):
                field = self.FIELDS[int(oid.split(".")[-2]) - 1]
                octets = text(bytes.fromhex(hexadecimal))
                events[-1][field] = other or octets or re.sub(r"\\(.)", r"\1", quoted, flags=re.DOTALL)
        return [event for event in events if len(event) == len(self.FIELDS)]  # Not one that is still being written.


class HttpReceiver(Receiver):
    """nginx: the request's header fields, and "body"."""

    path = "/events"
    section = "sink\\webhook\\http\\default"

    def command(self):
        configuration = (RECIPES / "nginx.conf").read_text()
        (self.folder / "nginx.conf").write_text(configuration.replace("127.0.0.1:8080", f"127.0.0.1:{self.port}"))
        return ["nginx", "-p", f"{self.folder}/", "-c", "nginx.conf", "-g", "daemon off;" + AS_ROOT]


class CloudEventsReceiver(Receiver):
    """The "body" of the documents that were accepted; of the others "refused", the reason."""

    section = "sink\\cloudevents\\http\\default"

    def command(self):
        return ["/usr/bin/python3", RECIPES / "cloudevents_receiver.py", str(self.port), self.log]

    def parse(self, line):
        return json.loads(line) if line.startswith('{"refused"') else {"body": line}


class Alertmanager(Receiver):
    """The alerts that are active now, as its API gives them."""

    path = "/api/v2/alerts"
    section = "sink\\alertmanager\\main"

    def command(self):
        return ["prometheus-alertmanager", "--config.file", RECIPES / "alertmanager.yml", "--storage.path", "data",
                "--web.listen-address", f"127.0.0.1:{self.port}", "--cluster.listen-address", ""]

    def events(self):
        with urllib.request.urlopen(self.url) as answer:
            return json.load(answer)


RECEIVERS = {kind.__name__: kind for kind in (Rsyslog, SnmpTrapd, HttpReceiver, CloudEventsReceiver, Alertmanager)}


def run(folder, names):
    def end(*_):
        sys.exit(0)  # Stops them: atexit.

    signal.signal(signal.SIGTERM, end)
    signal.signal(signal.SIGINT, end)
    for name in names:
        RECEIVERS[name]().start(folder)
    while True:
        signal.pause()


def show(folder, names):
    for name in names:
        for event in RECEIVERS[name]().attach(folder).events():
            print(name, json.dumps(event))


if __name__ == "__main__":
    if len(sys.argv) < 3 or sys.argv[1] not in ("run", "show") or not set(sys.argv[3:]) <= set(RECEIVERS):
        sys.exit(__doc__)
    {"run": run, "show": show}[sys.argv[1]](sys.argv[2], sys.argv[3:] or RECEIVERS)
