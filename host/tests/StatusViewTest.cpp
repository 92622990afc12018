#include <gtest/gtest.h>

#include <set>
#include <tuple>

#include "ControllerdbTypes.h"
#include "host/Report.h"
#include "host/StatusView.h"
#include "host/World.h"

namespace Host {
namespace {

using Rows = std::set<std::tuple<std::string, std::string, std::string, std::string, std::string, std::string>>;

Rows fullRead(World const& w) {
  Rows rows;
  for (auto const& r : mountRows(w)) rows.emplace(r.service, r.sw, r.group, r.path, r.state, r.mountedPath);
  return rows;
}
Rows viewed(StatusView& v) {
  v.update();
  Rows rows;
  for (auto const& [k, r] : v.rows())
    rows.emplace(std::get<0>(k), std::get<1>(k), std::get<2>(k), std::get<3>(k), r.state, r.mountedPath);
  return rows;
}

// The machines write the status key by key; a replicating writer may also replace a member
// wholesale, or announce a whole collection at once. The view follows each of these writes.
TEST(HostStatusView, FollowsEveryKindOfWriteToTheStatus) {
  Scenario const s = parseScenario(
      "switch 00:00:00:00:00:01 version svc=1 pub=1 entity /a /b\n"
      "switch 00:00:00:00:00:02 version svc=1 pub=1 entity /a /b\n"
      "service svc\nmount svc g /a type Sim::Record\nmount svc h /b type Sim::Record\n"
      "service pub ready\nlocal /l\npublish pub pg /l remote /r type Sim::Record\nrun 30\n",
      "t.scn");
  World w(s, Kiv::EventLoop::Mode::virtualTime);
  StatusView v(w);
  w.configure();
  w.start();
  w.loop.advanceTo(30);
  ASSERT_EQ(viewed(v).size(), 4u);
  EXPECT_EQ(viewed(v), fullRead(w));
  EXPECT_EQ(v.published().size(), 2u);
  EXPECT_TRUE(v.changes().empty());  // nothing new since the last update

  auto const status = w.mountStatusOf(*s.service("svc"));
  auto const sys = status->systemStatus(Kiv::Name("00:00:00:00:00:01"));
  auto const group = sys->serviceMountGroupStatus(Kiv::Name("g"));
  // A path written on its own.
  group->mountStatus(Kiv::Name("/a"))->mountedPathIs("/elsewhere");
  EXPECT_EQ(viewed(v), fullRead(w));
  // A group replaced by another entity: the view follows the new one's rows and their changes.
  sys->serviceMountGroupStatusDel(Kiv::Name("g"));
  auto const fresh = sys->serviceMountGroupStatusIs(Kiv::Name("g"));
  fresh->mountStatusIs(Kiv::Name("/a"))->mountStateIs(Controller::mountStateMounting);
  EXPECT_EQ(viewed(v), fullRead(w));
  ASSERT_EQ(v.changes().size(), 1u);
  EXPECT_EQ(v.changes()[0].before, "mounted");
  EXPECT_EQ(v.changes()[0].after, "mounting");
  fresh->mountStatus(Kiv::Name("/a"))->mountStateIs(Controller::mountStateFailed);
  EXPECT_EQ(viewed(v), fullRead(w));
  // A collection announced as a whole, then a change under it.
  fresh->mountStatusIs(Kiv::Name("/z"));
  fresh->mountStatusNotify();
  fresh->mountStatus(Kiv::Name("/z"))->mountStateIs(Controller::mountStateMounted);
  EXPECT_EQ(viewed(v), fullRead(w));
  status->systemStatusNotify();
  EXPECT_EQ(viewed(v), fullRead(w));
  // A switch's status withdrawn, and the whole service's.
  status->systemStatusDel(Kiv::Name("00:00:00:00:00:02"));
  EXPECT_EQ(viewed(v), fullRead(w));
  w.mountStatus->entityPtrDel(Kiv::Name("svc"));
  EXPECT_TRUE(viewed(v).empty());
  EXPECT_EQ(v.changes().size(), 3u);

  // Publications withdrawn from one switch.
  w.dbPublish->systemDel(Controller::SystemId("00:00:00:00:00:02"));
  v.update();
  ASSERT_EQ(v.withdrawn().size(), 1u);
  EXPECT_EQ(v.withdrawn()[0], (StatusView::Publication{"00:00:00:00:00:02", "/l"}));
  EXPECT_EQ(v.published(), (std::set<StatusView::Publication>{{"00:00:00:00:00:01", "/l"}}));
}

}  // namespace
}  // namespace Host
