#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <thread>
#include <vector>

#include "kiv/Pool.h"
#include "kiv/Ptr.h"
#include "kiv/String.h"

namespace {

using Kiv::poolAllocate;
using Kiv::poolRelease;

char* bytes(void* p) { return static_cast<char*>(p); }

class Pool : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!Kiv::poolEnabled()) GTEST_SKIP() << "every request goes to the general allocator here";
  }
};

TEST_F(Pool, BlocksAreCarvedInOrderAndReusedBySize) {
  // Made together, whatever their sizes, they lie together.
  void* a = poolAllocate(24);
  void* b = poolAllocate(200);
  void* c = poolAllocate(1);
  if (bytes(b) != bytes(a) + 32) GTEST_SKIP() << "a new chunk started in between";
  EXPECT_EQ(bytes(c), bytes(b) + 208);
  for (void* p : {a, b, c}) EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 16, 0u);

  // A released block serves the next request of its 16-byte size, and no other.
  poolRelease(b, 200);
  void* other = poolAllocate(180);
  EXPECT_NE(other, b);
  EXPECT_EQ(poolAllocate(193), b);
  poolRelease(a, 24);
  EXPECT_EQ(poolAllocate(17), a);

  // Beyond the largest size the general allocator serves.
  void* large = poolAllocate(257);
  poolRelease(large, 257);
  poolRelease(a, 17);
  poolRelease(b, 193);
  poolRelease(c, 1);
  poolRelease(other, 180);
}

TEST_F(Pool, TheRestOfAChunkServesTheSizeItFits) {
  // Blocks of 240 bytes until a chunk runs out: what is left of the old one is smaller.
  std::vector<void*> blocks{poolAllocate(240)};
  while (bytes(blocks.back()) == bytes(blocks.front()) + 240 * (blocks.size() - 1))
    blocks.push_back(poolAllocate(240));
  char* rest = bytes(blocks[blocks.size() - 2]) + 240;
  void* another = poolAllocate(240);
  EXPECT_NE(another, rest);  // it would run past the chunk's end
  // Some smaller size gets it.
  std::vector<std::pair<void*, std::size_t>> taken;
  for (std::size_t size = 16; size < 240; size += 16) taken.emplace_back(poolAllocate(size), size);
  EXPECT_EQ(std::count_if(taken.begin(), taken.end(), [&](auto const& t) { return t.first == rest; }), 1);
  for (auto [p, size] : taken) poolRelease(p, size);
  for (void* p : blocks) poolRelease(p, 240);
  poolRelease(another, 240);
}

struct Object : Kiv::PtrInterface {
  std::uint64_t payload[5] = {};
};

TEST_F(Pool, ObjectsAndStringTextsComeFromIt) {
  Object* first = new Object;
  Kiv::Ptr<Object> held(first);
  held = nullptr;  // released at zero references
  void* next = poolAllocate(sizeof(Object));
  EXPECT_EQ(next, first);
  poolRelease(next, sizeof(Object));

  std::string const text(40, 'x');
  Kiv::String s(text);
  char const* where = s.data();
  s = Kiv::String();
  Kiv::String again(text);
  EXPECT_EQ(again.data(), where);
}

TEST_F(Pool, EachThreadHasItsOwnLists) {
  void* a = poolAllocate(72);
  void* reused = nullptr;
  std::thread([&] {
    poolRelease(a, 72);
    reused = poolAllocate(72);
    poolRelease(reused, 72);
  }).join();
  EXPECT_EQ(reused, a);
  // This thread's list never had it.
  void* b = poolAllocate(72);
  EXPECT_NE(b, a);
  poolRelease(b, 72);
}

}  // namespace
