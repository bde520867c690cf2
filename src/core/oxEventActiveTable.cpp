#include "core/oxEventActiveTable.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <span>
#include <utility>

namespace {

constexpr size_t kLineSize = 64;
constexpr uint8_t kMaxLinesKept = 64;  // 4 KiB. A larger block is replaced if at most half of it is still needed.
// With evenly distributed hashes the directory has a few entries per segment. If it has many more, the hashes are not
// evenly distributed, and a segment that should split is filled further instead.
constexpr size_t kMaxEntriesPerSegment = 64;

// The bytes after the header of a block.
char* Bytes(auto* texts) { return reinterpret_cast<char*>(texts + 1); }
const char* Bytes(const auto* texts) { return reinterpret_cast<const char*>(texts + 1); }

}  // namespace

void oxEventActiveTable::Prefetch(uint64_t hash) const {
  if (directory_ != nullptr) __builtin_prefetch(&directory_[DirectoryIndex(hash)]->slots[Home(hash)]);
}

void oxEventActiveTable::PrefetchTexts(const Condition* condition) {
  const char* const begin = reinterpret_cast<const char*>(condition->texts);
  for (size_t i = 0; i < condition->texts_lines; ++i) __builtin_prefetch(begin + i * kLineSize);
}

oxEventActiveTable::Condition* oxEventActiveTable::Find(uint64_t hash, std::string_view key) const {
  if (directory_ == nullptr) return nullptr;
  Condition* const slots = directory_[DirectoryIndex(hash)]->slots;
  for (size_t i = Home(hash); slots[i].texts != nullptr; i = Next(i)) {
    if (slots[i].hash == hash && HasKey(slots[i], key)) return &slots[i];
  }
  return nullptr;
}

std::string_view oxEventActiveTable::Signature(const Condition* condition) {
  const Texts* const texts = condition->texts;
  return {Bytes(texts) + texts->key_rest_size, texts->signature_size};
}

void oxEventActiveTable::Insert(uint64_t hash, std::string_view key, std::string_view signature,
                                uint64_t last_sent_ns) {
  constexpr size_t kSplitAt = kSlots / 4 * 3;
  if (directory_ == nullptr && !CreateDirectory()) throw std::bad_alloc();
  if (directory_[DirectoryIndex(hash)]->count >= kSplitAt)
    Split(hash);  // If that fails, the segment is filled further.
  Segment* const segment = directory_[DirectoryIndex(hash)];
  if (segment->count == kSlots - 1) throw std::bad_alloc();  // A free slot must remain: it ends a search.
  const std::string_view start = key.substr(0, Condition::kStartSize), rest = key.substr(start.size());
  Texts* const texts = NewTexts(rest.size() + signature.size());
  Condition* const condition = FreeSlot(segment, hash);
  SetTexts(condition, texts, rest, signature);
  condition->last_sent_ns = last_sent_ns;
  condition->hash = hash;
  condition->start_size = static_cast<uint8_t>(std::min(key.size(), Condition::kStartSize + 1));
  std::memcpy(condition->start, start.data(), start.size());
  ++segment->count;
  ++count_;
}

void oxEventActiveTable::Update(Condition* condition, std::string_view signature, uint64_t last_sent_ns) {
  Texts* const texts = condition->texts;
  const std::string_view rest = KeyRest(texts);
  const size_t size = rest.size() + signature.size();
  const bool far_too_large = condition->texts_lines > kMaxLinesKept && size <= texts->capacity / 2;
  if (size > texts->capacity || far_too_large) {
    SetTexts(condition, NewTexts(size), rest, signature);
    FreeTexts(texts);
  } else {
    SetSignature(texts, signature);
  }
  condition->last_sent_ns = last_sent_ns;
}

void oxEventActiveTable::Remove(Condition* condition) {
  Texts* const texts = condition->texts;
  const uint64_t hash = condition->hash;
  Segment* const segment = directory_[DirectoryIndex(hash)];
  Condition* const slots = segment->slots;
  __builtin_prefetch(texts, 1);
  oxEventSlab::PrefetchForFree(texts);
  // Each condition that follows without a gap moves into the hole, unless its home slot comes after the hole.
  auto hole = static_cast<size_t>(condition - slots);
  for (size_t i = Next(hole); slots[i].texts != nullptr; i = Next(i)) {
    if (Distance(Home(slots[i].hash), i) < Distance(hole, i)) continue;
    slots[hole] = slots[i];
    hole = i;
  }
  slots[hole].texts = nullptr;
  --segment->count;
  --count_;
  FreeTexts(texts);
  while (Merge(hash)) continue;
}

void oxEventActiveTable::Clear() {
  for (size_t i = 0; directory_ != nullptr && i < size_t{1} << depth_;) {
    Segment* const segment = directory_[i];
    i += size_t{1} << (depth_ - segment->depth);
    for (const Condition& condition : segment->slots) {
      if (condition.texts != nullptr) FreeTexts(condition.texts);
    }
    FreeSegment(segment);
  }
  memory_.ReleaseEmptySpan();
  directory_.reset();
  depth_ = 0;
  count_ = 0;
}

bool oxEventActiveTable::HasKey(const Condition& condition, std::string_view key) {
  if (condition.start_size != std::min(key.size(), Condition::kStartSize + 1)) return false;
  if (std::memcmp(condition.start, key.data(), std::min(key.size(), Condition::kStartSize)) != 0) return false;
  return key.size() <= Condition::kStartSize || key.substr(Condition::kStartSize) == KeyRest(condition.texts);
}

std::string_view oxEventActiveTable::KeyRest(const Texts* texts) { return {Bytes(texts), texts->key_rest_size}; }

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

oxEventActiveTable::Texts* oxEventActiveTable::NewTexts(size_t capacity) {
  const size_t size = oxEventSlab::BlockSize(sizeof(Texts) + capacity);
  void* const memory = memory_.Allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return new (memory) Texts{size - sizeof(Texts), 0, 0};
}

void oxEventActiveTable::FreeTexts(Texts* texts) { memory_.Free(texts, sizeof(Texts) + texts->capacity); }

oxEventActiveTable::Condition* oxEventActiveTable::FreeSlot(Segment* segment, uint64_t hash) {
  size_t i = Home(hash);
  while (segment->slots[i].texts != nullptr) i = Next(i);
  return &segment->slots[i];
}

void oxEventActiveTable::MoveAll(const Segment& from, Segment* to) {
  for (const Condition& condition : from.slots) {
    if (condition.texts != nullptr) *FreeSlot(to, condition.hash) = condition;
  }
  to->count += from.count;
}

// Creates a directory with one empty segment. Returns false if there is no memory.
bool oxEventActiveTable::CreateDirectory() {
  std::unique_ptr<Segment*[]> directory(new (std::nothrow) Segment*[1]);
  if (directory == nullptr || (directory[0] = NewSegment(0)) == nullptr) return false;
  directory_ = std::move(directory);
  return true;
}

// Replaces the segment of this hash with two, which divide its conditions between them. Changes nothing if
// there is no memory or the directory may not grow.
void oxEventActiveTable::Split(uint64_t hash) {
  Segment* const old = directory_[DirectoryIndex(hash)];
  if (old->depth == depth_ && !DoubleDirectory()) return;
  const uint32_t depth = old->depth + 1;
  const uint64_t bit = uint64_t{1} << (64 - depth);
  Segment* const low = NewSegment(depth);
  Segment* const high = low != nullptr ? NewSegment(depth) : nullptr;
  if (high == nullptr) {
    if (low != nullptr) FreeSegment(low);
    HalveDirectory();
    return;
  }
  for (const Condition& condition : old->slots) {
    if (condition.texts == nullptr) continue;
    Segment* const segment = (condition.hash & bit) != 0 ? high : low;
    *FreeSlot(segment, condition.hash) = condition;
    ++segment->count;
  }
  SetEntries(hash & ~bit, low);
  SetEntries(hash | bit, high);
  FreeSegment(old);
}

// Returns false if there is no memory or the directory may not grow.
bool oxEventActiveTable::DoubleDirectory() {
  const size_t size = size_t{1} << depth_;
  if (depth_ == kMaxDepth || size >= kMaxEntriesPerSegment * segment_count_) return false;
  std::unique_ptr<Segment*[]> directory(new (std::nothrow) Segment*[2 * size]);
  if (directory == nullptr) return false;
  for (size_t i = 0; i < 2 * size; ++i) directory[i] = directory_[i / 2];
  directory_ = std::move(directory);
  ++depth_;
  return true;
}

// Merges the segment of this hash with its neighbor, if both have the same depth and few conditions. Returns whether
// it did.
bool oxEventActiveTable::Merge(uint64_t hash) {
  constexpr size_t kMergeBelow = kSlots / 4;
  Segment* const segment = directory_[DirectoryIndex(hash)];
  if (segment->count >= kMergeBelow || segment->depth == 0) return false;
  Segment* const neighbor = directory_[DirectoryIndex(hash ^ uint64_t{1} << (64 - segment->depth))];
  if (neighbor->depth != segment->depth || segment->count + neighbor->count >= kMergeBelow) return false;
  const bool keeps_segment = segment->count >= neighbor->count;
  Segment* const kept = keeps_segment ? segment : neighbor;
  Segment* const gone = keeps_segment ? neighbor : segment;
  MoveAll(*gone, kept);
  --segments_by_depth_[kept->depth];
  ++segments_by_depth_[--kept->depth];
  SetEntries(hash, kept);
  FreeSegment(gone);
  HalveDirectory();
  return true;
}

// Halves the directory while no segment needs the last bit of the index. If there is no memory for a smaller directory,
// keeps the larger block.
void oxEventActiveTable::HalveDirectory() {
  for (; depth_ > 0 && segments_by_depth_[depth_] == 0; --depth_) {
    const size_t size = size_t{1} << (depth_ - 1);
    std::unique_ptr<Segment*[]> directory(new (std::nothrow) Segment*[size]);
    Segment** const entries = directory != nullptr ? directory.get() : directory_.get();
    Segment** from = directory_.get();
    for (Segment*& entry : std::span(entries, size)) {
      entry = *from;
      from += 2;
    }
    if (directory != nullptr) directory_ = std::move(directory);
  }
}

// Returns null if there is no memory.
oxEventActiveTable::Segment* oxEventActiveTable::NewSegment(uint32_t depth) {
  void* const memory = memory_.Allocate(sizeof(Segment));
  if (memory == nullptr) return nullptr;
  auto* const segment = new (memory) Segment();
  segment->depth = depth;
  ++segment_count_;
  ++segments_by_depth_[depth];
  return segment;
}

// The caller has moved or freed the segment's conditions.
void oxEventActiveTable::FreeSegment(Segment* segment) {
  --segment_count_;
  --segments_by_depth_[segment->depth];
  memory_.Free(segment, sizeof(Segment));
}

// Sets all directory entries whose index starts with the first `segment->depth` bits of the hash.
void oxEventActiveTable::SetEntries(uint64_t hash, Segment* segment) {
  const size_t count = size_t{1} << (depth_ - segment->depth);
  const size_t first = DirectoryIndex(hash) & ~(count - 1);
  std::fill_n(&directory_[first], count, segment);
}
