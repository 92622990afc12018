#pragma once
// Platform::Timer: a one-shot timer on the current event loop that runs a callback. The stand-ins
// in platform/ own one per pending step, hold it by Ptr, and disarm (or drop) it to cancel.
//
// It binds to the clock of whichever loop is current when it is armed (one must be), so an object
// that outlives one loop (a process-wide singleton across tests) still arms on the next one, and
// only while it is armed: a world of idle timers (one in every mounted machine) costs the clock's
// list of reactors nothing, and its teardown nothing there either.

#include <functional>
#include <utility>

#include "kiv/Clock.h"

namespace Platform {

// The arming; what a firing does is the subclass's onTime(), which starts with fired(). A machine
// that always needs a timer may hold one of these as a member rather than a Timer with its
// callback.
class TimerBase : public Kiv::Clock::NotifieeConst {
 public:
  bool armed() const { return timeMin() != Kiv::kInfinity; }
  // Arms for absolute time t on the current loop (re-arming moves it).
  void armAt(Kiv::Seconds t) {
    Kiv::Ptr<Kiv::Clock const> clock = Kiv::ActivityFacility::clock();
    if (notifier() != clock) {
      timeMinIs(Kiv::kInfinity);
      notifierIs(clock);
    }
    timeMinIs(t);
  }
  void armIn(Kiv::Seconds delay) { armAt(Kiv::System::currentTime() + delay); }
  void disarm() {
    timeMinIs(Kiv::kInfinity);
    notifierIs(nullptr);
  }

 protected:
  // The loop has disarmed the timer to fire it.
  void fired() { notifierIs(nullptr); }
};

class Timer : public TimerBase {
 public:
  static Kiv::Ptr<Timer> TimerIs(std::function<void()> onTime) { return Kiv::Ptr<Timer>(new Timer(std::move(onTime))); }

  void onTime() override {
    // The callback may drop its owner's last reference to this timer.
    Kiv::Ptr<Timer> self(this);
    fired();
    onTime_();
  }

 private:
  explicit Timer(std::function<void()> onTime) : onTime_(std::move(onTime)) {}
  std::function<void()> onTime_;
};

}  // namespace Platform
