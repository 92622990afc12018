#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kiv/Clock.h"

namespace {

using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::Pair;
using Fired = std::vector<std::pair<std::string, Kiv::Seconds>>;

class Timer : public Kiv::Clock::NotifieeConst {
 public:
  Timer(Fired* fired, std::string tag)
      : NotifieeConst(Kiv::ActivityFacility::clock()), fired_(fired), tag_(std::move(tag)) {}
  void onTime() override {
    armedInHandler = timeMin();
    fired_->push_back({tag_, Kiv::System::currentTime()});
    if (action) action();
    if (holder) *holder = nullptr;  // drops what may be the last reference to this timer
  }
  std::function<void()> action;
  Kiv::Ptr<Timer>* holder = nullptr;
  Kiv::Seconds armedInHandler = -1;

 private:
  Fired* fired_;
  std::string tag_;
};

class ClockTest : public ::testing::Test {
 protected:
  Kiv::Ptr<Timer> timer(std::string tag, Kiv::Seconds at = Kiv::kInfinity) {
    Kiv::Ptr<Timer> t(new Timer(&fired, std::move(tag)));
    t->timeMinIs(at);
    return t;
  }

  Kiv::EventLoop loop;
  Fired fired;
};

TEST_F(ClockTest, TimersFireInTimestampOrderAtTheirOwnTimes) {
  auto a = timer("a", 5);
  auto b = timer("b", 2);
  auto c = timer("c", 9);
  auto d = timer("d", 2);  // ties with b, armed later
  EXPECT_THAT(loop.pendingTimers(), ElementsAre(2, 2, 5, 9));

  loop.advanceTo(6);
  EXPECT_THAT(fired, ElementsAre(Pair("b", 2), Pair("d", 2), Pair("a", 5)));
  EXPECT_EQ(loop.now(), 6);
  EXPECT_EQ(Kiv::System::currentTime(), 6);
  EXPECT_EQ(b->armedInHandler, Kiv::kInfinity);  // disarmed before its handler runs
  EXPECT_EQ(a->timeMin(), Kiv::kInfinity);
  EXPECT_THAT(loop.pendingTimers(), ElementsAre(9));

  loop.advanceBy(3);
  EXPECT_THAT(fired.back(), Pair("c", 9));
  EXPECT_EQ(loop.pendingTimerCount(), 0u);
  EXPECT_EQ(loop.nextTimerTime(), Kiv::kInfinity);
}

TEST_F(ClockTest, DisarmAndRearm) {
  auto a = timer("a", 4);
  auto b = timer("b", 4);
  auto c = timer("c", 7);
  auto off = timer("off", 1);
  off->timeMinIs(Kiv::kInfinity);
  a->timeMinIs(4);  // re-arming at the same time goes behind b
  c->timeMinIs(3);  // moves earlier; the old time is forgotten
  c->holder = &c;   // and c destroys itself in its handler
  EXPECT_THAT(loop.pendingTimers(), ElementsAre(3, 4, 4));

  loop.advanceTo(10);
  EXPECT_THAT(fired, ElementsAre(Pair("c", 3), Pair("b", 4), Pair("a", 4)));
  EXPECT_EQ(c, nullptr);

  a->timeMinIs(13);
  a->hasNotificationActiveIs(false);  // an inactive one is disarmed silently
  loop.advanceTo(20);
  EXPECT_EQ(fired.size(), 3u);
  EXPECT_EQ(a->timeMin(), Kiv::kInfinity);
}

TEST_F(ClockTest, RunUntilIdleRunsPostedWorkAndDueTimers) {
  loop.advanceTo(5);
  std::vector<std::string> done;
  auto due = timer("due");
  loop.post([&] {
    done.push_back("first");
    loop.post([&] { done.push_back("chained"); });
    due->timeMinIs(loop.now());
  });
  std::thread([&] { loop.post([&] { done.push_back("from thread"); }); }).join();

  EXPECT_EQ(loop.runUntilIdle(), 4u);
  EXPECT_THAT(done, ElementsAre("first", "from thread", "chained"));
  EXPECT_THAT(fired, ElementsAre(Pair("due", 5)));
  EXPECT_EQ(loop.now(), 5);
  EXPECT_EQ(loop.runUntilIdle(), 0u);
}

TEST_F(ClockTest, RunUntilStopsWhenThePredicateHoldsOrAtTheLimit) {
  auto a = timer("a", 1);
  auto b = timer("b", 2);
  auto c = timer("c", 3);
  auto late = timer("late", 50);

  EXPECT_TRUE(loop.runUntil([&] { return fired.size() == 2; }, 10));
  EXPECT_EQ(loop.now(), 2);
  EXPECT_EQ(c->timeMin(), 3);

  EXPECT_FALSE(loop.runUntil([] { return false; }, 10));
  EXPECT_EQ(loop.now(), 10);
  EXPECT_EQ(fired.size(), 3u);
  EXPECT_EQ(late->timeMin(), 50);

  EXPECT_TRUE(loop.runUntil([] { return true; }, 100));
  EXPECT_EQ(loop.now(), 10);  // nothing needed to happen
}

// A timer is armed only while bound to a live loop's clock: unbinding, rebinding or destroying
// it disarms it, and a loop that goes lets go of its timers, which then outlive it harmlessly.
TEST_F(ClockTest, TimerLifetimeIsExact) {
  auto unbound = timer("unbound", 2);
  auto destroyed = timer("destroyed", 2.5);
  auto kept = timer("kept", 3);
  unbound->notifierIs(nullptr);
  EXPECT_EQ(unbound->timeMin(), Kiv::kInfinity);
  unbound->timeMinIs(4);  // bound to nothing: nothing to fire it
  destroyed = nullptr;
  EXPECT_THAT(loop.pendingTimers(), ElementsAre(3));

  Kiv::Ptr<Timer> orphan;
  {
    Kiv::EventLoop inner;  // the current loop while it lives
    orphan = timer("orphan", 1);
    auto moved = timer("moved", 1);
    moved->notifierIs(loop.clock());  // rebinding disarms: the new clock's loop has it not
    EXPECT_EQ(moved->timeMin(), Kiv::kInfinity);
    EXPECT_EQ(loop.pendingTimerCount(), 1u);
    EXPECT_EQ(inner.pendingTimerCount(), 1u);
  }
  EXPECT_EQ(orphan->timeMin(), Kiv::kInfinity);
  EXPECT_EQ(orphan->notifier(), nullptr);
  orphan->timeMinIs(2);
  orphan = nullptr;

  loop.advanceTo(10);
  EXPECT_THAT(fired, ElementsAre(Pair("kept", 3)));
}

// Virtual time: run() jumps from timer to timer, each at its own time; a bounded run fires the
// one due exactly at its end and stops there, an unbounded one when no timer is left.
TEST_F(ClockTest, RunJumpsFromTimerToTimer) {
  auto a = timer("a", 3);
  auto b = timer("b", 1);
  auto atEnd = timer("end", 10);
  auto after = timer("after", 10.5);
  b->action = [&] {
    if (loop.now() < 4) b->timeMinIs(4);
  };
  loop.run(10);
  EXPECT_THAT(fired, ElementsAre(Pair("b", 1), Pair("a", 3), Pair("b", 4), Pair("end", 10)));
  EXPECT_EQ(loop.now(), 10);
  EXPECT_EQ(after->timeMin(), 10.5);

  loop.run();
  EXPECT_THAT(fired.back(), Pair("after", 10.5));
  EXPECT_EQ(loop.now(), 10.5);
  loop.run(2);
  EXPECT_EQ(loop.now(), 12.5);
  EXPECT_EQ(fired.size(), 5u);
}

// Wall clock: a bounded run fires what falls due, ends once its time is up, and sleeps in
// between instead of spinning.
TEST(EventLoopWallClock, BoundedRunEndsOnTimeWithoutSpinning) {
  Kiv::EventLoop loop(Kiv::EventLoop::Mode::wallClock);
  Fired fired;
  Kiv::Ptr<Timer> first(new Timer(&fired, "first"));
  Kiv::Ptr<Timer> second(new Timer(&fired, "second"));
  Kiv::Ptr<Timer> later(new Timer(&fired, "later"));
  Kiv::Seconds const start = loop.now();
  first->timeMinIs(start + 0.02);
  second->timeMinIs(start + 0.04);
  later->timeMinIs(start + 30);

  std::clock_t const cpuBefore = std::clock();
  loop.run(0.1);
  double const cpu = static_cast<double>(std::clock() - cpuBefore) / CLOCKS_PER_SEC;
  Kiv::Seconds const took = loop.now() - start;

  EXPECT_THAT(fired, ElementsAre(Pair("first", Ge(start + 0.02)), Pair("second", Ge(start + 0.04))));
  EXPECT_GE(took, 0.1);
  EXPECT_LT(took, 10.0) << "the run outlived its bound";
  EXPECT_LT(cpu, took / 2) << "the loop spun instead of sleeping";
  EXPECT_EQ(later->timeMin(), start + 30);
}

}  // namespace
