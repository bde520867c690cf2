# Shows the state of oxEvent in a process or in a core file:
#
#     gdb -p PID -batch -x oxevent-gdb.py -ex oxevent
#     gdb PROGRAM CORE -batch -x oxevent-gdb.py -ex oxevent
#
# Needs debug information. Only reads memory: gdb may have stopped the process anywhere, so no function is called in it.
import datetime
import itertools
import re

import gdb

LIBRARY = 'liboxEvent.so'
HEAD_SIZE = 4096  # The file's first page, which contains the build id.
SEVERITIES = ('debug', 'info', 'warning', 'error')
MAX_TEXT_BYTES = 200
SUMMARY_LINES = 5


def fail(text):
    raise gdb.GdbError('oxevent: ' + text)


def library_path():
    return next((o.filename for o in gdb.objfiles() if LIBRARY in (o.filename or '')), None)


def fail_if_replaced():
    """Fails if the library file, from which gdb reads the symbols, is not the one that the process has loaded."""
    path = library_path()
    if not gdb.selected_inferior().pid or path is None:
        return
    for line in gdb.execute('info proc mappings', to_string=True).splitlines():
        start, _, _, offset = (line.split() + 4 * [''])[:4]
        if LIBRARY not in line or offset != '0x0':
            continue
        with open(path, 'rb') as file:
            if file.read(HEAD_SIZE) == memory(int(start, 16), HEAD_SIZE):
                return
        fail(f'{path} is not the file that the process has loaded: an upgrade has replaced it. Try again after '
             'a restart of the process, or with a core file on a machine with the same library')


def variable(name, source):
    """Returns a variable in the anonymous namespace of a source file of the library."""
    for symbol in gdb.lookup_static_symbols('(anonymous namespace)::' + name):
        if symbol.symtab.filename.endswith('/' + source):
            return symbol.value()
    if not gdb.selected_inferior().pid:
        fail('there is no process and no core file; start gdb with -p PID, or with the program and its core file')
    if library_path() is None:
        fail(f'{LIBRARY} is not loaded in this process')
    fail(f'{library_path()} has no debug information: install liboxevent1-dbgsym, or build the library with '
         '-DCMAKE_BUILD_TYPE=RelWithDebInfo')


def memory(address, size):
    return bytes(gdb.selected_inferior().read_memory(int(address), int(size)))


def printable(raw, full_size):
    text = raw.decode('utf-8', 'replace')
    text = ''.join(c if c.isprintable() else c.encode('unicode_escape').decode() for c in text)
    return text + ('...' if full_size > len(raw) else '')


def text_at(address, size):
    try:
        return printable(memory(address, min(int(size), MAX_TEXT_BYTES)), int(size)) if size else ''
    except gdb.MemoryError:
        return '<unreadable>'


def string(value):
    return text_at(value['_M_dataplus']['_M_p'], value['_M_string_length'])


def view(value):
    return text_at(value['_M_str'], value['_M_len'])


def number(atomic):
    return int(atomic['_M_i'])


def warn_if_locked(mutex, what):
    if number(mutex['state_']):
        print(f'  (a thread holds the lock: {what} may be inconsistent)')


def words_of(name):
    """Returns the words of a constant's name: "no memory" for kNoMemory."""
    return re.sub('(?<!^)(?=[A-Z])', ' ', name.rsplit('::', 1)[-1][1:]).lower()


def last_run():
    router = variable('g_router', 'oxEventRouter.cpp')['object_']
    warn_if_locked(router['mutex_'], 'the run')
    run = router['run_']['_M_ptr']
    return run.cast(gdb.lookup_type('oxEventRouter::Run').pointer()).dereference() if run else None


def show_state(_limit):
    api = 'oxEventApi.cpp'
    if number(variable('g_oxEventInitialized', api)['_M_base']):
        path = variable('g_oxEventConfigPath', api)['object_']['_M_payload']
        print('oxEvent is initialized with ' + (string(path['_M_payload']['_M_value']) if path['_M_engaged'] else '-'))
    elif variable('g_oxEventShutdownInProgress', api):
        print('oxEvent is shutting down')
    else:
        print('oxEvent is not initialized; the following is from the last run, if any')


def show_counters(_limit):
    run = last_run()
    if run is None:
        print('counters: none yet')
        return
    queue = run['queue']
    reasons = {words_of(f.name): number(run['drops']['counts_']['_M_elems'][f.enumval])
               for f in gdb.lookup_type('oxEventDrop').fields()}
    submitted = int(queue['enqueue_count_']) + reasons['filtered'] + reasons['no memory']
    print(f'counters: {submitted} submitted, {number(run["emitted"])} emitted, {sum(reasons.values())} dropped, '
          f'{number(run["sink_failures"])} sink failures, {number(run["sink_warnings"])} sink warnings')
    print('dropped: ' + (', '.join(f'{n} {reason}' for reason, n in reasons.items() if n) or 'none'))


def pending_events(queue, list_name):
    """Yields the order and the event of each node of a list, oldest first. Yields no more events than the list's size
    says, because the list may be inconsistent."""
    node = queue['backlog_'][list_name]['front_']
    for _ in range(int(queue['backlog_'][list_name]['size_'])):
        if not node:
            return
        fields = node.dereference()
        yield int(fields['order']), fields['event']['event_']
        node = fields['next']


def show_queue(limit):
    run = last_run()
    if run is None:
        print('queue: none yet')
        return
    queue = run['queue']
    backlog = queue['backlog_']
    lists = ('debug_info_', 'warning_error_')
    count = sum(int(backlog[name]['size_']) for name in lists)
    policy = words_of(str(backlog['policy_']))
    print(f'queue: {count} of {int(backlog["capacity_"])} pending, {policy}; {int(queue["active_count_"])} in delivery')
    warn_if_locked(queue['mutex_'], 'the queue')
    events = (event for name in lists for event in itertools.islice(pending_events(queue, name), limit))
    oldest = sorted(events, key=lambda event: event[0])
    for _, event in oldest[:limit]:
        severity = int(event['severity'])
        name = SEVERITIES[severity] if severity < len(SEVERITIES) else severity
        print(f'  id {int(event["event_id"])}, {name}, {view(event["action"]) or "-"}: {view(event["message"])}')
    if count > limit:
        print(f'  and {count - limit} newer')


def utc(ns):
    seconds, rest = divmod(ns, 10**9)
    try:
        return f'{datetime.datetime.utcfromtimestamp(seconds):%Y-%m-%dT%H:%M:%S}.{rest:09}Z'
    except (ValueError, OverflowError, OSError):
        return f'{ns} ns'


def segments(table):
    """Yields the bytes of each segment's slots. Directory entries that share a segment are adjacent."""
    segment_type = gdb.lookup_type('oxEventActiveTable::Segment')
    # A unique_ptr has the size of a pointer.
    directory = table['directory_'].address.cast(segment_type.pointer().pointer().pointer()).dereference()
    depth = int(table['depth_'])
    entry = 0
    while directory and entry < 1 << depth:
        segment = directory[entry]
        slots = segment['slots']
        yield memory(slots.address, slots.type.sizeof)
        entry += 1 << max(0, depth - int(segment['depth']))


def raised_conditions(table):
    """Yields the key of each condition and the time of the last event sent for it. Reads whole segments, because there
    may be a million conditions."""
    slot_type = gdb.lookup_type('oxEventActiveTable::Condition')
    at = {f.name: f.bitpos // 8 for f in slot_type.fields() if hasattr(f, 'bitpos')}
    start_capacity = slot_type['start'].type.sizeof
    texts_type = slot_type['texts'].type.target()
    head_size, rest_size_at = texts_type.sizeof, texts_type['key_rest_size'].bitpos // 8

    def word(raw, offset):
        return int.from_bytes(raw[offset:offset + 8], 'little')

    for block in segments(table):
        for i in range(0, len(block), slot_type.sizeof):
            slot = block[i:i + slot_type.sizeof]
            texts_at = word(slot, at['texts'])
            if not texts_at:
                continue
            size = slot[at['start_size']]
            key = slot[at['start']:at['start'] + min(size, start_capacity)]
            if size > start_capacity:
                try:
                    size = start_capacity + word(memory(texts_at + rest_size_at, 8), 0)
                    key += memory(texts_at + head_size, min(size, MAX_TEXT_BYTES) - start_capacity)
                except gdb.MemoryError:
                    key += b'<unreadable>'
            yield printable(key, size), word(slot, at['last_sent_ns'])


def show_conditions(limit):
    run = last_run()
    table = run['state']['active_'] if run is not None else None
    count = int(table['count_']) if run is not None else 0
    print(f'conditions: {count} raised')
    if not count:
        return
    warn_if_locked(run['state']['mutex_'], 'the table')
    for key, sent in itertools.islice(raised_conditions(table), limit):
        print(f'  {key}, last sent {utc(sent)}')
    if count > limit:
        print(f'  and {count - limit} more')


def show_sinks(_limit):
    sinks = variable('g_sinks', 'oxEventSinkSet.cpp')['object_']
    active = sinks['active']['_M_ptr']
    print('sinks:' if active else 'sinks: none')
    warn_if_locked(sinks['mutex'], 'the list')
    if not active:
        return
    vector = active.dereference()['sinks_']
    # A vector of unique_ptr, each of which has the size of a pointer.
    sink_type = vector.type.unqualified().strip_typedefs().template_argument(0).template_argument(0)
    ends = vector['_M_impl']
    pointers = ends['_M_start'].cast(sink_type.pointer().pointer())
    for i in range(int(ends['_M_finish'] - ends['_M_start'])):
        sink = pointers[i].dereference()
        name = ' '.join(filter(None, (sink['section_'].string(), string(sink['name_']))))
        failures = int(sink['stat_']['failures'])
        result = f'{failures} failures, the last: {string(sink["errors_"][failures % 2])}' if failures else 'no failure'
        print(f'  {name}: {result}')
        warn_if_locked(sink['mutex_'], 'this sink')


PARTS = {'counters': show_counters, 'queue': show_queue, 'conditions': show_conditions, 'sinks': show_sinks}


class Show(gdb.Command):
    """Show the state of oxEvent: oxevent [counters|queue [N]|conditions [N]|sinks]

Without an argument, shows a summary of everything. N: maximum number of entries to list (default 5)."""

    def __init__(self):
        super().__init__('oxevent', gdb.COMMAND_DATA)

    def complete(self, _text, word):
        return [part for part in PARTS if part.startswith(word or '')]

    def invoke(self, argument, _from_tty):
        part, limit = (argument.split() + [None, None])[:2]
        if part not in (None, *PARTS) or (limit and not limit.isdigit()) or len(argument.split()) > 2:
            fail(f"'{argument}' is none of " + ', '.join(PARTS) + ', nor one of them and a number')
        fail_if_replaced()
        for show in [PARTS[part]] if part else [show_state, *PARTS.values()]:
            try:
                show(int(limit or SUMMARY_LINES))
            except gdb.GdbError:
                raise
            except gdb.MemoryError as error:
                print(f'  the rest cannot be read: {error}')
            except Exception as error:
                fail(f'this script does not match the version of the library: {error}')


Show()
