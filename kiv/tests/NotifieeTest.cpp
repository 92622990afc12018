#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "kiv/Dir.h"

namespace {

using ::testing::ElementsAre;
using ::testing::StrEq;
using ::testing::ThrowsMessage;
using Log = std::vector<std::string>;

class Recorder : public Kiv::Dir::Notifiee {
 public:
  Recorder(Kiv::Ptr<Kiv::Dir> const& d, Log* log, std::string tag, bool active = true)
      : Notifiee(d, active), log_(log), tag_(std::move(tag)) {}
  void onEntityPtr(Kiv::Name const& name) override {
    log_->push_back(tag_ + ":" + name.stdString());
    if (onChange) onChange(name);
  }
  void onEntityPtrkivImmediate() override { log_->push_back(tag_ + ":immediate"); }
  void onEntityPtr() override { log_->push_back(tag_ + ":all"); }
  void onZeroReferences() override {
    log_->push_back(tag_ + ":zero" + (notifier() ? "" : "-unbound"));
  }
  std::function<void(Kiv::Name const&)> onChange;

 private:
  Log* log_;
  std::string tag_;
};

class NotifierList : public ::testing::Test {
 protected:
  Kiv::Ptr<Recorder> add(std::string tag, bool active = true) {
    Kiv::Ptr<Recorder> r(new Recorder(dir, &log, std::move(tag), active));
    reactors.push_back(r);
    return r;
  }
  void notify(char const* name) { dir->entityPtrNotify(Kiv::Name(name)); }

  Kiv::Ptr<Kiv::Dir> dir = Kiv::Dir::DirIs("root");
  std::vector<Kiv::Ptr<Recorder>> reactors;
  Log log;
};

TEST_F(NotifierList, ReactorRemovesAndAddsMidNotification) {
  add("a");
  auto b = add("b");
  add("c");
  auto d = add("d");
  add("e");
  b->onChange = [this, b = b.ptr()](Kiv::Name const&) {
    b->notifierIs(nullptr);
    reactors[2] = nullptr;                        // c is destroyed
    reactors[3]->isRegisteredNotifieeIs(false);  // d leaves the list
    add("late");                                  // not bound when x happened: not told of it
  };
  notify("x");
  notify("y");
  EXPECT_THAT(log, ElementsAre("a:x", "b:x", "e:x", "a:y", "e:y", "late:y"));
  EXPECT_EQ(dir->kivNotifiees().size(), 3u);
  EXPECT_EQ(b->notifier(), nullptr);
  EXPECT_EQ(d->notifier(), dir);
}

TEST_F(NotifierList, RemovalInNestedNotificationIsCompactedOnlyAfterTheOuterWalk) {
  auto a = add("a");
  add("b");
  auto c = add("c");
  add("d");
  c->onChange = [this](Kiv::Name const& name) {
    if (name == "x") notify("y");
  };
  a->onChange = [a = a.ptr()](Kiv::Name const& name) {
    if (name == "y") a->notifierIs(nullptr);
  };
  notify("x");
  EXPECT_THAT(log, ElementsAre("a:x", "b:x", "c:x", "a:y", "b:y", "c:y", "d:y", "d:x"));
  EXPECT_EQ(dir->kivNotifiees().size(), 3u);
}

// With deferred deletion the notifier outlives the walk; either way the walk must stop
// telling reactors that the notifier has already unbound.
TEST_F(NotifierList, NotifierLosesItsLastReferenceMidNotification) {
  for (bool deferred : {false, true}) {
    SCOPED_TRACE(deferred ? "deferred deletion" : "immediate deletion");
    log.clear();
    reactors.clear();
    dir = Kiv::Dir::DirIs("root");
    dir->kivMarkedForDeletionIs(deferred);
    auto a = add("a");
    add("b");
    add("c");
    a->onChange = [this](Kiv::Name const&) { dir = nullptr; };
    Kiv::Dir* raw = dir.ptr();
    raw->entityPtrNotify(Kiv::Name("x"));
    EXPECT_THAT(log, ElementsAre("a:x", "a:zero", "b:zero", "c:zero"));
    for (auto const& r : reactors) EXPECT_TRUE(!r->notifier() && r->isRegisteredNotifiee());
    EXPECT_EQ(Kiv::PtrInterface::deferredDeletions(), deferred ? 1u : 0u);
    Kiv::PtrInterface::deleteDeferred();
  }
}

TEST_F(NotifierList, WholeCollectionNotificationUsesTheKeylessCallbacks) {
  add("a");
  add("b");
  dir->entityPtrNotify();
  dir->subdirIs("m");  // a keyed change calls only the keyed callback
  EXPECT_THAT(log, ElementsAre("a:immediate", "a:all", "b:immediate", "b:all", "a:m", "b:m"));
}

TEST_F(NotifierList, ActivationSwitch) {
  auto r = add("r", false);
  notify("x");
  EXPECT_TRUE(log.empty());
  r->hasNotificationActiveIs(true);
  notify("y");
  EXPECT_THAT(log, ElementsAre("r:y"));
  EXPECT_THAT([&] { r->hasNotificationActiveIs(true); },
              ThrowsMessage<Kiv::InternalException>(StrEq("entity reactor is already active")));
  r->hasNotificationActiveIs(false);
  notify("z");
  EXPECT_THAT(log, ElementsAre("r:y"));
}

TEST_F(NotifierList, UnregisteredReactorKeepsItsNotifier) {
  auto r = add("r");
  add("other");
  r->isRegisteredNotifieeIs(false);
  notify("x");
  EXPECT_EQ(r->notifier(), dir);
  EXPECT_EQ(dir->kivNotifiees().size(), 1u);
  r->isRegisteredNotifieeIs(true);
  notify("y");
  EXPECT_THAT(log, ElementsAre("other:x", "other:y", "r:y"));

  // Rebinding while unregistered must not sneak onto either list.
  r->isRegisteredNotifieeIs(false);
  auto second = Kiv::Dir::DirIs("second");
  r->notifierIs(second);
  EXPECT_TRUE(second->kivNotifiees().empty());
  EXPECT_EQ(dir->kivNotifiees().size(), 1u);

  // Unregistered, it hears nothing when its notifier goes, but is unbound all the same, so
  // registering again touches nothing that is gone; bound again, it hears its new notifier.
  second = nullptr;
  EXPECT_EQ(r->notifier(), nullptr);
  r->isRegisteredNotifieeIs(true);
  notify("z");
  r->notifierIs(dir);
  notify("w");
  EXPECT_THAT(log, ElementsAre("other:x", "other:y", "r:y", "other:z", "other:w", "r:w"));
}

// Every reactor knows its place: leaving in any order, in and out of walks, keeps the others
// in binding order, and each leaves only itself.
TEST_F(NotifierList, ManyReactorsLeaveInAnyOrder) {
  for (int i = 0; i < 40; ++i) add(std::to_string(i));
  std::vector<int> order;
  for (int i = 0; i < 40; ++i) order.push_back((i * 17) % 40);
  for (int i : order) {
    if (i % 4 == 0) continue;
    if (i % 4 == 1) {
      reactors[i]->isRegisteredNotifieeIs(false);  // idle, then back at the end of the list
      reactors[i]->isRegisteredNotifieeIs(true);
    } else if (i == 2) {
      reactors[0]->onChange = [this](Kiv::Name const&) { reactors[2] = nullptr; };
      notify("walk");  // a removal inside a walk
      reactors[0]->onChange = nullptr;
    } else {
      reactors[i] = nullptr;
    }
  }
  log.clear();
  notify("x");
  std::vector<std::string> heard;
  for (auto const& line : log) heard.push_back(line.substr(0, line.find(':')));
  std::vector<std::string> want;
  for (int i = 0; i < 40; i += 4) want.push_back(std::to_string(i));
  for (int i : order)
    if (i % 4 == 1) want.push_back(std::to_string(i));
  EXPECT_EQ(heard, want);
  EXPECT_EQ(dir->kivNotifiees().size(), 20u);
  dir = nullptr;
  for (auto const& r : reactors) EXPECT_TRUE(!r || !r->notifier());
}

}  // namespace
