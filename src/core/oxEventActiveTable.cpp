#include "core/oxEventActiveTable.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace {

constexpr size_t kLineSize = 64;
constexpr size_t kLeastSlots = 1024;    // 64 KiB: kept for the next conditions, however few are left.
constexpr uint8_t kMostLinesKept = 64;  // Of texts that have gone: 4 KiB.

// What follows the head of a block.
char* Bytes(auto* texts) { return reinterpret_cast<char*>(texts + 1); }
const char* Bytes(const auto* texts) { return reinterpret_cast<const char*>(texts + 1); }

}  // namespace

void oxEventActiveTable::PrefetchTexts(const Condition* condition) {
  const char* const begin = reinterpret_cast<const char*>(condition->texts);
  for (size_t i = 0; i < condition->texts_lines; ++i) __builtin_prefetch(begin + i * kLineSize);
}

oxEventActiveTable::Condition* oxEventActiveTable::Find(uint64_t hash, std::string_view key) const {
  if (slot_count_ == 0) return nullptr;
  for (size_t i = Home(hash); slots_[i].texts != nullptr; i = Next(i)) {
    if (slots_[i].hash == hash && HasKey(slots_[i], key)) return &slots_[i];
  }
  return nullptr;
}

std::string_view oxEventActiveTable::Signature(const Condition* condition) {
  const Texts* const texts = condition->texts;
  return {Bytes(texts) + texts->key_rest_size, texts->signature_size};
}

void oxEventActiveTable::Insert(uint64_t hash, std::string_view key, std::string_view signature,
                                uint64_t last_sent_ns) {
  if (count_ >= slot_count_ / 4 * 3 && !Resize(std::max(kLeastSlots, slot_count_ * 2))) throw std::bad_alloc();
  const std::string_view start = key.substr(0, Condition::kStartSize), rest = key.substr(start.size());
  Texts* const texts = TakeTexts(rest.size() + signature.size());
  Condition* const condition = FreeSlot(hash);
  SetTexts(condition, texts, rest, signature);
  condition->last_sent_ns = last_sent_ns;
  condition->hash = hash;
  condition->start_size = static_cast<uint8_t>(std::min(key.size(), Condition::kStartSize + 1));
  std::memcpy(condition->start, start.data(), start.size());
  ++count_;
}

void oxEventActiveTable::Update(Condition* condition, std::string_view signature, uint64_t last_sent_ns) {
  Texts* const texts = condition->texts;
  const std::string_view rest = KeyRest(texts);
  const size_t size = rest.size() + signature.size();
  const bool far_too_large = condition->texts_lines > kMostLinesKept && size <= texts->capacity / 2;
  if (size > texts->capacity || far_too_large) {
    SetTexts(condition, NewTexts(size), rest, signature);
    ::operator delete(texts);
  } else {
    SetSignature(texts, signature);
  }
  condition->last_sent_ns = last_sent_ns;
}

void oxEventActiveTable::Remove(Condition* condition) {
  Texts* const texts = condition->texts;
  const bool keep = spare_count_ < spare_.size() && condition->texts_lines <= kMostLinesKept;
  if (keep) PrefetchTexts(condition);
  // Each one that follows without a gap moves to the free slot, unless its search would then begin behind it.
  Condition* hole = condition;
  for (size_t i = Next(static_cast<size_t>(hole - slots_)); slots_[i].texts != nullptr; i = Next(i)) {
    const size_t from_home = (i - Home(slots_[i].hash)) & (slot_count_ - 1);
    const size_t from_hole = (i - static_cast<size_t>(hole - slots_)) & (slot_count_ - 1);
    if (from_home < from_hole) continue;
    *hole = slots_[i];
    hole = &slots_[i];
  }
  hole->texts = nullptr;
  --count_;
  if (keep) {
    spare_[spare_count_++] = texts;
  } else {
    ::operator delete(texts);
  }
  if (slot_count_ > kLeastSlots && count_ < slot_count_ / 4) Resize(slot_count_ / 2);  // If there is memory.
}

void oxEventActiveTable::Clear() {
  for (size_t i = 0; i < slot_count_; ++i) ::operator delete(slots_[i].texts);
  while (spare_count_ > 0) ::operator delete(spare_[--spare_count_]);
  memory_.reset();
  slots_ = nullptr;
  slot_count_ = count_ = 0;
}

oxEventActiveTable::Texts* oxEventActiveTable::NewTexts(size_t capacity) {
  constexpr size_t kStep = 16;  // Of the C library's blocks.
  capacity = (capacity + kStep - 1) / kStep * kStep;
  return new (::operator new(sizeof(Texts) + capacity)) Texts{capacity, 0, 0};
}

void oxEventActiveTable::SetTexts(Condition* condition, Texts* texts, std::string_view key_rest,
                                  std::string_view signature) {
  const size_t lines = (sizeof(Texts) + texts->capacity + kLineSize - 1) / kLineSize;
  condition->texts_lines = static_cast<uint8_t>(std::min<size_t>(lines, UINT8_MAX));
  condition->texts = texts;
  texts->key_rest_size = key_rest.size();
  std::memcpy(Bytes(texts), key_rest.data(), key_rest.size());
  SetSignature(texts, signature);
}

void oxEventActiveTable::SetSignature(Texts* texts, std::string_view signature) {
  texts->signature_size = signature.size();
  std::memcpy(Bytes(texts) + texts->key_rest_size, signature.data(), signature.size());
}

bool oxEventActiveTable::HasKey(const Condition& condition, std::string_view key) {
  if (condition.start_size != std::min(key.size(), Condition::kStartSize + 1)) return false;
  if (std::memcmp(condition.start, key.data(), std::min(key.size(), Condition::kStartSize)) != 0) return false;
  return key.size() <= Condition::kStartSize || key.substr(Condition::kStartSize) == KeyRest(condition.texts);
}

std::string_view oxEventActiveTable::KeyRest(const Texts* texts) { return {Bytes(texts), texts->key_rest_size}; }

oxEventActiveTable::Condition* oxEventActiveTable::FreeSlot(uint64_t hash) const {
  size_t i = Home(hash);
  while (slots_[i].texts != nullptr) i = Next(i);
  return &slots_[i];
}

// False: no memory.
bool oxEventActiveTable::Resize(size_t slot_count) {
  size_t size = (slot_count + 1) * sizeof(Condition);
  std::unique_ptr<char[]> memory(new (std::nothrow) char[size]);
  if (memory == nullptr) return false;
  void* aligned = memory.get();
  std::memset(aligned, 0, size);
  const size_t old_count = std::exchange(slot_count_, slot_count);
  const auto* const old = std::exchange(
      slots_, static_cast<Condition*>(std::align(alignof(Condition), slot_count * sizeof(Condition), aligned, size)));
  for (size_t i = 0; i < old_count; ++i) {
    if (old[i].texts != nullptr) *FreeSlot(old[i].hash) = old[i];
  }
  memory_ = std::move(memory);
  return true;
}

// A block that has become too small is replaced for good, so that all of them come to fit.
oxEventActiveTable::Texts* oxEventActiveTable::TakeTexts(size_t capacity) {
  Texts* const spare = spare_count_ > 0 ? spare_[spare_count_ - 1] : nullptr;
  Texts* const texts = spare != nullptr && spare->capacity >= capacity ? spare : NewTexts(capacity);
  if (spare == nullptr) return texts;
  --spare_count_;
  if (texts != spare) ::operator delete(spare);
  return texts;
}
