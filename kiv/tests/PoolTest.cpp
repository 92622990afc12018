#include <gtest/gtest.h>

#include <cstdint>
#include <thread>

#include "kiv/Pool.h"
#include "kiv/Ptr.h"
#include "kiv/String.h"

namespace {

using Kiv::poolAllocate;
using Kiv::poolRelease;

class Pool : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!Kiv::poolEnabled()) GTEST_SKIP() << "every request goes to the general allocator here";
  }
};

// A released block serves the next request of its 16-byte size, and no other.
TEST_F(Pool, ReleasedBlocksServeTheirOwnSizeOnly) {
  void* a = poolAllocate(24);
  void* b = poolAllocate(200);
  for (void* p : {a, b}) EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 16, 0u);
  poolRelease(b, 200);
  void* other = poolAllocate(180);
  EXPECT_NE(other, b);
  EXPECT_EQ(poolAllocate(193), b);
  poolRelease(a, 24);
  EXPECT_EQ(poolAllocate(17), a);

  poolRelease(a, 17);
  poolRelease(b, 193);
  poolRelease(other, 180);
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
