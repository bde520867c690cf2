#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "base/oxEventSipHash.h"
#include "base/oxEventSlab.h"
#include "base/oxEventStat.h"

// Hash table of the raised conditions by key. Designed for a million conditions, where cache misses dominate the time
// of a lookup: a slot is one cache line and contains the start of the key, usually all of it, so that a lookup usually
// takes one miss. Each condition has a block of memory for the rest of its key and for the signature of the last event
// that was sent for it.
//
// Extendible hashing: the high bits of the hash choose an entry of the directory, which points to a segment of slots,
// and the low bits choose the slot in it (linear probing; a removal leaves no tombstone). A segment that becomes three
// quarters full splits in two; two neighbors of the same depth merge if their conditions fill less than a quarter of
// one segment. The table therefore grows and shrinks by a few hundred slots at a time, and no event waits until the
// whole table is rehashed. Only the directory, one pointer or a few per segment, is copied as a whole when its size
// doubles or halves. Freed memory goes back to the system. Insert and Update throw std::bad_alloc, and change nothing,
// if there is no memory. Threads: one at a time.
class oxEventActiveTable {
 private:
  struct Texts;
  struct Segment;

 public:
  // A slot of the table. A pointer to it is valid until the next Insert, Remove or Clear.
  struct alignas(64) Condition {
    uint64_t last_sent_ns;

   private:
    friend class oxEventActiveTable;
    static constexpr size_t kStartSize = 38;
    uint64_t hash;        // Hash of the key.
    Texts* texts;         // Null if the slot is free.
    uint8_t texts_lines;  // Cache lines of the block, or 255 if there are more. Stored here to save a cache miss.
    uint8_t start_size;   // Bytes used in `start`, or kStartSize + 1 if the key continues in the block.
    char start[kStartSize];
  };

  oxEventActiveTable() = default;
  oxEventActiveTable(const oxEventActiveTable&) = delete;
  oxEventActiveTable& operator=(const oxEventActiveTable&) = delete;
  ~oxEventActiveTable() { Clear(); }

  // Hashes a condition's key with a random hash key, so that nobody can choose keys that all lead to one segment.
  uint64_t Hash(std::string_view key) const { return oxEventSipHash(hash_key_, key); }

  // Prefetches what Find reads.
  void Prefetch(uint64_t hash) const;
  // Prefetches what Signature and Update read.
  static void PrefetchTexts(const Condition* condition);

  // Returns null if the condition is not raised.
  Condition* Find(uint64_t hash, std::string_view key) const;

  static std::string_view Signature(const Condition* condition);

  // The key must not be in the table.
  void Insert(uint64_t hash, std::string_view key, std::string_view signature, uint64_t last_sent_ns);

  void Update(Condition* condition, std::string_view signature, uint64_t last_sent_ns);

  void Remove(Condition* condition);

  void AddStatAddresses(oxEventStatRun* stat) const { stat->conditions = oxEventStatAddress<uint64_t>(&count_); }

  // Removes all conditions and frees all memory.
  void Clear();

 private:
  struct Texts {
    size_t capacity;  // Bytes after this header, for the rest of the key and the signature.
    size_t key_rest_size;
    size_t signature_size;
  };

  static constexpr size_t kSegmentSize = size_t{32} * 1024;
  static constexpr size_t kSlots = kSegmentSize / sizeof(Condition) - 1;
  static constexpr uint32_t kMaxDepth = 32;

  // The conditions whose hashes start with the same `depth` bits.
  struct Segment {
    alignas(64) uint32_t count;
    uint32_t depth;
    Condition slots[kSlots];
  };
  static_assert(sizeof(Segment) == kSegmentSize);

  static bool HasKey(const Condition& condition, std::string_view key);
  static std::string_view KeyRest(const Texts* texts);
  static void SetTexts(Condition* condition, Texts* texts, std::string_view key_rest, std::string_view signature);
  static void SetSignature(Texts* texts, std::string_view signature);
  Texts* NewTexts(size_t capacity);
  void FreeTexts(Texts* texts);

  static size_t Home(uint64_t hash) { return static_cast<size_t>((hash & UINT32_MAX) * kSlots >> 32); }
  static size_t Next(size_t slot) { return slot + 1 != kSlots ? slot + 1 : 0; }
  static size_t Distance(size_t from, size_t to) { return to >= from ? to - from : to + kSlots - from; }
  static Condition* FreeSlot(Segment* segment, uint64_t hash);
  static void MoveAll(const Segment& from, Segment* to);

  // The index in the directory: the first depth_ bits of the hash.
  size_t DirectoryIndex(uint64_t hash) const { return static_cast<size_t>((hash >> 32) << depth_ >> 32); }
  bool CreateDirectory();
  void Split(uint64_t hash);
  bool DoubleDirectory();
  bool Merge(uint64_t hash);
  void HalveDirectory();
  Segment* NewSegment(uint32_t depth);
  void FreeSegment(Segment* segment);
  void SetEntries(uint64_t hash, Segment* segment);

  const oxEventSipKey hash_key_ = oxEventRandomSipKey();
  std::unique_ptr<Segment*[]> directory_;  // Null if there is no segment.
  uint32_t depth_ = 0;                     // The directory has 2^depth_ entries.
  size_t count_ = 0;                       // Number of conditions.
  size_t segment_count_ = 0;
  std::array<uint32_t, kMaxDepth + 1> segments_by_depth_ = {};
  oxEventSlab memory_;  // Owns the memory of segments and texts.
};
