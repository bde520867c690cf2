#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

// What another process, such as oxevent-stat, reads from this one while it runs: a block with the addresses of the
// counters, found by a note in the ELF file (owner "oxEvent", type 1), whose eight bytes are the offset from themselves
// to the block. A program header of type PT_NOTE covers the note, so a reader needs neither symbols nor section
// headers.
//
// The library changes the counters as if there were no reader. A reader must expect an object at an address to be freed
// at any time: it reads the sequence that guards the address, then the address, then the object, then the sequence
// again. If the sequence was odd or has changed, the reader must start again. Addresses are 0 if there is no object.
//
// Every change of the layout, of the counters' types and of the reasons for drops needs a new version.

constexpr uint64_t kOxEventStatVersion = 1;

// Addresses of the counters of the current run or, if there is none, of the last one. Each comment begins with the type
// of the object at the address.
struct oxEventStatRun {
  uint64_t running;  // uint64_t: 0 after a stop.
  // uint64_t. The number of submitted events is this number plus the drops that oxEventDropsBeforeQueue adds up.
  uint64_t enqueued;
  uint64_t emitted;                // uint64_t.
  uint64_t sink_failures;          // uint64_t.
  uint64_t sink_warnings;          // uint64_t.
  uint64_t drops;                  // uint64_t[], by oxEventDrop.
  uint64_t pending_debug_info;     // uint64_t: queued events below warning.
  uint64_t pending_warning_error;  // uint64_t: the other queued events.
  uint64_t conditions;             // uint64_t: the raised conditions.
  uint64_t capacity;               // uint32_t: of the queue.
  uint64_t active;                 // uint32_t: events in delivery.
};

struct oxEventStatText {
  uint64_t address;
  uint64_t size;  // Without a terminating NUL.
};

// An active sink. `failures` also guards its error texts.
struct oxEventStatSink {
  uint64_t next;            // Address of the next oxEventStatSink.
  oxEventStatText section;  // Section of the settings, such as sink\csv, or "callbacks".
  oxEventStatText name;
  uint64_t delivered;         // Events that the sink has accepted since the settings were loaded.
  uint64_t failures;          // Deliveries and flushes that have failed since the settings were loaded.
  oxEventStatText errors[2];  // The text of the last failure is errors[failures % 2].
};

struct oxEventStatBlock {
  char magic[8];  // "oxEvent"
  uint64_t version;
  uint64_t run_sequence = 0;    // Guards `run`.
  uint64_t sinks_sequence = 0;  // Guards `first_sink` and the list that begins there.
  oxEventStatRun run = {};
  uint64_t first_sink = 0;  // Address of an oxEventStatSink. 0 before initialization and after shutdown.
};

// Returns the address of a counter for the block. `Type`: the type as which a reader reads the counter.
template <class Type, class Counter>
uint64_t oxEventStatAddress(const Counter* counter) {
  constexpr size_t size = sizeof(Type);  // Named: clang-tidy calls a comparison of equal sizeofs redundant.
  static_assert(size == sizeof(Counter));
  return reinterpret_cast<uintptr_t>(counter);
}

inline oxEventStatText oxEventStatTextOf(std::string_view text) {
  return {reinterpret_cast<uintptr_t>(text.data()), text.size()};
}

// Publish the addresses of a new run or of new sinks. An empty run or a null pointer publishes that there is none. Call
// each function before the old objects are freed; in the child of a fork, publish that there is none. Threads: one at a
// time for each of the two functions.
void oxEventStatPublishRun(const oxEventStatRun& run);
void oxEventStatPublishSinks(const oxEventStatSink* first);
