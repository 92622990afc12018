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
#include "model/tests/WireLog.h"

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

  void mountAll() {
    for (auto it = local->entityPtrIter(); it; ++it) a->mountIs(it.key(), it.value());
  }
  void connect() {
    stream = InProcessStream::InProcessStreamIs(a, b);
    loop.runUntilIdle();
  }
  template <class T>
  Kiv::Ptr<T> replica(char const* name) {
    return Kiv::entityCast<T>(b->replicaDir()->entityPtr(name));
  }
  // The bytes that the next step sends, held back until they have been read.
  std::vector<std::uint8_t> captured(auto step) {
    stream->stalledIs(true);
    step();
    std::vector<std::uint8_t> bytes = a->output();
    stream->stalledIs(false);
    loop.runUntilIdle();
    return bytes;
  }
  // The bytes of one whole connection: a tree as built, the scripted changes, a second tree
  // mounted, then a round. The source is left as the connection leaves it, holding only the
  // mounted trees. One tree keeps the stream short: tests replay it once per byte.
  std::vector<std::uint8_t> aConnection() {
    modeltrees::build(*local);
    a->mountIs(modeltrees::kMountConfig, local->entityPtr(modeltrees::kMountConfig));
    stream = InProcessStream::InProcessStreamIs(a, b);
    stream->stalledIs(true);
    for (int step = 1; step <= modeltrees::kSteps; ++step) modeltrees::change(*local, step);
    modeltrees::changeWhileDown(*local, *a);
    a->mountTable(Demuxer::kRequestTable)->nextRoundIs(1);
    std::vector<std::uint8_t> bytes = a->output();
    stream->breakIs();
    stream->stalledIs(false);
    for (char const* name : {modeltrees::kMountStatus, modeltrees::kPublishConfig}) local->entityPtrDel(name);
    return bytes;
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

// Where each frame of a byte stream starts, and where the stream ends.
std::vector<std::size_t> frameStarts(std::vector<std::uint8_t> const& bytes) {
  std::vector<std::size_t> at{0};
  Decoder d(bytes.data(), bytes.size());
  while (d.left() > 0) {
    d.bytes(static_cast<std::size_t>(d.varint()));
    at.push_back(bytes.size() - d.left());
  }
  return at;
}

template <class T>
using Recorder = Controller::kivtesting::Traits<T>::Recorder;

}  // namespace

TEST_F(Replication, EveryTypeArrivesWholeAndFollowsChangesAndARemount) {
  modeltrees::build(*local);
  mountAll();
  connect();
  ASSERT_EQ(b->connectStatus(), connectStatusConnected);
  EXPECT_EQ(dump(*b->replicaDir()), dump(*local));
  EXPECT_NE(dump(*local).find("mountConfig[/a]"), std::string::npos);

  for (int step = 1; step <= modeltrees::kSteps; ++step) {
    SCOPED_TRACE(step);
    modeltrees::change(*local, step);
    loop.runUntilIdle();
    EXPECT_EQ(dump(*b->replicaDir()), dump(*local));
  }

  // While the stream is down the replica stays as it was; the remount brings everything back,
  // removals included, and what was unmounted in the meantime is gone.
  stream->breakIs();
  std::string const before = dump(*b->replicaDir());
  modeltrees::changeWhileDown(*local, *a);
  loop.runUntilIdle();
  EXPECT_EQ(dump(*b->replicaDir()), before);

  stream->reconnect();
  loop.runUntilIdle();
  EXPECT_EQ(dump(*b->replicaDir()), dump(*local));
  EXPECT_EQ(b->replicaDir()->entityPtr(modeltrees::kPublishStatus), nullptr);
  EXPECT_TRUE(b->error().empty()) << b->error();
}

TEST_F(Replication, ReceivingReactorsSeeWhatLocalReactorsSee) {
  modeltrees::build(*local);
  mountAll();
  connect();
  using Controller::ServiceMountConfig;
  using Controller::ServiceMountGroupConfig;
  using Controller::ServiceMountStatus;
  auto localConfig = Kiv::entityCast<ServiceMountConfig>(local->entityPtr(modeltrees::kMountConfig));
  auto localStatus = Kiv::entityCast<ServiceMountStatus>(local->entityPtr(modeltrees::kMountStatus));
  Kiv::Ptr<Recorder<ServiceMountConfig>> here(new Recorder<ServiceMountConfig>(localConfig));
  Kiv::Ptr<Recorder<ServiceMountConfig>> there(
      new Recorder<ServiceMountConfig>(replica<ServiceMountConfig>(modeltrees::kMountConfig)));
  Kiv::Ptr<Recorder<ServiceMountGroupConfig>> groupHere(
      new Recorder<ServiceMountGroupConfig>(localConfig->mountGroupConfig("g1")));
  Kiv::Ptr<Recorder<ServiceMountGroupConfig>> groupThere(new Recorder<ServiceMountGroupConfig>(
      replica<ServiceMountConfig>(modeltrees::kMountConfig)->mountGroupConfig("g1")));
  Kiv::Ptr<Recorder<ServiceMountStatus>> statusHere(new Recorder<ServiceMountStatus>(localStatus));
  Kiv::Ptr<Recorder<ServiceMountStatus>> statusThere(
      new Recorder<ServiceMountStatus>(replica<ServiceMountStatus>(modeltrees::kMountStatus)));

  localConfig->warmIs(true);  // unchanged: nobody hears of it
  for (int step = 1; step <= modeltrees::kSteps; ++step) modeltrees::change(*local, step);
  loop.runUntilIdle();

  EXPECT_FALSE(here->calls.empty());
  EXPECT_EQ(there->calls, here->calls);
  EXPECT_FALSE(groupHere->calls.empty());
  EXPECT_EQ(groupThere->calls, groupHere->calls);
  EXPECT_FALSE(statusHere->calls.empty());
  EXPECT_EQ(statusThere->calls, statusHere->calls);
}

TEST_F(Replication, AReplicaRefusesLocalWritesNamingTheAttribute) {
  modeltrees::build(*local);
  mountAll();
  connect();
  auto config = replica<Controller::ServiceMountConfig>(modeltrees::kMountConfig);
  ASSERT_TRUE(config);
  auto refused = [](auto write) -> std::string {
    try {
      write();
    } catch (Kiv::InternalException const& x) {
      return x.what();
    }
    return "accepted";
  };
  std::string const value = refused([&] { config->warmIs(false); });
  EXPECT_EQ(value.rfind("write-update from readonly proxy:", 0), 0u) << value;
  EXPECT_NE(value.find("warm"), std::string::npos) << value;
  std::string const member = refused([&] { config->mountGroupConfig("g1")->mountConfigIs("/new", "T", "", ""); });
  EXPECT_NE(member.find("mountConfig"), std::string::npos) << member;
  std::string const set = refused([&] { config->versionFilter("v1")->includedServiceVersionIs(9, true); });
  EXPECT_NE(set.find("includedServiceVersion"), std::string::npos) << set;
  EXPECT_EQ(dump(*b->replicaDir()), dump(*local));
}

TEST_F(Replication, AKeyThatChangesFasterThanTheStreamDrainsTravelsOnceWithItsLatestState) {
  modeltrees::build(*local);
  mountAll();
  a->outputRoomIs(1);
  connect();
  auto status = Kiv::entityCast<Controller::ServiceMountStatus>(local->entityPtr(modeltrees::kMountStatus));
  auto mount = status->systemStatus("00:00:00:00:00:01")->serviceMountGroupStatus("g1")->mountStatus("/a");
  Kiv::Ptr<Recorder<Controller::ServiceMountStatus>> there(
      new Recorder<Controller::ServiceMountStatus>(replica<Controller::ServiceMountStatus>(modeltrees::kMountStatus)));

  std::uint64_t const framesBefore = b->framesIn();
  captured([&] {
    for (int i = 0; i < 100; ++i) {
      status->initialMountsCompleteIs("k" + std::to_string(i % 5), i % 2 == 0);
      mount->mountStateIs(static_cast<Controller::MountState>(i % 5));
      mount->mountedPathIs("/mnt/" + std::to_string(i));
    }
  });
  EXPECT_EQ(dump(*b->replicaDir()), dump(*local));

  // The first change found room; the rest waited, and each key or attribute then went once:
  // five keys and two attributes.
  EXPECT_LE(b->framesIn() - framesBefore, 1u + 7u);
  std::map<std::string, int> heard;
  for (std::string const& call : there->calls) ++heard[call];
  EXPECT_EQ(heard.size(), 5u);
  EXPECT_EQ(heard["initialMountsComplete(k0)"], 2);  // the first change, then the latest
  for (int k = 1; k < 5; ++k) EXPECT_EQ(heard["initialMountsComplete(k" + std::to_string(k) + ")"], 1);
}

TEST_F(Replication, ADerivedAttributeOrAConstructorParameterNeverTravelsAsAnUpdate) {
  modeltrees::build(*local);
  mountAll();
  stream = InProcessStream::InProcessStreamIs(a, b);
  std::vector<std::uint8_t> bytes = a->output();  // the remount, still undelivered
  loop.runUntilIdle();
  for (int step = 1; step <= modeltrees::kSteps; ++step) {
    std::vector<std::uint8_t> more = captured([&] { modeltrees::change(*local, step); });
    bytes.insert(bytes.end(), more.begin(), more.end());
  }
  std::vector<wirelog::Frame> const frames = wirelog::Reader().read(bytes);
  std::size_t updates = 0;
  for (wirelog::Frame const& f : frames) {
    if (f.op != Op::value && f.op != Op::entry && f.op != Op::member && f.op != Op::del) continue;
    ++updates;
    Kiv::AttrInfo const* attr = wirelog::attrOf(f);
    ASSERT_TRUE(attr) << "attribute " << f.id << " of " << (f.type ? f.type->name : "?");
    EXPECT_NE(attr->kind, Kiv::AttrKind::derived) << f.type->name << "::" << attr->name;
    EXPECT_NE(attr->kind, Kiv::AttrKind::constant) << f.type->name << "::" << attr->name;
  }
  EXPECT_GT(updates, 50u);
  EXPECT_EQ(dump(*b->replicaDir()), dump(*local));
}

TEST_F(Replication, ARoundCompletesOnlyOnceWhatWasSentBeforeItIsApplied) {
  modeltrees::build(*local);
  mountAll();
  a->outputRoomIs(16);
  connect();
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
  loop.advanceBy(0.5);
  EXPECT_EQ(a->mountTable(Demuxer::kAppliedTable)->round(), 0u);
  EXPECT_NE(dump(*b->replicaDir()), dump(*local));
  loop.advanceBy(60);
  EXPECT_EQ(a->mountTable(Demuxer::kAppliedTable)->round(), 1u);
  EXPECT_EQ(inStepAtCompletion, std::vector<bool>{true});
}

namespace {

// A frame of raw bytes: length prefix, op, then the fields.
std::vector<std::uint8_t> frame(Op op, auto&& fields) {
  std::vector<std::uint8_t> out;
  Encoder e(out);
  e.begin(op);
  fields(e);
  e.end();
  return out;
}

}  // namespace

TEST_F(Replication, BadBytesEndTheConnectionWithOneErrorAndLeaveOnlyWholeUpdates) {
  using Controller::ServiceMountConfig;
  modeltrees::build(*local);
  a->mountIs(modeltrees::kMountConfig, local->entityPtr(modeltrees::kMountConfig));
  stream = InProcessStream::InProcessStreamIs(a, b);
  std::vector<wirelog::Frame> const remount = wirelog::Reader().read(a->output());
  loop.runUntilIdle();
  std::uint64_t root = 0, group = 0;
  for (wirelog::Frame const& f : remount) {
    if (f.op == Op::root) root = f.handle;
    if (f.op == Op::member && f.key == "g1") group = f.child;
  }
  ASSERT_NE(root, 0u);
  ASSERT_NE(group, 0u);
  std::string const whole = dump(*b->replicaDir());
  auto const warm = ServiceMountConfig::kivWarmAttrId;
  auto const groups = ServiceMountConfig::kivMountGroupConfigAttrId;

  struct Case {
    char const* what;
    std::vector<std::uint8_t> bytes;
    char const* error;
  };
  std::vector<std::uint8_t> oversized = {0x80, 0x80, 0x80, 0x01};  // 2 MiB announced
  std::vector<std::uint8_t> truncated = frame(Op::value, [&](Encoder& e) {
    e.varint(root);
    e.varint(warm);
  });
  std::vector<Case> const cases = {
      {"unknown op", frame(static_cast<Op>(99), [](Encoder&) {}), "unknown op 99"},
      {"unknown attribute", frame(Op::value, [&](Encoder& e) {
         e.varint(root);
         e.varint(300);
         e.value(true);
       }), "has no attribute 300"},
      {"derived attribute", frame(Op::value, [&](Encoder& e) {
         e.varint(root);
         e.varint(ServiceMountConfig::kivAgentNameAttrId);
         e.value(Kiv::String("x"));
       }), "agentName takes no value update"},
      {"wrong kind", frame(Op::value, [&](Encoder& e) {
         e.varint(root);
         e.varint(warm);
         e.value(Kiv::String("yes"));
       }), "where kind 1 is wanted"},
      {"absent entity", frame(Op::value, [&](Encoder& e) {
         e.varint(999);
         e.varint(warm);
         e.value(false);
       }), "absent entity 999"},
      {"reference to an absent entity", frame(Op::value, [&](Encoder& e) {
         e.varint(group);
         e.varint(Controller::ServiceMountGroupConfig::kivVersionFilterAttrId);
         e.reference(12345);
       }), "reference to absent entity 12345"},
      {"reference of the wrong type", frame(Op::value, [&](Encoder& e) {
         e.varint(group);
         e.varint(Controller::ServiceMountGroupConfig::kivVersionFilterAttrId);
         e.reference(root);
       }), "where a Controller::MountFilterServiceVersion is wanted"},
      {"invalid key", frame(Op::member, [&](Encoder& e) {
         e.varint(root);
         e.varint(groups);
         e.value(Kiv::Name(""));
         e.varint(777);
       }), "empty key for"},
      {"member cut short", frame(Op::member, [&](Encoder& e) {
         e.varint(group);
         e.varint(Controller::ServiceMountGroupConfig::kivMountConfigAttrId);
         e.value(Kiv::Name("/half"));
         e.varint(778);
         e.value(Kiv::String("only one of three parameters"));
       }), "truncated frame"},
      {"oversized frame", oversized, "frame of more than"},
      {"a second hello", frame(Op::hello, [](Encoder& e) { e.byte(kVersion); }), "second hello"},
      {"trailing bytes", frame(Op::value, [&](Encoder& e) {
         e.varint(root);
         e.varint(warm);
         e.value(false);
         e.byte(0);
       }), "trailing bytes"},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(b->connectStatus(), connectStatusConnected);
    b->bytesIn(c.bytes.data(), c.bytes.size());
    loop.runUntilIdle();
    EXPECT_EQ(b->connectStatus(), connectStatusDisconnected);
    EXPECT_NE(b->error().find(c.error), std::string::npos) << b->error();
    EXPECT_EQ(dump(*b->replicaDir()), whole);
    stream->reconnect();
    loop.runUntilIdle();
    EXPECT_TRUE(b->error().empty());
  }

  // A valid update ahead of a bad one in the same bytes is applied; the bad one is not.
  std::vector<std::uint8_t> bytes = frame(Op::value, [&](Encoder& e) {
    e.varint(root);
    e.varint(warm);
    e.value(false);
  });
  bytes.insert(bytes.end(), truncated.begin(), truncated.end() - 1);
  b->bytesIn(bytes.data(), bytes.size());
  EXPECT_FALSE(replica<ServiceMountConfig>(modeltrees::kMountConfig)->warm());
  stream->breakIs();
  EXPECT_NE(b->error().find("connection ended inside a frame"), std::string::npos) << b->error();
}

TEST_F(Replication, AConnectionBrokenAtAnyByteLeavesAReplicaThatTheNextRemountMakesWhole) {
  std::vector<std::uint8_t> const bytes = aConnection();
  std::string const source = dump(*local);
  std::vector<std::size_t> const frames = frameStarts(bytes);
  // The replica keeps whatever the cut connection left, as after any break.
  for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
    bool const betweenFrames = std::binary_search(frames.begin(), frames.end(), cut);
    ASSERT_EQ(brokenAfter(bytes, cut).empty(), betweenFrames) << "cut at byte " << cut;
    remount();
    ASSERT_EQ(dump(*b->replicaDir()), source) << "cut at byte " << cut;
  }
}

TEST_F(Replication, AFrameLongerOrShorterThanItsLengthOrOverTheLimitEndsTheConnectionCleanly) {
  std::vector<std::uint8_t> const bytes = aConnection();
  std::string const source = dump(*local);
  std::vector<std::size_t> const frames = frameStarts(bytes);
  auto const check = [&](std::vector<std::uint8_t> const& bad, std::string const& error) {
    std::string const got = brokenAfter(bad, bad.size());
    EXPECT_NE(got.find(error), std::string::npos) << got;
    remount();
    ASSERT_EQ(dump(*b->replicaDir()), source);
  };

  // Each frame in turn with a length one short of its payload, or one past it: then it takes the
  // next frame's first byte, or waits for a byte that never comes.
  auto const at = [&](std::size_t i) { return bytes.begin() + static_cast<std::ptrdiff_t>(i); };
  for (std::size_t f = 0; f + 1 < frames.size(); ++f) {
    SCOPED_TRACE("frame " + std::to_string(f));
    Decoder d(&*at(frames[f]), frames[f + 1] - frames[f]);
    std::size_t const length = static_cast<std::size_t>(d.varint());
    for (bool shorter : {true, false}) {
      std::vector<std::uint8_t> bad(bytes.begin(), at(frames[f]));
      Encoder(bad).varint(shorter ? length - 1 : length + 1);
      bad.insert(bad.end(), at(frames[f + 1] - length), at(frames[f + 1] - shorter));
      bad.insert(bad.end(), at(frames[f + 1]), bytes.end());
      check(bad, shorter                 ? "truncated frame"
                 : f + 2 < frames.size() ? "trailing bytes"
                                         : "connection ended inside a frame");
    }
  }

  // A length over the limit is refused as soon as it is read, before any of the payload it
  // announces is awaited; one at the limit is awaited.
  std::vector<std::uint8_t> const whole(bytes.begin(), at(frames[frames.size() / 2]));
  auto const announcing = [&](std::uint64_t length) {
    std::vector<std::uint8_t> bad = whole;
    Encoder(bad).varint(length);
    bad.resize(bad.size() + 1000, 0);
    return bad;
  };
  check(announcing(kMaxFrame + 1), "frame of more than");
  check(announcing(std::uint64_t(1) << 40), "frame of more than");
  check(announcing(kMaxFrame), "connection ended inside a frame");
  std::vector<std::uint8_t> endless = whole;
  endless.resize(endless.size() + 1000, 0xff);
  check(endless, "frame of more than");
}

TEST_F(Replication, FiftyReconnectionsWithChangesUpAndDownEachEndWithTheReplicaInStep) {
  modeltrees::build(*local);
  mountAll();
  // A small output and a slow stream: each break finds changes applied, in flight and still
  // dirty, and a round whose marker or acknowledgement goes with them.
  a->outputRoomIs(64);
  connect();
  stream->latencyIs(0.01);
  auto const table = [&](std::uint32_t index) { return a->mountTable(index); };
  for (int i = 0; i < 50; ++i) {
    modeltrees::churn(*local, *a, 2 * i);
    table(Demuxer::kRequestTable)->nextRoundIs(2 * i + 1);
    loop.advanceBy(0.01 * (i % 4));
    stream->breakIs();
    if (i % 2 == 1) modeltrees::churn(*local, *a, 2 * i + 1);
    stream->reconnect();
    std::uint64_t const remounted = 2 * i + 2;
    table(Demuxer::kRequestTable)->nextRoundIs(remounted);
    ASSERT_TRUE(loop.runUntil([&] { return table(Demuxer::kAppliedTable)->round() == remounted; }, loop.now() + 10))
        << "reconnection " << i;
    ASSERT_EQ(dump(*b->replicaDir()), dump(*local)) << "reconnection " << i;
  }
  EXPECT_EQ(a->error() + b->error(), "");
}
