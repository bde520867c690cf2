#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

// What another process, such as oxevent-stat, reads of this one while it runs: a block with the addresses of the
// counters, found by a note in the ELF file (SHT_NOTE, owner "oxEvent", type 1), whose eight bytes are the offset from
// themselves to the block. The note is in the program headers' PT_NOTE, so it needs neither symbols nor section
// headers.
//
// The library changes the counters as if there were no reader. A reader must expect an object at an address to be freed
// at any time: it reads the sequence that guards the address, then the address, then the object, then the sequence
// again. If the sequence was odd or has changed, it must start again. Addresses are 0 if there is no object.
//
// Every change of the layout, of the counters' types and of the reasons for drops needs a new version.

constexpr uint64_t kOxEventStatVersion = 1;

// Addresses of the counters of the current run or, if there is none, of the last one.
struct oxEventStatRun {
  uint64_t running;  // uint64_t: 0 after a stop.
  // uint64_t. The number of submitted events is that of the enqueued ones and of the drops that
  // oxEventDropsBeforeQueue adds up.
  uint64_t enqueued;
  uint64_t emitted;
  uint64_t sink_failures;
  uint64_t sink_warnings;
  uint64_t drops;                  // uint64_t[], by oxEventDrop.
  uint64_t pending_debug_info;     // uint64_t. The number of pending events is the sum of this and the next.
  uint64_t pending_warning_error;  // uint64_t.
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
  uint64_t failures;          // Deliveries and flushes that have failed since then.
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

// Returns the address of a counter for the block. `Type`: what the reader takes the counter for.
template <class Type, class Counter>
uint64_t oxEventStatAddress(const Counter* counter) {
  constexpr size_t size = sizeof(Type);  // With a name, because clang-tidy takes two equal sizes for one expression.
  static_assert(size == sizeof(Counter));
  return reinterpret_cast<uintptr_t>(counter);
}

inline oxEventStatText oxEventStatTextOf(std::string_view text) {
  return {reinterpret_cast<uintptr_t>(text.data()), text.size()};
}

// Publish new addresses, or none: a run without addresses, a null pointer. Call before the old objects are freed, and
// in the child of a fork with none. Threads: one at a time for each of the two functions.
void oxEventStatPublishRun(const oxEventStatRun& run);
void oxEventStatPublishSinks(const oxEventStatSink* first);
