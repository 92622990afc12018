#pragma once
// Intrusive reference counting: PtrInterface holds the count, Ptr<T> owns a reference.

#include <atomic>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "kiv/Assert.h"
#include "kiv/Pool.h"

namespace Kiv {

struct VFPtrInterface {
  // Read at every count change: counts are atomic read-modify-writes only while this is set, so
  // single-threaded hosts pay nothing for the one concession to other threads. Set it before any
  // second thread touches a shared object.
  static inline bool enableThreadSafePointers = false;
};

class PtrInterface {
 public:
  PtrInterface() = default;
  PtrInterface(PtrInterface const&) : refs_(0) {}
  PtrInterface& operator=(PtrInterface const&) { return *this; }

  void referencesInc() const {
    if (VFPtrInterface::enableThreadSafePointers) {
      refs_.fetch_add(1, std::memory_order_relaxed);
    } else {
      refs_.store(refs_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
  }
  void referencesDec() const {
    std::uint32_t left;
    if (VFPtrInterface::enableThreadSafePointers) {
      left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    } else {
      left = refs_.load(std::memory_order_relaxed) - 1;
      refs_.store(left, std::memory_order_relaxed);
    }
    if (left == 0) const_cast<PtrInterface*>(this)->handleZeroRef();
  }
  std::uint32_t references() const { return refs_.load(std::memory_order_relaxed); }

  static void* operator new(std::size_t size) { return poolAllocate(size); }
  static void operator delete(void* p, std::size_t size) noexcept { poolRelease(p, size); }

  bool zeroReferences() const { return zeroReferences_; }
  // Tells the object's observers that the last reference is gone; entities forward it to their
  // notifiees (onZeroReferences).
  virtual void zeroReferencesIs(bool z) { zeroReferences_ = z; }

  // A marked object is not deleted when its count reaches zero but queued, and deleted by
  // deleteDeferred() (the event loop calls it after each event), so code still on the stack
  // with a plain pointer to it stays safe.
  bool kivMarkedForDeletion() const { return markedForDeletion_; }
  void kivMarkedForDeletionIs(bool m) { markedForDeletion_ = m; }
  static void deleteDeferred();
  static std::size_t deferredDeletions();

  // The text by which messages show a pointer to this object.
  virtual std::string kivStrep() const;

 protected:
  virtual ~PtrInterface();
  virtual void handleZeroRef();

 private:
  mutable std::atomic<std::uint32_t> refs_{0};
  bool zeroReferences_ = false;
  bool markedForDeletion_ = false;
  bool inZeroRef_ = false;
  bool queuedForDeletion_ = false;
};

template <class T>
class Ptr {
 public:
  using element_type = T;

  Ptr() = default;
  Ptr(std::nullptr_t) {}
  Ptr(T* p) : p_(p) { inc(); }
  Ptr(Ptr const& o) : p_(o.p_) { inc(); }
  Ptr(Ptr&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
  template <class U>
    requires std::convertible_to<U*, T*>
  Ptr(Ptr<U> const& o) : p_(o.ptr()) {
    inc();
  }
  template <class U>
    requires std::convertible_to<U*, T*>
  Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}
  ~Ptr() { dec(); }

  Ptr& operator=(Ptr const& o) {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  Ptr& operator=(std::nullptr_t) {
    Ptr().swap(*this);
    return *this;
  }

  T* ptr() const { return p_; }
  T* get() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }
  bool operator!() const { return p_ == nullptr; }

  // Gives up the reference without releasing it; the caller owns it.
  T* release() {
    T* p = p_;
    p_ = nullptr;
    return p;
  }
  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

  template <class U>
  bool operator==(Ptr<U> const& o) const {
    return p_ == o.ptr();
  }
  bool operator==(std::nullptr_t) const { return p_ == nullptr; }
  template <class U>
  auto operator<=>(Ptr<U> const& o) const {
    return std::compare_three_way()(static_cast<void const*>(p_), static_cast<void const*>(o.ptr()));
  }

 private:
  void inc() const {
    if (p_) p_->referencesInc();
  }
  void dec() const {
    if (p_) p_->referencesDec();
  }
  T* p_ = nullptr;
};

// A read-only view: only const accessors can be called through it.
template <class T>
using PtrConst = Ptr<T const>;

[[noreturn]] void throwNullValidPtr();

// A Ptr that is never null; building one from null throws "null ValidPtr".
template <class T>
class ValidPtr : public Ptr<T> {
 public:
  ValidPtr(T* p) : Ptr<T>(p) { check(); }
  template <class U>
    requires std::convertible_to<U*, T*>
  ValidPtr(Ptr<U> const& p) : Ptr<T>(p) {
    check();
  }
  template <class U>
    requires std::convertible_to<U*, T*>
  ValidPtr(Ptr<U>&& p) : Ptr<T>(std::move(p)) {
    check();
  }
  ValidPtr(std::nullptr_t) { throwNullValidPtr(); }

 private:
  void check() const {
    if (!this->ptr()) throwNullValidPtr();
  }
};

template <class T, class U>
Ptr<T> ptrStaticCast(Ptr<U> const& p) {
  return Ptr<T>(static_cast<T*>(p.ptr()));
}

template <class T, class U>
Ptr<T> ptrConstCast(Ptr<U> const& p) {
  return Ptr<T>(const_cast<T*>(p.ptr()));
}

// The text of a pointer in messages: "0" for null, else the object's own representation.
template <class T>
std::string strepOf(Ptr<T> const& p) {
  return p ? p->kivStrep() : std::string("0");
}

}  // namespace Kiv

template <class T>
struct std::hash<Kiv::Ptr<T>> {
  std::size_t operator()(Kiv::Ptr<T> const& p) const noexcept {
    return std::hash<void const*>()(p.ptr());
  }
};
