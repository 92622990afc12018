#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>
#include <vector>

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
    EXPECT_TRUE(view == a);

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
  EXPECT_EQ(other->references(), 1u);
  EXPECT_EQ(a->references(), 2u);
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

TEST(PtrCountThreads, SharedObjectIsDeletedOnceByTheLastThread) {
  Kiv::VFPtrInterface::enableThreadSafePointers = true;
  std::atomic<int> deletions{0};
  constexpr int kThreads = 8;
  {
    Kiv::Ptr<Tracked> shared(new Tracked(&deletions));
    Kiv::String text(std::string(32, 's'));  // strings share their text under the same switch
    std::latch start(kThreads + 1);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&start, &deletions, mine = shared, str = text]() mutable {
        start.arrive_and_wait();
        for (int i = 0; i < 20000 && deletions == 0; ++i) {
          Kiv::Ptr<Tracked> copy = mine;
          Kiv::Ptr<Tracked> another(copy);
          Kiv::String s = str;
        }
        mine = nullptr;  // whichever thread is last deletes
      });
    }
    shared = nullptr;
    start.arrive_and_wait();
    for (auto& t : threads) t.join();
    EXPECT_EQ(text, Kiv::String(std::string(32, 's')));
  }
  EXPECT_EQ(deletions, 1);
  Kiv::VFPtrInterface::enableThreadSafePointers = false;
}

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

TEST(PtrZeroRef, LastReferenceDeletesUnlessMarkedForDeferredDeletion) {
  std::atomic<int> deletions{0};
  Kiv::Ptr<Tracked> p(new Tracked(&deletions));
  p = nullptr;
  EXPECT_EQ(deletions, 1);

  p = Kiv::Ptr<Tracked>(new Tracked(&deletions));
  p->kivMarkedForDeletionIs(true);
  Tracked* raw = p.ptr();
  p = nullptr;
  EXPECT_EQ(deletions, 1);
  EXPECT_EQ(Kiv::PtrInterface::deferredDeletions(), 1u);
  EXPECT_TRUE(raw->zeroReferences());

  // Code still holding the plain pointer takes and drops a reference before the pass.
  Kiv::Ptr<Tracked>(raw).swap(p);
  p = nullptr;
  EXPECT_EQ(Kiv::PtrInterface::deferredDeletions(), 1u);
  Kiv::PtrInterface::deleteDeferred();
  EXPECT_EQ(deletions, 2);
  EXPECT_EQ(Kiv::PtrInterface::deferredDeletions(), 0u);

  // Resurrected across the pass: it survives, and its next zero queues it again.
  p = Kiv::Ptr<Tracked>(new Tracked(&deletions));
  p->kivMarkedForDeletionIs(true);
  raw = p.ptr();
  p = nullptr;
  p = Kiv::Ptr<Tracked>(raw);
  Kiv::PtrInterface::deleteDeferred();
  EXPECT_EQ(deletions, 2);
  p = nullptr;
  EXPECT_EQ(Kiv::PtrInterface::deferredDeletions(), 1u);
  Kiv::PtrInterface::deleteDeferred();
  EXPECT_EQ(deletions, 3);
}

}  // namespace
