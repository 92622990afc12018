#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "MountsRegistry.h"
#include "kiv/Exception.h"

namespace {

using Controller::MounterName;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

std::string reinstantiation(std::string const& key, std::string const& attr, std::string const& now,
                            std::string const& was) {
  return "Reinstantiating the entity with name " + key + " where constructor parameter attribute _" + attr +
         " has a different value of " + now + " than the current value of " + was + " not allowed";
}

Kiv::Ptr<Controller::MountsRegistry> newRegistry() {
  auto root = Kiv::Dir::DirIs("root");
  return Controller::MountsRegistry::MountsRegistryIs(root->subdirIs("mounts"), "mounts", root, "/remote", 3, 10.0);
}

// Every keyed notification of the registry and of one entry, in order.
struct RegistryLog : Controller::MountsRegistry::NotifieeConst {
  using NotifieeConst::NotifieeConst;
  void onMountEntry(Kiv::Name const& k) override { calls.push_back("mountEntry " + k.stdString()); }
  void onPublishEntry(Kiv::Name const& k) override { calls.push_back("publishEntry " + k.stdString()); }
  void onServicePublishReady(Kiv::String const& k) override { calls.push_back("ready " + k.stdString()); }
  std::vector<std::string> calls;
};

TEST(MountsRegistry, MountEntriesAreCheckedInOrderAndKeepTheirFirstValues) {
  auto registry = newRegistry();
  Kiv::Ptr<RegistryLog> log(new RegistryLog(registry));
  EXPECT_EQ(registry->name(), Kiv::Name());

  auto entry = registry->mountEntryIs("/a/b", "mounts/a", "Sim::Record", "r");
  EXPECT_EQ(registry->mountEntryIs("/a/b", "mounts/a", "Sim::Record", "r"), entry);
  EXPECT_EQ(entry->registry(), registry.ptr());
  EXPECT_EQ(entry->remotePath(), Kiv::Name("/a/b"));

  EXPECT_THAT([&] { registry->mountEntryIs("/a/b", "mounts/a", "Sim::Record", "rw"); },
              ThrowsMessage<Kiv::NameInUseException>(reinstantiation("/a/b", "mountFlags", "rw", "r")));
  // Several differences: the first in declaration order is named.
  EXPECT_THAT([&] { registry->mountEntryIs("/a/b", "elsewhere", "Other", "rw"); },
              ThrowsMessage<Kiv::NameInUseException>(reinstantiation("/a/b", "targetPath", "elsewhere", "mounts/a")));
  EXPECT_EQ(entry->mountFlags(), "r");

  EXPECT_THROW(registry->mountEntryIs("", "t", "T", "r"), Kiv::RangeException);
  EXPECT_EQ(registry->mountEntrySize(), 1u);

  registry->mountEntryDel("/a/b");
  EXPECT_EQ(entry->registry(), nullptr);
  registry->mountEntryDel("/a/b");
  EXPECT_THAT(log->calls, ElementsAre("mountEntry /a/b", "mountEntry /a/b"));
}

TEST(MountsRegistry, OneMounterPerServiceReadThroughItsGroup) {
  auto registry = newRegistry();
  auto entry = registry->mountEntryIs("/a", "mounts/a", "T", "r");
  auto config = Kiv::Dir::DirIs("config")->entryIs<Controller::ServiceMountConfig>("svc");
  auto g1 = config->mountGroupConfigIs("g1");
  auto g2 = config->mountGroupConfigIs("g2");
  auto mc1 = g1->mountConfigIs("/a", "T", "r", "");
  auto mc2 = g2->mountConfigIs("/a", "T", "r", "");
  auto status = Kiv::Dir::DirIs("status")->entryIs<Controller::ServiceMountStatus>("svc");
  auto otherStatus = Kiv::Dir::DirIs("status2")->entryIs<Controller::ServiceMountStatus>("svc");

  auto mounter = entry->mounterIs(MounterName("svc", "g1"), mc1, g1, status);
  EXPECT_EQ(entry->mounter("svc"), mounter);
  EXPECT_EQ(mounter->serviceName(), "svc");
  EXPECT_EQ(mounter->groupName(), "g1");
  EXPECT_EQ(entry->mounterIs(MounterName("svc", "g1"), mc1, g1, status), mounter);

  // A second group of the same service collides on the service name.
  EXPECT_THAT([&] { entry->mounterIs(MounterName("svc", "g2"), mc2, g2, status); },
              ThrowsMessage<Kiv::NameInUseException>(reinstantiation(
                  "svc", "mounterName", "Value('Controller::MounterName', ** {'serviceName': 'svc', 'groupName': 'g2'})",
                  "Value('Controller::MounterName', ** {'serviceName': 'svc', 'groupName': 'g1'})")));
  // Pointers compare by identity, in the order mounterName, serviceMountStatus, mountGroupConfig,
  // mountConfig.
  EXPECT_THAT([&] { entry->mounterIs(MounterName("svc", "g1"), mc2, g2, otherStatus); },
              ThrowsMessage<Kiv::NameInUseException>(HasSubstr("attribute _serviceMountStatus has a different value of <")));
  EXPECT_THAT([&] { entry->mounterIs(MounterName("svc", "g1"), mc2, g2, status); },
              ThrowsMessage<Kiv::NameInUseException>(HasSubstr("attribute _mountGroupConfig ")));
  EXPECT_THAT([&] { entry->mounterIs(MounterName("svc", "g1"), mc2, g1, status); },
              ThrowsMessage<Kiv::NameInUseException>(HasSubstr("attribute _mountConfig ")));

  auto other = entry->mounterIs(MounterName("other", "g1"), mc1, g1, otherStatus);
  EXPECT_EQ(entry->mounterSize(), 2u);
  EXPECT_THROW(entry->mounterIs(MounterName("", "g"), mc1, g1, status), Kiv::RangeException);
  EXPECT_EQ(entry->mounterSize(), 2u);

  // Filters and the preserve flag are the group's, as they are now.
  EXPECT_EQ(mounter->systemFilter(), nullptr);
  auto filter = config->systemFilterIs("f");
  g1->systemFilterIs(filter);
  g1->preserveMountsOnDisconnectIs(true);
  EXPECT_EQ(mounter->systemFilter(), filter);
  EXPECT_TRUE(other->preserveMountsOnDisconnect());
  EXPECT_EQ(mounter->versionFilter(), nullptr);
}

TEST(MountsRegistry, PublishEntriesUpdateInPlaceButKeepTheirConstants) {
  auto registry = newRegistry();
  auto config = Kiv::Dir::DirIs("config")->entryIs<Controller::ServicePublishConfig>("svc");
  auto systems = config->systemFilterIs("systems");
  auto versions = config->versionFilterIs("versions");

  auto entry = registry->publishEntryIs("/local/x", "/remote/x", "T", false, "svc", nullptr, nullptr);
  EXPECT_FALSE(entry->readyToPublish());
  EXPECT_EQ(entry->registry(), registry.ptr());

  struct Log : Controller::PublishRegistryEntry::NotifieeConst {
    using NotifieeConst::NotifieeConst;
    void onRemotePath() override { calls.push_back("remotePath"); }
    void onVersionFilter() override { calls.push_back("versionFilter"); }
    void onSystemFilter() override { calls.push_back("systemFilter"); }
    std::vector<std::string> calls;
  };
  Kiv::Ptr<Log> log(new Log(entry));
  EXPECT_EQ(registry->publishEntryIs("/local/x", "/remote/y", "T", false, "svc", versions, systems), entry);
  EXPECT_EQ(entry->remotePath(), "/remote/y");
  EXPECT_EQ(entry->systemFilter(), systems);
  EXPECT_THAT(log->calls, ElementsAre("remotePath", "versionFilter", "systemFilter"));

  // Constants are checked in the order isPrefixPath, serviceName, kivType, before anything changes.
  EXPECT_THAT([&] { registry->publishEntryIs("/local/x", "/remote/z", "U", true, "other", nullptr, nullptr); },
              ThrowsMessage<Kiv::NameInUseException>(reinstantiation("/local/x", "isPrefixPath", "1", "0")));
  EXPECT_THAT([&] { registry->publishEntryIs("/local/x", "/remote/z", "U", false, "other", nullptr, nullptr); },
              ThrowsMessage<Kiv::NameInUseException>(reinstantiation("/local/x", "serviceName", "other", "svc")));
  EXPECT_THAT([&] { registry->publishEntryIs("/local/x", "/remote/z", "U", false, "svc", nullptr, nullptr); },
              ThrowsMessage<Kiv::NameInUseException>(reinstantiation("/local/x", "kivType", "U", "T")));
  EXPECT_EQ(entry->remotePath(), "/remote/y");
  EXPECT_EQ(log->calls.size(), 3u);
  EXPECT_THROW(registry->publishEntryIs("", "/r", "T", false, "svc", nullptr, nullptr), Kiv::RangeException);
}

TEST(MountsRegistry, ServicePublishReadinessNotifiesByService) {
  auto registry = newRegistry();
  Kiv::Ptr<RegistryLog> log(new RegistryLog(registry));
  registry->servicePublishReadyIs("svc", true);
  registry->servicePublishReadyIs("svc", true);
  registry->servicePublishReadyIs("svc", false);
  registry->servicePublishReadyDel("svc");
  registry->servicePublishReadyDel("svc");
  EXPECT_THAT(log->calls, ElementsAre("ready svc", "ready svc", "ready svc"));
}

TEST(MounterName, TextFormOrderingHashAndDefault) {
  MounterName a("svc", "g1");
  std::string text = Kiv::strep(a);
  EXPECT_EQ(text, "Value('Controller::MounterName', ** {'serviceName': 'svc', 'groupName': 'g1'})");
  EXPECT_EQ(Kiv::sequenceToValue<MounterName>(text), a);
  MounterName quoted("it's", "a\\b");
  EXPECT_EQ(Kiv::sequenceToValue<MounterName>(Kiv::strep(quoted)), quoted);
  EXPECT_THROW(Kiv::sequenceToValue<MounterName>("Value('Controller::MounterName', ** {'groupName': 'g'})"),
               Kiv::RangeException);

  EXPECT_LT(MounterName("a", "z"), MounterName("b", "a"));
  EXPECT_LT(MounterName("a", "a"), MounterName("a", "b"));
  EXPECT_EQ(std::hash<MounterName>()(a), std::hash<Kiv::String>()("svc") ^ std::hash<Kiv::String>()("g1"));
  EXPECT_TRUE(!MounterName());
  EXPECT_FALSE(!MounterName("", "g"));
}

}  // namespace
