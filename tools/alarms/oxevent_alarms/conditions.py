"""The raised conditions, computed from the rows of a history."""
from .rows import RANK

RESTARTS_TO_JUDGE = 4  # Fewer apparent restarts than this always count as real.
ROWS_PER_RESTART = 5  # With more than one apparent restart in this many rows, the event ids show no restarts.


class Condition:
    """A raised condition: `row` is the last one that raised, updated or repeated it."""
    __slots__ = ("key", "raised_ns", "count", "row", "run")

    def __init__(self, row):
        self.key = row.key
        self.raised_ns = row.utc_ns
        self.count = 0

    def refresh(self, row, run):
        self.row = row
        self.count += 1
        self.run = run


class Runs:
    """Finds the rows with which a new run of the host begins, by the event ids that the library generates: each process
    counts from 1. A row of the same run may be late, because its thread was interrupted between taking an id and
    queueing the event; the next row then has a higher id than all rows before the late one. Conditions whose run is
    below `current` are of an earlier run."""

    def __init__(self):
        self.number = self.current = self.restarts = self.rows = 0
        self.highest = -1
        self.started_ns = {}  # By the number of the run.
        self.doubt = None  # If the last row seems to begin a run: `highest` and `current` before it, and its event id.

    def add(self, row):
        """Returns None, unless the row shows that the newest run does not exist, because its only row was late: then
        returns the number of that run."""
        refuted = self.take_back() if self.is_refuted_by(row) else None
        self.doubt = None
        self.rows += 1
        if row.event_id <= self.highest:
            self.doubt = (self.highest, self.current, row.event_id)
            self.number += 1
            self.restarts += 1
            self.current = self.number
            self.highest = row.event_id
            self.started_ns[self.number] = row.utc_ns
        self.highest = max(self.highest, row.event_id)
        return refuted

    def is_refuted_by(self, row):
        return self.doubt is not None and self.doubt[2] < self.doubt[0] < row.event_id

    def take_back(self):
        refuted = self.number
        self.highest, self.current, _ = self.doubt
        self.number -= 1
        self.restarts -= 1
        del self.started_ns[refuted]
        return refuted

    def join(self, run):
        """Called for an update or a repeat of a condition whose last row is of `run`. A new process would have raised
        the condition again, so no process has started since that run."""
        self.current = min(self.current, run)

    @property
    def are_known(self):
        return self.restarts < RESTARTS_TO_JUDGE or self.restarts * ROWS_PER_RESTART <= self.rows


class AlarmList:
    """The conditions that are raised after the rows added so far."""

    def __init__(self, now_ns, own_ids=False):
        self.now_ns = now_ns
        self.conditions = {}
        self.runs = Runs()
        self.own_ids = own_ids
        self.rows = 0
        self.rows_by_severity = {}
        self.first_ns = None
        self.newest_ns = None  # Without rows from the future, which would hide that the host is silent.
        self.last_condition = None

    def add(self, row):
        """Returns the condition that the row raised, updated, repeated or cleared, or None."""
        if not self.own_ids:
            self.update_run(row)
        self.count(row)
        verb = row.verb
        if verb == "clear":
            return self.conditions.pop(row.key, None)
        if verb not in ("raise", "update", "repeat"):
            return None
        condition = self.conditions.get(row.key)
        if condition is None:
            condition = self.conditions[row.key] = Condition(row)
        elif verb != "raise":
            self.runs.join(condition.run)
        condition.refresh(row, self.runs.number)
        self.last_condition = condition
        return condition

    def count(self, row):
        self.rows += 1
        self.rows_by_severity[row.severity] = self.rows_by_severity.get(row.severity, 0) + 1
        self.first_ns = row.utc_ns if self.first_ns is None else self.first_ns
        if row.utc_ns <= self.now_ns:
            self.newest_ns = max(row.utc_ns, self.newest_ns or 0)

    def update_run(self, row):
        refuted = self.runs.add(row)
        if refuted is not None and self.last_condition is not None and self.last_condition.run == refuted:
            self.last_condition.run = refuted - 1

    def age_ns(self, condition):
        return max(0, self.now_ns - condition.raised_ns)

    def raised(self, lowest_rank=0, since_ns=0):
        """Returns the conditions, the most severe first, and among those of the same severity the newest first."""
        chosen = [condition for condition in self.conditions.values()
                  if RANK[condition.row.severity] >= lowest_rank and condition.raised_ns >= since_ns]
        return sorted(chosen, key=lambda one: (-RANK[one.row.severity], -one.raised_ns, one.key))

    def is_unconfirmed(self, condition):
        """Returns whether an earlier run of the host raised the condition, and the current run has not reported it."""
        return self.runs.are_known and condition.run < self.runs.current
