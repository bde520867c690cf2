#!/usr/bin/env python3
"""Writes docs/performance.md and its charts from the results of a benchmark run.

bench_report.py RESULTS_DIRECTORY [PAGE_DIRECTORY]   Default: docs.

The results are end_to_end.jsonl (one object per round, logger and load), load.jsonl (one object per round, library and
kind of host), micro.json (output of Google Benchmark with repetitions) and machine.json (describes the machine). The
template of the page is bench/performance.md.in.
bench/notes.md explains missed targets in sections "## ID [ID]...": the page shows a section if one of its targets is
missed.

Exit code: 0 if every target was measured, whether met or missed; 1 if one was not; 2 if the results are unusable.
"""
import itertools
import json
import math
import re
import string
import sys
from fractions import Fraction
from functools import partial
from pathlib import Path
from statistics import median
from typing import NamedTuple

sys.dont_write_bytecode = True
from bench_chart import Bar, Curve, CurvePanel, Panel, chart  # noqa: E402

ROOT = Path(__file__).resolve().parent.parent
MIN_ROUNDS = 5

LOGGERS = {"oxevent": "oxEvent", "spdlog_block": "spdlog, block", "spdlog_overrun": "spdlog, overrun",
         "writer": "snprintf + fwrite", "syslog": "syslog()"}
COLOURS = {"oxevent": "#1d5fbf", "spdlog_block": "#d9730d", "spdlog_overrun": "#e9a75c",
           "writer": "#5f6b7a", "syslog": "#97a1ae"}
LOADS = {"storm_1": "Storm: 1,000 events into an idle library, 1 thread",
         "storm_2": "Storm: 1,000 events into an idle library, 2 threads",
         "storm_8": "Storm: 1,000 events into an idle library, 8 threads",
         "storm_64": "Storm: 960 events into an idle library, 64 threads",
         "paced_20000": "20,000 events per second", "paced_1000": "1,000 events per second, from a thread that sleeps",
         "idle": "Idle: single events, 20 ms apart",
         "million": "A million events back to back, queue large enough for all",
         "million_1024": "A million events back to back, queue of 1024",
         "million_10000": "A million events back to back, queue of 10,000",
         "million_100000": "A million events back to back, queue of 100,000"}
# Loads that only the curves and the tables show.
GROWTH_LOADS = ("storm_64", "million_10000", "million_100000")
THREADS = {"storm_1": 1, "storm_2": 2, "storm_8": 8, "storm_64": 64}
QUEUE_SIZES = {"million_1024": 1024, "million_10000": 10_000, "million_100000": 100_000, "million": 1 << 20}
CONDITIONS = (1000, 10_000, 100_000, 1_000_000)
OPTIONAL = ({(load, logger) for load in QUEUE_SIZES for logger in ("spdlog_overrun", "writer")}
            | {(load, "syslog") for load in LOADS})  # scripts/bench skips syslog if the machine runs a log daemon.

# Units: name, and size in units of the results.
TIME = ((" ns", 1), (" µs", 1e3), (" ms", 1e6), (" s", 1e9))
COUNT = (("", 1), (" k", 1e3), (" M", 1e6))
RATE = (("/s", 1), (" k/s", 1e3), (" M/s", 1e6))
MEMORY = ((" KiB", 1), (" MiB", 1024), (" GiB", 1024 * 1024))
BYTES = ((" bytes", 1),)
PLAIN = (("", 1),)

CALLER = (("Submit p50", "submit_ns.p50", TIME), ("p99", "submit_ns.p99", TIME), ("p99.9", "submit_ns.p999", TIME),
          ("mean", "submit_ns.mean", TIME), ("allocations", "caller_allocations", PLAIN),
          ("events/s", "events_per_s", COUNT), ("lost", "lost", COUNT), ("memory", "memory_kib", MEMORY))
WORKER = (("delay p50", "delay_ns.p50", TIME), ("delay p99", "delay_ns.p99", TIME),
          ("worker's CPU", "worker_cpu_ns", TIME), ("wake-ups", "worker_wakeups", PLAIN),
          ("allocations", "worker_allocations", PLAIN))
LOAD_COSTS = (("`dlopen`, warm", "load_ns", TIME), ("cold", "cold_ns", TIME), ("memory", "resident_kib", MEMORY),
              ("of which private", "private_kib", MEMORY))
LIBRARIES = {"oxevent": "`liboxEvent` with `liboxutil`", "http": "`liboxutil-http`, only for HTTP sinks",
             "spdlog": "`libspdlog` with `libfmt`"}
HOSTS = ("C", "C++")
COUNTED = {"submit": "`oxEventSubmit`, all fields set", "submit_small": "`oxEventSubmit`, few fields set",
           "submit_simple": "`oxEventSubmitSimple`", "submit_dropped": "`oxEventSubmit`, the queue is full",
           "submit_filtered": "`oxEventSubmit`, severity below the minimum",
           "worker_callback": "worker: raise or clear, with a callback",
           "worker_update": "worker: update, with a callback", "worker_suppressed": "worker: suppressed duplicate",
           "worker_csv": "worker: raise or clear, with the callback and CSV",
           "worker_syslog": "the same with UDP syslog instead of CSV", "worker_snmp": "the same with an SNMP trap",
           "worker_alertmanager": "the same with an Alertmanager document", "native_json": "formatting native JSON",
           "cloudevents_json": "formatting a CloudEvents document"}
SHARED = {"queue_lock": "the queue's lock, taken and released", "id_counter": "the counter of event ids, incremented",
          "submit_slot": "a submit slot, leased and returned", "event_memory": "a cache line of an event, written",
          "one_queue": "an event copied and queued, in the same queue",
          "own_queue": "the same, in a separate queue for each thread"}
QUIET = (("CPU in a quiet second", "quiet_cpu_ns", TIME), ("wake-ups in it", "quiet_wakeups", PLAIN))


class BadResults(Exception):
    """The message names the file and what is wrong in it."""


# Results.

def read(path):
    try:
        return path.read_text("utf-8")
    except (OSError, UnicodeDecodeError) as error:
        raise BadResults(f"{path}: {getattr(error, 'strerror', error)}") from error


def parsed(text, where):
    try:
        value = json.loads(text)
    except ValueError as error:
        raise BadResults(f"{where}: {error}") from error
    if not isinstance(value, dict):
        raise BadResults(f"{where}: not a JSON object")
    return value


def number(row, path, where):
    """Returns the number at the dotted path; None if it is null."""
    value = row
    for name in path.split("."):
        if value is None:
            return None
        if not isinstance(value, dict) or name not in value:
            raise BadResults(f"{where}: no {path}")
        value = value[name]
    if value is not None and (type(value) not in (int, float) or not math.isfinite(value)):
        raise BadResults(f"{where}: {path} is not a number")
    return value


class EndToEnd:
    """Metrics of the end-to-end benchmarks."""

    def __init__(self, path):
        self._metrics = {}  # (load, logger) -> round -> metric -> number.
        for line_number, line in enumerate(read(path).splitlines(), 1):
            if line.strip():
                where = f"{path}:{line_number}"
                self._add(parsed(line, where), where)
        self.rounds = sorted({round_number for rows in self._metrics.values() for round_number in rows})
        for load, logger in itertools.product(LOADS, LOGGERS):
            rows = self._metrics.get((load, logger))
            if not rows and (load, logger) not in OPTIONAL:
                raise BadResults(f"{path}: load {load} of {logger} is missing")
            for round_number in self.rounds:
                if rows and round_number not in rows:
                    raise BadResults(f"{path}: load {load} of {logger} is missing in round {round_number}")

    def _add(self, row, where):
        load, logger = row.get("load"), row.get("logger")
        if load not in LOADS or logger not in LOGGERS:
            raise BadResults(f"{where}: load {load!r} of {logger!r} is unknown")
        if type(round_number := row.get("round")) is not int:
            raise BadResults(f"{where}: no round")
        expected = CALLER + WORKER + (("", "events", COUNT),) + (QUIET if load == "idle" else ())
        rows = self._metrics.setdefault((load, logger), {})
        if rows.setdefault(round_number, metrics := {}) is not metrics:
            raise BadResults(f"{where}: duplicate result of {load}, {logger} in round {round_number}")
        metrics.update((path, number(row, path, where)) for _, path, _ in expected)

    def __call__(self, load, logger, metric):
        """Returns the values of all rounds; None if one is missing."""
        rows = self._metrics.get((load, logger), {})
        values = [rows[round_number][metric] for round_number in sorted(rows)]
        return values if values and None not in values else None


class Micro:
    """Metrics of the micro-benchmarks."""

    def __init__(self, path):
        self._items = {}  # Name -> repetition -> item.
        for item in parsed(read(path), path).get("benchmarks", []):
            if item.get("run_type") == "aggregate":
                continue
            name = re.sub(r"/(real_time|manual_time|process_time|(iterations|repeats|min_time|min_warmup_time):[^/]*)",
                          "", item["name"])
            if item.get("error_occurred"):
                raise BadResults(f"{path}: {name} failed: {item.get('error_message')}")
            unit = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[item["time_unit"]]
            # CPU time, because other processes run too. But elapsed time for a post, which mostly waits for its
            # response, and for a benchmark that measures its time itself.
            manual = item["name"].endswith("/manual_time")
            measure = "real_time" if manual or name.startswith("Http/") else "cpu_time"
            item["ns"] = number(item, measure, f"{path}: {name}") * unit
            if self._items.setdefault(name, {}).setdefault(item.get("repetition_index", 0), item) is not item:
                raise BadResults(f"{path}: duplicate result of {name}")
        if not self._items:
            raise BadResults(f"{path}: no benchmarks")
        self.names = list(self._items)
        self.repetitions = max(len(items) for items in self._items.values())

    def __call__(self, name, metric="ns"):
        """Returns the values of all repetitions; None if there are none, or if one lacks the metric."""
        items = self._items.get(name, {})
        values = [items[at].get(metric) for at in sorted(items)]
        return values if values and None not in values else None


class LoadCosts:
    """Metrics of loading a library."""

    def __init__(self, path, rounds):
        self._rows = {}
        for at, line in enumerate(read(path).splitlines(), 1):
            row = parsed(line, f"{path}:{at}")
            self._rows.setdefault((row.get("library"), row.get("host")), []).append(row)
        for library, host in itertools.product(LIBRARIES, HOSTS):
            if [row.get("round") for row in self._rows.get((library, host), ())] != rounds:
                raise BadResults(f"{path}: {library} in a {host} host: expected exactly one result for each round")
        self._path = path

    def __call__(self, library, host, metric):
        return [number(row, metric, self._path) for row in self._rows[library, host]]


# Number formatting.

def digits(value, count=3):
    """Formats with at least `count` significant digits, without exponent or trailing zeros."""
    if value == 0:
        return "0"
    decimals = max(0, count - 1 - math.floor(math.log10(abs(value))))
    text = f"{value:,.{decimals}f}"
    return text.rstrip("0").rstrip(".") if "." in text else text


def unit_of(value, units):
    return next((unit for unit in reversed(units) if abs(value) >= unit[1]), units[0])


def formatted(value, units):
    name, size = unit_of(value, units)
    return digits(value / size) + name


def value_range(values, units):
    """Formats minimum and maximum; a common unit appears once."""
    low, high = min(values), max(values)
    if unit_of(low, units) == unit_of(high, units):
        return f"{digits(low / unit_of(high, units)[1])}–{formatted(high, units)}"
    return f"{formatted(low, units)}–{formatted(high, units)}"


def cell(values, units, gap="<br>"):
    if values is None:
        return "–"
    small = f"{gap}<sub>{value_range(values, units)}</sub>" if min(values) < max(values) else ""
    return formatted(median(values), units) + small


def table(head, rows, align):
    return "".join(f"| {' | '.join(row)} |\n" for row in [head, *rows]).replace("|\n", "|\n|" + align + "\n", 1)


# Targets.

class Target(NamedTuple):
    id: str
    what: str
    requirement: str  # The limit in words.
    limit: float
    values: list | None  # One per round; None: not measured.
    units: tuple = PLAIN
    compared: str = ""  # The two values that a ratio compares, or the worst case.
    at_least: bool = False

    def measured(self):  # A limit of 0 applies to every round, not to the median.
        return median(self.values) if self.limit else max(self.values)

    def is_met(self):
        return self.measured() >= self.limit if self.at_least else self.measured() <= self.limit

    def result(self):
        if self.values is None:
            return "not measured"
        if self.is_met():
            return "met"
        return f"missed by {digits(abs(self.measured() / self.limit - 1) * 100, 2)} %" if self.limit else "missed"


def ratio_target(id, what, requirement, limit, ours, theirs, units=TIME, at_least=False):
    """Limits the ratio of two values of the same round."""
    if not ours or not theirs or len(ours) != len(theirs) or 0 in theirs:
        return Target(id, what, requirement, limit, None)
    compared = f"{formatted(median(ours), units)} / {formatted(median(theirs), units)}"
    ratios = [our / their for our, their in zip(ours, theirs)]
    return Target(id, what, requirement, limit, ratios, PLAIN, compared, at_least)


def allocations_target(end_to_end, who):
    cases = {load: end_to_end(load, "oxevent", f"{who}_allocations") for load in LOADS}
    worst = max(cases, key=lambda load: max(cases[load] or [math.inf]))  # A load without results counts as the worst.
    compared = f"worst: {LOADS[worst]}" if any(cases[worst] or ()) else ""
    return Target(f"allocations_{who}", f"Allocations per event in steady state, {who}", "0", 0, cases[worst], PLAIN,
                  compared)


def condition_target(micro):
    cases = {name: values for name in micro.names if (values := micro(name, "bytes_per_condition"))}
    worst = max(cases, key=lambda name: median(cases[name]), default=None)
    return Target("condition_bytes", "Memory of a raised condition", "at most 512 bytes", 512, cases.get(worst), BYTES,
                  f"`{worst}`" if worst else "")


def growth_targets(micro):
    """Returns two targets: for the growth of all actions' total time, and for that of the action that grows most."""
    actions = dict.fromkeys(found[1] for name in micro.names
                            if (found := re.fullmatch(r"State/(.+)/1000(?:000)?", name)))
    large, small = ([micro(f"State/{action}/{size}") for action in actions] for size in (1000000, 1000))

    def target(id, which, large_times, small_times):
        return ratio_target(id, f"State, a million conditions against a thousand, {which}", "at most 3 times", 3,
                            large_times, small_times)

    if not actions or None in large + small:
        return [target("state_growth", "all actions", None, None),
                target("state_growth_worst", "worst action", None, None)]
    each = [target("state_growth_worst", f"worst action (`{action}`)", large_times, small_times)
            for action, large_times, small_times in zip(actions, large, small)]
    sums = [[sum(values) for values in zip(*times)] for times in (large, small)]
    return [target("state_growth", "all actions", *sums), max(each, key=Target.measured)]


def targets_of(end_to_end, micro):
    """Returns the targets in the order of the page."""
    def versus(id, what, load, metric, logger, limit="1"):
        requirement = f"at most {'that' if limit == '1' else limit} of {LOGGERS[logger]}"
        return ratio_target(id, what, requirement, float(Fraction(limit)), end_to_end(load, "oxevent", metric),
                            end_to_end(load, logger, metric))

    def absolute(id, what, load, metric, units, requirement="0", limit=0):
        return Target(id, what, requirement, limit, end_to_end(load, "oxevent", metric), units)

    def micro_ratio(id, what, requirement, limit, ours, theirs):
        return ratio_target(id, what, requirement, limit, micro(ours), micro(theirs))

    idle_p99 = versus("", "", "idle", "delay_ns.p99", "spdlog_block").compared or "not measured"
    idle_p50 = versus("idle_delay", "Idle, delay to the callback, p50", "idle", "delay_ns.p50", "spdlog_block")
    return [
        versus("storm_1_p50", "Storm, 1 thread, Submit p50", "storm_1", "submit_ns.p50", "spdlog_block", "1/4"),
        versus("storm_2_p50", "Storm, 2 threads, Submit p50", "storm_2", "submit_ns.p50", "spdlog_block", "1/4"),
        versus("storm_1_mean_spdlog", "Storm, 1 thread, Submit mean", "storm_1", "submit_ns.mean", "spdlog_block",
               "1/5"),
        versus("storm_2_mean_spdlog", "Storm, 2 threads, Submit mean", "storm_2", "submit_ns.mean", "spdlog_block",
               "1/5"),
        versus("storm_1_mean_writer", "Storm, 1 thread, Submit mean", "storm_1", "submit_ns.mean", "writer", "1/4"),
        versus("storm_2_mean_writer", "Storm, 2 threads, Submit mean", "storm_2", "submit_ns.mean", "writer", "1/4"),
        versus("storm_1_p999", "Storm, 1 thread, Submit p99.9", "storm_1", "submit_ns.p999", "spdlog_block", "1/4"),
        versus("storm_2_p999", "Storm, 2 threads, Submit p99.9", "storm_2", "submit_ns.p999", "spdlog_block", "1/4"),
        versus("paced_20000_mean", "20,000/s, Submit mean", "paced_20000", "submit_ns.mean", "writer", "1/4"),
        versus("paced_1000_mean", "1,000/s, Submit mean", "paced_1000", "submit_ns.mean", "writer", "1/4"),
        idle_p50._replace(compared=f"{idle_p50.compared}; p99: {idle_p99}".removeprefix("; ")),
        absolute("paced_20000_delay", "20,000/s, p99 of the delay", "paced_20000", "delay_ns.p99", TIME,
                 "at most 2 ms", 2e6),
        absolute("paced_1000_delay", "1,000/s, p99 of the delay", "paced_1000", "delay_ns.p99", TIME, "at most 2 ms",
                 2e6),
        allocations_target(end_to_end, "caller"),
        allocations_target(end_to_end, "worker"),
        ratio_target("million_rows", "A million back to back, rows per second", "at least that of spdlog, block", 1,
                     end_to_end("million", "oxevent", "events_per_s"),
                     end_to_end("million", "spdlog_block", "events_per_s"), RATE, at_least=True),
        absolute("million_lost", "A million back to back, events lost", "million", "lost", COUNT),
        versus("storm_1_cpu", "Storm, 1 thread, worker's CPU per row", "storm_1", "worker_cpu_ns", "spdlog_block"),
        versus("storm_2_cpu", "Storm, 2 threads, worker's CPU per row", "storm_2", "worker_cpu_ns", "spdlog_block"),
        absolute("paced_1000_cpu", "1,000/s, worker's CPU per event", "paced_1000", "worker_cpu_ns", TIME,
                 "at most 15 µs", 15e3),
        absolute("quiet_cpu", "Worker's CPU in a second without events", "idle", "quiet_cpu_ns", TIME),
        absolute("quiet_wakeups", "Worker's wake-ups in a second without events", "idle", "quiet_wakeups", PLAIN),
        micro_ratio("syslog", "Syslog datagram", "at most 1.25 times that of a bare `sendto`", 1.25, "Syslog/submit",
                    "Syslog/bare_sendto"),
        micro_ratio("trap", "SNMP trap", "at most 1.25 times that of a bare `sendto`", 1.25, "Trap/submit",
                    "Trap/bare_sendto"),
        micro_ratio("json", "Native JSON document", "at most that of RapidJSON's writer", 1, "Json/native",
                    "Json/rapidjson"),
        micro_ratio("http", "HTTP post", "at most 1.05 times that of a reused libcurl handle", 1.05, "Http/post",
                    "Http/bare_libcurl"),
        condition_target(micro),
        *growth_targets(micro),
        ratio_target("storm_8_mean", "Storm, 8 threads, Submit mean", "at most 3 times that of 1 thread", 3,
                     end_to_end("storm_8", "oxevent", "submit_ns.mean"),
                     end_to_end("storm_1", "oxevent", "submit_ns.mean"))]


def notes_of(path, targets):
    """Returns the notes on missed targets, and the ids of missed targets without a note."""
    def name_of(target):
        return f"{target.what}, {target.requirement}"

    missed = {target.id: target for target in targets if target.values and not target.is_met()}
    notes = []
    for section in re.split(r"^## ", read(path), flags=re.M)[1:] if path.exists() else ():
        heading, _, text = section.partition("\n")
        for id in heading.split():
            if id not in {target.id for target in targets}:
                raise BadResults(f"{path}: unknown target {id}")
        named = [missed.pop(id) for id in heading.split() if id in missed]
        if named:
            notes.append(f"**{'; '.join(map(name_of, named))}**: {text.strip()}\n\n")
    notes += [f"**{name_of(target)}**: not explained.\n\n" for target in missed.values()]
    return "".join(notes), list(missed)


# The page.

def growth_charts(end_to_end, micro):
    def curve(name, colour, units, points):
        if None in (values for _, values in points):
            raise BadResults(f"{name}: a result for a curve is missing")
        return Curve(name, colour, points, formatted(median(points[-1][1]), units))

    def per_logger(title, metric, x_title, xs, loggers, values=end_to_end, units=TIME):
        return CurvePanel(title, partial(formatted, units=units), x_title, [
            curve(LOGGERS[logger], COLOURS[logger], units,
                  [(x, values(load, logger, metric)) for load, x in xs.items()]) for logger in loggers])

    def in_mib(load, logger, metric):  # Not in KiB: the ticks of a logarithmic scale are powers of ten of the unit.
        values = end_to_end(load, logger, metric)
        return values and [kib / 1024 for kib in values]

    def per_action(name, colour, action):
        return curve(name, colour, TIME, [(size, micro(f"State/{action}/{size}")) for size in CONDITIONS])

    how = "Lower is better. Dots: median of the rounds. Thin lines: minimum to maximum."
    threads = partial(per_logger, x_title="submitting threads", xs=THREADS,
                      loggers=("oxevent", "spdlog_block", "writer"))
    yield "growth_threads", chart("Time in Submit in a storm, by number of threads", how, [
        threads("Median", "submit_ns.p50"), threads("99th percentile", "submit_ns.p99")])
    queue = partial(per_logger, x_title="size of the queue, in events", xs=QUEUE_SIZES,
                    loggers=("oxevent", "spdlog_block"))
    yield "growth_queue", chart("A million events back to back, by size of the queue", how, [
        queue("Time in Submit, median", "submit_ns.p50"),
        queue("Time in Submit, 99th percentile", "submit_ns.p99"),
        queue("Memory after the queue has been full", "memory_kib", values=in_mib, units=((" MiB", 1),))])
    yield "growth_conditions", chart("Evaluation time, by number of raised conditions", how.replace(
        "the rounds", "the runs"), [CurvePanel(
            "Worker's CPU time", partial(formatted, units=TIME), "raised conditions", [
                per_action("raise and clear", "#d9730d", "raise_clear"),
                per_action("changed update", "#1d5fbf", "update_changed"),
                per_action("suppressed raise", "#5f6b7a", "raise_suppressed")])])


def charts_of(end_to_end):
    def per_logger(load, metric, units, more=lambda load, logger: ""):
        return [Bar(LOGGERS[logger], COLOURS[logger], values, formatted(median(values), units) + more(load, logger))
                for logger in LOGGERS if (values := end_to_end(load, logger, metric))]

    def loss(load, logger):
        lost, events = end_to_end(load, logger, "lost"), end_to_end(load, logger, "events")
        return f", {digits(median(lost) / median(events) * 100, 2)} % lost" if lost and any(lost) and events else ""

    def delays(load):
        for logger in LOGGERS:
            if (p50 := end_to_end(load, logger, "delay_ns.p50")) and (p99 := end_to_end(load, logger, "delay_ns.p99")):
                text = f"{formatted(median(p50), TIME)}, {formatted(median(p99), TIME)}"
                yield Bar(LOGGERS[logger], COLOURS[logger], p50, text, median(p99))

    def groups(bars_of, loads=[load for load in LOADS if load not in GROWTH_LOADS]):
        return [(LOADS[load], bars) for load in loads if (bars := list(bars_of(load)))]

    def quantiles(logger):
        for name, metric in (("p50", "submit_ns.p50"), ("mean", "submit_ns.mean"), ("p99.9", "submit_ns.p999")):
            if values := end_to_end("storm_1", logger, metric):
                yield Bar(name, COLOURS[logger], values, formatted(median(values), TIME))

    time, rate = partial(formatted, units=TIME), partial(formatted, units=RATE)
    how = "Bars: median of the rounds. Thin lines: minimum to maximum."
    yield "storm", chart("Time in Submit: 1,000 events from one thread", f"Lower is better. {how}", [
        Panel("Time per call", time, [(name, list(quantiles(logger))) for logger, name in LOGGERS.items()])])
    yield "submit", chart("Mean time in Submit", f"Lower is better. {how}", [
        Panel("Time per call", time, groups(lambda load: per_logger(load, "submit_ns.mean", TIME)))])
    yield "delay", chart("Delay from Submit to the callback",
                         "Lower is better. Median of the rounds; dark: p50, light: p99.",
                         [Panel("Delay", time, groups(delays))])
    yield "worker", chart("Throughput, and the worker's CPU time", how, [
        Panel("Rows per second, higher is better", rate,
              groups(lambda load: per_logger(load, "events_per_s", RATE, loss), ("million", "million_1024"))),
        Panel("Worker's CPU time per row, lower is better", time,
              groups(lambda load: per_logger(load, "worker_cpu_ns", TIME), ("storm_1", "storm_2", "million")))])


def load_section(end_to_end, load):
    def rows(columns):
        for logger, name in LOGGERS.items():
            cells = [cell(end_to_end(load, logger, metric), units) for _, metric, units in columns]
            if any(text != "–" for text in cells):
                yield [name, *cells]

    out = f"### {LOADS[load]}\n\n"
    caller = [column for column in CALLER if column[1] != "events_per_s" or load.startswith("million")]
    for columns in (caller, WORKER + (QUIET if load == "idle" else ())):
        out += table(["", *(name for name, _, _ in columns)], rows(columns), "---|" + "---:|" * len(columns)) + "\n"
    return out


def results_table(targets):
    """Returns a table of the targets; an empty string if there are none."""
    rows = [[target.what, target.requirement, cell(target.values, target.units, " "), target.compared,
             "" if target.values and target.is_met() else target.result()] for target in targets]
    columns = 4 if not any(row[4] for row in rows) else 5
    head = ["What", "Target", "Measured", "Compared values", "Result"]
    return table(head[:columns], [row[:columns] for row in rows], "---|" * columns) if rows else ""


def shared_table(micro):
    names = {what: [f"Shared/{step}/threads:{threads}" for threads in (1, 2)] for step, what in SHARED.items()}
    for name in itertools.chain(*names.values()):
        if not micro(name):
            raise BadResults(f"micro.json: {name} is missing")
    rows = [[what, *(cell(micro(name), TIME) for name in pair)] for what, pair in names.items()]
    return table(["Step", "one thread", "two threads"], rows, "---|---:|---:|")


def instructions_table():
    """Reads the baseline of scripts/figures."""
    rows = [line.split() for line in read(ROOT / "bench" / "cost_gate.txt").splitlines() if line[:1] not in ("#", "")]
    counts = {name: instructions for name, instructions, *_ in rows}
    return table(["Step", "Instructions"], [[what, digits(float(counts[name]), 3)] for name, what in COUNTED.items()],
                 "---|---:|")


def load_table(load_costs):
    rows = [[LIBRARIES[library], host, *(cell(load_costs(library, host, metric), units)
                                         for _, metric, units in LOAD_COSTS)]
            for library, host in itertools.product(LIBRARIES, HOSTS)]
    return table(["Library", "Host", *(name for name, _, _ in LOAD_COSTS)], rows, "---|---|" + "---:|" * len(LOAD_COSTS))


def page(end_to_end, micro, load_costs, machine, targets, notes):
    missed = results_table(target for target in targets if not target.values or not target.is_met())
    steps = [[f"`{name}`", formatted(median(micro(name)), TIME), value_range(micro(name), TIME)]
             for name in sorted(micro.names)]
    return string.Template(read(ROOT / "bench" / "performance.md.in")).substitute(
        rounds=len(end_to_end.rounds), repetitions=micro.repetitions, shared=shared_table(micro).rstrip(),
        instructions=instructions_table().rstrip(), load_costs=load_table(load_costs).rstrip(),
        machine=table(["Machine", ""], [[name, str(text)] for name, text in machine.items()], "---|---|").rstrip(),
        met=results_table(target for target in targets if target.values and target.is_met()).rstrip(),
        missed=f"## Targets that are missed\n\n{missed}\n{notes}" if missed else "",
        loads="".join(load_section(end_to_end, load) for load in LOADS).rstrip(),
        micro_benchmarks=table(["Step", "Time", "Range"], steps, "---|---:|---:|").rstrip())


def main(directory, pages=ROOT / "docs"):
    end_to_end, micro = EndToEnd(directory / "end_to_end.jsonl"), Micro(directory / "micro.json")
    load_costs = LoadCosts(directory / "load.jsonl", end_to_end.rounds)
    machine = parsed(read(directory / "machine.json"), directory / "machine.json")
    targets = targets_of(end_to_end, micro)
    notes, unexplained = notes_of(ROOT / "bench" / "notes.md", targets)
    files = {pages / "performance.md": page(end_to_end, micro, load_costs, machine, targets, notes)}
    charts = itertools.chain(charts_of(end_to_end), growth_charts(end_to_end, micro))
    files |= {pages / "performance" / f"{name}.svg": svg for name, svg in charts}
    for path, text in files.items():  # Last, so that unusable results leave the previous page unchanged.
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, "utf-8")
    if len(end_to_end.rounds) < MIN_ROUNDS:
        print(f"bench_report: only {len(end_to_end.rounds)} of {MIN_ROUNDS} rounds", file=sys.stderr)
    for id in unexplained:
        print(f"bench_report: bench/notes.md does not explain why {id} is missed", file=sys.stderr)
    for target in targets:
        if not target.values:
            print(f"{target.id}: {target.what}: not measured")
        elif not target.is_met():
            measured = formatted(target.measured(), target.units)
            print(f"{target.id}: {target.what}: {measured}; target: {target.requirement}; {target.result()}")
    return 0 if all(target.values for target in targets) else 1


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3):
        print(__doc__, file=sys.stderr)
        sys.exit(2)
    try:
        sys.exit(main(*map(Path, sys.argv[1:])))
    except BadResults as error:
        print(f"bench_report: {error}", file=sys.stderr)
        sys.exit(2)
