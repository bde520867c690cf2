#pragma once

#include <cstdint>

// Static trace points of the provider "oxevent", for bpftrace, gdb and the like (docs/inside.md): an instruction that
// does nothing, and a note in the file of where it is and where its arguments are. Always inlined, so that the
// arguments are not even moved for it. Their order and types are what scripts of others rely on.

#if __has_include(<sys/sdt.h>)
#define SDT_USE_VARIADIC
#include <sys/sdt.h>
#define OX_TRACE(...) STAP_PROBEV(oxevent, __VA_ARGS__)
#else
#define OX_TRACE(...) static_cast<void>(0)
#endif

// A call of Submit is over. A record that is refused has the id 0.
[[gnu::always_inline]] inline void oxEventTraceSubmit([[maybe_unused]] uint64_t result,
                                                      [[maybe_unused]] uint64_t event_id,
                                                      [[maybe_unused]] uint64_t severity) {
  OX_TRACE(submit, result, event_id, severity);
}

// An event will not reach the sinks. `reason`: an oxEventDrop, and its text.
[[gnu::always_inline]] inline void oxEventTraceDrop([[maybe_unused]] uint64_t event_id,
                                                    [[maybe_unused]] uint64_t severity,
                                                    [[maybe_unused]] uint64_t reason,
                                                    [[maybe_unused]] const char* reason_text) {
  OX_TRACE(drop, event_id, severity, reason, reason_text);
}

// An event goes to the sinks, with the action that the state has given it.
[[gnu::always_inline]] inline void oxEventTraceEmit([[maybe_unused]] uint64_t event_id,
                                                    [[maybe_unused]] uint64_t severity,
                                                    [[maybe_unused]] const char* action) {
  OX_TRACE(emit, event_id, severity, action);
}

// A delivery or a flush of a sink has failed.
[[gnu::always_inline]] inline void oxEventTraceSinkFailure([[maybe_unused]] const char* section,
                                                           [[maybe_unused]] const char* name,
                                                           [[maybe_unused]] const char* error) {
  OX_TRACE(sink_failure, section, name, error);
}

// A call of Flush is over.
[[gnu::always_inline]] inline void oxEventTraceFlush([[maybe_unused]] uint64_t result) { OX_TRACE(flush, result); }
