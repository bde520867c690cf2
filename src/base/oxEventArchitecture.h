#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

// All code for particular processor architectures. Elsewhere, only the byte order matters (oxEventNumber.cpp and
// oxEventSipHash.h). On other processors, the library works too, but compares bytes with the compiler's generic vector
// code, spins without a pause, and leaves the exception state where the loader places it (see the last function).

// The result of comparing 16 bytes with one value or several: each byte is 0xFF for a match, otherwise 0.
using oxEventByteMatches __attribute__((vector_size(16))) = unsigned char;
// The same 16 bytes as two words, in the order in which memory holds them.
using oxEventWordPair __attribute__((vector_size(16))) = uint64_t;

// Returns the index of the first match; 16 or more if there is none. For any architecture, of either byte order.
inline size_t oxEventFirstMatchPortable(oxEventByteMatches matches) {
  const auto words = std::bit_cast<oxEventWordPair>(matches);
  const auto bytes_before_match = [](uint64_t word) {
    const int bits = std::endian::native == std::endian::little ? std::countr_zero(word) : std::countl_zero(word);
    return static_cast<size_t>(bits) / 8;
  };
  return words[0] != 0 ? bytes_before_match(words[0]) : sizeof(words[0]) + bytes_before_match(words[1]);
}

inline size_t oxEventFirstMatch(oxEventByteMatches matches) {
#if defined(__SSE2__)
  // One instruction for all 16 bytes. Elsewhere, no single instruction is faster than testing two words.
  const int found = _mm_movemask_epi8(std::bit_cast<__m128i>(matches));
  return static_cast<size_t>(std::countr_zero(static_cast<unsigned>(found)));
#else
  return oxEventFirstMatchPortable(matches);
#endif
}

inline bool oxEventHasMatch(oxEventByteMatches matches) {
#if defined(__SSE2__)
  return _mm_movemask_epi8(std::bit_cast<__m128i>(matches)) != 0;
#else
  const auto words = std::bit_cast<oxEventWordPair>(matches);
  return (words[0] | words[1]) != 0;
#endif
}

// Tells the processor that the calling thread waits in a loop for another thread.
inline void oxEventSpinPause() {
#if defined(__x86_64__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("isb");  // Takes about ten nanoseconds; "yield" does nothing on most processors.
#endif
}

// The C++ runtime keeps a thread's exception state in thread-local storage. If a C host has loaded the runtime through
// dlopen, a thread allocates that storage at its first exception, and if there is no memory, the C library ends the
// process. A TLS descriptor for a variable in that storage makes the loader place the storage in the static TLS block,
// which every thread has from its start. If the loader cannot do so, for example because the runtime is already in use,
// dlopen succeeds nevertheless; with an initial-exec reference it would fail. It suffices that the library contains the
// reference: this function computes nothing.
inline void oxEventPlaceExceptionStateInStaticTls() {
#if defined(__GLIBCXX__) && defined(__x86_64__)
  void* descriptor;
  asm volatile("leaq _ZSt15__once_callable@TLSDESC(%%rip), %%rax" : "=a"(descriptor));
#elif defined(__GLIBCXX__) && defined(__aarch64__)
  void* descriptor;
  asm volatile("adrp %0, :tlsdesc:_ZSt15__once_callable" : "=r"(descriptor));
#endif
}
