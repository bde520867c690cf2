"""Tests the recipes of docs/fleet with three hosts: docs_fleet.py [-v] [Test.test_NAME...].

Needs the environment variables OXEVENT_LIBRARY and OXEVENT_ALERT_POSTER, as scripts/check sets them.
"""
import collections, ctypes, json, os, re, socket, subprocess, sys, tempfile, time, unittest, urllib.request
from pathlib import Path

sys.path.append(sys.path[0] + "/../tools/python")
import oxevent, receivers
from receivers import await_, free_port, read_log

RECIPES = Path(__file__).parent.parent / "docs" / "fleet"


def host(settings, *urls):  # Reports the lists of events that it reads from standard input.
    poster = ctypes.CDLL(os.environ["OXEVENT_ALERT_POSTER"])
    poster.AlertPosterStart.restype, poster.AlertPosterStop.argtypes = ctypes.c_void_p, [ctypes.c_void_p]
    posters = [poster.AlertPosterStart(url.encode()) for url in urls]
    with oxevent.running(settings):
        for line in sys.stdin:
            for event in json.loads(line):
                oxevent.submit(**event)
            oxevent.flush()
            print("delivered", flush=True)
    sys.exit(sum(map(poster.AlertPosterStop, posters)))


def adapt(receiver, name, old, new):  # Copies a recipe to the receiver's directory, with one string replaced.
    text = (RECIPES / name).read_text()
    assert old in text
    (receiver.directory / name).write_text(text.replace(old, new))
    return name


class Relay(receivers.Receiver):
    kind = socket.SOCK_DGRAM

    def command(self):
        return ["rsyslogd", "-n", "-iNONE", "-f", RECIPES / "rsyslog-relay.conf"]

    def environment(self):
        return {"OXEVENT_RELAY_DIRECTORY": str(self.directory), "OXEVENT_RELAY_PORT": str(self.port),
                "OXEVENT_STORE_HOST": "127.0.0.1", "OXEVENT_STORE_PORT": str(self.store.port)}

    def waiting(self):
        state = self.directory / "oxevent.qi"
        return int(re.search(r"iQueueSize:2:\d+:(\d+)", state.read_text())[1]) if state.exists() else 0


class Store(receivers.Receiver):
    def command(self):
        return ["rsyslogd", "-n", "-iNONE", "-f", RECIPES / "rsyslog-store.conf"]

    def environment(self):
        return {"OXEVENT_STORE_DIRECTORY": str(self.directory), "OXEVENT_STORE_PORT": str(self.port)}


class Alertmanager(receivers.Alertmanager):
    def command(self):
        file = adapt(self, "alertmanager.yml", "http://127.0.0.1:8080/events", self.operators)
        return ["prometheus-alertmanager", "--config.file", file, "--storage.path", "data",
                "--web.listen-address", f"127.0.0.1:{self.port}", "--cluster.listen-address", self.peers[0],
                "--cluster.peer", self.peers[1]]

    def metric(self, name):
        with urllib.request.urlopen(f"http://127.0.0.1:{self.port}/metrics") as answer:
            return float(re.search(rf"^{name} (\S+)$", answer.read().decode(), re.M)[1])


class Broker(receivers.HttpReceiver):
    path = "/publish"

    def command(self):
        return ["nginx", "-p", f"{self.directory}/", "-c", adapt(self, "nchan.conf", "127.0.0.1:8082", f"127.0.0.1:{self.port}"),
                "-g", "daemon off;" + receivers.AS_ROOT]


class Subscriber(receivers.Receiver):
    def command(self):
        return ["/usr/bin/python3", RECIPES / "subscriber.py", self.broker.url.replace("publish", "subscribe"), self.log]

    def listens(self):
        return True


class Test(unittest.TestCase):
    def setUp(self):
        self.directory = self.enterContext(tempfile.TemporaryDirectory())
        self.errors = self.enterContext(open(f"{self.directory}/errors", "w"))

    def start(self, kind, directory="", **attributes):
        receiver = kind()
        vars(receiver).update(attributes)
        return self.enterContext(receiver.start(f"{self.directory}/{directory}"))

    def start_hosts(self, section, settings, *urls):
        self.hosts = []
        for number in range(3):
            file = f"{self.directory}/host-{number}.xml"
            receivers.write_settings(file, {"sink\\native\\main": {"enabled": 0},
                                            section: {name: str(value).replace("HOST", f"host-{number}")
                                                      for name, value in settings.items()}})
            self.hosts.append(subprocess.Popen([sys.executable, "-B", __file__, "host", file, *urls], text=True, bufsize=1,
                                               stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.errors))
        self.addCleanup(self.stop_hosts)

    def stop_hosts(self):
        for process in self.hosts:
            process.stdin.close()
        for process in self.hosts:
            process.wait(receivers.TIMEOUT_S)
            process.stdout.close()

    def expected(self, names):
        return {f"host-{number} {name}" for number in range(3) for name in names}

    def begin(self, names, **fields):  # Makes each host report one event for each name.
        for number, process in enumerate(self.hosts):
            events = [{"message": f"host-{number} {name}", "source_id": f"host-{number}", "event_type": str(name)} | fields
                      for name in names]
            process.stdin.write(json.dumps(events) + "\n")

    def end(self):
        for process in self.hosts:
            self.assertEqual(process.stdout.readline(), "delivered\n", Path(self.errors.name).read_text())

    def report(self, names, **fields):
        self.begin(names, **fields)
        self.end()

    def test_rsyslog(self):
        store = self.start(Store)
        relay = self.start(Relay, store=store)
        self.start_hosts("sink\\syslog\\udp\\default", {"enabled": 1, "port": relay.port, "app_name": "HOST"})
        stored = lambda: {json.loads(line)["raw"].split("] ")[-1] for line in read_log(store.directory / "events.log")}
        all_of = lambda names: await_("the arrival", lambda: stored() >= self.expected(names))
        self.report(range(20))
        all_of(range(20))
        store.stop()
        self.report(range(20, 60))  # Few enough for a receive buffer of default size.
        await_("the queue on disk", lambda: relay.waiting() == 120)
        relay.child.kill()  # As in docs/fleet.md.
        relay.stop()
        relay.run()
        self.report(range(60, 80))
        await_("the queue on disk", lambda: relay.waiting() == 180)
        self.assertEqual(stored(), self.expected(range(20)))
        store.run()
        all_of(range(80))
        relay.child.kill()

    def test_alertmanager(self):
        operators = self.start(receivers.HttpReceiver)
        peers = [f"127.0.0.1:{free_port(socket.SOCK_STREAM)}" for _ in range(2)]
        pair = [self.start(Alertmanager, name, operators=operators.url, peers=order)
                for name, order in (("a", peers), ("b", peers[::-1]))]
        self.addCleanup(pair[1].child.kill)  # Killed, because leaving the cluster takes 10 s.
        for one in pair:
            await_("the cluster", lambda: one.metric("alertmanager_cluster_members") == 2)
        self.start_hosts("sink\\native\\main", {}, *(one.url for one in pair))

        def notified():
            bodies = [json.loads(event["body"]) for event in operators.events()]
            return collections.Counter(alert["annotations"]["summary"] for body in bodies for alert in body["alerts"])

        self.report(["door"], action="raise")
        for one in pair:  # Each has checked whether the other has sent the notification.
            await_("the decision", lambda: one.metric("alertmanager_nflog_queries_total") >= 3)
        pair[0].child.kill()
        pair[0].stop()
        self.report(["fan"], action="raise")
        await_("the survivor's notification", lambda: set(notified()) == self.expected(["door", "fan"]))
        self.assertEqual(set(notified().values()), {1})

    def test_broker(self):
        broker = self.start(Broker)
        subscriber = self.start(Subscriber, broker=broker)
        self.start_hosts("sink\\webhook\\http\\default", {
            "enabled": 1, "endpoint_url": broker.url, "payload_mode": "cloudevents", "cloudevents_source": "//HOST/test?1",
            "retry_count": 1000, "backoff_ms": 20})
        read = lambda: [json.loads(json.loads(line)["document"]) for line in read_log(subscriber.directory / subscriber.log)]
        all_of = lambda count: await_("the arrival", lambda: len(read()) == 3 * count)
        self.report(range(20))
        all_of(20)
        subscriber.child.kill()
        subscriber.stop()
        self.report(range(20, 40))  # The broker keeps them for the subscriber.
        subscriber.run()
        all_of(40)
        broker.stop()
        self.begin(range(40, 50))  # The hosts retry.
        second = int(time.time())
        await_("the next second, in which the broker's positions start again", lambda: int(time.time()) > second)
        broker.run()
        self.end()
        all_of(50)
        self.assertEqual({event["data"]["message"] for event in read()}, self.expected(range(50)))
        self.assertEqual(len({(event["source"], event["id"]) for event in read()}), 150)
        self.assertNotIn("missing", (subscriber.directory / "output").read_text())


if __name__ == "__main__":
    host(*sys.argv[2:]) if sys.argv[1:2] == ["host"] else unittest.main()
