#pragma once
// Notifiers and their reactors.
//
// A Notifier keeps the reactors bound to it in a list that survives any change made from inside
// a notification: a reactor may remove itself or another (its slot is emptied and skipped), add
// one (it is not told of the change in progress: it was not bound when the change happened), clear
// the list, or destroy the notifier (the walk stops at once). Empty slots are compacted once the
// outermost walk is over, or once they are the majority. Every reactor knows its place in the
// list, so binding and unbinding cost O(1) amortised, however many reactors share a notifier.
//
// Reactors do not keep their notifier alive; when its last reference goes, they are told
// (onZeroReferences) and unbound, and must then tolerate a null notifier. A reactor that is
// bound but unregistered, or inactive, hears nothing, that included, but is unbound all the same.
//
// Collection mutators call only the keyed callback onX(k). The keyless onX() and onXkivImmediate()
// are called only by the whole-collection notification xNotify() (no key), which a writer that
// replaced a collection wholesale, such as the replication layer, uses instead of one call a key.

#include <algorithm>
#include <cstdint>
#include <vector>

#include "kiv/Exception.h"
#include "kiv/Ptr.h"

namespace Kiv {

class NotifieeBase;

class NotifierList {
 public:
  NotifierList() = default;
  NotifierList(NotifierList const&) = delete;
  NotifierList& operator=(NotifierList const&) = delete;
  ~NotifierList() {
    if (bits_ != 0) die();
  }

  // The registered reactors.
  bool empty() const { return size() == 0; }
  std::size_t size() const;
  // Every bound reactor, registered or not.
  std::size_t bound() const {
    Block const* b = block();
    return b ? b->size - b->nulls : bits_ != 0;
  }
  // Binds n, at the end of the list.
  void add(NotifieeBase* n);
  // Unbinds n, which must be bound here.
  void remove(NotifieeBase* n);
  bool contains(NotifieeBase const* n) const;

  // Calls f on every active notifiee that was bound when the walk began.
  template <class F>
  void forEach(F&& f);

  // Tells every notifiee that the notifier has lost its last reference, then unbinds them all.
  void zeroReferences();

 private:
  // A walk in progress over a block, linked from its frames so that ~NotifierList can stop it
  // (alive = false).
  struct Frame {
    Frame* outer = nullptr;
    bool alive = true;
  };
  // The list of two reactors or more, released once the last has left and no walk is in
  // progress. The reactors follow the header, in binding order; null where one left.
  struct Block {
    Frame* frames;
    std::uint32_t size;
    std::uint32_t capacity;
    std::uint32_t nulls;
    std::uint32_t idle;  // bound but unregistered: skipped by walks
    NotifieeBase** v() { return reinterpret_cast<NotifieeBase**>(this + 1); }
  };
#pragma GCC diagnostic push
// The scope unlinks the frame in its destructor; GCC cannot see that through the alive flag.
#pragma GCC diagnostic ignored "-Wdangling-pointer"
  // Unlinks a walk's frame, also when a callback throws. It keeps its own copies of the list and
  // the outer frame: the frame's address escapes to the callbacks, so reading them back from it
  // would be a reload after every walk (and a slow one when the store is still in flight). The
  // block stays while a walk is in progress.
  class FrameScope {
   public:
    FrameScope(NotifierList* l, Frame* f) : list_(l), frame_(f), outer_(l->block()->frames) {
      f->outer = outer_;
      l->block()->frames = f;
    }
    ~FrameScope() {
      if (!frame_->alive) return;
      Block* b = list_->block();
      b->frames = outer_;
      if (!outer_ && b->nulls != 0) list_->compact();
    }
    FrameScope(FrameScope const&) = delete;
    FrameScope& operator=(FrameScope const&) = delete;

   private:
    NotifierList* list_;
    Frame* frame_;
    Frame* outer_;
  };
#pragma GCC diagnostic pop
  void compact();
  // With no walk in progress: a list down to one reactor gives up its block, and one down to a
  // quarter of its block moves to a smaller one (a cold start binds a timer for every mount to
  // the clock, and they leave as they fire).
  void fit();
  // Empties the list for the notifier's death or loss of its last reference: every bound
  // reactor is unbound and then told that its notifier is gone.
  void unbindAll();
  void die();
  static std::size_t bytesOf(std::uint32_t capacity) { return sizeof(Block) + capacity * sizeof(NotifieeBase*); }
  // Releases the block and empties the list.
  void release();
  Block* block() const { return bits_ & kSingle ? nullptr : reinterpret_cast<Block*>(bits_); }
  NotifieeBase* single() const { return bits_ & kSingle ? reinterpret_cast<NotifieeBase*>(bits_ - kSingle) : nullptr; }

  // Empty (0), one reactor (its address, tagged kSingle) or a Block: most notifiers (entities,
  // chiefly) never have a reactor or have one, and cost one pointer.
  static constexpr std::uintptr_t kSingle = 1;
  std::uintptr_t bits_ = 0;
};

// Mixin for anything reactors can bind to.
class Notifier {
 public:
  NotifierList& kivNotifiees() const { return notifiees_; }

 protected:
  Notifier() = default;
  ~Notifier() = default;

 private:
  mutable NotifierList notifiees_;
};

// A reference-counted notifier: when its last reference goes, its reactors are told
// (onZeroReferences) and unbound, so that none is left pointing at it.
class CountedNotifier : public PtrInterface, public Notifier {
 public:
  void zeroReferencesIs(bool z) override;

 protected:
  CountedNotifier() = default;
  ~CountedNotifier() override = default;
};

// Base of every reactor: registration and delivery switches, lifecycle hooks.
class NotifieeBase : public PtrInterface {
 public:
  bool isRegisteredNotifiee() const { return registered_; }
  // Registers with (or leaves) the notifier's list without dropping the pointer to it.
  void isRegisteredNotifieeIs(bool r);
  bool hasNotificationActive() const { return active_; }
  // Turns delivery on or off; turning on a reactor that is already on is a programming error.
  void hasNotificationActiveIs(bool a);

  // The notifier lost its last reference; it unbinds this reactor right after.
  virtual void onZeroReferences() {}
  // Called once the reactor is constructed and bound; state machines evaluate the present here.
  virtual void handleInitialized() {}
  // Called before the reactor is released; withdraws what it wrote.
  virtual void doCleanup() {}

 protected:
  explicit NotifieeBase(bool active = true) : active_(active) {}
  ~NotifieeBase() override;
  Notifier* kivNotifierBase() const { return notifierBase_; }
  void kivBind(Notifier* n);

 private:
  friend class NotifierList;
  // The reactor is leaving its notifier (rebound, unbound, or the notifier is going), and
  // still bound to it.
  virtual void kivUnbinding() {}
  // The notifier has gone; the reactor is unbound already.
  virtual void kivNotifierGone() {}
  Notifier* notifierBase_ = nullptr;
  std::uint32_t slot_ = 0;  // in the notifier's list
  bool registered_ = true;
  bool active_ = true;
};

// Binds a reactor of callbacks `Callbacks` to a notifier of type T (const T for a read-only view).
template <class T, class Callbacks>
class NotifieeOf : public Callbacks {
 public:
  explicit NotifieeOf(bool active = true) : Callbacks(active) {}
  explicit NotifieeOf(Ptr<T> const& n, bool active = true) : Callbacks(active) { notifierIs(n); }

  Ptr<T> notifier() const { return Ptr<T>(notifier_); }
  void notifierIs(Ptr<T> const& n) {
    if (n.ptr() == notifier_) return;
    notifier_ = n.ptr();
    this->kivBind(n ? static_cast<Notifier*>(const_cast<std::remove_const_t<T>*>(n.ptr())) : nullptr);
  }

 private:
  void kivNotifierGone() override { notifier_ = nullptr; }
  T* notifier_ = nullptr;
};

inline std::size_t NotifierList::size() const {
  if (NotifieeBase const* x = single()) return x->registered_;
  Block const* b = block();
  return b ? b->size - b->nulls - b->idle : 0;
}

template <class F>
void NotifierList::forEach(F&& f) {
  if (NotifieeBase* x = single()) {
    // Nothing is read after the one callback, so nothing it does can upset the walk.
    if (x->active_ && x->registered_) f(x);
    return;
  }
  Block* b = block();
  if (!b || b->size == 0) return;
  std::size_t n = b->size;
  Frame frame;
  FrameScope scope(this, &frame);
  for (std::size_t i = 0; i < n; ++i) {
    NotifieeBase* x = block()->v()[i];  // a binding from a callback may have moved the block
    if (!x || !x->active_ || !x->registered_) continue;
    f(x);
    if (!frame.alive) return;
  }
}

}  // namespace Kiv
