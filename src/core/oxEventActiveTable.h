#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "base/oxEventSipHash.h"
#include "base/oxEventSlab.h"

// The raised conditions by their keys. Designed for a million of them, where cache misses dominate the time of a
// lookup: a slot is one cache line and holds the beginning of the key, mostly all of it, so that finding a condition
// takes one miss. The rest of the key, and the signature of the last event that went on, stand in a block of memory of
// the condition's own.
//
// Extendible hashing: the high bits of the hash choose an entry of the directory, which points to a segment of slots,
// and the low bits choose the slot in it (linear probing; a removal leaves no mark). A segment that becomes three
// quarters full splits in two, two neighbours that together are less than a quarter full merge. So the table grows and
// shrinks by some hundred slots at a time, and no event waits for more. Memory goes back to the system. A call without
// memory throws and has changed nothing; Remove needs none. Threads: one at a time.
class oxEventActiveTable {
 private:
  struct Texts;
  struct Segment;

 public:
  // Valid until the next Insert or Remove.
  struct alignas(64) Condition {
    uint64_t last_sent_ns;

   private:
    friend class oxEventActiveTable;
    static constexpr size_t kStartSize = 38;
    uint64_t hash;        // Hash of the key.
    Texts* texts;         // Null: the slot is free.
    uint8_t texts_lines;  // Cache lines of the block, or 255 if more: known without a miss.
    uint8_t start_size;   // kStartSize + 1: the key goes on in the block.
    char start[kStartSize];
  };

  oxEventActiveTable() = default;
  oxEventActiveTable(const oxEventActiveTable&) = delete;
  oxEventActiveTable& operator=(const oxEventActiveTable&) = delete;
  ~oxEventActiveTable() { Clear(); }

  // Keyed, so that nobody can choose keys of one segment.
  uint64_t Hash(std::string_view key) const { return oxEventSipHash(hash_key_, key); }

  // Begin to fetch what Find will look at, and what Signature and Update will.
  void Prefetch(uint64_t hash) const;
  static void PrefetchTexts(const Condition* condition);

  // Null: not raised.
  Condition* Find(uint64_t hash, std::string_view key) const;

  static std::string_view Signature(const Condition* condition);

  // The key is not in the table.
  void Insert(uint64_t hash, std::string_view key, std::string_view signature, uint64_t last_sent_ns);

  void Update(Condition* condition, std::string_view signature, uint64_t last_sent_ns);

  void Remove(Condition* condition);

  // Gives all memory back.
  void Clear();

 private:
  struct Texts {
    size_t capacity;  // For what follows this: the rest of the key and the signature.
    size_t key_rest_size;
    size_t signature_size;
  };

  static constexpr size_t kSegmentSize = size_t{32} * 1024;
  static constexpr size_t kSlots = kSegmentSize / sizeof(Condition) - 1;
  static constexpr uint32_t kDeepest = 32;

  // Its conditions share the first `depth` bits of their hashes.
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

  // The directory's entry: the first depth_ bits of the hash.
  size_t Entry(uint64_t hash) const { return static_cast<size_t>((hash >> 32) << depth_ >> 32); }
  bool CreateDirectory();
  bool Split(uint64_t hash);
  bool DoubleDirectory();
  bool Merge(uint64_t hash);
  void HalveDirectory();
  Segment* NewSegment(uint32_t depth);
  void FreeSegment(Segment* segment);
  void SetEntries(uint64_t hash, Segment* segment);

  const oxEventSipKey hash_key_ = oxEventRandomSipKey();
  std::unique_ptr<Segment*[]> directory_;  // Null: there is no segment.
  uint32_t depth_ = 0;                     // The directory has 2^depth_ entries.
  size_t count_ = 0;                       // Number of conditions.
  size_t segment_count_ = 0;
  std::array<uint32_t, kDeepest + 1> segments_by_depth_ = {};
  oxEventSlab memory_;  // Owns the memory of segments and texts.
};
