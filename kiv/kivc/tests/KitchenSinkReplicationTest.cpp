// The kitchen-sink attribute-log adapters: a Pool tree replicated between two demuxers, and the
// receiving side of a Registry (which cannot be a root) fed frame by frame.

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "KitchenSinkTesting.h"
#include "kiv/AttrLogStream.h"
#include "kiv/Clock.h"

using namespace Kiv::NboAttrLog;
using Ns::Leaf;
using Ns::Mount;
using Ns::Pool;
using Ns::Registry;
using Ns::Tint;
using Ns::V;

namespace {

template <class T>
using Recorder = Ns::kivtesting::Traits<T>::Recorder;

class KitchenSinkReplication : public ::testing::Test {
 protected:
  Kiv::EventLoop loop;
  Kiv::Ptr<Demuxer> a = Demuxer::DemuxerIs("to-b", false);
  Kiv::Ptr<Demuxer> b = Demuxer::DemuxerIs("from-a", true);
  Kiv::Ptr<InProcessStream> stream;
  Kiv::Ptr<Pool> pool = Pool::PoolIs("deep");
  Kiv::Ptr<Leaf> oak = pool->leafIs("oak", "bark", std::uint64_t(1) << 40, Ns::colorBlue);

  void SetUp() override {
    pool->labelIs(V("l", "m"));
    pool->tintIs(Tint(V("t", "u"), Ns::colorBlue));
    pool->budgetIs(-7);
    pool->leafIs("elm", "", 0, Ns::colorRed);
    oak->poolIs(pool);
    // Sent before the leaves: the reference makes oak go first.
    pool->favouriteIs(oak);
    pool->scoreIs(3, true);
    pool->scoreIs(4, false);
    pool->spareIs("s", V("o", "p"), 9, "note", Ns::colorRed, oak);
    a->mountIs("pool", pool);
  }
  void TearDown() override {
    // References point back into the pool: break the cycles here, and through the log in the replica.
    pool->favouriteIs(nullptr);
    oak->poolIs(nullptr);
    for (auto it = pool->leafIter(); it; ++it) it.value()->poolIs(nullptr);
    for (auto it = pool->spareIter(); it; ++it) it.value()->peerIs(nullptr);
    loop.runUntilIdle();
  }
};

TEST_F(KitchenSinkReplication, ArrivesWholeAndFollowsEveryKindOfChange) {
  stream = InProcessStream::InProcessStreamIs(a, b);
  loop.runUntilIdle();
  ASSERT_EQ(b->connectStatus(), connectStatusConnected) << b->error();
  Kiv::Ptr<Pool> r = Kiv::entityCast<Pool>(b->replicaDir()->entityPtr("pool"));
  ASSERT_TRUE(r);
  EXPECT_EQ(r->label(), V("l", "m"));
  EXPECT_EQ(r->tint(), Tint(V("t", "u"), Ns::colorBlue));
  EXPECT_EQ(r->budget(), -7);
  Kiv::Ptr<Leaf> rOak = r->leaf("oak");
  ASSERT_TRUE(rOak);
  EXPECT_EQ(rOak->weight(), std::uint64_t(1) << 40);
  EXPECT_EQ(rOak->shade(), Ns::colorBlue);
  // References land on the replicas, not on the originals.
  EXPECT_TRUE(r->favourite() == rOak);
  Kiv::Ptr<Mount> rSpare = r->spare("s");
  ASSERT_TRUE(rSpare);
  EXPECT_EQ(rSpare->origin(), V("o", "p"));
  EXPECT_EQ(rSpare->note(), Kiv::String("note"));
  EXPECT_TRUE(rSpare->peer() == rOak);
  EXPECT_THROW(r->labelIs(V()), Kiv::InternalException);

  // Collections, sets and references to null follow as in the model's replication tests; what
  // the model has not: value types, I32, and init parameters changed in place.
  Kiv::Ptr<Recorder<Pool>> calls(new Recorder<Pool>(r));
  Kiv::Ptr<Recorder<Mount>> spareCalls(new Recorder<Mount>(rSpare));
  pool->labelIs(V("x", "y"));
  pool->budgetIs(INT32_MIN);
  pool->spare("s")->noteIs("changed");
  pool->spare("s")->peerIs(nullptr);
  loop.runUntilIdle();
  EXPECT_EQ(calls->calls, (std::vector<std::string>{"label", "budget"}));
  EXPECT_EQ(r->label(), V("x", "y"));
  EXPECT_EQ(r->budget(), INT32_MIN);
  EXPECT_EQ(spareCalls->calls, (std::vector<std::string>{"note", "peer"}));
  EXPECT_EQ(rSpare->note(), Kiv::String("changed"));
  EXPECT_FALSE(rSpare->peer());
  EXPECT_TRUE(b->error().empty()) << b->error();
}

// The receiving side of a Registry, fed the fields that follow the attribute identifier.
class KitchenSinkFrames : public ::testing::Test {
 protected:
  Kiv::Ptr<Demuxer> demuxer = Demuxer::DemuxerIs("frames", true);
  Side side{*demuxer, false};
  Kiv::Ptr<Registry> registry = Registry::RegistryIs("motto");
  Adapter* adapter = nullptr;
  Kiv::Ptr<Kiv::PtrInterface> hold;

  void SetUp() override {
    registry->kivReadOnlyIs(true);
    adapter = Registry::kivTypeInfo().attrLogAdapter(*registry, side);
    hold = adapter->kivObject();
  }
  // Applies the fields; returns the error, empty when none.
  template <class F>
  std::string apply(std::uint32_t id, Op op, F&& write) {
    std::vector<std::uint8_t> bytes;
    Encoder e(bytes);
    write(e);
    Decoder d(bytes.data(), bytes.size());
    try {
      adapter->handleAttrTransaction(id, op, d);
    } catch (DecodeError const& x) {
      return x.what();
    }
    return {};
  }
  std::string member(char const* key, std::uint64_t handle, V const& origin, std::uint32_t rank, char const* note,
                     bool trailing = false) {
    return apply(Registry::kivMountAttrId, Op::member, [&](Encoder& e) {
      e.value(Kiv::String(key));
      e.varint(handle);
      e.value(origin);
      e.value(rank);
      e.value(Kiv::String(note));
      e.value(Ns::colorBlue);
      e.reference(0);
      if (trailing) e.byte(0);
    });
  }
};

TEST_F(KitchenSinkFrames, MembersAndEntriesAreCheckedWholeBeforeAnythingChanges) {
  EXPECT_EQ(member("a", 7, V("a", "x"), 1, "n"), "");
  Kiv::Ptr<Mount> const m = registry->mount("a");
  ASSERT_TRUE(m);
  EXPECT_EQ(m->note(), Kiv::String("n"));
  EXPECT_EQ(m->registry(), registry.ptr());
  EXPECT_TRUE(m->kivReadOnly());

  EXPECT_EQ(member("b", 8, V("c", "x"), 1, "n"), "key does not match its member's parameters");
  EXPECT_EQ(member("b", 7, V("b", "x"), 1, "n"), "handle 7 is not free");
  EXPECT_EQ(member("b", 8, V("b", "x"), 1, "n", true), "trailing bytes in frame");
  EXPECT_EQ(registry->mountSize(), 1u);

  // Equal const parameters keep the member; its init parameters go through its setters.
  Kiv::Ptr<Recorder<Mount>> noted(new Recorder<Mount>(m));
  EXPECT_EQ(member("a", 8, V("a", "x"), 1, "m"), "");
  EXPECT_EQ(registry->mount("a"), m);
  EXPECT_EQ(noted->calls, std::vector<std::string>{"note"});
  // A different one replaces it.
  EXPECT_EQ(member("a", 9, V("a", "x"), 2, "m"), "");
  ASSERT_TRUE(registry->mount("a"));
  EXPECT_NE(registry->mount("a"), m);
  EXPECT_EQ(registry->mount("a")->rank(), 2u);
  EXPECT_EQ(m->registry(), nullptr);

  auto entry = [&](char const* key, V const& v) {
    return apply(Registry::kivTaggedAttrId, Op::entry, [&](Encoder& e) {
      e.value(Kiv::String(key));
      e.value(v);
    });
  };
  EXPECT_EQ(entry("t", V("t", "u")), "");
  EXPECT_EQ(entry("t", V("w", "u")), "key does not match its value");
  EXPECT_EQ(registry->tagged("t"), V("t", "u"));
  EXPECT_EQ(registry->taggedSize(), 1u);

  EXPECT_EQ(apply(Registry::kivMottoAttrId, Op::value, [](Encoder& e) { e.value(Kiv::String("new")); }), "");
  EXPECT_EQ(registry->motto(), Kiv::String("new"));

  EXPECT_EQ(apply(Registry::kivMountAttrId, Op::del, [](Encoder& e) { e.value(Kiv::String("a")); }), "");
  EXPECT_EQ(registry->mountSize(), 0u);
}

}  // namespace
