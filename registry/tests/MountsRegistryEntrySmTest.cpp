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

TEST_F(MountsRegistryEntrySmTest, FiltersChooseTheSwitchesAndFollowTheirChanges) {
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
    EXPECT_FALSE(w.statusOf("svc")->systemStatus(s1.name()));
    EXPECT_TRUE(w.entrySm("/sys/a")->mountSm(s1.systemId()));  // until the unmount is done
    w.loop.advanceBy(2);
    EXPECT_FALSE(w.entrySm("/sys/a")->mountSm(s1.systemId()));
    EXPECT_FALSE(w.entrySm("/sys/a")->mountSmData(s1.systemId()));
    EXPECT_EQ(w.copied(s1, "/sys/a"), preserve);
  }
}

TEST_F(MountsRegistryEntrySmTest, ASwitchBackBeforeItsUnmountEndsIsRemountedByTheSameMachine) {
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
  EXPECT_EQ(machine->connectionConfig()->generation(), 2u);
  loop.advanceBy(kFirstMount);
  EXPECT_EQ(entry->mountSm(s1.systemId()), machine);
  EXPECT_EQ(stateOf("svc", s1, "g", "/sys/a"), mountStateMounted);
  EXPECT_TRUE(copied(s1, "/sys/a"));

  // Back within the same turn: the state still reads mounted, but the unmount asked for is due.
  s1.disconnect();
  s1.connect();
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

  // The failed path no longer mounted: the group is what is left.
  registry->mountEntry("/sys/c")->mounterDel("svc");
  EXPECT_FALSE(row("svc", s1, "g", "/sys/c"));
  EXPECT_EQ(groupStatus("svc", s1, "g")->mountState(), mountStateMounted);
}

// Either filter alone restricts the group; only a group with neither takes every switch, and one
// such mounter among others is enough.
TEST(MountsRegistryEntrySmWildcard, OnlyAGroupWithNeitherFilterIsOne) {
  for (bool bySystem : {true, false}) {
    SCOPED_TRACE(bySystem ? "system filter" : "version filter");
    EntryWorld w;
    auto svc = w.service("svc");
    auto group = svc->mountGroupConfigIs("g");
    if (bySystem) {
      group->systemFilterIs(svc->systemFilterIs("sf"));
      svc->systemFilter("sf")->includedSystemIs(kS1, true);
    } else {
      group->versionFilterIs(svc->versionFilterIs("vf"));
      svc->versionFilter("vf")->includedServiceVersionIs(2, true);
    }
    w.mount(svc, "g", "/sys/a");
    auto& s1 = w.offering(kS1, "svc", 2);
    auto& s2 = w.offering(kS2, "svc", 1);
    s1.connect();
    s2.connect();
    w.start();
    w.loop.advanceBy(2);
    auto entry = w.entrySm("/sys/a");
    EXPECT_FALSE(entry->wildCardMount());
    EXPECT_TRUE(w.copied(s1, "/sys/a"));
    EXPECT_FALSE(entry->mountSm(s2.systemId()));

    w.mount(w.service("any"), "g", "/sys/a");
    w.loop.advanceBy(2);
    EXPECT_TRUE(entry->wildCardMount());
    EXPECT_EQ(w.stateOf("any", s2, "g", "/sys/a"), mountStateMounted);
    EXPECT_FALSE(w.row("svc", s2, "g", "/sys/a"));

    w.registry->mountEntry("/sys/a")->mounterDel("any");
    w.loop.advanceBy(2);
    EXPECT_FALSE(entry->wildCardMount());
    EXPECT_FALSE(entry->mountSm(s2.systemId()));
    EXPECT_TRUE(w.copied(s1, "/sys/a"));
  }
}

// A mounter without filters takes every switch that negotiated a version of a mounter's service,
// and no other: a disabled service counts as not negotiated.
TEST_F(MountsRegistryEntrySmTest, AWildcardTakesOnlyNegotiatedSwitchesAndADisabledServiceIsNot) {
  mount(service("svc"), "g", "/sys/a");
  auto& s1 = offering(kS1, "svc");
  s1.connect();
  start();
  loop.advanceBy(2);
  EXPECT_TRUE(entrySm("/sys/a")->wildCardMount());
  ASSERT_EQ(stateOf("svc", s1, "g", "/sys/a"), mountStateMounted);
  EXPECT_EQ(row("svc", s1, "g", "/sys/a")->mountedPath(), "mounts/sys/a/" + s1.name().stdString() + "/a");
  EXPECT_EQ(groupStatus("svc", s1, "g")->mountState(), mountStateMounted);
  EXPECT_TRUE(groupStatus("svc", s1, "g")->processed());
  auto status = oob->connection(s1.name())->serviceStatusDir()->service("svc");
  status->enabledIs(false);
  EXPECT_EQ(sm->negotiatedServiceVersionForConnection("svc", s1.name()), 0u);
  loop.advanceBy(2);
  EXPECT_FALSE(entrySm("/sys/a")->mountSm(s1.systemId()));
  EXPECT_EQ(stateOf("svc", s1, "g", "/sys/a"), mountStateUnmounted);
  status->enabledIs(true);
  loop.advanceBy(kFirstMount);
  EXPECT_EQ(stateOf("svc", s1, "g", "/sys/a"), mountStateMounted);
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
  EXPECT_FALSE(capture.has("Deleting mount group status"));

  b->mounterDel("svc");
  EXPECT_FALSE(groupStatus("svc", s1, "g"));
  EXPECT_FALSE(statusOf("svc")->systemStatus(s1.name()));
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

// The registry's field messages keep their texts, levels and lines through a life of churn; a
// switch's change reaches the mount entries before the publish entries.
TEST_F(MountsRegistryEntrySmTest, FieldMessagesKeepTextLevelAndLineAndMountsHearFirst) {
  Capture capture;
  auto svc = service("svc");
  auto other = service("svc2");
  for (auto const& x : {svc, other}) {
    x->systemFilterIs("sf")->includedSystemIs(kS1, true);
    x->mountGroupConfigIs("g")->systemFilterIs(x->systemFilter("sf"));
  }
  auto versions = svc->versionFilterIs("vf");
  versions->includedServiceVersionIs(1, true);
  svc->mountGroupConfig("g")->versionFilterIs(versions);
  mount(svc, "g", "/sys/a");
  mount(svc, "g", "/sys/b");
  mount(other, "g", "/sys/a");
  other->mountGroupConfig("g")->preserveMountsOnDisconnectIs(true);
  mount(service("any"), "g", "/sys/b");
  root->subdirIs("local")->entryIs<Kiv::Dir>("a");
  publish("/local/a");
  registry->servicePublishReadyIs("pub", true);
  auto& s1 = offering(kS1, "svc").serviceVersionIs("svc2", 1).serviceVersionIs("pub", 1);
  auto& s2 = offering(kS2, "any").serviceVersionIs("svc", 1);
  start();
  s1.connect();
  s2.connect();
  loop.advanceBy(3);
  versions->includedServiceVersionIs(2, true);
  versions->includedServiceVersionDel(2);
  auto status = oob->connection(s1.name())->serviceStatusDir()->service("svc");
  status->enabledIs(false);
  status->enabledIs(true);
  other->systemFilter("sf")->includedSystemDel(kS1);
  registry->mountEntry("/sys/a")->mounterDel("svc");
  s1.serviceVersionIs("svc", 2);
  loop.advanceBy(3);
  publish("/local/z");  // no such entity: not processed
  registry->publishEntryDel("/local/a");
  registry->mountEntryDel("/sys/b");
  s1.disconnect();
  loop.advanceBy(3);
  s2.disconnect();
  loop.advanceBy(3);

  std::vector<std::string> shown;
  std::vector<std::string> texts;
  for (auto const& l : capture.lines()) {
    shown.push_back(std::to_string(l.level) + " " + l.file + ":" + std::to_string(l.line) + " " + l.message);
    texts.push_back(std::to_string(l.level) + " " + l.message);
  }
  std::string const s = kS1;
  std::string const s2name = kS2;
  std::string const sig = "5 void Controller::MountsRegistryEntrySm::";
  std::string const can = "5 bool Controller::MountsRegistryEntrySm::canMountFromConnection(Kiv::String):  ";
  std::string const match =
      "5 bool Controller::MountsRegistryEntrySm::matchingServiceVersionFilter(Kiv::String, Kiv::String):  ";
  // The entry machine's own messages: their lines are not part of them.
  EXPECT_THAT(texts, ::testing::IsSupersetOf(std::vector<std::string>{
      "8 MoutnsRegistryEntrySm::handleInitialized /sys/a",
      "8 MountsRegistryEntrySm::handleMounter /sys/a",
      sig + "handleMounter(Kiv::String):  new mounter: service:svc group:g",
      sig + "handleMounter(Kiv::String):  mounter gone: service:svc",
      sig + "evaluateMounters():  wildcard mount: service:any group:g",
      can + "no version negotiated:" + s,
      can + "wildcard mount:" + s,
      can + "no versionfilter for /sys/a",
      can + "version filter not matched for /sys/a",
      can + "matched versionFilter:" + s,
      can + "no connectionFilter for /sys/a",
      can + "matched connectionFilter:" + s,
      can + "not in connectionFilter:" + s2name,
      "8 MountsRegistryEntrySm::matchingServiceVersionFilter",
      "8  no version filter for service svc2",
      "8 Supported version for svc for " + s,
      match + "matched version:1 service:svc connection:" + s,
      match + "version:2 not in filter service:svc connection:" + s,
      match + "no version service:svc connection:" + s,
      "8 MountsRegistryEntrySm::handleSwitchConnection /sys/a Peer:" + s,
      sig + "handleSwitchConnection(Controller::SystemId):  Cannot mount:/sys/a from:" + s2name,
      sig + "handleSwitchConnection(Controller::SystemId):  connection:" + s + " registered:false",
      sig + "doConnectSwitch(Controller::SystemId):  mounting:/sys/a from:" + s,
      sig + "doConnectSwitch(Controller::SystemId):  updating status:/sys/a from:" + s,
      sig + "doConnectSwitch(Controller::SystemId):  remounting:/sys/a from:" + s,
      "8 connTargetDirName=" + s + "  targetPath=mounts/sys/a/" + s,
      sig + "doDisconnectSwitch(Controller::SystemId):  already unmounted:/sys/a from:" + s2name,
      sig + "doDisconnectSwitch(Controller::SystemId):  unmounting:/sys/a from:" + s,
      "8 MountsRegistryEntrySm::preserveMountsOnDisconnect: " + s,
      "8 preserveMountsOnDisconnect: mounter for group g and service svc2 has preserve=1",
      "8 : unmount is state-preserving",
      "8 : unmount is not state-preserving",
      sig + "KivMountSmDataSm::handleMountState():  /sys/a connection:" + s +
          " oldMountState:mountStateMounting newMountState:mountStateMounted",
      "8 MountsRegistryEntrySm::handleMountState: Deleting mountSm for " + s,
      sig + "updateMountersStatus(Controller::SystemId, Controller::MountState):  /sys/a connection:" + s,
      "8 group: g mount: <Controller::MountConfig root/mountConfig/svc/g//sys/a>%s config: ",
      "8 mount state:mountStateMounted connection:" + s + " service:svc mountGroup:g remote path:/sys/a",
  }));
  std::string const at = " MountsRegistry.tin:";
  std::string const ready = "void Controller::MountsRegistrySm::handleServicePublishReady(Kiv::String): ";
  std::string const add = "void Controller::MounterConfigSm::addSystemToConnectionFilter(Kiv::String):  ";
  std::string const del = "void Controller::MounterConfigSm::removeSystemFromConnectionFilter(Kiv::String):  ";
  EXPECT_THAT(shown, ::testing::IsSupersetOf({
      "8" + at + "630 MountsRegistrySm::handleSwitchConnection",
      "8" + at + "616 MountsRegistrySm::handleSwitchConnection " + s,
      "8" + at + "666 MountsRegistrySm::handleServiceVersion svc " + s,
      "8" + at + "741 MountsRegistrySm::handleMountEntry: /sys/a Remote Path:/sys/a",
      "8" + at + "750 MountsRegistrySm::handleMountEntry: /sys/b Deleting registry entry sm for :/sys/b",
      "8" + at + "732 MountsRegistrySm::handlePublishEntry",
      "8" + at + "713 MountsRegistrySm::handlePublishEntry: /local/a Controller Path:/local/a",
      "8" + at + "723 MountsRegistrySm::handlePublishEntry: /local/a Deleting publish sm for: /local/a",
      "8" + at + "640 MountsRegistrySm::handlePeer " + s,
      "8" + at + "642 MountsRegistrySm::handlePeer peer:" + s + " added",
      "8" + at + "648 MountsRegistrySm::handlePeer peer:" + s + " removed",
      "8" + at + "767 MountsRegistrySm::handleServicePublishReady: pub",
      "5" + at + "788 " + ready + "Publish entry /local/z not yet processed",
      "5" + at + "795 " + ready + "Setting publishReady for pub",
      "8" + at + "677 MountsRegistrySm::negotiatedServiceVersionForConnection svc " + s,
      "8" + at + "700 MountsRegistrySm::negotiatedServiceVersionForConnection negotiated service version for " + s +
          " for service svc = 1",
      "8" + at + "705 MountsRegistrySm::negotiatedServiceVersionForConnection no version negotiated for " + s +
          " for service svc",
      "8" + at + "925 MounterConfigSm::KivSystemFilter::handleIncludedSystem: " + s,
      "8" + at + "937 MounterConfigSm::KivVersionFilter::handleIncludedServiceVersion: version=2",
      "8" + at + "802 MounterConfigSm::addVersionToVersionFilter 2",
      "8" + at + "810 MounterConfigSm::removeVersionFromVersionFilter 2",
      "8" + at + "821 MounterConfigSm::addSystemToConnectionFilter " + s,
      "5" + at + "830 " + add + "refcount:2 filter:" + s + " path:/sys/a",
      "5" + at + "836 " + add + "new filter:" + s + " path:/sys/a",
      "8" + at + "844 MounterConfigSm::removeSystemFromConnectionFilter " + s,
      "5" + at + "852 " + del + "del filter:" + s + " path:/sys/a",
      "5" + at + "861 " + del + "refcount:1 filter:" + s + " path:/sys/a",
      "8" + at + "870 MounterConfigSm::doCleanup svc",
      "8" + at + "897 MounterConfigSm::doCleanup: Deleting mount status for /sys/a",
      "8" + at + "902 MounterConfigSm::doCleanup: Deleting mount group status for g",
      "8" + at + "907 MounterConfigSm::doCleanup: Deleting system status for " + s,
      "8" + at + "586 ConnectionServiceStatusDirSm::handleEnabled svc: " + s + " enabled: 0",
      "8" + at + "600 ConnectionServiceStatusDirSm::handleInitialized pub",
      "8" + at + "593 ConnectionServiceStatusDirSm::doCleanup pub",
      "8" + at + "561 ConnectionServiceStatusDirSm::handleVersionStatus svc " + s,
      "8" + at + "607 ConnectionServiceStatusDirSm::doCleanup " + s,
  }));

  // After each fan-out of the switch: every mount entry, then the publish entry.
  std::string order;
  for (auto const& line : shown) {
    if (line.find(":616 ") != std::string::npos) order += "|";
    if (line.find(" MountsRegistryEntrySm::handleSwitchConnection /sys/") != std::string::npos) order += "M";
    if (line.find(" PublishRegistryEntrySm::handleSwitchConnection /local/") != std::string::npos) order += "P";
  }
  EXPECT_NE(order.find("|MMP"), std::string::npos) << order;
  for (std::size_t at = order.find('|'); at != std::string::npos; at = order.find('|', at + 1))
    EXPECT_EQ(order.find_first_not_of('M', at + 1), order.find('P', at)) << order;
}

TEST_F(MounterConfigSmDeathTest, AMountMachineMissingWhenItsUnmountEndsIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  mount(service("svc"), "g", "/sys/a");
  auto& s1 = offering(kS1, "svc");
  s1.connect();
  start();
  loop.advanceBy(2);
  auto entry = entrySm("/sys/a");
  entry->mountSmDel(s1.systemId());
  EXPECT_DEATH(entry->mountSmData(s1.systemId())->mountStateIs(mountStateUnmounted),
               "mountsRegistryEntrySm\\(\\)->mountSm\\( connectionId \\)");
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
