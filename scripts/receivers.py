#!/usr/bin/python3
"""Starts receivers of events as child processes on loopback, with the configurations of docs/receivers.

receivers.py run DIRECTORY [NAME...]   start them (default: all), write the port of each to DIRECTORY/NAME/port, where
                                       NAME is in lower case, and stop them on SIGTERM or SIGINT
receivers.py show DIRECTORY [NAME...]  print the events that each has parsed, one per line: NAME and a JSON object

As a module:
    with Rsyslog().start(directory) as rsyslog:
        ...  # Events to UDP port rsyslog.port.
        for event in rsyslog.events(): ...

Bytes that are not valid UTF-8 are decoded with errors="surrogateescape". Receivers write no file outside the directory
and do not outlive their parent.
"""
import atexit
import contextlib
import ctypes
import json
import os
import random
import re
import signal
import socket
import subprocess
import sys
import threading
import time
import urllib.request
import xml.etree.ElementTree as ElementTree
from pathlib import Path

RECIPES = Path(__file__).parent.parent / "docs" / "receivers"
TIMEOUT_S = 120  # Generous, for busy machines: it expires only if something has failed.
PR_SET_PDEATHSIG = 1
os.environ["no_proxy"] = "127.0.0.1"  # Otherwise a proxy in the environment would get the requests to the receivers.
PORTS = iter(random.sample(range(10000, 32768), 22768))
AS_ROOT = " user root;" if os.geteuid() == 0 else ""  # A user namespace may lack the user that nginx's workers run as.


def free_port():
    """Returns a port that is free for both TCP and UDP and that this process has not got before. The kernel assigns the
    ports above 32767 to other sockets, perhaps before a receiver binds its port. Zabbix does not accept them either."""
    for port in PORTS:
        with socket.socket(type=socket.SOCK_STREAM) as tcp, socket.socket(type=socket.SOCK_DGRAM) as udp:
            try:
                tcp.bind(("127.0.0.1", port))
                udp.bind(("127.0.0.1", port))
                return port
            except OSError:
                continue
    raise OSError("no free port below 32768")


def await_(what, condition):
    """Polls until the condition is true and returns its result."""
    deadline = time.monotonic() + TIMEOUT_S
    while not (result := condition()):
        if time.monotonic() > deadline:
            raise TimeoutError(f"{what} did not happen in {TIMEOUT_S} s")
        time.sleep(0.01)
    return result


def text(data):
    return data.decode("utf-8", "surrogateescape")


def octets(value):
    return value.encode("utf-8", "surrogateescape")


def read_log(path):
    """Returns the complete lines written so far."""
    return text(path.read_bytes()).split("\n")[:-1] if path.exists() else []


def write_settings(path, sections):
    """Writes a settings file for the library from {key below QVX\\Events: {name: value}}."""
    root = ElementTree.Element("config")
    for key, values in sections.items():
        node = root
        for part in ("QVX", "Events", *key.split("\\")):
            inner = node.find(f"key[@name='{part}']")
            node = ElementTree.SubElement(node, "key", name=part) if inner is None else inner
        for name, value in values.items():
            ElementTree.SubElement(node, "value", name=name).text = str(value)
    ElementTree.ElementTree(root).write(path, "utf-8", xml_declaration=True)


@contextlib.contextmanager
def system_log():
    """Provides a system log on a machine without one, and discards its lines."""
    path = "/dev/log"
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as log:
        if log.connect_ex(path) == 0:
            yield
            return
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as log:
        Path(path).unlink(missing_ok=True)  # A process that was killed may have left the socket.
        log.bind(path)
        reader = threading.Thread(target=discard, args=(log,))
        reader.start()
        try:
            yield
        finally:
            Path(path).unlink()
            log.shutdown(socket.SHUT_RDWR)
            reader.join()


def discard(log):
    while log.recv(65536):
        pass


class Receiver:
    """Base class. Subclasses define `command`, and override `parse` and other members as needed."""

    kind = socket.SOCK_STREAM
    path = ""  # Path of the URL.
    log = "events.log"

    def start(self, directory):
        self.attach(directory)
        self.directory.mkdir(parents=True)
        self.port = free_port()
        return self.run()

    def run(self):
        """Starts or restarts the receiver, with the same directory and port."""
        libc = ctypes.CDLL(None)
        with open(self.directory / "output", "ab") as output:
            self.child = subprocess.Popen(
                self.command(), cwd=self.directory, env=os.environ | self.environment(), stdin=subprocess.DEVNULL,
                stdout=output, stderr=output, preexec_fn=lambda: libc.prctl(PR_SET_PDEATHSIG, signal.SIGTERM))
        atexit.register(self.stop)
        try:
            await_(f"the start of {self.name}", self.ready)
        except BaseException:
            self.stop()
            raise
        (self.directory / "port").write_text(f"{self.port}\n")
        return self

    def attach(self, directory):
        """Gives access to the events of a receiver that another process has started."""
        self.name = type(self).__name__.lower()
        self.directory = Path(directory).absolute() / self.name
        port = self.directory / "port"
        self.port = int(port.read_text()) if port.exists() else None
        return self

    def stop(self):
        atexit.unregister(self.stop)
        self.child.terminate()
        try:
            self.child.wait(TIMEOUT_S)
        except subprocess.TimeoutExpired:
            self.child.kill()
            self.child.wait()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def state(self):
        """Returns lines that help to explain why an event has not arrived: the end of each log."""
        logs = sorted(self.directory.glob("*.log")) + [self.directory / "output"]
        return [f"{log.name}: {line}" for log in logs for line in read_log(log)[-5:]]

    @property
    def url(self):
        return f"http://127.0.0.1:{self.port}{self.path}"

    def ready(self):
        if self.child.poll() is not None:
            output = (self.directory / "output").read_text(errors="replace")
            raise RuntimeError(f"{self.name} ended with {self.child.returncode}: {output[-2000:]}")
        return self.listens()

    def listens(self):
        if self.kind == socket.SOCK_STREAM:
            with socket.socket() as probe:
                return probe.connect_ex(("127.0.0.1", self.port)) == 0
        # A datagram would be an event, and a bind would occupy the receiver's port.
        return f" 0100007F:{self.port:04X} " in Path("/proc/net/udp").read_text()

    def environment(self):
        return {}

    @property
    def settings(self):
        """The settings, in the key `section`, that make the library send to this receiver."""
        return {"enabled": 1} | ({"port": self.port} if self.kind == socket.SOCK_DGRAM else {"endpoint_url": self.url})

    def parse(self, line):
        return json.loads(line)

    def events(self):
        """The parsed events, in order of arrival."""
        return [self.parse(line) for line in read_log(self.directory / self.log)]


class Rsyslog(Receiver):
    """Events contain the header's fields, the structured data's parameters, "message", and "raw": the whole datagram."""

    kind = socket.SOCK_DGRAM
    section = "sink\\syslog\\udp\\default"

    def command(self):
        return ["rsyslogd", "-n", "-iNONE", "-f", RECIPES / "rsyslog.conf"]

    def environment(self):
        return {"OXEVENT_SYSLOG_PORT": str(self.port), "OXEVENT_SYSLOG_DIRECTORY": str(self.directory)}

    def parse(self, line):
        event = super().parse(line)
        return event | event.pop("event", {})  # Missing if the structured data is truncated.


class SixDigits(Receiver):
    """Relays to the UDP port `target_port`. Has no events of its own."""

    kind = socket.SOCK_DGRAM

    def command(self):
        return ["rsyslogd", "-n", "-iNONE", "-f", RECIPES / "six-digits.conf"]

    def environment(self):
        return {"OXEVENT_SYSLOG_PORT": str(self.port), "OXEVENT_TARGET": "127.0.0.1",
                "OXEVENT_TARGET_PORT": str(self.target_port)}


class Mib:
    """What docs/OX-EVENT-MIB.txt says about the trap: its OID, and the name and the size of each object, by its OID."""

    NODE = re.compile(r"^(\w+) +(?:OBJECT IDENTIFIER|MODULE-IDENTITY|OBJECT-TYPE|NOTIFICATION-TYPE)\b"
                      r"(?:(?!::=).)*::= \{ (\w+) (\d+) \}", re.DOTALL | re.MULTILINE)

    def __init__(self):
        text = (RECIPES.parent / "OX-EVENT-MIB.txt").read_text()
        self.nodes = {name: (parent, number) for name, parent, number in self.NODE.findall(text)}
        names = re.search(r"NOTIFICATION-TYPE\s+OBJECTS \{([^}]*)\}", text)[1].replace(",", " ").split()
        sizes = dict(re.findall(r"^(\w+) OBJECT-TYPE\s+SYNTAX +OxEventText \(SIZE \(0\.\.(\d+)\)\)", text, re.M))
        self.trap = self.oid("oxEventNotification")
        self.fields = {f"{self.oid(name)}.0": self.field(name) for name in names}
        self.sizes = {self.field(name): int(size) for name, size in sizes.items()}

    def oid(self, name):
        if name == "enterprises":
            return ".1.3.6.1.4.1"
        parent, number = self.nodes[name]
        return f"{self.oid(parent)}.{number}"

    def field(self, name):
        """Returns the field of an event that an object contains: oxEventSourceId contains source_id."""
        words = re.sub("(?<=[a-z])(?=[A-Z])", "_", name.removeprefix("oxEvent")).lower()
        return f"event_{words}" if words in ("id", "type") else words


class SnmpTrapd(Receiver):
    """Events contain the OID of the trap, and the values of its objects by the names that Mib.field returns."""

    kind = socket.SOCK_DGRAM
    section = "sink\\snmp\\trap\\default"
    FIRST, TRAP = ".1.3.6.1.2.1.1.3.0", ".1.3.6.1.6.3.1.1.4.1.0"
    # A string is in quotes, or in hexadecimal if a byte is not printable. It may contain line feeds.
    BINDING = re.compile(r'^(\.[0-9.]+) = (?:(?:STRING: )?"((?:[^"\\]|\\.)*)"|Hex-STRING: ([0-9A-F ]*)|\w+: (\S+))',
                         re.DOTALL | re.MULTILINE)

    def __init__(self):
        self.fields = {self.TRAP: "trap"} | Mib().fields

    def command(self):
        return ["snmptrapd", "-f", "-C", "-c", RECIPES / "snmptrapd.conf", "-Lf", self.log,
                f"udp:127.0.0.1:{self.port}"]

    def events(self):
        events = []
        for oid, quoted, hexadecimal, other in self.BINDING.findall("\n".join(read_log(self.directory / self.log))):
            if oid == self.FIRST:
                events.append({})
            else:
                octets = text(bytes.fromhex(hexadecimal))
                value = other or octets or re.sub(r"\\(.)", r"\1", quoted, flags=re.DOTALL)
                events[-1][self.fields.get(oid, oid)] = value
        # Ignores an event that is still being written.
        return [event for event in events if len(event) >= len(self.fields)]


class HttpReceiver(Receiver):
    """nginx. Events contain the request's header fields, and "body"."""

    path = "/events"
    section = "sink\\webhook\\http\\default"

    def command(self):
        configuration = (RECIPES / "nginx.conf").read_text()
        (self.directory / "nginx.conf").write_text(configuration.replace("127.0.0.1:8080", f"127.0.0.1:{self.port}"))
        return ["nginx", "-p", f"{self.directory}/", "-c", "nginx.conf", "-g", "daemon off;" + AS_ROOT]


class CloudEventsReceiver(Receiver):
    """Events contain "body" for an accepted document, or "refused", with the reason, for a refused one."""

    section = "sink\\cloudevents\\http\\default"

    def command(self):
        return ["/usr/bin/python3", RECIPES / "cloudevents_receiver.py", str(self.port), self.log]

    def parse(self, line):
        return json.loads(line) if line.startswith('{"refused"') else {"body": line}


class Alertmanager(Receiver):
    """Events are the active alerts, as the API returns them."""

    path = "/api/v2/alerts"
    section = "sink\\alertmanager\\main"

    def command(self):
        return ["prometheus-alertmanager", "--config.file", RECIPES / "alertmanager.yml", "--storage.path", "data",
                "--web.listen-address", f"127.0.0.1:{self.port}", "--cluster.listen-address", ""]

    def events(self):
        with urllib.request.urlopen(self.url) as response:
            return json.load(response)


RECEIVERS = {kind.__name__: kind for kind in (Rsyslog, SnmpTrapd, HttpReceiver, CloudEventsReceiver, Alertmanager)}


def run(directory, names):
    def end(*_):
        sys.exit(0)  # The receivers stop in atexit.

    signal.signal(signal.SIGTERM, end)
    signal.signal(signal.SIGINT, end)
    for name in names:
        RECEIVERS[name]().start(directory)
    while True:
        signal.pause()


def show(directory, names):
    for name in names:
        for event in RECEIVERS[name]().attach(directory).events():
            print(name, json.dumps(event))


if __name__ == "__main__":
    if len(sys.argv) < 3 or sys.argv[1] not in ("run", "show") or not set(sys.argv[3:]) <= set(RECEIVERS):
        sys.exit(__doc__)
    {"run": run, "show": show}[sys.argv[1]](sys.argv[2], sys.argv[3:] or RECEIVERS)
