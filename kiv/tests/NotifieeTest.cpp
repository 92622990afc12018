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
  r->hasNotificationActiveIs(true);
  notify("y");
  EXPECT_THAT(log, ElementsAre("r:y"));
  EXPECT_THAT([&] { r->hasNotificationActiveIs(true); },
              ThrowsMessage<Kiv::InternalException>(StrEq("entity reactor is already active")));
  r->hasNotificationActiveIs(false);
  notify("z");
  EXPECT_THAT(log, ElementsAre("r:y"));
}

}  // namespace
