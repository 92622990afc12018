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
  // A timer whose clock or loop is gone keeps the time but has nothing to fire it.
  Ptr<Clock const> c = notifier();
  EventLoop* loop = c && t != kInfinity ? c->loop_ : nullptr;
  if (armedOn_ && armedOn_ != loop) armedOn_->disarm(this);
  timeMin_ = t;
  if (loop) loop->arm(this, t);
}

EventLoop::EventLoop(Mode mode, Seconds start)
    : mode_(mode), now_(start), clock_(new Clock(this)), previous_(currentLoop) {
  if (mode_ == Mode::wallClock) wallOrigin_ = steadyNow() - start;
  currentLoop = this;
}

EventLoop::~EventLoop() {
  for (Armed const& a : heap_) {
    a.timer->timeMin_ = kInfinity;
    a.timer->armedOn_ = nullptr;
  }
  heap_.clear();
  clock_->loop_ = nullptr;  // the clock may outlive the loop in someone's Ptr
  PtrInterface::deleteDeferred();
  if (currentLoop == this) currentLoop = previous_;
}

EventLoop* EventLoop::current() { return currentLoop; }

Seconds EventLoop::now() const { return mode_ == Mode::wallClock ? steadyNow() - wallOrigin_ : now_; }

void EventLoop::arm(Clock::NotifieeConst* n, Seconds t) {
  Armed const a{t, ++seq_, n};
  if (n->armedOn_ != this) {
    heap_.push_back(a);
    n->armedOn_ = this;
    siftUp(heap_.size() - 1, a);
  } else if (a.before(heap_[n->heapIndex_])) {
    siftUp(n->heapIndex_, a);
  } else {
    siftDown(n->heapIndex_, a);
  }
}

void EventLoop::disarm(Clock::NotifieeConst* n) {
  KIV_DEBUG_ASSERT(n->armedOn_ == this);
  KIV_DEBUG_ASSERT(heap_[n->heapIndex_].timer == n && "an armed timer is missing from its loop");
  removeAt(n->heapIndex_);
  n->armedOn_ = nullptr;
}

void EventLoop::place(std::size_t i, Armed const& a) {
  heap_[i] = a;
  a.timer->heapIndex_ = i;
}

// Both fill the hole at i with a, moving what is in the way.
void EventLoop::siftUp(std::size_t i, Armed const& a) {
  while (i > 0) {
    std::size_t const parent = (i - 1) / 4;
    if (!a.before(heap_[parent])) break;
    place(i, heap_[parent]);
    i = parent;
  }
  place(i, a);
}

void EventLoop::siftDown(std::size_t i, Armed const& a) {
  std::size_t const size = heap_.size();
  for (;;) {
    std::size_t const first = 4 * i + 1;
    if (first >= size) break;
    std::size_t least = first;
    for (std::size_t c = first + 1; c < std::min(first + 4, size); ++c)
      if (heap_[c].before(heap_[least])) least = c;
    if (!heap_[least].before(a)) break;
    place(i, heap_[least]);
    i = least;
  }
  place(i, a);
}

void EventLoop::removeAt(std::size_t i) {
  Armed const last = heap_.back();
  heap_.pop_back();
  // A cold start arms a timer for every mount at once: the room goes back as the heap drains.
  if (heap_.size() * 4 < heap_.capacity() && heap_.capacity() > 1024) {
    std::vector<Armed> smaller;
    smaller.reserve(heap_.size() * 2);
    smaller.assign(heap_.begin(), heap_.end());
    heap_.swap(smaller);
  }
  if (i == heap_.size()) return;
  if (i > 0 && last.before(heap_[(i - 1) / 4])) {
    siftUp(i, last);
  } else {
    siftDown(i, last);
  }
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
  if (heap_.empty() || heap_.front().time > upTo) return false;
  Clock::NotifieeConst* n = heap_.front().timer;
  if (mode_ == Mode::virtualTime && heap_.front().time > now_) now_ = heap_.front().time;
  removeAt(0);
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
  times.reserve(heap_.size());
  for (Armed const& a : heap_) times.push_back(a.time);
  std::sort(times.begin(), times.end());
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
