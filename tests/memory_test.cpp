// Where the memory of the queue and of the conditions comes from, and the table that is kept in it.
#include <malloc.h>

#include <atomic>
#include <cstring>
#include <random>

#include "base/oxEventSipHash.h"
#include "base/oxEventSlab.h"
#include "core/oxEventActiveTable.h"
#include "faults.h"
#include "host_fixture.h"

namespace {

// Counts the calls of munmap while it exists. A sanitizer's own calls count too.
struct UnmapCounter {
  std::atomic<int> count = 0;
  const Faults faults{[this](std::string_view call, long) {
    count += call == "munmap";
    return 0;  // Lets the call through.
  }};
};

// Expected values: the reference implementation's vectors for 2-4; for 1-3 the algorithm's description, computed by
// hand in another language.
TEST(oxEventSipHash, GivesThePublishedValues) {
  const struct {
    size_t size;
    uint64_t sip_2_4;
    uint64_t sip_1_3;
  } cases[] = {{0, 0x726fdb47dd0e0e31, 0xabac0158050fc4dc},  {7, 0xab0200f58b01d137, 0xd3927d989bb11140},
               {8, 0x93f5f5799a932462, 0x369095118d299a8e},  {9, 0x9e0082df0ba9e4b0, 0x25a48eb36c063de4},
               {15, 0xa129ca6149be45e5, 0xd320d86d2a519956}, {63, 0x958a324ceb064572, 0x9d199062b7bbb3a8}};
  const oxEventSipKey key = {0x0706050403020100, 0x0f0e0d0c0b0a0908};
  std::string bytes;
  for (char c = 0; c < 64; ++c) bytes.push_back(c);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.size);
    const std::string_view text(bytes.data(), c.size);
    EXPECT_EQ((oxEventSipHash<2, 4>(key, text)), c.sip_2_4);
    EXPECT_EQ(oxEventSipHash(key, text), c.sip_1_3);
  }
}

TEST(oxEventSipHash, HasAKeyWithoutGetrandom) {
  const Faults faults([](std::string_view call, long) { return call == "getrandom" ? ENOSYS : 0; });
  const oxEventSipKey key = oxEventRandomSipKey();
  EXPECT_NE(key.low, 0u);
  EXPECT_NE(key.high, 0u);
}

TEST(oxEventActiveTable, HashesEachByAKeyOfItsOwn) {
  const oxEventActiveTable table, other;
  EXPECT_NE(table.Hash("fan 2"), other.Hash("fan 2"));
}

TEST(oxEventSlab, KeepsBlocksApartAndGivesTheirMemoryBack) {
  std::mt19937 random(1);
  std::vector<std::pair<char*, size_t>> blocks;
  oxEventSlab slab;
  for (int i = 0; i < 20'000; ++i) {
    const size_t limit = random() % 16 == 0 ? 40'000 : 600;
    const size_t size = 1 + random() % limit;
    char* const bytes = static_cast<char*>(slab.Allocate(size));
    ASSERT_NE(bytes, nullptr);
    std::memset(bytes, static_cast<char>(size), size);
    blocks.emplace_back(bytes, size);
    std::swap(blocks.back(), blocks[random() % blocks.size()]);
    for (bool shrinks = i % 8000 >= 4000; shrinks && blocks.size() > 100; shrinks = random() % 2 == 0) {
      const auto [freed, freed_size] = blocks.back();
      ASSERT_EQ(std::count(freed, freed + freed_size, static_cast<char>(freed_size)), static_cast<long>(freed_size));
      slab.Free(freed, freed_size);
      blocks.pop_back();
    }
  }
  const UnmapCounter unmapped;
  for (const auto& [bytes, size] : blocks) slab.Free(bytes, size);
#ifndef OXEVENT_SANITIZED
  EXPECT_GT(unmapped.count, 20);
  const int before = unmapped.count;
  slab.ReleaseEmptySpan();
  EXPECT_EQ(unmapped.count, before + 1);  // All others are gone.
#endif
}

// The kernel refuses to unmap when a process has too many mappings.
TEST(oxEventSlab, ReusesPagesThatCannotBeUnmapped) {
  constexpr size_t kBlockSize = 32'768;  // Seven of them to a span.
  std::atomic<int> mapped = 0;
  const Faults faults([&](std::string_view call, long) {
    mapped += call == "mmap";
    return call == "munmap" ? ENOMEM : 0;
  });
  oxEventSlab slab;
  for (const int expected_mappings : {2, 0}) {
    mapped = 0;
    void* blocks[14];
    for (void*& block : blocks) block = slab.Allocate(kBlockSize);
    for (void* const block : blocks) slab.Free(block, kBlockSize);
    EXPECT_LE(mapped, 2 * expected_mappings);  // Twice: a mapping that is not aligned is made again.
  }
}

// However many conditions there are, a step allocates or frees at most three spans, each with up to four calls of mmap
// and munmap. The largest block of malloc is the directory.
TEST(oxEventActiveTable, GrowsAndShrinksInSteps) {
  oxEventActiveTable table;
  for (int i = 0; i < 120'000; ++i) {
    const std::string key = std::to_string(i % 60'000);
    const uint64_t hash = table.Hash(key);
    oxEventActiveTable::Condition* const found = table.Find(hash, key);
    ASSERT_EQ(found != nullptr, i >= 60'000);
    std::atomic<int> mappings = 0;
    std::atomic<long> largest = 0;
    const Faults faults([&](std::string_view call, long size) {
      if (call == "malloc") largest = std::max(largest.load(), size);
      mappings += call == "mmap" || call == "munmap";
      return 0;
    });
    if (found == nullptr) table.Insert(hash, key, "signature", 1);
    if (found != nullptr) table.Remove(found);
    ASSERT_LE(mappings, 12);
    ASSERT_LE(largest, 16 * 1024);
  }
  for (int i = 0; i < 10'000; ++i) table.Insert(table.Hash(std::to_string(i)), std::to_string(i), "signature", 1);
  const UnmapCounter unmapped;
  table.Clear();
#ifndef OXEVENT_SANITIZED
  EXPECT_GT(unmapped.count, 5);
#endif
}

// A call without memory changes nothing; Remove needs none.
TEST(oxEventActiveTable, KeepsEveryConditionWhileMemoryIsScarce) {
  oxEventActiveTable table;
  std::vector<bool> raised(20'000);
  {
    std::mt19937 random(1);
    const Faults faults([&](std::string_view call, long) {
      return (call == "mmap" || call == "malloc") && random() % 2 == 0 ? ENOMEM : 0;
    });
    for (size_t i = 0; i < raised.size(); ++i) {
      const std::string key = std::to_string(i);
      try {
        table.Insert(table.Hash(key), key, "signature", 1);
        raised[i] = true;
      } catch (const std::bad_alloc&) {
      }
    }
    EXPECT_GT(std::count(raised.begin(), raised.end(), true), 10'000);
    for (size_t i = 0; i < raised.size(); ++i) {
      const std::string key = std::to_string(i);
      oxEventActiveTable::Condition* const found = table.Find(table.Hash(key), key);
      ASSERT_EQ(found != nullptr, raised[i]) << key;
      if (i % 10 != 0 && found != nullptr) table.Remove(found);
    }
  }
  for (size_t i = 0; i < raised.size(); i += 10) {
    const std::string key = std::to_string(i);
    ASSERT_EQ(table.Find(table.Hash(key), key) != nullptr, raised[i]) << key;
  }
}

TEST(oxEventActiveTable, GivesBackTheMemoryOfALongSignature) {
  oxEventActiveTable table;
  table.Insert(1, "key", std::string(1 << 20, 's'), 1);
  const auto bytes_in_use = [] { return mallinfo2().uordblks + mallinfo2().hblkhd; };
  [[maybe_unused]] const size_t before = bytes_in_use();
  table.Update(table.Find(1, "key"), "short", 2);
  EXPECT_EQ(table.Signature(table.Find(1, "key")), "short");
#ifndef OXEVENT_SANITIZED
  EXPECT_LE(bytes_in_use() + (1 << 20), before);
#endif
}

TEST(oxEventActiveTable, RefusesWhatASegmentOfEqualHashesCannotHold) {
  oxEventActiveTable table;
  const auto key = [](int number) {
    return std::string(static_cast<size_t>(number % 2 * 60), 'k') + std::to_string(number);
  };
  int count = 0;
  EXPECT_THROW(for (; count < 100'000; ++count) table.Insert(1, key(count), "signature", 1), std::bad_alloc);
  EXPECT_GT(count, 300);
  table.Insert(~0ull, "other", "signature", 1);
  EXPECT_EQ(table.Find(1, "another key of that hash"), nullptr);
  for (int i = count; i-- > 0;) {  // The last is found behind all others.
    oxEventActiveTable::Condition* const condition = table.Find(1, key(i));
    ASSERT_NE(condition, nullptr) << i;
    table.Remove(condition);
  }
  EXPECT_NE(table.Find(~0ull, "other"), nullptr);
}

}  // namespace
