#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>
#include <vector>

#include "kiv/Exception.h"
#include "kiv/Ptr.h"
#include "kiv/String.h"

namespace {

struct Tracked : Kiv::PtrInterface {
  explicit Tracked(std::atomic<int>* deletions) : deletions_(deletions) {}
  ~Tracked() override { ++*deletions_; }
  int value = 0;

 private:
  std::atomic<int>* deletions_;
};

struct Derived : Tracked {
  using Tracked::Tracked;
};

// Every count test runs with plain and with atomic counts.
class PtrCount : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { Kiv::VFPtrInterface::enableThreadSafePointers = GetParam(); }
  void TearDown() override { Kiv::VFPtrInterface::enableThreadSafePointers = false; }
  std::atomic<int> deletions{0};
};

TEST_P(PtrCount, CopiesMovesAndAssignmentsKeepTheCountExact) {
  Kiv::Ptr<Derived> a(new Derived(&deletions));
  EXPECT_EQ(a->references(), 1u);
  {
    Kiv::Ptr<Derived> b = a;
    Kiv::Ptr<Tracked> base = a;  // converting copy
    Kiv::PtrConst<Tracked> view = base;
    EXPECT_EQ(a->references(), 4u);
    EXPECT_TRUE(view == a);

    Kiv::Ptr<Derived> c = std::move(b);
    EXPECT_FALSE(b);
    EXPECT_EQ(a->references(), 4u);

    c = c;  // self-assignment must neither drop nor leak a reference
    EXPECT_EQ(a->references(), 4u);
    Kiv::Ptr<Tracked> moved(std::move(c));  // converting move
    EXPECT_EQ(a->references(), 4u);
    moved = nullptr;
    EXPECT_EQ(a->references(), 3u);
  }
  EXPECT_EQ(a->references(), 1u);
  EXPECT_EQ(deletions, 0);

  // release() hands the reference over: adopting it must not add one.
  Derived* raw = a.release();
  EXPECT_EQ(raw->references(), 1u);
  Kiv::Ptr<Derived> adopted;
  adopted = Kiv::Ptr<Derived>(raw);
  raw->referencesDec();
  EXPECT_EQ(adopted->references(), 1u);

  Kiv::Ptr<Derived> other(new Derived(&deletions));
  adopted = other;  // drops the last reference to the first object
  EXPECT_EQ(deletions, 1);
  EXPECT_EQ(other->references(), 2u);
  adopted = nullptr;
  other = nullptr;
  EXPECT_EQ(deletions, 2);
}

TEST_P(PtrCount, StringsShareOneRepresentation) {
  Kiv::String s(std::string(64, 'x'));
  std::vector<Kiv::String> copies(10, s);
  copies.clear();
  EXPECT_EQ(s.size(), 64u);
  EXPECT_EQ(s, Kiv::String(std::string(64, 'x')));
}

INSTANTIATE_TEST_SUITE_P(Modes, PtrCount, ::testing::Values(false, true),
                         [](auto const& info) { return info.param ? std::string("Atomic") : std::string("Plain"); });

TEST(PtrThreads, SharedObjectIsDeletedOnceByTheLastThread) {
  Kiv::VFPtrInterface::enableThreadSafePointers = true;
  std::atomic<int> deletions{0};
  constexpr int kThreads = 8;
  constexpr int kRounds = 20000;
  {
    Kiv::Ptr<Tracked> shared(new Tracked(&deletions));
    Kiv::String text(std::string(32, 's'));
    std::latch start(kThreads + 1);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&start, &deletions, mine = shared, str = text]() mutable {
        start.arrive_and_wait();
        for (int i = 0; i < kRounds; ++i) {
          Kiv::Ptr<Tracked> copy = mine;
          Kiv::Ptr<Tracked> another(copy);
          Kiv::String s = str;
          if (deletions.load() != 0) break;
        }
        mine = nullptr;  // one of the threads drops the last reference
      });
    }
    shared = nullptr;
    start.arrive_and_wait();
    for (auto& t : threads) t.join();
    EXPECT_EQ(text.size(), 32u);
  }
  EXPECT_EQ(deletions, 1);
  Kiv::VFPtrInterface::enableThreadSafePointers = false;
}

TEST(ValidPtr, NullIsRefusedWhateverItComesFrom) {
  auto expectNullRefused = [](auto&& build) {
    try {
      build();
      ADD_FAILURE() << "null ValidPtr accepted";
    } catch (Kiv::RangeException const& e) {
      EXPECT_STREQ(e.what(), "null ValidPtr");
    }
  };
  expectNullRefused([] { Kiv::ValidPtr<Tracked> p(nullptr); });
  expectNullRefused([] { Kiv::ValidPtr<Tracked> p(static_cast<Tracked*>(nullptr)); });
  expectNullRefused([] {
    Kiv::Ptr<Derived> none;
    Kiv::ValidPtr<Tracked> p(none);
  });
  expectNullRefused([] { Kiv::ValidPtr<Tracked> p{Kiv::Ptr<Tracked>()}; });

  std::atomic<int> deletions{0};
  Kiv::Ptr<Derived> d(new Derived(&deletions));
  Kiv::ValidPtr<Tracked> valid(d);
  EXPECT_EQ(valid.ptr(), d.ptr());
  EXPECT_EQ(d->references(), 2u);
}

TEST(PtrZeroRef, LastReferenceDeletesUnlessMarkedForDeferredDeletion) {
  std::atomic<int> deletions{0};
  Kiv::Ptr<Tracked> plain(new Tracked(&deletions));
  plain = nullptr;
  EXPECT_EQ(deletions, 1);

  Kiv::Ptr<Tracked> marked(new Tracked(&deletions));
  marked->kivMarkedForDeletionIs(true);
  Tracked* raw = marked.ptr();
  marked = nullptr;
  EXPECT_EQ(deletions, 1);
  EXPECT_EQ(Kiv::PtrInterface::deferredDeletions(), 1u);
  EXPECT_TRUE(raw->zeroReferences());
  raw->value = 7;  // still safe to use until the deferred pass

  Kiv::PtrInterface::deleteDeferred();
  EXPECT_EQ(deletions, 2);
  EXPECT_EQ(Kiv::PtrInterface::deferredDeletions(), 0u);
}

TEST(PtrZeroRef, ResurrectedQueuedObjectIsDeletedExactlyOnce) {
  std::atomic<int> deletions{0};
  Kiv::Ptr<Tracked> p(new Tracked(&deletions));
  p->kivMarkedForDeletionIs(true);
  Tracked* raw = p.ptr();
  p = nullptr;  // queued

  // Code holding the plain pointer takes and drops a reference before the deferred pass.
  Kiv::Ptr<Tracked>(raw).swap(p);
  p = nullptr;
  Kiv::PtrInterface::deleteDeferred();
  EXPECT_EQ(deletions, 1);

  // Kept across the pass: survives it, and its next zero queues it again.
  Kiv::Ptr<Tracked> kept(new Tracked(&deletions));
  kept->kivMarkedForDeletionIs(true);
  raw = kept.ptr();
  kept = nullptr;
  kept = Kiv::Ptr<Tracked>(raw);
  Kiv::PtrInterface::deleteDeferred();
  EXPECT_EQ(deletions, 1);
  EXPECT_EQ(kept->references(), 1u);
  kept = nullptr;
  EXPECT_EQ(Kiv::PtrInterface::deferredDeletions(), 1u);
  Kiv::PtrInterface::deleteDeferred();
  EXPECT_EQ(deletions, 2);
}

TEST(Expect, ReportsEveryFailureOnceThenForgets) {
  Kiv::Expect expect;
  EXPECT_TRUE(expect(true, "fine"));
  EXPECT_FALSE(expect(false, "first"));
  expect(1 + 1 == 3, "second");
  EXPECT_FALSE(expect.ok());
  try {
    expect.check();
    ADD_FAILURE() << "check() did not throw";
  } catch (Kiv::InternalException const& e) {
    EXPECT_STREQ(e.what(), "expectation failed: first; second");
  }
  EXPECT_TRUE(expect.ok());
  EXPECT_NO_THROW(expect.check());
}

TEST(AssertDeathTest, MessageCarriesTheExpressionText) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  int refCount = 1;
  EXPECT_DEATH(KIV_ASSERT(refCount > 1), "assertion failed: refCount > 1");
}

}  // namespace
