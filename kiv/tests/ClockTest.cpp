#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <random>
#include <string>
#include <tuple>
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
    if (holder) *holder = nullptr;  // drops what may be the last reference to this timer
  }
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

TEST_F(ClockTest, TimersFireInTimeOrderAndRearmGoesBehind) {
  auto a = timer("a", 4);
  auto b = timer("b", 4);
  auto c = timer("c", 7);
  auto off = timer("off", 1);
  off->timeMinIs(Kiv::kInfinity);
  a->timeMinIs(4);  // re-arming at the same time goes behind b
  c->timeMinIs(3);  // moves earlier; the old time is forgotten
  c->holder = &c;   // and c destroys itself in its handler

  loop.advanceTo(10);
  EXPECT_THAT(fired, ElementsAre(Pair("c", 3), Pair("b", 4), Pair("a", 4)));
  EXPECT_EQ(c, nullptr);
  EXPECT_EQ(b->armedInHandler, Kiv::kInfinity);  // disarmed before its handler runs

  a->timeMinIs(13);
  a->hasNotificationActiveIs(false);  // an inactive one is disarmed silently
  loop.advanceTo(20);
  EXPECT_EQ(fired.size(), 3u);
  EXPECT_EQ(a->timeMin(), Kiv::kInfinity);
}

// Arming, moving, disarming and destroying many timers at random, with many due at the same time:
// they fire as a plain list sorted by (time, arming order) says.
TEST_F(ClockTest, ManyTimersFireInTimeThenArmingOrder) {
  std::mt19937 rng(7);
  std::vector<Kiv::Ptr<Timer>> timers(300);
  std::map<int, std::pair<Kiv::Seconds, int>> armed;  // id -> (time, arming order)
  int order = 0;
  Fired expected;
  for (int step = 0; step < 20000; ++step) {
    int const id = static_cast<int>(rng() % timers.size());
    switch (rng() % 8) {
      case 0:
        timers[id] = nullptr;
        armed.erase(id);
        break;
      case 1:
        if (timers[id]) timers[id]->timeMinIs(Kiv::kInfinity);
        armed.erase(id);
        break;
      case 2: {
        Kiv::Seconds const to = loop.now() + rng() % 3;
        std::vector<std::tuple<Kiv::Seconds, int, int>> due;
        for (auto const& [i, key] : armed)
          if (key.first <= to) due.emplace_back(key.first, key.second, i);
        std::sort(due.begin(), due.end());
        for (auto const& [t, o, i] : due) {
          expected.emplace_back(std::to_string(i), t);
          armed.erase(i);
        }
        loop.advanceTo(to);
        break;
      }
      default:
        if (!timers[id]) timers[id] = timer(std::to_string(id));
        Kiv::Seconds const t = loop.now() + rng() % 8;
        timers[id]->timeMinIs(t);
        armed[id] = {t, ++order};
    }
  }
  EXPECT_EQ(fired, expected);
  std::vector<Kiv::Seconds> times;
  for (auto const& [i, key] : armed) times.push_back(key.first);
  std::sort(times.begin(), times.end());
  EXPECT_EQ(loop.pendingTimers(), times);
}

// A timer is armed only while bound to a live loop's clock: unbinding, rebinding or destroying
// it disarms it, and a loop that goes lets go of its timers, which then outlive it harmlessly.
TEST_F(ClockTest, TimerLifetimeIsExact) {
  auto unbound = timer("unbound", 2);
  auto destroyed = timer("destroyed", 2.5);
  auto kept = timer("kept", 3);
  unbound->notifierIs(nullptr);
  unbound->timeMinIs(4);  // bound to nothing: nothing to fire it
  destroyed = nullptr;
  EXPECT_THAT(loop.pendingTimers(), ElementsAre(3));

  Kiv::Ptr<Timer> orphan;
  {
    Kiv::EventLoop inner;  // the current loop while it lives
    orphan = timer("orphan", 1);
    auto moved = timer("moved", 1);
    moved->notifierIs(loop.clock());  // rebinding disarms: the new clock's loop has it not
    EXPECT_EQ(loop.pendingTimerCount(), 1u);
    EXPECT_EQ(inner.pendingTimerCount(), 1u);
  }
  EXPECT_EQ(orphan->notifier(), nullptr);
  orphan->timeMinIs(2);
  orphan = nullptr;

  loop.advanceTo(10);
  EXPECT_THAT(fired, ElementsAre(Pair("kept", 3)));
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
}

}  // namespace
