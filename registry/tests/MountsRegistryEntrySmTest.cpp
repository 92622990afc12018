#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "MountsRegistryMachines.h"
#include "kiv/Exception.h"
#include "registry/tests/RegistryWorld.h"

namespace Controller::testing {

// The merged tables are the mounters' machines' to write; the death test breaks them on purpose.
struct EntryTablesAccess {
  static void connectionFilterIs(MountsRegistryEntrySm& sm, Kiv::String const& system, std::uint32_t count) {
    sm.connectionFilterIs(system, count);
  }
};

namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::ThrowsMessage;

constexpr char const* kS1 = "00:00:00:00:00:01";
constexpr char const* kS2 = "00:00:00:00:00:02";
constexpr char const* kS3 = "00:00:00:00:00:03";
// A switch that connects while the machines run is mounted before its handshake is over; that
// attempt times out (5 s) and the retry succeeds after the 1 s latency.
constexpr Kiv::Seconds kFirstMount = 7;

// A registry world with services that declare mount groups, and the entries they mount.
struct EntryWorld : RegistryWorld {
  Kiv::Ptr<ServiceMountConfig> service(std::string const& name) {
    mountStatus->entryIs<ServiceMountStatus>(name);
    auto config = mountConfig->entryIs<ServiceMountConfig>(name);
    config->serviceNameIs(name);
    return config;
  }
  Kiv::Ptr<ServiceMountStatus> statusOf(std::string const& name) {
    return Kiv::entityCast<ServiceMountStatus>(mountStatus->entityPtr(name));
  }
  // The group's mounter on the entry at `path` ("/x/y"; created with its target directory when
  // absent), as the service configuration side would add it.
  Kiv::Ptr<MountsRegistryEntry> mount(Kiv::Ptr<ServiceMountConfig> const& svc, std::string const& group,
                                      std::string const& path) {
    auto entry = registry->mountEntry(path);
    if (!entry) {
      Kiv::Ptr<Kiv::Dir> dir = root->subdirIs("mounts");
      for (auto const& c : {path.substr(1, path.find('/', 1) - 1), path.substr(path.find('/', 1) + 1)})
        dir = dir->subdirIs(c);
      entry = registry->mountEntryIs(path, "mounts" + path, "Sim::Record", "r");
    }
    auto groupConfig = svc->mountGroupConfigIs(group);
    auto config = groupConfig->mountConfigIs(path, "Sim::Record", "r", "");
    entry->mounterIs(MounterName(svc->serviceName(), group), config, groupConfig, statusOf(svc->name().stdString()));
    return entry;
  }
  Sim::Switch& offering(char const* addr, std::string const& service, std::uint32_t version = 1) {
    Sim::Switch& s = network.switchIs(addr);
    s.serviceVersionIs(Kiv::Name(service), version);
    s.entityIs("sys/a")->attrIs("mtu", "9000");
    s.entityIs("sys/b");
    return s;
  }
  Kiv::Ptr<MountsRegistryEntrySm> entrySm(std::string const& path) { return sm->mountsRegistryEntrySm(path); }
  Kiv::Ptr<ServiceMountGroupStatus> groupStatus(std::string const& svc, Sim::Switch const& s, std::string const& g) {
    auto system = statusOf(svc)->systemStatus(s.name());
    return system ? system->serviceMountGroupStatus(g) : nullptr;
  }
  Kiv::Ptr<MountStatus> row(std::string const& svc, Sim::Switch const& s, std::string const& g,
                            std::string const& path) {
    auto group = groupStatus(svc, s, g);
    return group ? group->mountStatus(path) : nullptr;
  }
  std::optional<MountState> stateOf(std::string const& svc, Sim::Switch const& s, std::string const& g,
                                    std::string const& path) {
    auto r = row(svc, s, g, path);
    return r ? std::optional<MountState>(r->mountState()) : std::nullopt;
  }
  bool copied(Sim::Switch const& s, std::string const& path) {
    return bool(root->entityAtPath("mounts" + path + "/" + s.name().stdString() + path.substr(path.rfind('/'))));
  }
};

// Level-5 and level-8 messages of the unit, kept for inspection.
struct Capture : Kiv::TraceCapture {
  Capture() {
    mountsRegistrySmTrace.levelIs(5, true);
    mountsRegistrySmTrace.levelIs(8, true);
  }
  ~Capture() override { mountsRegistrySmTrace.levelsIs(0); }
  bool has(std::string const& text) const {
    auto all = messages();
    return std::any_of(all.begin(), all.end(), [&](std::string const& m) { return m.find(text) != std::string::npos; });
  }
};

class MountsRegistryEntrySmTest : public ::testing::Test, public EntryWorld {};
class MounterConfigSmTest : public ::testing::Test, public EntryWorld {};
class MounterConfigSmDeathTest : public MounterConfigSmTest {};

TEST_F(MountsRegistryEntrySmTest, AWildcardMounterTakesEverySwitchThatNegotiatedItsService) {
  Capture capture;
  auto svc = service("svc");
  mount(svc, "g", "/sys/a");
  auto& s1 = offering(kS1, "svc");
  auto& s2 = offering(kS2, "other");
  s1.connect();
  s2.connect();
  start();
  auto entry = entrySm("/sys/a");
  ASSERT_TRUE(entry);
  EXPECT_TRUE(entry->wildCardMount());
  EXPECT_TRUE(capture.has("MoutnsRegistryEntrySm::handleInitialized /sys/a"));
  loop.advanceBy(2);

  EXPECT_TRUE(copied(s1, "/sys/a"));
  ASSERT_TRUE(row("svc", s1, "g", "/sys/a"));
  EXPECT_EQ(stateOf("svc", s1, "g", "/sys/a"), mountStateMounted);
  EXPECT_EQ(row("svc", s1, "g", "/sys/a")->mountedPath(), "mounts/sys/a/" + s1.name().stdString() + "/a");
  EXPECT_EQ(groupStatus("svc", s1, "g")->mountState(), mountStateMounted);
  EXPECT_TRUE(groupStatus("svc", s1, "g")->processed());

  // No version of any mounter's service: never mounted, wildcard or not.
  EXPECT_FALSE(entry->mountSm(s2.systemId()));
  EXPECT_FALSE(copied(s2, "/sys/a"));
  EXPECT_EQ(stateOf("svc", s2, "g", "/sys/a"), mountStateUnmounted);
  EXPECT_TRUE(capture.has(
      "bool Controller::MountsRegistryEntrySm::canMountFromConnection(Kiv::String):  no version negotiated:" +
      s2.name().stdString()));
}

TEST_F(MountsRegistryEntrySmTest, FiltersChooseTheSwitchesAndFollowTheirChanges) {
  Capture capture;
  auto svc = service("svc");
  auto systems = svc->systemFilterIs("sf");
  systems->includedSystemIs(kS1, true);
  systems->includedSystemIs(kS2, true);
  auto versions = svc->versionFilterIs("vf");
  versions->includedServiceVersionIs(2, true);
  auto group = svc->mountGroupConfigIs("g");
  group->systemFilterIs(systems);
  group->versionFilterIs(versions);
  mount(svc, "g", "/sys/a");
  auto& s1 = offering(kS1, "svc", 2);
  auto& s2 = offering(kS2, "svc", 1);  // in the connection filter, refused by the version filter
  auto& s3 = offering(kS3, "svc", 2);  // outside the connection filter
  for (auto* s : {&s1, &s2, &s3}) s->connect();
  start();
  loop.advanceBy(2);
  auto entry = entrySm("/sys/a");
  EXPECT_FALSE(entry->wildCardMount());
  EXPECT_TRUE(copied(s1, "/sys/a"));
  EXPECT_FALSE(entry->mountSm(s2.systemId()));
  EXPECT_FALSE(entry->mountSm(s3.systemId()));
  EXPECT_TRUE(capture.has(":  version filter not matched for /sys/a"));
  EXPECT_TRUE(capture.has(":  not in connectionFilter:" + s3.name().stdString()));
  // Uninterested mounters get no row, but the group is processed.
  EXPECT_FALSE(row("svc", s2, "g", "/sys/a"));
  EXPECT_FALSE(row("svc", s3, "g", "/sys/a"));
  EXPECT_TRUE(groupStatus("svc", s3, "g")->processed());

  versions->includedServiceVersionIs(1, true);
  loop.advanceBy(2);
  EXPECT_TRUE(copied(s2, "/sys/a"));
  EXPECT_EQ(stateOf("svc", s2, "g", "/sys/a"), mountStateMounted);

  systems->includedSystemDel(kS1);
  loop.advanceBy(2);
  EXPECT_FALSE(entry->mountSm(s1.systemId()));
  EXPECT_FALSE(copied(s1, "/sys/a"));
  EXPECT_FALSE(row("svc", s1, "g", "/sys/a"));
}

TEST(MountsRegistryEntrySmDisconnect, UnmountsPreservingStateOnlyWhenAMounterAsksAndWithdrawsStatus) {
  for (bool preserve : {false, true}) {
    SCOPED_TRACE(preserve ? "preserving" : "ordinary");
    EntryWorld w;
    Capture capture;
    auto svc = w.service("svc");
    svc->mountGroupConfigIs("g")->preserveMountsOnDisconnectIs(preserve);
    w.mount(svc, "g", "/sys/a");
    auto& s1 = w.offering(kS1, "svc");
    w.start();
    s1.connect();
    w.loop.advanceBy(kFirstMount);
    ASSERT_TRUE(w.copied(s1, "/sys/a"));
    EXPECT_TRUE(w.statusOf("svc")->systemStatus(s1.name()));

    s1.disconnect();
    EXPECT_TRUE(capture.has(preserve ? ": unmount is state-preserving" : ": unmount is not state-preserving"));
    EXPECT_FALSE(w.statusOf("svc")->systemStatus(s1.name()));
    EXPECT_TRUE(w.entrySm("/sys/a")->mountSm(s1.systemId()));  // until the unmount is done
    w.loop.advanceBy(2);
    EXPECT_FALSE(w.entrySm("/sys/a")->mountSm(s1.systemId()));
    EXPECT_FALSE(w.entrySm("/sys/a")->mountSmData(s1.systemId()));
    EXPECT_EQ(w.copied(s1, "/sys/a"), preserve);
  }
}

TEST_F(MountsRegistryEntrySmTest, ASwitchBackBeforeItsUnmountEndsIsRemountedByTheSameMachine) {
  Capture capture;
  mount(service("svc"), "g", "/sys/a");
  auto& s1 = offering(kS1, "svc").unmountLatencyIs(3);
  start();
  s1.connect();
  loop.advanceBy(kFirstMount);
  auto entry = entrySm("/sys/a");
  Kiv::Ptr<MountSm> machine = entry->mountSm(s1.systemId());
  ASSERT_TRUE(machine);

  s1.flap(1);
  loop.advanceBy(1.5);
  EXPECT_EQ(entry->mountSm(s1.systemId()), machine);
  EXPECT_TRUE(capture.has(":  remounting:/sys/a from:" + s1.name().stdString()));
  EXPECT_EQ(machine->connectionConfig()->generation(), 2u);
  loop.advanceBy(kFirstMount);
  EXPECT_EQ(entry->mountSm(s1.systemId()), machine);
  EXPECT_EQ(stateOf("svc", s1, "g", "/sys/a"), mountStateMounted);
  EXPECT_TRUE(copied(s1, "/sys/a"));
}

TEST_F(MountsRegistryEntrySmTest, AFailingPathEndsFailedAndTheGroupCombinesItsPaths) {
  auto svc = service("svc");
  mount(svc, "g", "/sys/a");
  mount(svc, "g", "/sys/c");  // absent on the switch: every attempt times out
  auto& s1 = offering(kS1, "svc");
  s1.connect();
  start();
  loop.advanceBy(2);
  EXPECT_EQ(stateOf("svc", s1, "g", "/sys/a"), mountStateMounted);
  EXPECT_EQ(stateOf("svc", s1, "g", "/sys/c"), mountStateMounting);
  EXPECT_EQ(groupStatus("svc", s1, "g")->mountState(), mountStateMounting);
  loop.advanceBy(20);  // three attempts of 5 s
  EXPECT_EQ(stateOf("svc", s1, "g", "/sys/c"), mountStateFailed);
  EXPECT_EQ(groupStatus("svc", s1, "g")->mountState(), mountStateFailed);
}

TEST(MountsRegistryEntrySmGroupState, InProgressBeatsFailedWhichBeatsAPartialMount) {
  auto dir = Kiv::Dir::DirIs("status");
  auto group = dir->entryIs<ServiceMountStatus>("svc")->systemStatusIs("s")->serviceMountGroupStatusIs("g");
  auto combined = [&](std::vector<MountState> const& states) {
    group->mountStatusDelAll();
    for (std::size_t i = 0; i < states.size(); ++i)
      group->mountStatusIs("/p" + std::to_string(i))->mountStateIs(states[i]);
    return MountsRegistryEntrySm::combinedMountState(*group);
  };
  EXPECT_EQ(combined({mountStateMounted, mountStateMounted}), mountStateMounted);
  EXPECT_EQ(combined({mountStateFailed, mountStateFailed}), mountStateFailed);
  EXPECT_EQ(combined({mountStateMounted, mountStateFailed}), mountStateFailed);
  EXPECT_EQ(combined({mountStateMounted, mountStateFailed, mountStateMounting}), mountStateMounting);
  EXPECT_EQ(combined({mountStateFailed, mountStateUnmounting}), mountStateUnmounting);
  EXPECT_EQ(combined({mountStateUnmounting, mountStateMounting}), mountStateMounting);
  EXPECT_EQ(combined({mountStateMounted, mountStateUnmounted}), mountStateUnmounted);
}

TEST_F(MountsRegistryEntrySmTest, AnEntryThatGoesTakesDownItsMountsAndRows) {
  auto svc = service("svc");
  mount(svc, "g", "/sys/a");
  mount(svc, "g", "/sys/b");
  auto& s1 = offering(kS1, "svc");
  s1.connect();
  start();
  loop.advanceBy(2);
  ASSERT_TRUE(row("svc", s1, "g", "/sys/a"));

  registry->mountEntryDel("/sys/a");
  EXPECT_FALSE(entrySm("/sys/a"));
  EXPECT_FALSE(copied(s1, "/sys/a"));
  EXPECT_FALSE(row("svc", s1, "g", "/sys/a"));
  EXPECT_EQ(stateOf("svc", s1, "g", "/sys/b"), mountStateMounted);
}

TEST_F(MounterConfigSmTest, MountersSharingASystemAreCountedAndTheLastOneOutReevaluates) {
  Capture capture;
  auto a = service("svcA");
  auto b = service("svcB");
  for (auto const& svc : {a, b}) {
    auto systems = svc->systemFilterIs("sf");
    systems->includedSystemIs(kS1, true);
    svc->mountGroupConfigIs("g")->systemFilterIs(systems);
  }
  auto versions = a->versionFilterIs("vf");
  versions->includedServiceVersionIs(1, true);
  versions->includedServiceVersionIs(2, true);
  a->mountGroupConfigIs("g")->versionFilterIs(versions);
  auto& s1 = offering(kS1, "svcA");
  s1.connect();
  start();
  mount(a, "g", "/sys/a");
  auto entry = entrySm("/sys/a");
  EXPECT_EQ(entry->connectionFilter(kS1), 1u);
  mount(b, "g", "/sys/a");
  EXPECT_EQ(entry->connectionFilter(kS1), 2u);
  std::string const add = "void Controller::MounterConfigSm::addSystemToConnectionFilter(Kiv::String):  ";
  auto lines = capture.messages(5);
  auto first = std::find(lines.begin(), lines.end(), add + "new filter:" + kS1 + " path:/sys/a");
  EXPECT_NE(std::find(first, lines.end(), add + "refcount:2 filter:" + kS1 + " path:/sys/a"), lines.end());
  EXPECT_EQ(entry->versionFilter("svcA")->versionSize(), 2u);
  EXPECT_FALSE(entry->versionFilter("svcB"));

  // Dropping one of two references re-evaluates nothing; a false entry is no reference at all.
  capture.clear();
  b->systemFilter("sf")->includedSystemIs(kS1, false);
  b->systemFilter("sf")->includedSystemDel(kS1);
  EXPECT_EQ(entry->connectionFilter(kS1), 1u);
  EXPECT_THAT(capture.messages(8), Not(Contains(HasSubstr("MountsRegistryEntrySm::handleSwitchConnection"))));
  a->systemFilter("sf")->includedSystemDel(kS1);
  EXPECT_FALSE(entry->connectionFilterContains(kS1));
  EXPECT_THAT(capture.messages(8), Contains(HasSubstr("MountsRegistryEntrySm::handleSwitchConnection")));

  versions->includedServiceVersionDel(1);
  EXPECT_EQ(entry->versionFilter("svcA")->versionSize(), 1u);
  versions->includedServiceVersionDel(2);
  EXPECT_FALSE(entry->versionFilter("svcA"));
}

TEST_F(MounterConfigSmTest, AGoneMounterWithdrawsItsRowsAndLeavesSharedStatusesWhileUsed) {
  Capture capture;
  auto svc = service("svc");
  auto systems = svc->systemFilterIs("sf");
  systems->includedSystemIs(kS1, true);
  svc->mountGroupConfigIs("g")->systemFilterIs(systems);
  auto a = mount(svc, "g", "/sys/a");
  auto b = mount(svc, "g", "/sys/b");
  statusOf("svc")->mountedPathPrefixIs("/sys/a", "mounts/sys/a");
  auto& s1 = offering(kS1, "svc");
  s1.connect();
  start();
  loop.advanceBy(2);

  a->mounterDel("svc");
  EXPECT_FALSE(entrySm("/sys/a")->mounterConfigSm("svc"));
  EXPECT_FALSE(entrySm("/sys/a")->connectionFilterContains(kS1));
  EXPECT_FALSE(row("svc", s1, "g", "/sys/a"));
  EXPECT_TRUE(row("svc", s1, "g", "/sys/b"));
  EXPECT_FALSE(statusOf("svc")->mountedPathPrefix("/sys/a"));  // the service no longer mounts the path
  EXPECT_TRUE(capture.has("MounterConfigSm::doCleanup: Deleting mount status for /sys/a"));
  EXPECT_FALSE(capture.has("Deleting mount group status"));

  b->mounterDel("svc");
  EXPECT_FALSE(groupStatus("svc", s1, "g"));
  EXPECT_FALSE(statusOf("svc")->systemStatus(s1.name()));
  EXPECT_TRUE(capture.has("MounterConfigSm::doCleanup: Deleting system status for " + s1.name().stdString()));
}

TEST_F(MounterConfigSmTest, OnlyOneMounterPerServiceAndNoNullParameters) {
  auto svc = service("svc");
  mount(svc, "g", "/sys/a");
  auto other = mount(svc, "h", "/sys/b");
  start();
  auto entry = entrySm("/sys/a");
  EXPECT_EQ(entry->mounterConfigSmIs(registry->mountEntry("/sys/a")->mounter("svc")), entry->mounterConfigSm("svc"));
  EXPECT_THAT([&] { entry->mounterConfigSmIs(other->mounter("svc")); },
              ThrowsMessage<Kiv::NameInUseException>(
                  HasSubstr(" where constructor parameter attribute _mounter has a different value of ")));
  EXPECT_THAT([&] { entry->mounterConfigSmIs(nullptr); }, ThrowsMessage<Kiv::RangeException>("null ValidPtr"));
  EXPECT_THAT([&] { entry->mountSmDataIs(SystemId(kS1), nullptr); },
              ThrowsMessage<Kiv::RangeException>("null ValidPtr"));
  EXPECT_THAT([&] { entry->mountSmIs(SystemId(kS1), nullptr); }, ThrowsMessage<Kiv::RangeException>("null ValidPtr"));
}

TEST_F(MounterConfigSmDeathTest, ACountBelowOneForAnIncludedSystemIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto svc = service("svc");
  auto systems = svc->systemFilterIs("sf");
  systems->includedSystemIs(kS1, true);
  svc->mountGroupConfigIs("g")->systemFilterIs(systems);
  mount(svc, "g", "/sys/a");
  start();
  EntryTablesAccess::connectionFilterIs(*entrySm("/sys/a"), kS1, 0);
  EXPECT_DEATH(systems->includedSystemDel(kS1), "refCount > 1");
  EntryTablesAccess::connectionFilterIs(*entrySm("/sys/a"), kS1, 1);  // consistent again for the clean-up at the end
}

}  // namespace
}  // namespace Controller::testing
