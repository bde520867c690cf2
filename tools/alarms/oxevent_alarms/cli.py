"""The command line of oxevent-alarms."""
import argparse
import os
import shutil
import stat
import sys
import time

from . import output
from .conditions import AlarmList
from .files import History
from .page import Page, write
from .recorder import Recorder
from .rows import RANK, InputError
from .text import parse_duration, parse_time, printable

HELP = """\
Usage: oxevent-alarms [OPTION]... FILE
Shows which conditions are raised, according to the CSV file FILE that a sink of the section sink\\csv
writes, and to its rotated files FILE.1, FILE.2.gz and so on, or FILE-20260301 and so on.

Output:
  --json             JSON instead of a table; for --history and --follow, one object per line
  --history KEY      every row of the condition KEY
  --follow           rows as they are appended, also after a rotation; with --since, first the rows since TIME
  --prometheus       metrics in the text format of Prometheus
  --check            output and exit status of a Nagios plugin: an error is CRITICAL, a warning WARNING
  --max-age AGE      with --check: CRITICAL if the newest row is older than AGE, or if there is no row
  --html PAGE        write a page with the list, its history, rates and a filter to the file PAGE

Selection:
  --severity NAME    only this severity (debug, info, warning, error) and above
  --since TIME       only rows at or after TIME, and only conditions that were raised at or after TIME (but in a page,
                     all raised conditions)
  --until TIME       ignore later rows, so that the list is as it was at TIME

Input:
  --no-rotated       read only FILE
  --own-ids          the host sets event_id itself: do not infer restarts from event_id
  --skip-damaged     report damaged rows on standard error and go on, instead of stopping
  --help             print this help and exit

TIME is a date, with or without a time of day (2026-03-01T12:00:00+01:00; without an offset, it is in
UTC), or a duration, which is subtracted from the current time. A duration, such as AGE, is a number
with a unit: 90s, 15m, 2h, 7d or 4w.

The key of a condition is its dedupe_key or, if that is empty, source_id:event_type. Its age is the
time since the first row that raised it after its last clear, and its count is the number of its rows
since then.
A condition is unconfirmed if an earlier run of the host raised it and the current run has not
reported it again. A run begins where the event ids, which count up from 1 in each process, do not
increase. An update or a repeat of a condition shows that no new run has begun since the last row of
that condition.

The tool only reads the file. It does not acknowledge, suppress or forward alarms, does not query the
running host (the gdb command oxevent does), and does not combine the files of several hosts. It
cannot know what is not in the file: events that the queue dropped or that are below a minimum
severity, clears if state\\send_clear is off, conditions raised before the oldest row.

Exit status:
  0  done; with --check: no condition with severity warning or above is raised
  1  a file could not be read, a row is damaged, or no row has the key KEY; with --check: a warning is
     raised
  2  invalid command line; with --check: an error is raised, or the newest row is too old
  3  with --check: a file could not be read, a row is damaged, or the command line is invalid
"""


class Parser(argparse.ArgumentParser):
    def __init__(self, check):
        super().__init__(allow_abbrev=False)
        self.check = check

    def format_help(self):
        return HELP

    def error(self, message):
        sys.exit(failed(self.check, f"{message}; see oxevent-alarms --help", status=2))


def parse_arguments(arguments):
    parser = Parser("--check" in arguments)
    parser.add_argument("file", metavar="FILE")
    mode = parser.add_mutually_exclusive_group()
    mode.add_argument("--history")
    mode.add_argument("--html")
    for option in ("--follow", "--prometheus", "--check"):
        mode.add_argument(option, action="store_true")
    for option in ("--json", "--no-rotated", "--own-ids", "--skip-damaged"):
        parser.add_argument(option, action="store_true")
    parser.add_argument("--severity", choices=list(RANK)[:-1], default="debug")
    for option in ("--max-age", "--since", "--until"):
        parser.add_argument(option)
    options = parser.parse_args(arguments)
    options.now = options.end = time.time_ns()
    try:
        complete(options)
    except ValueError as error:
        parser.error(str(error))
    return options


def complete(options):
    """Converts the times, and raises ValueError if options cannot be combined."""
    if options.max_age is not None and not options.check:
        raise ValueError("--max-age needs --check")
    if options.json and (options.html or options.prometheus or options.check):
        raise ValueError("--json cannot be combined with --html, --prometheus or --check")
    if options.follow and options.until:
        raise ValueError("--follow cannot be combined with --until")
    options.max_age = None if options.max_age is None else parse_duration(options.max_age)
    options.end = parse_time(options.until, options.now) if options.until else options.now
    options.start = parse_time(options.since, options.now) if options.since else options.now if options.follow else 0
    options.rank = RANK[options.severity]


class Progress:
    """Shows on the terminal how much of the work is done."""
    INTERVAL_S = 0.2

    def __init__(self):
        self.shown = 0
        self.due = time.monotonic() + 1  # Shows nothing if the work takes less than a second.

    def __call__(self, what, part):
        if time.monotonic() < self.due:
            return
        self.due = time.monotonic() + self.INTERVAL_S
        self.show(f"{what}: {part:4.0%}")

    def show(self, text):
        sys.stderr.write("\r" + text.ljust(self.shown))
        sys.stderr.flush()
        self.shown = len(text)

    def clear(self):
        if self.shown:
            self.show("")
            sys.stderr.write("\r")


def warn(text):
    print(f"oxevent-alarms: {printable(text)}", file=sys.stderr)


class Tool:
    def __init__(self, options):
        self.options = options
        self.progress = Progress() if sys.stderr.isatty() else None
        self.alarms = AlarmList(options.end, options.own_ids)
        self.history = History(options.file, not options.no_rotated, warn if options.skip_damaged else None, warn,
                               self.progress)

    def rows(self):
        """Yields the rows up to the time of --until, and updates the list with each."""
        for row in self.history.rows():
            if row.utc_ns <= self.options.end or not self.options.until:
                self.alarms.add(row)
                yield row
        if self.progress:
            self.progress.clear()

    def is_shown(self, row):
        return RANK[row.severity] >= self.options.rank and row.utc_ns >= self.options.start

    def raised(self):
        for _ in self.rows():
            continue
        return self.alarms.raised(self.options.rank, self.options.start)

    def print_row(self, row):
        print(output.row_json(row) if self.options.json else output.row_line(row))

    def run(self):
        """Returns the exit status."""
        options = self.options
        if options.history is not None:
            return self.show_history()
        if options.follow:
            return self.follow()
        if options.html:
            return self.write_page()
        conditions = self.raised()
        if options.check:
            text, status = output.plugin(self.alarms, conditions, options.max_age)
            print(text)
            return status
        self.print_list(conditions)
        return 0

    def print_list(self, conditions):
        if self.options.json:
            print(output.list_json(self.alarms, conditions))
        elif self.options.prometheus:
            print("\n".join(output.prometheus(self.alarms, conditions)))
        else:
            width = shutil.get_terminal_size().columns if sys.stdout.isatty() else None
            print("\n".join(output.table(self.alarms, conditions, width)))

    def show_history(self):
        rows = [row for row in self.rows() if row.key == self.options.history]
        for row in filter(self.is_shown, rows):
            self.print_row(row)
        if not rows:
            warn(f"{self.options.file}: no row has the key '{self.options.history}'")
        return 0 if rows else 1

    def follow(self):
        if not stat.S_ISREG(os.stat(self.options.file).st_mode):
            raise InputError(f"{self.options.file}: --follow needs a regular file")
        for row in filter(self.is_shown, self.rows()):
            self.print_row(row)
        for row in self.history.follow():
            if RANK[row.severity] >= self.options.rank:
                self.print_row(row)

    def write_page(self):
        recorder = Recorder(self.alarms, self.options.start, self.options.rank)
        for row in self.rows():
            recorder.add(row)
        if self.progress:
            self.progress.show("writing the page")
        write(self.options.html, Page(recorder, self.options.file).html())
        if self.progress:
            self.progress.clear()
        return 0


def failed(check, text, status=1):
    """Reports why the tool has failed, and returns the exit status."""
    if not check:
        warn(text)
        return status
    print(f"OXEVENT UNKNOWN - {output.plugin_text(text)}")
    return output.UNKNOWN


def main(arguments):
    sys.stdout.reconfigure(encoding="utf-8", errors="replace")
    sys.stderr.reconfigure(encoding="utf-8", errors="replace")
    options = parse_arguments(arguments)
    try:
        status = Tool(options).run()
        sys.stdout.flush()
        return status
    except KeyboardInterrupt:
        return 130
    except BrokenPipeError:  # The reader, such as head, has ended. The interpreter must not try to flush again.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 1
    except (InputError, OSError) as error:
        return failed(options.check, str(error))
    except Exception as error:  # Nagios would take the interpreter's own exit status, 1, for a warning.
        if not options.check:
            raise
        return failed(True, f"internal error: {error!r}")
