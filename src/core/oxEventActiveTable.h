#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

// The raised conditions by their keys. Made for a million of them, where time goes by the misses of the caches: a slot
// is one cache line and holds the beginning of the key, mostly all of it, so that to find a condition takes one miss.
// The rest of the key, and the signature of the last event that went on, stand in a block of memory of the condition's
// own.
//
// Open addressing with linear probing: at most three quarters of the slots are taken, and a removal leaves no mark. The
// slots double and halve with the number of conditions. A call without memory throws and has changed nothing; Remove
// needs none. Threads: one at a time.
class oxEventActiveTable {
 private:
  struct Texts;

 public:
  // Valid until the next Insert or Remove.
  struct alignas(64) Condition {
    uint64_t last_sent_ns;

   private:
    friend class oxEventActiveTable;
    static constexpr size_t kStartSize = 38;
    uint64_t hash;        // Of the key.
    Texts* texts;         // Null: the slot is free.
    uint8_t texts_lines;  // Cache lines of the block, or 255 if more: known without a miss.
    uint8_t start_size;   // kStartSize + 1: the key goes on in the block.
    char start[kStartSize];
  };

  oxEventActiveTable() = default;
  oxEventActiveTable(const oxEventActiveTable&) = delete;
  oxEventActiveTable& operator=(const oxEventActiveTable&) = delete;
  ~oxEventActiveTable() { Clear(); }

  static uint64_t Hash(std::string_view key) { return std::hash<std::string_view>()(key); }

  // Begin to fetch what Find will look at, and what Signature and Update will.
  void Prefetch(uint64_t hash) const {
    if (slot_count_ != 0) __builtin_prefetch(&slots_[Home(hash)]);
  }
  static void PrefetchTexts(const Condition* condition);

  // Null: not raised.
  Condition* Find(uint64_t hash, std::string_view key) const;

  static std::string_view Signature(const Condition* condition);

  // The key is not in the table.
  void Insert(uint64_t hash, std::string_view key, std::string_view signature, uint64_t last_sent_ns);

  static void Update(Condition* condition, std::string_view signature, uint64_t last_sent_ns);

  void Remove(Condition* condition);

  // Gives all memory back.
  void Clear();

 private:
  struct Texts {
    size_t capacity;  // For what follows this: the rest of the key and the signature.
    size_t key_rest_size;
    size_t signature_size;
  };

  static Texts* NewTexts(size_t capacity);
  static void SetTexts(Condition* condition, Texts* texts, std::string_view key_rest, std::string_view signature);
  static void SetSignature(Texts* texts, std::string_view signature);
  static bool HasKey(const Condition& condition, std::string_view key);
  static std::string_view KeyRest(const Texts* texts);
  size_t Next(size_t slot) const { return (slot + 1) & (slot_count_ - 1); }
  size_t Home(uint64_t hash) const { return hash & (slot_count_ - 1); }
  Condition* FreeSlot(uint64_t hash) const;
  bool Resize(size_t slot_count);
  Texts* TakeTexts(size_t capacity);

  std::unique_ptr<char[]> memory_;  // Of the slots.
  Condition* slots_ = nullptr;
  size_t slot_count_ = 0;  // 0 or a power of two.
  size_t count_ = 0;       // Of the conditions.
  // Of removed conditions, for the next ones: at most 4 KiB each.
  std::array<Texts*, 256> spare_ = {};
  size_t spare_count_ = 0;
};
