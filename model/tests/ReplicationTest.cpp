// Replication of the mount interface types through the attribute log, in one process.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "MountInterfaceTesting.h"
#include "kiv/AttrLog.h"
#include "kiv/AttrLogStream.h"
#include "kiv/Clock.h"
#include "model/tests/ModelTrees.h"

using namespace Kiv::NboAttrLog;
using modeltrees::dump;

namespace {

class Replication : public ::testing::Test {
 protected:
  Kiv::EventLoop loop;
  Kiv::Ptr<Kiv::Dir> local = Kiv::Dir::DirIs("local");
  Kiv::Ptr<Demuxer> a = Demuxer::DemuxerIs("to-b", false);
  Kiv::Ptr<Demuxer> b = Demuxer::DemuxerIs("from-a", true);
  Kiv::Ptr<InProcessStream> stream;

  // The built trees, mounted and connected; `room` bounds a's output.
  void start(std::size_t room = Demuxer::kDefaultOutputRoom) {
    modeltrees::build(*local);
    for (auto it = local->entityPtrIter(); it; ++it) a->mountIs(it.key(), it.value());
    a->outputRoomIs(room);
    stream = InProcessStream::InProcessStreamIs(a, b);
    loop.runUntilIdle();
  }
  template <class T>
  Kiv::Ptr<T> replica(char const* name) {
    return Kiv::entityCast<T>(b->replicaDir()->entityPtr(name));
  }
  // Gives b the first n of `bytes` on a connection of their own, then breaks it. Returns the
  // error b reports for that connection.
  std::string brokenAfter(std::vector<std::uint8_t> const& bytes, std::size_t n) {
    stream->breakIs();
    auto const cut = InProcessStream::InProcessStreamIs(Demuxer::DemuxerIs("replay", false), b);
    b->bytesIn(bytes.data(), n);
    cut->breakIs();
    return b->error();
  }
  void remount() {
    stream->reconnect();
    loop.runUntilIdle();
  }
};

template <class T>
using Recorder = Controller::kivtesting::Traits<T>::Recorder;

// A recorder on an entity and one on its replica.
template <class T>
std::pair<Kiv::Ptr<Recorder<T>>, Kiv::Ptr<Recorder<T>>> hearBoth(Kiv::Ptr<T> const& here, Kiv::Ptr<T> const& there) {
  return {new Recorder<T>(here), new Recorder<T>(there)};
}

}  // namespace

TEST_F(Replication, EveryTypeArrivesAndFollowsChangesAsLocalReactorsSeeThemThroughARemount) {
  using namespace Controller;
  start();
  auto config = replica<ServiceMountConfig>(modeltrees::kMountConfig);
  EXPECT_EQ(dump(*b->replicaDir()), dump(*local));
  EXPECT_NE(dump(*local).find("mountConfig[/a]"), std::string::npos);

  auto const localConfig = Kiv::entityCast<ServiceMountConfig>(local->entityPtr(modeltrees::kMountConfig));
  auto const heard = hearBoth(localConfig, config);
  auto const statusHeard = hearBoth(Kiv::entityCast<ServiceMountStatus>(local->entityPtr(modeltrees::kMountStatus)),
                                    replica<ServiceMountStatus>(modeltrees::kMountStatus));
  for (int step = 1; step <= modeltrees::kSteps; ++step) {
    SCOPED_TRACE(step);
    modeltrees::change(*local, step);
    loop.runUntilIdle();
    EXPECT_EQ(dump(*b->replicaDir()), dump(*local));
  }
  auto const sameCalls = [](auto const& both) {
    EXPECT_FALSE(both.first->calls.empty());
    EXPECT_EQ(both.second->calls, both.first->calls);
  };
  sameCalls(heard);
  sameCalls(statusHeard);

  // While the stream is down the replica stays as it was; the remount brings everything back,
  // removals included, and what was unmounted in the meantime is gone.
  stream->breakIs();
  std::string const before = dump(*b->replicaDir());
  modeltrees::changeWhileDown(*local, *a);
  loop.runUntilIdle();
  EXPECT_EQ(dump(*b->replicaDir()), before);
  remount();
  EXPECT_EQ(dump(*b->replicaDir()), dump(*local));
  EXPECT_TRUE(b->error().empty()) << b->error();
}

TEST_F(Replication, ARoundCompletesOnlyOnceWhatWasSentBeforeItIsApplied) {
  start(16);
  stream->latencyIs(1.0);

  struct RoundWatch : Kiv::MountTable::NotifieeConst {
    using NotifieeConst::NotifieeConst;
    std::function<void()> seen;
    void onRound() override { seen(); }
  };
  Kiv::Ptr<RoundWatch> watch(new RoundWatch(a->mountTable(Demuxer::kAppliedTable)));
  std::vector<bool> inStepAtCompletion;
  watch->seen = [&] { inStepAtCompletion.push_back(dump(*b->replicaDir()) == dump(*local)); };

  for (int step = 1; step <= modeltrees::kSteps; ++step) modeltrees::change(*local, step);
  a->mountTable(Demuxer::kRequestTable)->nextRoundIs(1);
  loop.advanceBy(60);
  EXPECT_EQ(a->mountTable(Demuxer::kAppliedTable)->round(), 1u);
  EXPECT_EQ(inStepAtCompletion, std::vector<bool>{true});
}

namespace {

// Fields of a hand-made frame besides tagged values.
struct Varint {
  std::uint64_t v;
};
struct Ref {
  std::uint64_t handle;
};

// A frame of raw bytes: length prefix, op, then the fields.
template <class... F>
std::vector<std::uint8_t> frame(Op op, F const&... fields) {
  std::vector<std::uint8_t> out;
  Encoder e(out);
  e.begin(op);
  [[maybe_unused]] auto const put = [&](auto const& f) {
    using T = std::decay_t<decltype(f)>;
    if constexpr (std::is_same_v<T, Varint>) {
      e.varint(f.v);
    } else if constexpr (std::is_same_v<T, Ref>) {
      e.reference(f.handle);
    } else if constexpr (std::is_same_v<T, std::uint8_t>) {
      e.byte(f);
    } else {
      e.value(f);
    }
  };
  (put(fields), ...);
  e.end();
  return out;
}

}  // namespace

TEST_F(Replication, BadBytesEndTheConnectionWithOneErrorAndChangeNothing) {
  using Controller::ServiceMountConfig;
  using Controller::ServiceMountGroupConfig;
  modeltrees::build(*local);
  a->mountIs(modeltrees::kMountConfig, local->entityPtr(modeltrees::kMountConfig));
  stream = InProcessStream::InProcessStreamIs(a, b);
  // The handles of the root and of its group g1, as the mount sends them.
  std::uint64_t root = 0, group = 0;
  std::vector<std::uint8_t> const mount = a->output();
  for (Decoder in(mount.data(), mount.size()); in.left() > 0;) {
    std::string_view const payload = in.bytes(static_cast<std::size_t>(in.varint()));
    Decoder d(reinterpret_cast<std::uint8_t const*>(payload.data()), payload.size());
    Op const op = static_cast<Op>(d.byte());
    if (op == Op::root) root = d.varint();
    if (op != Op::member) continue;
    d.varint();  // the owner
    d.varint();  // the collection
    if (d.value<Kiv::Name>() == Kiv::Name("g1")) group = d.varint();
  }
  loop.runUntilIdle();
  ASSERT_NE(root, 0u);
  ASSERT_NE(group, 0u);
  std::string const whole = dump(*b->replicaDir());
  Varint const config{root}, warm{ServiceMountConfig::kivWarmAttrId};
  Varint const groups{ServiceMountConfig::kivMountGroupConfigAttrId};
  Varint const filter{ServiceMountGroupConfig::kivVersionFilterAttrId};

  struct Case {
    char const* what;
    std::vector<std::uint8_t> bytes;
    char const* error;
  };
  std::vector<Case> const cases = {
      {"unknown op", frame(static_cast<Op>(99)), "unknown op 99"},
      {"absent entity", frame(Op::value, Varint{999}, warm, false), "absent entity 999"},
      {"reference to an absent entity", frame(Op::value, Varint{group}, filter, Ref{12345}),
       "reference to absent entity 12345"},
      {"reference of the wrong type", frame(Op::value, Varint{group}, filter, Ref{root}),
       "where a Controller::MountFilterServiceVersion is wanted"},
      {"invalid key", frame(Op::member, config, groups, Kiv::Name(""), Varint{777}), "empty key for"},
      {"member cut short",
       frame(Op::member, Varint{group}, Varint{ServiceMountGroupConfig::kivMountConfigAttrId}, Kiv::Name("/half"),
             Varint{778}, Kiv::String("only one of three parameters")),
       "truncated frame"},
      {"a second hello", frame(Op::hello, kVersion), "second hello"},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.what);
    b->bytesIn(c.bytes.data(), c.bytes.size());
    loop.runUntilIdle();
    EXPECT_EQ(b->connectStatus(), connectStatusDisconnected);
    EXPECT_NE(b->error().find(c.error), std::string::npos) << b->error();
    EXPECT_EQ(dump(*b->replicaDir()), whole);
    remount();
    EXPECT_TRUE(b->error().empty());
  }
}

TEST_F(Replication, AStreamCutAnywhereOrOversizedEndsCleanlyAndTheNextRemountMakesTheReplicaWhole) {
  // The bytes of one whole connection: a tree as built, the scripted changes, a second tree
  // mounted, then a round. The source is left as the connection leaves it, holding only the
  // mounted trees. One tree keeps the stream short: it is replayed once per byte.
  modeltrees::build(*local);
  a->mountIs(modeltrees::kMountConfig, local->entityPtr(modeltrees::kMountConfig));
  stream = InProcessStream::InProcessStreamIs(a, b);
  stream->stalledIs(true);
  for (int step = 1; step <= modeltrees::kSteps; ++step) modeltrees::change(*local, step);
  modeltrees::changeWhileDown(*local, *a);
  a->mountTable(Demuxer::kRequestTable)->nextRoundIs(1);
  std::vector<std::uint8_t> const bytes = a->output();
  stream->breakIs();
  stream->stalledIs(false);
  for (char const* name : {modeltrees::kMountStatus, modeltrees::kPublishConfig}) local->entityPtrDel(name);
  std::string const source = dump(*local);
  // Where each frame starts, and where the stream ends.
  std::vector<std::size_t> frames{0};
  for (Decoder d(bytes.data(), bytes.size()); d.left() > 0; frames.push_back(bytes.size() - d.left()))
    d.bytes(static_cast<std::size_t>(d.varint()));
  // The replica keeps whatever the cut connection left, as after any break.
  for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
    bool const betweenFrames = std::binary_search(frames.begin(), frames.end(), cut);
    ASSERT_EQ(brokenAfter(bytes, cut).empty(), betweenFrames) << "cut at byte " << cut;
    remount();
    ASSERT_EQ(dump(*b->replicaDir()), source) << "cut at byte " << cut;
  }

  auto const check = [&](std::vector<std::uint8_t> const& bad, std::string const& error) {
    std::string const got = brokenAfter(bad, bad.size());
    EXPECT_NE(got.find(error), std::string::npos) << got;
    remount();
    ASSERT_EQ(dump(*b->replicaDir()), source);
  };
  // A length over the limit is refused as soon as it is read, before any of the payload it
  // announces is awaited; one at the limit is awaited.
  std::vector<std::uint8_t> const whole(bytes.begin(), bytes.begin() + std::ptrdiff_t(frames[frames.size() / 2]));
  auto const announcing = [&](std::uint64_t length) {
    std::vector<std::uint8_t> bad = whole;
    Encoder(bad).varint(length);
    bad.resize(bad.size() + 1000, 0);
    return bad;
  };
  check(announcing(kMaxFrame + 1), "frame of more than");
  check(announcing(kMaxFrame), "connection ended inside a frame");
}
