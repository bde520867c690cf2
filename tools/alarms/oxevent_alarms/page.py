"""A page about a history: one file of HTML that needs no network.

None of the data runs as script: strings are escaped in HTML, the events are JSON from which the script makes text
nodes, and the page's security policy permits only the script and the style sheet of this directory."""
import base64
import collections
import hashlib
import html
import json
import math
import os
import string
import tempfile
from pathlib import Path

from . import statistics
from .output import summary
from .recorder import HOUR_NS
from .rows import RANK, SEVERITIES
from .text import DAY_NS, NS, counted, duration, printable, utc

MINUTE_NS = 60 * NS
MAX_LISTED = 20_000  # Conditions in each list.
CHUNK = 100  # Conditions that the browser renders together, once they come into view.
MAX_BARS = 240
TICKS = 5
MOST_RAISED = 10  # Conditions in the list of those that were raised most often.
CHATTER_RAISES = 3  # A condition that is raised this many times within a minute chatters.
WIDTH = 1000  # Width of every drawing, in the units of its view box.
HEIGHT = 100  # Height of the bar chart.
MIN_WIDTH = 3  # Width of even the shortest span, so that it is visible.


def escaped(text):
    return html.escape(printable(text))


def bdi(text, name=""):
    return f'<bdi{f" class={name}" if name else ""}>{escaped(text)}</bdi>'


def tag(severity):
    return f'<span class="severity {severity}">{severity}</span>'


def table(head, rows, name=""):
    """`head`: titles of the columns, with a # before the title of a column of numbers. `rows`: pairs of the attributes
    of a row and its cells, in HTML."""
    number = [' class="number"' if title.startswith("#") else "" for title in head]
    titles = "".join(f"<th{kind}>{title.lstrip('#')}</th>" for kind, title in zip(number, head))
    body = ""
    for attributes, cells in rows:
        body += f"<tr{attributes}>{''.join(f'<td{kind}>{cell}</td>' for kind, cell in zip(number, cells))}</tr>"
    return f'<table class="{name}"><thead><tr>{titles}</tr></thead><tbody>{body}</tbody></table>'


def chunks(parts):
    return [parts[i:i + CHUNK] for i in range(0, len(parts), CHUNK)]


def chunk(content):
    return f'<div class="chunk">{content}</div>\n'


def not_listed(count):
    return f'<p class="quiet">and {counted(count, "condition")} more</p>' if count > 0 else ""


def legend(severities, note=""):
    marks = (f'<span><svg viewBox="0 0 1 1"><path class="{name}" d="M0 0h1v1h-1z"/></svg>{name}</span>'
             for name in severities)
    return f'<p class="legend">{"".join(marks)}{note}</p>'


class Page:
    def __init__(self, recorder, path):
        self.recorder = recorder
        self.alarms = recorder.alarms
        self.path = path
        self.end_ns = self.alarms.now_ns
        first_ns = self.end_ns if self.alarms.first_ns is None else self.alarms.first_ns
        self.start_ns = min(max(recorder.start_ns, first_ns), self.end_ns)
        self.lanes = recorder.chosen_lanes()

    def html(self):
        here = Path(__file__).parent
        css, script = ((here / f"page.{kind}").read_text("utf-8") for kind in ("css", "js"))
        conditions = self.alarms.raised(self.recorder.rank)
        return string.Template((here / "page.html").read_text("utf-8")).substitute(
            policy=policy(css, script), css=css, script=script, data=self.data(),
            title=f"Alarms in {escaped(os.path.basename(self.path))}",
            summary=escaped(summary(self.alarms, conditions)), period=f"{utc(self.start_ns)} to {utc(self.end_ns)}",
            raised=self.raised(conditions), timeline=self.timeline(), hours=self.hours(), rates=self.rates(conditions),
            most_raised=self.most_raised(), events=self.events())

    def raised(self, conditions):
        rows = []
        for condition in conditions[:MAX_LISTED]:
            unconfirmed = self.alarms.is_unconfirmed(condition)
            note = "<bdi>unconfirmed: an earlier run of the host raised it</bdi>" if unconfirmed else ""
            name = ' class="unconfirmed"' if unconfirmed else ""
            rows.append((f' data-rank="{RANK[condition.row.severity]}"{name}', (
                tag(condition.row.severity), bdi(condition.key, "key") + bdi(condition.row.message) + note,
                duration(self.alarms.age_ns(condition)), f"{condition.count:,}")))
        if not rows:
            return "<p>No condition is raised.</p>"
        head = ("Severity", "Condition and message", "#Age", "#Count")
        tables = "".join(chunk(table(head, part, "list")) for part in chunks(rows))
        return tables + not_listed(len(conditions) - MAX_LISTED)

    # The time line.

    def x(self, ns):
        position = (ns - self.start_ns) * WIDTH // max(self.end_ns - self.start_ns, 1)
        return min(max(position, 0), WIDTH)

    def timeline(self):
        lanes = "".join(chunk("".join(map(self.lane, part))) for part in chunks(self.lanes[:MAX_LISTED]))
        found = {span[2] for lane in self.lanes for span in lane.spans}
        names = legend([name for name in SEVERITIES[::-1] if name in found], "<span>pale: unconfirmed</span>")
        return (f'<div class="timeline">{names}{self.axis()}{self.restarts()}{lanes}</div>'
                + not_listed(len(self.lanes) - MAX_LISTED))

    def axis(self):
        length = self.end_ns - self.start_ns
        times = (utc(self.start_ns + length * tick // (TICKS - 1)) for tick in range(TICKS))
        labels = (time[:10] if length > 4 * DAY_NS else time[5:16].replace("T", " ") for time in times)
        return f'<div class="axis">{"".join(f"<span>{label}</span>" for label in labels)}</div>'

    def restarts(self):
        runs = self.alarms.runs
        starts = sorted({self.x(ns) for number, ns in runs.started_ns.items() if ns >= self.start_ns})
        if not starts or not runs.are_known:
            return ""
        path = "".join(f"M{x} 0h{MIN_WIDTH}v10h-{MIN_WIDTH}z" for x in starts)
        return f'<div class="lane"><bdi>restarts of the host</bdi>{drawing(path_tag("restart", path), 10)}</div>'

    def lane(self, lane):
        paths = "".join(path_tag(kind, path) for kind, path in self.lane_paths(lane).items())
        return (f'<div class="lane" data-rank="{lane.rank}">'
                f'<bdi title="{escaped(lane.message)}">{escaped(lane.key)}</bdi>{drawing(paths, 10)}</div>')

    def lane_paths(self, lane):
        """Returns a path of rectangles for each CSS class. Spans of the same class that overlap at this resolution are
        merged."""
        merged = []
        for start_ns, end_ns, kind in self.visible_spans(lane):
            start = self.x(start_ns)
            end = max(self.x(end_ns), start + MIN_WIDTH)
            if merged and merged[-1][2] == kind and merged[-1][1] >= start:
                merged[-1][1] = max(merged[-1][1], end)
            else:
                merged.append([start, end, kind])
        paths = {}
        for start, end, kind in merged:
            paths[kind] = paths.get(kind, "") + f"M{start} 0h{end - start}v10h-{end - start}z"
        return paths

    def visible_spans(self, lane):
        for start_ns, end_ns, severity in lane.spans:
            if end_ns is not None:
                if end_ns >= self.start_ns:
                    yield start_ns, end_ns, severity
                continue
            sure_ns = self.last_sure_ns(lane.key)
            yield start_ns, sure_ns, severity
            if sure_ns < self.end_ns:
                yield sure_ns, self.end_ns, f"{severity} pale"

    def last_sure_ns(self, key):
        """Returns the time until which a raised condition is confirmed."""
        condition = self.alarms.conditions[key]
        if not self.alarms.is_unconfirmed(condition):
            return self.end_ns
        return min(self.alarms.runs.started_ns[condition.run + 1], self.end_ns)

    # Statistics.

    def hours(self):
        """Draws at most MAX_BARS bars, each of which may stand for several hours."""
        counts = self.recorder.hours
        if not counts:
            return "<p>No events.</p>"
        first = self.start_ns // HOUR_NS
        span = math.ceil((self.end_ns // HOUR_NS - first + 1) / MAX_BARS)
        bars = {}
        for (hour, severity), count in counts.items():
            index = min(max(hour - first, 0), self.end_ns // HOUR_NS - first) // span
            bars.setdefault(index, collections.Counter())[severity] += count
        highest = max(sum(bar.values()) for bar in bars.values())
        unit = f"mean of {span} hours" if span > 1 else "per hour"
        number = (self.end_ns // HOUR_NS - first) // span + 1
        names = [name for name in SEVERITIES[::-1] if any(severity == name for _, severity in counts)]
        return (f'{legend(names)}<div class="chart"><span class="highest">{round(highest / span, 1):,g} ({unit})</span>'
                f'{drawing(bar_paths(bars, names, highest, number), HEIGHT)}</div>{self.axis()}')

    def rates(self, conditions):
        raises = sorted(time for lane in self.lanes for time in lane.raises)
        length = self.end_ns - self.start_ns
        average = statistics.average(len(raises), length)
        peak = statistics.busiest(raises, statistics.PERIOD_NS)
        standing = sum(self.alarms.age_ns(condition) > DAY_NS for condition in conditions)
        flooded = statistics.floods(raises)
        periods = statistics.periods(self.start_ns, self.end_ns)
        rows = [
            ("Raised for more than 24 hours (standing)", f"{standing:,}", statistics.standing_class(standing)),
            ("Raised per 10 minutes, on average", f"{average:,.3g}", statistics.average_class(average)),
            ("Raised in the worst 10 minutes", f"{peak:,}", statistics.peak_class(peak)),
            ("Periods of 10 minutes with more than 10 (floods)", f"{flooded:,} ({flooded / periods:.1%})", "")]
        return table(("Measure", "#Value", "EEMUA 191, for one operator"), [("", row) for row in rows]) + (
            '<p class="quiet">The rates count rows with the action raise. A value between two thresholds of EEMUA '
            'publication 191 is put into the worse of the two classes.</p>')

    def most_raised(self):
        worst = [lane for lane in sorted(self.lanes, key=lambda lane: -len(lane.raises))[:MOST_RAISED] if lane.raises]
        total = sum(len(lane.raises) for lane in self.lanes)
        rows = []
        for lane in worst:
            minute = statistics.busiest(sorted(lane.raises), MINUTE_NS)
            note = "<bdi>chatters</bdi>" if minute >= CHATTER_RAISES else ""
            rows.append(("", (bdi(lane.key, "key") + bdi(lane.message) + note, f"{len(lane.raises):,}",
                              f"{len(lane.raises) / total:.1%}", f"{minute:,}")))
        if not rows:
            return "<p>No condition was raised.</p>"
        return table(("Condition and last message", "#Raised", "#Share", "#In one minute"), rows) + (
            f'<p class="quiet">A condition chatters if it was raised at least {CHATTER_RAISES} times within a minute.'
            '</p>')

    # The events, for the script.

    def events(self):
        kept = len(self.recorder.events)
        text = f"{counted(self.recorder.count, 'event')}, the newest first."
        return text if kept == self.recorder.count else f"{text} This page contains only the newest {kept:,}."

    def data(self):
        """Returns the events as JSON, one list per column. Most strings occur often, so the columns of strings contain
        indices into lists of the distinct strings."""
        events = self.recorder.events
        document = {"severities": SEVERITIES, "times": [event[0] for event in events],
                    "ranks": [event[1] for event in events]}
        for column, (name, strings) in enumerate((("action", "actions"), ("key", "keys"), ("message", "messages")), 2):
            indices = {}
            document[name] = [indices.setdefault(event[column], len(indices)) for event in events]
            document[strings] = list(map(printable, indices))
        return json.dumps(document, separators=(",", ":")).replace("<", "\\u003c")


def drawing(paths, height):
    return f'<svg viewBox="0 0 {WIDTH} {height}" preserveAspectRatio="none" aria-hidden="true">{paths}</svg>'


def path_tag(kind, path):
    return f'<path class="{kind}" d="{path}"/>'


def bar_paths(bars, names, highest, number):
    """Returns stacked bars, the first name at the bottom."""
    paths = dict.fromkeys(names, "")
    width = round(WIDTH / number, 2)
    for index, bar in sorted(bars.items()):
        bottom = HEIGHT
        for name in names:
            height = round(bar[name] * HEIGHT / highest, 2)
            bottom -= height
            if height:
                paths[name] += f"M{round(index * width, 2)} {bottom:.2f}h{width * .9:.2f}v{height}h-{width * .9:.2f}z"
    return "".join(path_tag(name, path) for name, path in paths.items())


def policy(css, script):
    """Returns a security policy that permits only these two texts and no network."""
    style, code = (base64.b64encode(hashlib.sha256(text.encode()).digest()).decode() for text in (css, script))
    return (f"default-src 'none'; style-src 'sha256-{style}'; script-src 'sha256-{code}'; base-uri 'none'; "
            "form-action 'none'")


def write(path, text):
    """Replaces the file as a whole, so that nobody sees an incomplete page."""
    directory = os.path.dirname(os.path.abspath(path))
    umask = os.umask(0)
    os.umask(umask)
    with tempfile.NamedTemporaryFile("w", encoding="utf-8", dir=directory, prefix=".alarms-", delete=False) as file:
        try:
            file.write(text)
            file.flush()
            os.fchmod(file.fileno(), 0o666 & ~umask)
            os.replace(file.name, path)
        except BaseException:
            os.unlink(file.name)
            raise
