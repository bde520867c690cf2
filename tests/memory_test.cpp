// The allocator of the queue and of the conditions, the table of conditions, and the hash of their keys.
#include <cstring>
#include <random>

#include "base/oxEventSipHash.h"
#include "base/oxEventSlab.h"
#include "core/oxEventActiveTable.h"
#include "faults.h"
#include "host_fixture.h"

namespace {

// The first two values are published test vectors. The last was computed in another language, with a program written
// from the description of the algorithm.
TEST(oxEventSipHash, GivesTheExpectedValues) {
  const oxEventSipKey key = {0x0706050403020100, 0x0f0e0d0c0b0a0908};
  const std::string_view bytes("\0\1\2\3\4\5\6\7\10\11\12\13\14\15\16", 15);
  EXPECT_EQ((oxEventSipHash<2, 4>(key, bytes.substr(0, 8))), 0x93f5f5799a932462);
  EXPECT_EQ((oxEventSipHash<2, 4>(key, bytes)), 0xa129ca6149be45e5);
  EXPECT_EQ(oxEventSipHash(key, bytes.substr(0, 9)), 0x25a48eb36c063de4);
}

TEST(oxEventActiveTable, HashesWithAKeyOfItsOwn) {
  const oxEventActiveTable table, other;
  EXPECT_NE(table.Hash("fan 2"), other.Hash("fan 2"));
}

TEST(oxEventSlab, KeepsBlocksApart) {
  std::mt19937 random(1);
  std::vector<std::pair<char*, size_t>> blocks;
  oxEventSlab slab;
  const auto free_last_block = [&] {
    const auto [bytes, size] = blocks.back();
    ASSERT_EQ(std::count(bytes, bytes + size, static_cast<char>(size)), static_cast<long>(size));
    slab.Free(bytes, size);
    blocks.pop_back();
  };
  for (int i = 0; i < 20'000; ++i) {
    // Every sixteenth block is as large as the largest block of a size class, or by one byte larger.
    const size_t size = i % 16 == 0 ? 4096 * (1 + random() % 9) + random() % 2 : 1 + random() % 600;
    ASSERT_LT(slab.BlockSize(size) - size, size <= 4096 ? 32u : 4096u);
    char* const bytes = static_cast<char*>(slab.Allocate(size));
    ASSERT_NE(bytes, nullptr);
    ASSERT_EQ(reinterpret_cast<uintptr_t>(bytes) % (size <= 32'768 && slab.BlockSize(size) % 64 == 0 ? 64 : 16), 0u);
    std::memset(bytes, static_cast<char>(size), size);
    blocks.emplace_back(bytes, size);
    std::swap(blocks.back(), blocks[random() % blocks.size()]);
    if (i % 4 != 0) free_last_block();
  }
  while (!blocks.empty()) free_last_block();
}

// However many conditions there are, an insertion maps at most two spans, with up to five calls each, and unmaps one; a
// removal maps none, and unmaps fewer. The largest block from malloc is the directory. An insertion for which there is
// no memory changes nothing; a removal needs no memory.
TEST(oxEventActiveTable, GrowsAndShrinksInStepsAndKeepsEveryConditionWhileMemoryIsScarce) {
  for (const bool is_scarce : {false, true}) {
    oxEventActiveTable table;
    std::vector<bool> raised(60'000);
    std::mt19937 random(1);
    for (size_t i = 0; i < 2 * raised.size(); ++i) {
      const size_t number = i % raised.size();
      const std::string key = std::to_string(number);
      const uint64_t hash = table.Hash(key);
      oxEventActiveTable::Condition* const found = table.Find(hash, key);
      ASSERT_EQ(found != nullptr, raised[number]) << key;
      int mappings = 0;
      long largest = 0;
      const Faults faults([&](std::string_view call, long size) {
        if (call == "malloc") largest = std::max(largest, size);
        mappings += call == "mmap" || call == "munmap";
        return is_scarce && (call == "malloc" || call == "mmap") && random() % 2 == 0 ? ENOMEM : 0;
      });
      try {
        if (found == nullptr && i < raised.size()) table.Insert(hash, key, "signature", 1);
        if (found != nullptr) table.Remove(found);
        raised[number] = i < raised.size();
      } catch (const std::bad_alloc&) {
        ASSERT_TRUE(is_scarce && found == nullptr) << key;
      }
      ASSERT_LE(mappings, 2 * 5 + 1);
      ASSERT_LE(largest, 16 * 1024);
      if (i + 1 != raised.size()) continue;
      EXPECT_GT(std::count(raised.begin(), raised.end(), true), 30'000);
    }
  }
}

}  // namespace
