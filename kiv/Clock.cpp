// The event loop, its clock and the activity manager.

#include "kiv/Clock.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace Kiv {

namespace {
EventLoop* currentLoop = nullptr;

Seconds steadyNow() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
}  // namespace

Seconds Clock::now() const { return loop_ ? loop_->now() : 0; }

Clock::NotifieeConst::~NotifieeConst() { disarm(); }

void Clock::NotifieeConst::disarm() {
  if (armedOn_) armedOn_->disarm(this);
  timeMin_ = kInfinity;
}

void Clock::NotifieeConst::timeMinIs(Seconds t) {
  if (armedOn_) armedOn_->disarm(this);
  timeMin_ = t;
  // A timer whose clock or loop is gone keeps the time but has nothing to fire it.
  Ptr<Clock const> c = notifier();
  if (c && c->loop_ && t != kInfinity) c->loop_->arm(this, t);
}

EventLoop::EventLoop(Mode mode, Seconds start)
    : mode_(mode), now_(start), clock_(new Clock(this)), previous_(currentLoop) {
  if (mode_ == Mode::wallClock) wallOrigin_ = steadyNow() - start;
  currentLoop = this;
}

EventLoop::~EventLoop() {
  for (auto& [key, n] : timers_) {
    n->timeMin_ = kInfinity;
    n->armedOn_ = nullptr;
  }
  timers_.clear();
  clock_->loop_ = nullptr;  // the clock may outlive the loop in someone's Ptr
  PtrInterface::deleteDeferred();
  if (currentLoop == this) currentLoop = previous_;
}

EventLoop* EventLoop::current() { return currentLoop; }

Seconds EventLoop::now() const { return mode_ == Mode::wallClock ? steadyNow() - wallOrigin_ : now_; }

void EventLoop::arm(Clock::NotifieeConst* n, Seconds t) {
  n->seq_ = ++seq_;
  timers_.emplace(Key{t, n->seq_}, n);
  n->armedOn_ = this;
}

void EventLoop::disarm(Clock::NotifieeConst* n) {
  KIV_DEBUG_ASSERT(n->armedOn_ == this);
  std::size_t const erased = timers_.erase(Key{n->timeMin_, n->seq_});
  KIV_DEBUG_ASSERT(erased == 1 && "an armed timer is missing from its loop");
  (void)erased;
  n->armedOn_ = nullptr;
}

void EventLoop::post(std::function<void()> f) {
  {
    std::lock_guard lock(postMutex_);
    posted_.push_back(std::move(f));
  }
  postCv_.notify_one();
}

std::size_t EventLoop::runPosted() {
  std::size_t ran = 0;
  for (;;) {
    std::vector<std::function<void()>> batch;
    {
      std::lock_guard lock(postMutex_);
      batch.swap(posted_);
    }
    if (batch.empty()) return ran;
    for (auto& f : batch) {
      f();
      PtrInterface::deleteDeferred();
      ++ran;
    }
  }
}

bool EventLoop::fireNext(Seconds upTo) {
  if (timers_.empty()) return false;
  auto it = timers_.begin();
  if (it->first.first > upTo) return false;
  Clock::NotifieeConst* n = it->second;
  if (mode_ == Mode::virtualTime && it->first.first > now_) now_ = it->first.first;
  timers_.erase(it);
  n->timeMin_ = kInfinity;
  n->armedOn_ = nullptr;
  // The handler may destroy the timer; nothing here touches it afterwards.
  if (n->hasNotificationActive()) n->onTime();
  PtrInterface::deleteDeferred();
  return true;
}

std::size_t EventLoop::runUntilIdle() {
  std::size_t ran = 0;
  for (;;) {
    std::size_t before = ran;
    ran += runPosted();
    while (fireNext(now())) ++ran;
    if (ran == before) return ran;
  }
}

void EventLoop::advanceTo(Seconds t) {
  runUntilIdle();
  while (fireNext(t)) runPosted();
  if (mode_ == Mode::virtualTime && t > now_) now_ = t;
  runUntilIdle();
}

bool EventLoop::runUntil(std::function<bool()> const& pred, Seconds limit) {
  runUntilIdle();
  while (!pred()) {
    if (!fireNext(limit)) {
      if (mode_ == Mode::virtualTime && limit > now_ && limit != kInfinity) now_ = limit;
      return pred();
    }
    runPosted();
  }
  return true;
}

void EventLoop::run(Seconds forAtMost) {
  Seconds const end = now() + forAtMost;
  stopped_ = false;
  for (;;) {
    runPosted();
    while (!stopped_ && fireNext(std::min(now(), end))) runPosted();
    if (stopped_) return;
    Seconds const next = nextTimerTime();
    if (mode_ == Mode::virtualTime) {
      // Nothing waits on a real clock: jump to the next timer; past the last one, to the end.
      if (next == kInfinity || next > end) {
        if (end != kInfinity) now_ = std::max(now_, end);
        return;
      }
      now_ = std::max(now_, next);
      continue;
    }
    if (now() >= end) return;
    std::unique_lock lock(postMutex_);
    if (!posted_.empty() || stopped_) continue;
    auto const woken = [&] { return !posted_.empty() || stopped_.load(); };
    Seconds const wake = std::min(next, end);
    if (wake == kInfinity) {
      postCv_.wait(lock, woken);
    } else {
      // Rounded up: waking a hair early would spin until the deadline.
      auto const deadline = std::chrono::steady_clock::time_point(
          std::chrono::ceil<std::chrono::steady_clock::duration>(std::chrono::duration<double>(wake + wallOrigin_)));
      postCv_.wait_until(lock, deadline, woken);
    }
  }
}

void EventLoop::stop() {
  {
    std::lock_guard lock(postMutex_);
    stopped_ = true;
  }
  postCv_.notify_one();
}

std::vector<Seconds> EventLoop::pendingTimers() const {
  std::vector<Seconds> times;
  times.reserve(timers_.size());
  for (auto const& [key, n] : timers_) times.push_back(key.first);
  return times;
}

Seconds System::currentTime() { return currentLoop ? currentLoop->now() : 0; }

Ptr<ActivityManagerConfig> ActivityManagerConfig::instance() {
  static Ptr<ActivityManagerConfig> const singleton(new ActivityManagerConfig());
  return singleton;
}

Ptr<Clock const> ActivityManagerConfig::clock() const {
  KIV_ASSERT(currentLoop && "no event loop");
  return currentLoop->clock();
}

}  // namespace Kiv
