#pragma once

#include <sys/auxv.h>
#include <sys/random.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>

// SipHash (Aumasson and Bernstein, 2012): a hash for which nobody can construct collisions without the key, so that
// strings chosen by an attacker are distributed as evenly as any others. The default is SipHash-1-3, which is common in
// hash tables.
struct oxEventSipKey {
  uint64_t low;
  uint64_t high;
};

// Returns a random key for a hash table. Never waits: early during boot, or if a sandbox forbids getrandom, uses the 16
// random bytes that the kernel gives every program at its start (AT_RANDOM). They are as secret as the stack guard,
// which the C library derives from them, but are the same for every table of the process.
inline oxEventSipKey oxEventRandomSipKey() {
  oxEventSipKey key = {};
  if (getrandom(&key, sizeof(key), GRND_NONBLOCK) == static_cast<ssize_t>(sizeof(key))) return key;
  const auto* const program_bytes =
      reinterpret_cast<const void*>(getauxval(AT_RANDOM));  // NOLINT(performance-no-int-to-ptr)
  if (program_bytes != nullptr) std::memcpy(&key, program_bytes, sizeof(key));
  return key;
}

// The state of the algorithm, under the names that its authors use.
struct oxEventSipState {
  explicit oxEventSipState(const oxEventSipKey& key)
      : v0(key.low ^ 0x736f6d6570736575),
        v1(key.high ^ 0x646f72616e646f6d),
        v2(key.low ^ 0x6c7967656e657261),
        v3(key.high ^ 0x7465646279746573) {}

  void Mix(int rounds) {
    for (int i = 0; i < rounds; ++i) {
      v0 += v1;
      v2 += v3;
      v1 = std::rotl(v1, 13) ^ v0;
      v3 = std::rotl(v3, 16) ^ v2;
      v0 = std::rotl(v0, 32);
      v2 += v1;
      v0 += v3;
      v1 = std::rotl(v1, 17) ^ v2;
      v3 = std::rotl(v3, 21) ^ v0;
      v2 = std::rotl(v2, 32);
    }
  }

  uint64_t v0, v1, v2, v3;
};

template <int kRoundsPerWord = 1, int kFinalRounds = 3>
inline uint64_t oxEventSipHash(const oxEventSipKey& key, std::string_view text) {
  constexpr size_t kWord = sizeof(uint64_t);
  oxEventSipState state(key);
  const auto absorb = [&state](uint64_t word) {
    state.v3 ^= word;
    state.Mix(kRoundsPerWord);
    state.v0 ^= word;
  };
  const auto word_at = [](const char* at) {  // Little-endian.
    uint64_t word = 0;
    std::memcpy(&word, at, kWord);
    return std::endian::native == std::endian::little ? word : __builtin_bswap64(word);
  };
  const char* at = text.data();
  const size_t rest = text.size() % kWord;
  const char* const end = at + (text.size() - rest);
  for (; at != end; at += kWord) absorb(word_at(at));
  uint64_t last = static_cast<uint64_t>(text.size()) << 56;
  if (rest != 0 && text.size() > kWord) {
    last |= word_at(at + rest - kWord) >> (8 * (kWord - rest));  // Overlaps the previous word.
  } else {
    for (size_t i = 0; i < rest; ++i) last |= uint64_t{static_cast<unsigned char>(at[i])} << (8 * i);
  }
  absorb(last);
  state.v2 ^= 0xFF;
  state.Mix(kFinalRounds);
  return state.v0 ^ state.v1 ^ state.v2 ^ state.v3;
}
