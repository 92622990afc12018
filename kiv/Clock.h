#pragma once
// Time: the event loop owns the clock. Timers are Clock::NotifieeConst reactors armed with
// timeMinIs(t), an absolute time in seconds; +infinity disarms. A timer fires once, when the
// loop's time reaches t; it is disarmed (timeMin back at +infinity) before its onTime() runs, so
// the handler re-arms it if it wants to run again. Timers due at the same time fire in the order
// they were armed. A timer is armed only while it is bound to a clock whose loop is alive:
// unbinding it (or binding it elsewhere) and destroying it disarm it, and a loop that goes
// disarms every timer it holds.
//
// Virtual time (tests, simulation) moves only when told to: advanceTo/advanceBy fire every timer
// due on the way, in timestamp order, each at its own time. Wall-clock time follows the steady
// clock for a real host.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <limits>
#include <mutex>
#include <string>
#include <vector>

#include "kiv/Notifiee.h"

namespace Kiv {

using Seconds = double;
inline constexpr Seconds kInfinity = std::numeric_limits<Seconds>::infinity();

class EventLoop;

class Clock : public CountedNotifier {
 public:
  class Callbacks : public NotifieeBase {
   public:
    explicit Callbacks(bool active = true) : NotifieeBase(active) {}
    virtual void onTime() {}
  };

  class NotifieeConst : public NotifieeOf<Clock const, Callbacks> {
   public:
    explicit NotifieeConst(bool active = true) : NotifieeOf(active) {}
    explicit NotifieeConst(Ptr<Clock const> const& c, bool active = true) : NotifieeOf(c, active) {}
    ~NotifieeConst() override;
    Seconds timeMin() const { return timeMin_; }
    // Arms the timer for absolute time t (re-arming moves it); +infinity disarms.
    void timeMinIs(Seconds t);

   private:
    friend class EventLoop;
    void kivUnbinding() override { disarm(); }
    void disarm();
    Seconds timeMin_ = kInfinity;
    EventLoop* armedOn_ = nullptr;  // the loop that holds the timer while it is armed
    std::size_t heapIndex_ = 0;     // its place in that loop's heap
  };

  Seconds now() const;
  // The loop that owns the clock; null once the loop is gone.
  EventLoop* loopPtr() const { return loop_; }
  EventLoop& loop() const { return *loop_; }

 private:
  friend class EventLoop;
  explicit Clock(EventLoop* loop) : loop_(loop) {}
  EventLoop* loop_;
};

class EventLoop {
 public:
  enum class Mode { virtualTime, wallClock };

  // The newest live loop is the current one: Kiv::System::currentTime() and the activity
  // manager's clock refer to it.
  explicit EventLoop(Mode mode = Mode::virtualTime, Seconds start = 0);
  ~EventLoop();
  EventLoop(EventLoop const&) = delete;
  EventLoop& operator=(EventLoop const&) = delete;
  static EventLoop* current();

  Mode mode() const { return mode_; }
  Seconds now() const;
  Ptr<Clock> clock() const { return clock_; }

  // Runs f on the loop after the event in progress. Safe from any thread.
  void post(std::function<void()> f);

  // Runs posted work and the timers due now, without moving time. Returns what it ran.
  std::size_t runUntilIdle();
  // Virtual time: fires every timer due up to t in order, each at its own time, then stays at t.
  void advanceTo(Seconds t);
  void advanceBy(Seconds d) { advanceTo(now_ + d); }
  // Virtual time: advances timer by timer until pred() holds or time would pass `limit`.
  // Returns whether pred() held.
  bool runUntil(std::function<bool()> const& pred, Seconds limit);

  // Wall-clock time: runs until stop() (or, with a limit, until that much time has passed).
  void run(Seconds forAtMost = kInfinity);
  void stop();

  std::size_t pendingTimerCount() const { return heap_.size(); }
  Seconds nextTimerTime() const { return heap_.empty() ? kInfinity : heap_.front().time; }
  // The times of the armed timers, earliest first.
  std::vector<Seconds> pendingTimers() const;

 private:
  friend class Clock::NotifieeConst;
  struct Armed {
    Seconds time;
    std::uint64_t seq;  // arming order, for timers due at the same time
    Clock::NotifieeConst* timer;
    bool before(Armed const& o) const { return time < o.time || (time == o.time && seq < o.seq); }
  };
  // Arms n, or moves it when it is armed here already.
  void arm(Clock::NotifieeConst* n, Seconds t);
  void disarm(Clock::NotifieeConst* n);
  void place(std::size_t i, Armed const& a);
  void siftUp(std::size_t i, Armed const& a);
  void siftDown(std::size_t i, Armed const& a);
  void removeAt(std::size_t i);
  bool fireNext(Seconds upTo);
  std::size_t runPosted();

  Mode mode_;
  Seconds now_;
  Seconds wallOrigin_ = 0;
  Ptr<Clock> clock_;
  // A 4-ary min-heap whose timers know their place in it: a cold start arms and disarms millions
  // of timers, each in O(log n) without allocating.
  std::vector<Armed> heap_;
  std::uint64_t seq_ = 0;
  EventLoop* previous_;
  mutable std::mutex postMutex_;
  std::condition_variable postCv_;
  std::vector<std::function<void()>> posted_;
  std::atomic<bool> stopped_{false};
};

struct System {
  // The current loop's time; 0 when no loop exists.
  static Seconds currentTime();
};

// The activity manager: the singleton through which reactors reach the loop's clock.
class ActivityManagerConfig : public PtrInterface {
 public:
  static Ptr<ActivityManagerConfig> instance();
  Ptr<Clock const> clock() const;
};

struct ActivityFacility {
  static Ptr<Clock const> clock() { return ActivityManagerConfig::instance()->clock(); }
};

}  // namespace Kiv
