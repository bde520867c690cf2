#include "base/oxEventStat.h"

#include <atomic>
#include <cstddef>

// In the global namespace, because the note refers to the symbol by this name.
[[gnu::used, gnu::visibility("hidden")]] constinit oxEventStatBlock g_oxEventStat = {.magic = "oxEvent",
                                                                                     .version = kOxEventStatVersion};

// The offset is resolved when the library, or the program that contains it, is linked.
asm(R"(
.pushsection .note.oxevent, "a", %note
.balign 4
.4byte 2f - 1f, 4f - 3f, 1
1: .asciz "oxEvent"
2: .balign 4
3: .8byte g_oxEventStat - 3b
4: .balign 4
.popsection
)");

namespace {

void Store(uint64_t* word, uint64_t value) { std::atomic_ref(*word).store(value); }

// Sets the words, and makes the sequence odd meanwhile. In the child of a fork, the sequence is odd already if another
// thread of the parent was in this function.
void Publish(uint64_t* sequence, uint64_t* words, const uint64_t* values, size_t count) {
  const uint64_t odd = *sequence | 1;
  Store(sequence, odd);
  for (size_t i = 0; i < count; ++i) Store(&words[i], values[i]);
  Store(sequence, odd + 1);
}

}  // namespace

void oxEventStatPublishRun(const oxEventStatRun& run) {
  constexpr size_t kWords = sizeof(run) / sizeof(uint64_t);
  Publish(&g_oxEventStat.run_sequence, &g_oxEventStat.run.running, &run.running, kWords);
}

void oxEventStatPublishSinks(const oxEventStatSink* first) {
  const uint64_t address = oxEventStatAddress<oxEventStatSink>(first);
  Publish(&g_oxEventStat.sinks_sequence, &g_oxEventStat.first_sink, &address, 1);
}
