// Where the memory of the queue and of the conditions comes from, and the table that is kept in it.
#include <atomic>
#include <cstring>
#include <random>

#include "base/oxEventSipHash.h"
#include "base/oxEventSlab.h"
#include "core/oxEventActiveTable.h"
#include "faults.h"
#include "host_fixture.h"

namespace {

// Expected values: the reference implementation's vectors for 2-4; for 1-3 the algorithm's description, computed by
// hand in another language.
TEST(oxEventSipHash, GivesThePublishedValues) {
  const struct {
    size_t size;
    uint64_t sip_2_4;
    uint64_t sip_1_3;
  } cases[] = {{0, 0x726fdb47dd0e0e31, 0xabac0158050fc4dc},  {1, 0x74f839c593dc67fd, 0xc9f49bf37d57ca93},
               {7, 0xab0200f58b01d137, 0xd3927d989bb11140},  {8, 0x93f5f5799a932462, 0x369095118d299a8e},
               {9, 0x9e0082df0ba9e4b0, 0x25a48eb36c063de4},  {15, 0xa129ca6149be45e5, 0xd320d86d2a519956},
               {16, 0x3f2acc7f57c29bdb, 0xcc4fdd1a7d908b66}, {63, 0x958a324ceb064572, 0x9d199062b7bbb3a8}};
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
  const oxEventActiveTable tables[2];
  EXPECT_NE(tables[0].Hash("fan 2"), tables[1].Hash("fan 2"));
}

// Counts the mappings that are made and given back, and lets those of one kind fail.
struct Mappings {
  std::atomic<int> made = 0;
  std::atomic<int> given_back = 0;
  std::string failing;
  const Faults faults{[this](std::string_view call, long) {
    made += call == "mmap";
    given_back += call == "munmap";
    return call == failing ? ENOMEM : 0;
  }};
};

TEST(oxEventSlab, KeepsBlocksApartAndGivesTheirMemoryBack) {
  struct Block {
    unsigned char* bytes;
    size_t size;
    unsigned char value;
  };
  std::mt19937 random(1);
  std::vector<Block> blocks;
  oxEventSlab slab;
  Mappings mappings;
  const auto free_one = [&](size_t i) {
    std::swap(blocks[i], blocks.back());
    const Block block = blocks.back();
    blocks.pop_back();
    for (size_t j = 0; j < block.size; ++j) ASSERT_EQ(block.bytes[j], block.value) << block.size;
    slab.Free(block.bytes, block.size);
  };
  for (int i = 0; i < 20'000; ++i) {
    if (!blocks.empty() && random() % 16 < (i % 8000 < 4000 ? 4u : 12u)) {
      free_one(random() % blocks.size());
      continue;
    }
    const size_t limit = random() % 16 == 0 ? 40'000 : 600;
    const size_t size = 1 + random() % limit;
    auto* const bytes = static_cast<unsigned char*>(slab.Allocate(size));
    ASSERT_NE(bytes, nullptr);
    ASSERT_GE(oxEventSlab::BlockSize(size), size);
    ASSERT_EQ(reinterpret_cast<uintptr_t>(bytes) % (size > 32768 ? 16 : 32), 0u);
    blocks.push_back({bytes, size, static_cast<unsigned char>(i)});
    std::memset(bytes, i & 0xFF, size);
  }
  while (!blocks.empty()) free_one(0);
  const int before = mappings.given_back;
  slab.ReleaseEmptySpan();
  EXPECT_EQ(mappings.given_back, before + 1);  // All others are gone already.
}

TEST(oxEventSlab, UsesItsLastSpanAgain) {
  oxEventSlab slab;
  Mappings mappings;
  slab.Free(slab.Allocate(100), 100);
  const int made = mappings.made;
  EXPECT_GE(made, 1);
  for (const size_t size : {100u, 200u, 30'000u, 100u}) slab.Free(slab.Allocate(size), size);
  EXPECT_EQ(mappings.made, made);
}

TEST(oxEventPages, GivesTheMemoryBackWhereItCannotBeUnmapped) {
  constexpr size_t kSize = size_t{256} * 1024;
  oxEventPages pages(kSize);
  auto* const chunk = static_cast<unsigned char*>(pages.Allocate());
  ASSERT_NE(chunk, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(chunk) % kSize, 0u);
  std::memset(chunk, 1, kSize);
  Mappings mappings;
  mappings.failing = "munmap";
  pages.Free(chunk);
  auto* const again = static_cast<unsigned char*>(pages.Allocate());
  EXPECT_EQ(again, chunk);
  EXPECT_EQ(std::count(again, again + kSize, 0), static_cast<ptrdiff_t>(kSize));
  mappings.failing.clear();
  pages.Free(again);
}

// Whatever the number of conditions, one of them costs at most the memory of a few segments.
TEST(oxEventActiveTable, GrowsAndShrinksInSteps) {
  constexpr int kConditions = 60'000;
  std::atomic<long> largest = 0;
  oxEventActiveTable table;
  int most_mappings = 0;
  const auto insert_or_remove = [&](int number, bool insert) {
    const std::string key = "condition " + std::to_string(number);
    const uint64_t hash = table.Hash(key);
    std::atomic<int> mappings = 0;
    const Faults faults([&](std::string_view call, long size) {
      if (call == "malloc") largest = std::max(largest.load(), size);
      mappings += call == "mmap" || call == "munmap";
      return 0;
    });
    oxEventActiveTable::Condition* const found = table.Find(hash, key);
    ASSERT_EQ(found == nullptr, insert) << number;
    insert ? table.Insert(hash, key, "signature", 1) : table.Remove(found);
    most_mappings = std::max(most_mappings, mappings.load());
  };
  for (int i = 0; i < kConditions; ++i) insert_or_remove(i, true);
  for (int i = 0; i < kConditions; ++i) insert_or_remove(i, false);
  EXPECT_LE(largest, 16 * 1024);  // The directory.
  EXPECT_LE(most_mappings, 12);   // Three spans at most, each aligned by up to four calls.
}

TEST(oxEventActiveTable, RefusesWhatASegmentOfEqualHashesCannotHold) {
  constexpr uint64_t kEqual = 0x123456789abcdef0;
  oxEventActiveTable table;
  std::vector<std::string> keys;
  try {
    for (int i = 0; i < 100'000; ++i) {
      const std::string key = std::to_string(i);
      table.Insert(kEqual, key, "signature", 1);
      keys.push_back(key);
    }
  } catch (const std::bad_alloc&) {
  }
  EXPECT_GT(keys.size(), 300u);
  EXPECT_LT(keys.size(), 1000u);
  table.Insert(~kEqual, "other", "signature", 1);
  EXPECT_NE(table.Find(~kEqual, "other"), nullptr);
  for (const std::string& key : keys) {
    oxEventActiveTable::Condition* const condition = table.Find(kEqual, key);
    ASSERT_NE(condition, nullptr) << key;
    table.Remove(condition);
  }
  EXPECT_NE(table.Find(~kEqual, "other"), nullptr);
}

TEST(oxEventActiveTable, KeepsWhatItHasWithoutMemory) {
  oxEventActiveTable table;
  const auto hash = [&](int number) { return table.Hash(std::to_string(number)); };
  const std::string long_text(20'000, 's');
  int inserted = 0;
  for (; inserted < 300; ++inserted) table.Insert(hash(inserted), std::to_string(inserted), "signature", 1);
  {
    Mappings mappings;
    mappings.failing = "mmap";
    EXPECT_THROW(
        for (; inserted < 10'000; ++inserted) table.Insert(hash(inserted), std::to_string(inserted), long_text, 1),
        std::bad_alloc);
  }
  EXPECT_EQ(table.Find(hash(inserted), std::to_string(inserted)), nullptr);
  for (int i = 0; i < inserted; ++i) ASSERT_NE(table.Find(hash(i), std::to_string(i)), nullptr) << i;
  for (; inserted < 3000; ++inserted) table.Insert(hash(inserted), std::to_string(inserted), "signature", 1);
  for (int i = 0; i < inserted; ++i) ASSERT_NE(table.Find(hash(i), std::to_string(i)), nullptr) << i;
}

}  // namespace
