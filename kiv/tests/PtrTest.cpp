#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

#include "kiv/Exception.h"
#include "kiv/Ptr.h"
#include "kiv/String.h"

namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;

struct Tracked : Kiv::PtrInterface {
  explicit Tracked(std::atomic<int>* deletions) : deletions_(deletions) {}
  ~Tracked() override { ++*deletions_; }

 private:
  std::atomic<int>* deletions_;
};

struct Derived : Tracked {
  using Tracked::Tracked;
};

// The same expectations hold with plain and with atomic counts.
class PtrCount : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { Kiv::VFPtrInterface::enableThreadSafePointers = GetParam(); }
  void TearDown() override { Kiv::VFPtrInterface::enableThreadSafePointers = false; }
  std::atomic<int> deletions{0};
};

TEST_P(PtrCount, CopiesMovesAndAssignmentsKeepTheCountExact) {
  Kiv::Ptr<Derived> a(new Derived(&deletions));
  {
    Kiv::Ptr<Derived> b = a;
    Kiv::Ptr<Tracked> base = a;
    Kiv::PtrConst<Tracked> view = base;
    EXPECT_EQ(a->references(), 4u);

    Kiv::Ptr<Derived> c = std::move(b);
    EXPECT_FALSE(b);
    c = c;  // self-assignment neither drops nor leaks a reference
    Kiv::Ptr<Tracked> converted(std::move(c));
    EXPECT_EQ(a->references(), 4u);
    converted = nullptr;
    EXPECT_EQ(a->references(), 3u);
  }
  EXPECT_EQ(a->references(), 1u);

  Kiv::Ptr<Derived> other(new Derived(&deletions));
  Kiv::Ptr<Derived> second = other;
  second = a;  // moves a reference from one object to the other
  a = other;
  second = nullptr;  // the last reference to the first object
  EXPECT_EQ(deletions, 1);
  a = nullptr;
  EXPECT_EQ(deletions, 1);
  other = nullptr;
  EXPECT_EQ(deletions, 2);
}

INSTANTIATE_TEST_SUITE_P(Modes, PtrCount, ::testing::Values(false, true),
                         [](auto const& info) { return info.param ? std::string("Atomic") : std::string("Plain"); });

TEST(ValidPtr, NullIsRefusedWhateverItComesFrom) {
  auto nullRefused = ThrowsMessage<Kiv::RangeException>(StrEq("null ValidPtr"));
  EXPECT_THAT([] { Kiv::ValidPtr<Tracked> p(nullptr); }, nullRefused);
  EXPECT_THAT([] { Kiv::ValidPtr<Tracked> p(static_cast<Tracked*>(nullptr)); }, nullRefused);
  EXPECT_THAT([] { Kiv::ValidPtr<Tracked> p{Kiv::Ptr<Derived>()}; }, nullRefused);

  std::atomic<int> deletions{0};
  Kiv::Ptr<Derived> d(new Derived(&deletions));
  Kiv::ValidPtr<Tracked> valid(d);
  EXPECT_EQ(valid.ptr(), d.ptr());
  EXPECT_EQ(d->references(), 2u);
}

}  // namespace
