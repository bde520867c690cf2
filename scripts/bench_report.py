#!/usr/bin/env python3
"""Writes docs/performance.md and its charts from the results of a benchmark run.

bench_report.py RESULTS_FOLDER

The folder holds road.jsonl (one object per round, peer and load), pieces.json (Google Benchmark's, with repetitions) and
machine.json (what the run was on). The page's fixed texts are in bench/performance.md.in; bench/notes.md says of missed
bars what was tried: sections "## ID [ID]...", shown when such a bar is missed.

Exit code: 0, whether bars hold or not; 1 when a bar could not be measured; 2 when the results are unusable.
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
from bench_chart import Column, Panel, chart  # noqa: E402

ROOT = Path(__file__).resolve().parent.parent
FEWEST_ROUNDS = 5

PEERS = {"oxevent": "oxEvent", "spdlog_block": "spdlog, block", "spdlog_overrun": "spdlog, overrun",
         "writer": "snprintf + fwrite", "syslog": "syslog()"}
COLOURS = {"oxevent": "#1d5fbf", "spdlog_block": "#d9730d", "spdlog_overrun": "#e9a75c",
           "writer": "#5f6b7a", "syslog": "#97a1ae"}
LOADS = {"storm_1": "Storm: 1,000 events into an idle library, 1 thread",
         "storm_2": "Storm: 1,000 events into an idle library, 2 threads",
         "storm_8": "Storm: 1,000 events into an idle library, 8 threads",
         "paced_20000": "20,000 events per second", "paced_1000": "1,000 events per second, from a thread that sleeps",
         "idle": "Idle: single events, 20 ms apart", "million": "A million back to back, queue large enough for all",
         "million_1024": "A million back to back, queue of 1024"}
GROWING = "million"  # Its queue takes more memory as it deepens.
MAY_LACK = ({(load, peer) for load in ("million", "million_1024") for peer in ("spdlog_overrun", "writer")}
            | {(load, "syslog") for load in LOADS})  # A machine with a log of its own.

# Units of a figure: name and size in terms of what the results hold.
TIME = ((" ns", 1), (" µs", 1e3), (" ms", 1e6), (" s", 1e9))
COUNT = (("", 1), (" k", 1e3), (" M", 1e6))
RATE = (("/s", 1), (" k/s", 1e3), (" M/s", 1e6))
MEMORY = ((" KiB", 1), (" MiB", 1024), (" GiB", 1024 * 1024))
BYTES = ((" bytes", 1),)
PLAIN = (("", 1),)

CALLER = (("Submit p50", "submit_ns.p50", TIME), ("p99", "submit_ns.p99", TIME), ("p99.9", "submit_ns.p999", TIME),
          ("mean", "submit_ns.mean", TIME), ("allocations", "caller_allocations", PLAIN), ("events/s", "events_per_s", COUNT),
          ("lost", "lost", COUNT), ("memory", "memory_kib", MEMORY))
WORKER = (("delay p50", "delay_ns.p50", TIME), ("delay p99", "delay_ns.p99", TIME), ("worker's CPU", "worker_cpu_ns", TIME),
          ("wake-ups", "worker_wakeups", PLAIN), ("allocations", "worker_allocations", PLAIN))
QUIET = (("CPU in a quiet second", "quiet_cpu_ns", TIME), ("wake-ups in it", "quiet_wakeups", PLAIN))


class BadResults(Exception):
    """Its text names the culprit."""


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
        raise BadResults(f"{where}: no JSON object")
    return value


def number(row, path, where):
    """The figure under a.b; None where it is null."""
    value = row
    for name in path.split("."):
        if value is None:
            return None
        if not isinstance(value, dict) or name not in value:
            raise BadResults(f"{where}: no {path}")
        value = value[name]
    if value is not None and (type(value) not in (int, float) or not math.isfinite(value)):
        raise BadResults(f"{where}: {path} is no number")
    return value


class Road:
    """The figures of the whole road."""

    def __init__(self, path):
        self._figures = {}  # (load, peer) -> round -> figure -> number.
        for at, line in enumerate(read(path).splitlines(), 1):
            if line.strip():
                self._add(parsed(line, f"{path}:{at}"), f"{path}:{at}")
        self.rounds = sorted({at for rows in self._figures.values() for at in rows})
        for load, peer in itertools.product(LOADS, PEERS):
            rows = self._figures.get((load, peer))
            if not rows and (load, peer) not in MAY_LACK:
                raise BadResults(f"{path}: no load {load} of {peer}")
            for at in self.rounds:
                if rows and at not in rows:
                    raise BadResults(f"{path}: no load {load} of {peer} in round {at}")

    def _add(self, row, where):
        load, peer = row.get("load"), row.get("peer")
        if load not in LOADS or peer not in PEERS:
            raise BadResults(f"{where}: load {load!r} of {peer!r} is unknown")
        if type(at := row.get("round")) is not int:
            raise BadResults(f"{where}: no round")
        wanted = CALLER + WORKER + (("", "events", COUNT),) + (QUIET if load == "idle" else ())
        rows = self._figures.setdefault((load, peer), {})
        if rows.setdefault(at, figures := {}) is not figures:
            raise BadResults(f"{where}: round {at} of {load}, {peer} is there twice")
        figures.update((path, number(row, path, where)) for _, path, _ in wanted)

    def __call__(self, load, peer, figure):
        """A figure per round, or None."""
        rows = self._figures.get((load, peer), {})
        values = [rows[at][figure] for at in sorted(rows)]
        return values if values and None not in values else None


class Pieces:
    """The figures of the single steps, per repetition."""

    def __init__(self, path):
        self._items = {}  # Name -> repetition -> item.
        for item in parsed(read(path), path).get("benchmarks", []):
            if item.get("run_type") == "aggregate":
                continue
            name = re.sub(r"/(real_time|manual_time|process_time|(iterations|repeats|min_time|min_warmup_time):[^/]*)", "",
                          item["name"])
            if item.get("error_occurred"):
                raise BadResults(f"{path}: {name} failed: {item.get('error_message')}")
            unit = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[item["time_unit"]]
            # A processor's time, for others use it too; a post is for the most part the waiting for its answer.
            measure = "real_time" if name.startswith("Http/") else "cpu_time"
            item["ns"] = number(item, measure, f"{path}: {name}") * unit
            if self._items.setdefault(name, {}).setdefault(item.get("repetition_index", 0), item) is not item:
                raise BadResults(f"{path}: {name} is there twice")
        if not self._items:
            raise BadResults(f"{path}: no benchmarks")
        self.names = list(self._items)
        self.repetitions = max(len(items) for items in self._items.values())

    def __call__(self, name, figure="ns"):
        """A figure per repetition, or None."""
        items = self._items.get(name, {})
        values = [items[at].get(figure) for at in sorted(items)]
        return values if values and None not in values else None


# Numbers as text.

def digits(value, count=3):
    """At least `count` significant digits, without exponent or trailing zeros."""
    if value == 0:
        return "0"
    decimals = max(0, count - 1 - math.floor(math.log10(abs(value))))
    text = f"{value:,.{decimals}f}"
    return text.rstrip("0").rstrip(".") if "." in text else text


def unit_of(value, units):
    return next((unit for unit in reversed(units) if abs(value) >= unit[1]), units[0])


def shown(value, units):
    name, size = unit_of(value, units)
    return digits(value / size) + name


def spread(values, units):
    """From least to most, the unit said once if it is the same."""
    least, most = min(values), max(values)
    if unit_of(least, units) == unit_of(most, units):
        return f"{digits(least / unit_of(most, units)[1])}–{shown(most, units)}"
    return f"{shown(least, units)}–{shown(most, units)}"


def cell(values, units, gap="<br>"):
    if values is None:
        return "–"
    light = f"{gap}<sub>{spread(values, units)}</sub>" if min(values) < max(values) else ""
    return shown(median(values), units) + light


def table(head, rows, align):
    return "".join(f"| {' | '.join(row)} |\n" for row in [head, *rows]).replace("|\n", "|\n|" + align + "\n", 1)


# Bars.

class Bar(NamedTuple):
    id: str
    what: str
    words: str  # The bar in words.
    limit: float
    values: list | None  # One per round; None: not measured.
    units: tuple = PLAIN
    figures: str = ""  # What the ratio is of.
    at_least: bool = False

    def measured(self):  # A bar of 0 is for every round, not for the middle one.
        return median(self.values) if self.limit else max(self.values)

    def holds(self):
        return self.measured() >= self.limit if self.at_least else self.measured() <= self.limit

    def result(self):
        if self.values is None:
            return "not measured"
        if self.holds():
            return "holds"
        return f"missed by {digits(abs(self.measured() / self.limit - 1) * 100, 2)} %" if self.limit else "missed"


def against(id, what, words, limit, ours, theirs, units=TIME, at_least=False):
    """A bar on the ratio of two figures of the same round."""
    if not ours or not theirs or len(ours) != len(theirs) or 0 in theirs:
        return Bar(id, what, words, limit, None)
    figures = f"{shown(median(ours), units)} / {shown(median(theirs), units)}"
    return Bar(id, what, words, limit, [mine / other for mine, other in zip(ours, theirs)], PLAIN, figures, at_least)


def allocations_bar(road, who):
    cases = {load: road(load, "oxevent", f"{who}_allocations") for load in LOADS if load != GROWING}
    most = max(cases, key=lambda load: max(cases[load] or [math.inf]))  # One that is missing comes first.
    figures = f"the most: {LOADS[most]}" if any(cases[most] or ()) else ""
    return Bar(f"allocations_{who}", f"Allocations per event in steady state, {who}", "0", 0, cases[most], PLAIN, figures)


def condition_bar(pieces):
    cases = {name: values for name in pieces.names if (values := pieces(name, "bytes_per_condition"))}
    most = max(cases, key=lambda name: median(cases[name]), default=None)
    return Bar("condition_bytes", "Memory of a raised condition", "at most 512 bytes", 512, cases.get(most), BYTES,
               f"`{most}`" if most else "")


def growth_bars(pieces):
    """Of all actions together, one of each, and of the one that grows most."""
    actions = dict.fromkeys(found[1] for name in pieces.names if (found := re.fullmatch(r"State/(.+)/1000(?:000)?", name)))
    ours, theirs = ([pieces(f"State/{action}/{size}") for action in actions] for size in (1000000, 1000))

    def bar(id, which, mine, other):
        return against(id, f"State, a million conditions against a thousand, {which}", "at most 3", 3, mine, other)

    if not actions or None in ours + theirs:
        return [bar("state_growth", "all actions", None, None), bar("state_growth_worst", "worst action", None, None)]
    each = [bar("state_growth_worst", f"worst action (`{action}`)", mine, other)
            for action, mine, other in zip(actions, ours, theirs)]
    together = [[sum(values) for values in zip(*figures)] for figures in (ours, theirs)]
    return [bar("state_growth", "all actions", *together), max(each, key=Bar.measured)]


def bars_of(road, pieces):
    """In the order of the page."""
    def share(id, what, load, figure, peer, most="1"):
        words = f"at most {'that' if most == '1' else most} of {PEERS[peer]}"
        return against(id, what, words, float(Fraction(most)), road(load, "oxevent", figure), road(load, peer, figure))

    def own(id, what, load, figure, units, words="0", most=0):
        return Bar(id, what, words, most, road(load, "oxevent", figure), units)

    def piece(id, what, words, most, ours, theirs):
        return against(id, what, words, most, pieces(ours), pieces(theirs))

    late = share("", "", "idle", "delay_ns.p99", "spdlog_block").figures or "not measured"
    idle = share("idle_delay", "Idle, delay to the callback, p50", "idle", "delay_ns.p50", "spdlog_block")
    return [
        share("storm_1_p50", "Storm, 1 thread, Submit p50", "storm_1", "submit_ns.p50", "spdlog_block", "1/4"),
        share("storm_2_p50", "Storm, 2 threads, Submit p50", "storm_2", "submit_ns.p50", "spdlog_block", "1/4"),
        share("storm_1_mean_spdlog", "Storm, 1 thread, Submit mean", "storm_1", "submit_ns.mean", "spdlog_block", "1/5"),
        share("storm_2_mean_spdlog", "Storm, 2 threads, Submit mean", "storm_2", "submit_ns.mean", "spdlog_block", "1/5"),
        share("storm_1_mean_writer", "Storm, 1 thread, Submit mean", "storm_1", "submit_ns.mean", "writer", "1/4"),
        share("storm_2_mean_writer", "Storm, 2 threads, Submit mean", "storm_2", "submit_ns.mean", "writer", "1/4"),
        share("storm_1_p999", "Storm, 1 thread, Submit p99.9", "storm_1", "submit_ns.p999", "spdlog_block", "1/4"),
        share("storm_2_p999", "Storm, 2 threads, Submit p99.9", "storm_2", "submit_ns.p999", "spdlog_block", "1/4"),
        share("paced_20000_mean", "20,000/s, Submit mean", "paced_20000", "submit_ns.mean", "writer", "1/4"),
        share("paced_1000_mean", "1,000/s, Submit mean", "paced_1000", "submit_ns.mean", "writer", "1/4"),
        idle._replace(figures=f"{idle.figures}; p99: {late}".removeprefix("; ")),
        own("paced_20000_delay", "20,000/s, p99 of the delay", "paced_20000", "delay_ns.p99", TIME, "at most 2 ms", 2e6),
        own("paced_1000_delay", "1,000/s, p99 of the delay", "paced_1000", "delay_ns.p99", TIME, "at most 2 ms", 2e6),
        allocations_bar(road, "caller"),
        allocations_bar(road, "worker"),
        against("million_rows", "A million back to back, rows per second", "at least that of spdlog, block", 1,
                road("million", "oxevent", "events_per_s"), road("million", "spdlog_block", "events_per_s"), RATE,
                at_least=True),
        own("million_lost", "Events lost at that", "million", "lost", COUNT),
        share("storm_1_cpu", "Storm, 1 thread, worker's CPU per row", "storm_1", "worker_cpu_ns", "spdlog_block"),
        share("storm_2_cpu", "Storm, 2 threads, worker's CPU per row", "storm_2", "worker_cpu_ns", "spdlog_block"),
        own("paced_1000_cpu", "1,000/s, worker's CPU per event", "paced_1000", "worker_cpu_ns", TIME, "at most 15 µs", 15e3),
        own("quiet_cpu", "Worker's CPU in a second without events", "idle", "quiet_cpu_ns", TIME),
        own("quiet_wakeups", "Worker's wake-ups in a second without events", "idle", "quiet_wakeups", PLAIN),
        piece("syslog", "Syslog datagram", "at most 1.25 of a bare `sendto`", 1.25, "Syslog/submit", "Syslog/bare_sendto"),
        piece("trap", "SNMP trap", "at most 1.25 of a bare `sendto`", 1.25, "Trap/submit", "Trap/bare_sendto"),
        piece("json", "Native JSON document", "at most RapidJSON's writer", 1, "Json/native", "Json/rapidjson"),
        piece("http", "HTTP post", "at most 1.05 of a kept libcurl handle", 1.05, "Http/post", "Http/bare_libcurl"),
        condition_bar(pieces),
        *growth_bars(pieces),
        against("storm_8_mean", "Storm, 8 threads, Submit mean", "at most 3 of 1 thread", 3,
                road("storm_8", "oxevent", "submit_ns.mean"), road("storm_1", "oxevent", "submit_ns.mean"))]


def notes_of(path, bars):
    """What is to be said of the missed bars, and the bars of which nothing is."""
    def name_of(bar):
        return f"{bar.what}, {bar.words}"

    missed = {bar.id: bar for bar in bars if bar.values and not bar.holds()}
    said = []
    for section in re.split(r"^## ", read(path), flags=re.M)[1:] if path.exists() else ():
        heading, _, text = section.partition("\n")
        for id in heading.split():
            if id not in {bar.id for bar in bars}:
                raise BadResults(f"{path}: there is no bar {id}")
        named = [missed.pop(id) for id in heading.split() if id in missed]
        if named:
            said.append(f"**{'; '.join(map(name_of, named))}**: {text.strip()}\n\n")
    said += [f"**{name_of(bar)}**: not explained.\n\n" for bar in missed.values()]
    return "".join(said), list(missed)


# The page.

def charts_of(road):
    def per_peer(load, figure, units, more=lambda load, peer: ""):
        return [Column(PEERS[peer], COLOURS[peer], values, shown(median(values), units) + more(load, peer))
                for peer in PEERS if (values := road(load, peer, figure))]

    def lost(load, peer):
        gone, events = road(load, peer, "lost"), road(load, peer, "events")
        return f", {digits(median(gone) / median(events) * 100, 2)} % lost" if gone and any(gone) and events else ""

    def delays(load):
        for peer in PEERS:
            if (half := road(load, peer, "delay_ns.p50")) and (most := road(load, peer, "delay_ns.p99")):
                text = f"{shown(median(half), TIME)}, {shown(median(most), TIME)}"
                yield Column(PEERS[peer], COLOURS[peer], half, text, median(most))

    def groups(columns_of, loads=LOADS):
        return [(LOADS[load], columns) for load in loads if (columns := list(columns_of(load)))]

    def quantiles(peer):
        for name, figure in (("p50", "submit_ns.p50"), ("mean", "submit_ns.mean"), ("p99.9", "submit_ns.p999")):
            if values := road("storm_1", peer, figure):
                yield Column(name, COLOURS[peer], values, shown(median(values), TIME))

    time, rate = partial(shown, units=TIME), partial(shown, units=RATE)
    how = "Medians of the rounds; the thin line goes from the least to the most."
    yield "storm", chart("Time in Submit: a storm of 1,000 events from one thread", f"Less is better. {how}", [
        Panel("Time per call", time, [(name, list(quantiles(peer))) for peer, name in PEERS.items()])])
    yield "submit", chart("Mean time in Submit", f"Less is better. {how}", [
        Panel("Time per call", time, groups(lambda load: per_peer(load, "submit_ns.mean", TIME)))])
    yield "delay", chart("Delay from Submit to the callback", "Less is better. Dark: p50; light: p99. Medians of the rounds.", [
        Panel("Delay", time, groups(delays))])
    yield "worker", chart("What the worker gets done", how, [
        Panel("Rows per second: more is better", rate,
              groups(lambda load: per_peer(load, "events_per_s", RATE, lost), ("million", "million_1024"))),
        Panel("Worker's CPU time per row: less is better", time,
              groups(lambda load: per_peer(load, "worker_cpu_ns", TIME), ("storm_1", "storm_2", "million")))])


def load_section(road, load):
    def rows(columns):
        for peer, name in PEERS.items():
            cells = [cell(road(load, peer, figure), units) for _, figure, units in columns]
            if any(text != "–" for text in cells):
                yield [name, *cells]

    out = f"### {LOADS[load]}\n\n"
    caller = [column for column in CALLER if column[1] != "events_per_s" or load.startswith("million")]
    for columns in (caller, WORKER + (QUIET if load == "idle" else ())):
        out += table(["", *(name for name, _, _ in columns)], rows(columns), "---|" + "---:|" * len(columns)) + "\n"
    return out


def page(road, pieces, machine, bars, notes):
    results = [[bar.what, bar.words, "–" if bar.values is None else cell(bar.values, bar.units, " "), bar.figures,
                bar.result() if bar.values and bar.holds() else f"**{bar.result()}**"] for bar in bars]
    steps = [[f"`{name}`", shown(median(pieces(name)), TIME), spread(pieces(name), TIME)] for name in sorted(pieces.names)]
    return string.Template(read(ROOT / "bench" / "performance.md.in")).substitute(
        rounds=len(road.rounds), repetitions=pieces.repetitions, notes=notes,
        machine=table(["Machine", ""], [[name, str(text)] for name, text in machine.items()], "---|---|").rstrip(),
        bars=table(["What", "Bar", "Measured", "Figures", "Result"], results, "---|---|---|---|---|").rstrip(),
        loads="".join(load_section(road, load) for load in LOADS).rstrip(),
        pieces=table(["Step", "Time", "Least to most"], steps, "---|---:|---:|").rstrip())


def main(folder):
    road, pieces = Road(folder / "road.jsonl"), Pieces(folder / "pieces.json")
    machine = parsed(read(folder / "machine.json"), folder / "machine.json")
    bars = list(bars_of(road, pieces))
    notes, unexplained = notes_of(ROOT / "bench" / "notes.md", bars)
    files = {ROOT / "docs" / "performance.md": page(road, pieces, machine, bars, notes)}
    files |= {ROOT / "docs" / "performance" / f"{name}.svg": svg for name, svg in charts_of(road)}
    for path, text in files.items():  # Only now: unusable results leave the last page as it was.
        path.parent.mkdir(exist_ok=True)
        path.write_text(text, "utf-8")
    if len(road.rounds) < FEWEST_ROUNDS:
        print(f"bench_report: only {len(road.rounds)} rounds of {FEWEST_ROUNDS}", file=sys.stderr)
    for id in unexplained:
        print(f"bench_report: bench/notes.md does not explain why {id} is missed", file=sys.stderr)
    for bar in bars:
        if not bar.values:
            print(f"{bar.id}: {bar.what}: not measured")
        elif not bar.holds():
            print(f"{bar.id}: {bar.what}: {shown(bar.measured(), bar.units)}; bar: {bar.words}; {bar.result()}")
    return 0 if all(bar.values for bar in bars) else 1


if __name__ == "__main__":
    if len(sys.argv) != 2:
        print(__doc__, file=sys.stderr)
        sys.exit(2)
    try:
        sys.exit(main(Path(sys.argv[1])))
    except BadResults as error:
        print(f"bench_report: {error}", file=sys.stderr)
        sys.exit(2)
