#pragma once

#include <cstdint>

// Static trace points of the provider "oxevent", for bpftrace, gdb and similar tools (docs/inside.md). A trace point is
// a no-op instruction and an ELF note with its address and the locations of its arguments. The functions are always
// inlined, so that passing the arguments costs no instruction. Users' scripts rely on the order and the types of the
// arguments.

#if __has_include(<sys/sdt.h>)
#define SDT_USE_VARIADIC
#include <sys/sdt.h>
#define OX_TRACE(...) STAP_PROBEV(oxevent, __VA_ARGS__)
#else
#define OX_TRACE(...) static_cast<void>(0)
#endif

// oxEventSubmit or oxEventSubmitSimple is about to return. For an invalid record, event_id is 0 and the severity info.
[[gnu::always_inline]] inline void oxEventTraceSubmit([[maybe_unused]] uint64_t result,
                                                      [[maybe_unused]] uint64_t event_id,
                                                      [[maybe_unused]] uint64_t severity) {
  OX_TRACE(submit, result, event_id, severity);
}

// An event is being dropped. `reason` is an oxEventDrop, `reason_text` its text.
[[gnu::always_inline]] inline void oxEventTraceDrop([[maybe_unused]] uint64_t event_id,
                                                    [[maybe_unused]] uint64_t severity,
                                                    [[maybe_unused]] uint64_t reason,
                                                    [[maybe_unused]] const char* reason_text) {
  OX_TRACE(drop, event_id, severity, reason, reason_text);
}

// An event is about to be passed to the sinks. `action`: as decided by oxEventState.
[[gnu::always_inline]] inline void oxEventTraceEmit([[maybe_unused]] uint64_t event_id,
                                                    [[maybe_unused]] uint64_t severity,
                                                    [[maybe_unused]] const char* action) {
  OX_TRACE(emit, event_id, severity, action);
}

// A delivery to a sink, or a flush of it, has failed.
[[gnu::always_inline]] inline void oxEventTraceSinkFailure([[maybe_unused]] const char* section,
                                                           [[maybe_unused]] const char* name,
                                                           [[maybe_unused]] const char* error) {
  OX_TRACE(sink_failure, section, name, error);
}

// oxEventFlush is about to return.
[[gnu::always_inline]] inline void oxEventTraceFlush([[maybe_unused]] uint64_t result) { OX_TRACE(flush, result); }
