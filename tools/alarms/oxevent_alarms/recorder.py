"""What a page shows of a history."""
import collections

from .rows import RANK
from .text import NS

HOUR_NS = 3600 * NS
MS_NS = 10**6
MAX_EVENTS = 200_000  # Only the newest events are kept: more would make the page slow.


class Lane:
    """The history of one condition. A span is [start, end, severity], where the end is None while the condition is raised
    with this severity. `raises` has the times of the rows with the action raise that the page counts."""
    __slots__ = ("key", "message", "spans", "raises", "rank")

    def __init__(self, key):
        self.key = key
        self.message = ""
        self.spans = []
        self.raises = []
        self.rank = 0  # Rank of its highest severity.

    def add(self, row):
        self.close(row)
        self.message = row.message
        self.rank = max(self.rank, RANK[row.severity])
        if not self.spans or self.spans[-1][1] is not None:
            self.spans.append([row.utc_ns, None, row.severity])

    def close(self, row):
        """Ends the open span if the row clears the condition or changes its severity."""
        if self.spans and self.spans[-1][1] is None and (row.verb == "clear" or self.spans[-1][2] != row.severity):
            self.spans[-1][1] = row.utc_ns


class Lanes(dict):
    def __missing__(self, key):
        self[key] = Lane(key)
        return self[key]


class Recorder:
    """Keeps what the page shows: the events at or after `start_ns` whose severity has at least the rank `rank`, and the
    lanes of all conditions, from which chosen_lanes selects."""

    def __init__(self, alarms, start_ns, rank):
        self.alarms = alarms
        self.start_ns = start_ns
        self.rank = rank
        self.lanes = Lanes()
        self.hours = collections.Counter()
        self.events = collections.deque(maxlen=MAX_EVENTS)
        self.count = 0

    def add(self, row):
        verb = row.verb
        if verb == "clear" and row.key in self.lanes:
            self.lanes[row.key].close(row)
        elif verb in ("raise", "update", "repeat"):
            self.lanes[row.key].add(row)
        if row.utc_ns >= self.start_ns and RANK[row.severity] >= self.rank:
            self.add_event(row, verb)

    def add_event(self, row, verb):
        if verb == "raise":
            self.lanes[row.key].raises.append(row.utc_ns)
        self.hours[row.utc_ns // HOUR_NS, row.severity] += 1
        self.events.append((row.utc_ns // MS_NS, RANK[row.severity], row.action, row.key, row.message))
        self.count += 1

    def chosen_lanes(self):
        """Returns the lanes whose highest severity has at least the rank `rank` and whose last span has not ended
        before `start_ns`. Raised conditions come first."""
        raised = self.alarms.conditions
        chosen = [lane for lane in self.lanes.values()
                  if lane.rank >= self.rank and (lane.spans[-1][1] is None or lane.spans[-1][1] >= self.start_ns)]
        return sorted(chosen, key=lambda lane: (lane.key not in raised, -lane.rank, -len(lane.raises), lane.key))
