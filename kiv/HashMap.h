#pragma once
// Keyed collections whose iterators survive the erasure of the member they stand on.
//
// Members live in a dense slot vector; an open-addressing index (linear probing, backward-shift
// deletion, so no tombstones) maps keys to slots. Erasing while no iterator is live moves the last
// slot into the hole. Erasing while iterators are live only marks the slot dead, and iterators
// skip it; the last iterator to go away compacts. Members added during an iteration are appended
// and visited by it. Iteration order is the slot order and carries no meaning.
//
// A member is released only once the table is consistent again, so its destructor may use the map.
// The storage comes from the framework's pool (kiv/Pool.h): most maps are small (a record's
// attributes, a directory of one member), and millions of them come and go together.
// Checked builds (kiv/Assert.h) assert the structure after every change that could break it, and
// keep an epoch that moves whenever members move in memory.

#include <algorithm>
#include <bit>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "kiv/Assert.h"
#include "kiv/Pool.h"

namespace Kiv {

template <class K>
struct KeyHash {
  std::size_t operator()(K const& k) const noexcept { return std::hash<K>()(k); }
};

// The members of a HashMap, in order: a growable array from the pool, in 16 bytes (a record or
// a directory holds one map each, and most of them are empty or nearly).
template <class T>
class SlotArray {
 public:
  SlotArray() = default;
  SlotArray(SlotArray&& o) noexcept : p_(std::exchange(o.p_, nullptr)), size_(o.size_), capacity_(o.capacity_) {
    o.size_ = o.capacity_ = 0;
  }
  SlotArray& operator=(SlotArray&& o) noexcept {
    SlotArray(std::move(o)).swap(*this);
    return *this;
  }
  ~SlotArray() {
    std::destroy_n(p_, size_);
    poolRelease(p_, capacity_ * sizeof(T));
  }
  void swap(SlotArray& o) noexcept {
    std::swap(p_, o.p_);
    std::swap(size_, o.size_);
    std::swap(capacity_, o.capacity_);
  }

  std::size_t size() const { return size_; }
  std::size_t capacity() const { return capacity_; }
  T& operator[](std::size_t i) { return p_[i]; }
  T const& operator[](std::size_t i) const { return p_[i]; }
  T* begin() { return p_; }
  T* end() { return p_ + size_; }
  T const* begin() const { return p_; }
  T const* end() const { return p_ + size_; }

  void reserve(std::size_t n) {
    if (n <= capacity_) return;
    T* grown = static_cast<T*>(poolAllocate(n * sizeof(T)));
    std::uninitialized_move_n(p_, size_, grown);
    std::destroy_n(p_, size_);
    poolRelease(p_, capacity_ * sizeof(T));
    p_ = grown;
    capacity_ = static_cast<std::uint32_t>(n);
  }
  void push_back(T&& t) {
    if (size_ == capacity_) reserve(capacity_ ? capacity_ * 2 : 1);
    new (p_ + size_) T(std::move(t));
    ++size_;
  }
  void pop_back() { std::destroy_at(p_ + --size_); }

 private:
  T* p_ = nullptr;
  std::uint32_t size_ = 0;
  std::uint32_t capacity_ = 0;
};

template <class K, class V, class Hash = KeyHash<K>>
class HashMap {
 public:
  struct Entry {
    K key;
    V value;
  };

  class Sentinel {};

  template <bool Const>
  class IteratorT {
   public:
    using MapT = std::conditional_t<Const, HashMap const, HashMap>;
    using EntryT = std::conditional_t<Const, Entry const, Entry>;

    IteratorT() = default;
    IteratorT(MapT* m, std::uint32_t i) : m_(m), i_(i) {
      attach();
      skipDead();
    }
    IteratorT(IteratorT const& o) : m_(o.m_), i_(o.i_) { attach(); }
    template <bool C = Const>
      requires C
    IteratorT(IteratorT<false> const& o) : IteratorT(o.map(), o.index()) {}
    IteratorT& operator=(IteratorT const& o) {
      if (this != &o) {
        detach();
        m_ = o.m_;
        i_ = o.i_;
        attach();
      }
      return *this;
    }
    ~IteratorT() { detach(); }

    bool done() const { return !m_ || i_ >= m_->slots_.size(); }
    explicit operator bool() const { return !done(); }
    // Whether the member the iterator stands on is still in the map (not erased since it got there).
    bool live() const { return !done() && m_->slots_[i_].live; }
    // A member erased under the iterator is gone: reading it is a stale read.
    K const& key() const { return entry().key; }
    auto& value() const { return entry().value; }
    EntryT& operator*() const { return entry(); }
    EntryT* operator->() const { return &entry(); }
    IteratorT& operator++() {
      ++i_;
      skipDead();
      return *this;
    }
    bool operator==(Sentinel) const { return done(); }
    bool operator==(IteratorT const& o) const { return (done() && o.done()) || (m_ == o.m_ && i_ == o.i_); }

    // Range-for over an iterator walks from where it stands.
    IteratorT begin() const { return *this; }
    Sentinel end() const { return {}; }

    MapT* map() const { return m_; }
    std::uint32_t index() const { return i_; }

   private:
    EntryT& entry() const {
      KIV_DEBUG_ASSERT(live() && "iterator read after its member was erased");
      return m_->slots_[i_].entry;
    }
    void attach() {
      if (m_) ++m_->iterators_;
    }
    void detach() {
      if (m_ && --m_->iterators_ == 0 && m_->dead_ != 0) const_cast<HashMap*>(m_)->compact();
      if (m_) m_->checkQuick();
      m_ = nullptr;
    }
    void skipDead() {
      while (m_ && i_ < m_->slots_.size() && !m_->slots_[i_].live) ++i_;
    }
    MapT* m_ = nullptr;
    std::uint32_t i_ = 0;
  };
  using Iterator = IteratorT<false>;
  using ConstIterator = IteratorT<true>;

  explicit HashMap(std::size_t sizeHint = 0) {
    if (sizeHint) reserve(sizeHint);
  }
  HashMap(HashMap const&) = delete;
  HashMap& operator=(HashMap const&) = delete;
  ~HashMap() {
    KIV_ASSERT(iterators_ == 0 && "an iterator outlived its collection");
    releaseIndex();
  }

  std::size_t size() const { return live(); }
  bool empty() const { return live() == 0; }

  V* find(K const& k) {
    std::uint32_t s = slotOf(k, hashOf(k));
    return s == kNone ? nullptr : &slots_[s].entry.value;
  }
  V const* find(K const& k) const { return const_cast<HashMap*>(this)->find(k); }
  bool contains(K const& k) const { return find(k) != nullptr; }
  // The value at k, or a default V when k is absent.
  V get(K const& k) const {
    V const* v = find(k);
    return v ? *v : V();
  }
  // Stores v at k, replacing what was there.
  void assign(K const& k, V const& v) {
    auto [stored, inserted] = insert(k, v);
    if (!inserted) *stored = v;
  }

  // Inserts (k, v) unless k is present; returns the stored value and whether it was inserted.
  template <class VV>
  std::pair<V*, bool> insert(K const& k, VV&& v) {
    std::uint32_t h = hashOf(k);
    std::uint32_t s = slotOf(k, h);
    if (s != kNone) return {&slots_[s].entry.value, false};
    if ((live() + 1) * 4 > indexSize() * 3) grow();
    s = static_cast<std::uint32_t>(slots_.size());
    if (slots_.size() == slots_.capacity()) moved();
    slots_.push_back(Slot{Entry{k, std::forward<VV>(v)}, h, true});
    placeInIndex(h, s);
    checkQuick();
    return {&slots_[s].entry.value, true};
  }

  // Removes k; its value is moved to *out when given. Returns whether k was present.
  bool erase(K const& k, V* out = nullptr) {
    std::uint32_t h = hashOf(k);
    std::uint32_t pos = indexPosOf(k, h);
    if (pos == kNone) return false;
    removeAt(pos, out);
    return true;
  }

  // Removes the member the iterator stands on; the iterator stays valid and moves on with ++.
  // Returns whether there was one: its member may have been erased already (by key, or by
  // another iterator on the same place).
  bool erase(Iterator const& it, V* out = nullptr) {
    KIV_ASSERT(it.map() == this);
    if (!it.live()) return false;
    Slot const& slot = slots_[it.index()];
    removeAt(indexPosOf(slot.entry.key, slot.hash), out);
    return true;
  }

  void clear() {
    Slots gone;  // released on return, once the map is consistent
    if (iterators_ == 0) {
      gone.swap(slots_);
      moved();
    } else {
      gone.reserve(live());
      for (Slot& s : slots_) {
        if (!s.live) continue;
        gone.push_back(std::move(s));
        kill(s);
      }
    }
    std::fill_n(index_, indexSize(), 0u);
    checkQuick();
  }

  void reserve(std::size_t n) {
    std::size_t want = std::bit_ceil(std::max<std::size_t>(kSmallest, n * 4 / 3 + 1));
    if (want > indexSize()) rehash(want);
    if (n > slots_.capacity()) moved();
    slots_.reserve(n);
  }

  Iterator begin() { return Iterator(this, 0); }
  ConstIterator begin() const { return ConstIterator(this, 0); }
  Sentinel end() const { return {}; }

  // Checked builds: changes whenever members move in memory (growth, erasure with no iteration
  // in flight, compaction, clear), so code that keeps a pointer from find() or insert() across
  // calls that might change the map can assert that it still points at its member. Always 0 in
  // unchecked builds.
  std::uint64_t epoch() const {
#if KIV_CHECKS_ON
    return epoch_;
#else
    return 0;
#endif
  }

  // The whole structure, in every build: counts agree, no dead slot outlives the last
  // iterator, every live member is found from its home slot and every index entry is a live
  // member. Linear; for tests and for hunting a corruption.
  void checkInvariants() const {
    KIV_ASSERT((iterators_ != 0 || dead_ == 0) && "a dead slot outlived the last iterator");
    std::uint32_t counted = 0;
    for (std::uint32_t i = 0; i < slots_.size(); ++i) {
      Slot const& s = slots_[i];
      if (!s.live) continue;
      ++counted;
      KIV_ASSERT(s.hash == hashOf(s.entry.key));
      KIV_ASSERT(slotOf(s.entry.key, s.hash) == i && "a live member is not found from its home slot");
    }
    KIV_ASSERT(counted == live());
    std::size_t indexed = 0;
    for (std::size_t p = 0; p < indexSize(); ++p) {
      std::uint32_t const e = index_[p];
      if (e == 0) continue;
      ++indexed;
      KIV_ASSERT(e - 1 < slots_.size() && slots_[e - 1].live && "the index names a dead or missing slot");
    }
    KIV_ASSERT(indexed == live());
    KIV_ASSERT(live() * 4 <= indexSize() * 3);
  }

 private:
  static constexpr std::uint32_t kNone = ~std::uint32_t{0};
  // The index's first size: a map of one or two members (most of them) needs no more.
  static constexpr std::size_t kSmallest = 4;
  struct Slot {
    Entry entry;
    std::uint32_t hash;  // folded to 32 bits, which keeps a slot of two pointers at 24 bytes
    bool live;
  };
  using Slots = SlotArray<Slot>;

  static std::uint32_t hashOf(K const& k) {
    std::uint64_t const h = Hash()(k);
    return static_cast<std::uint32_t>(h ^ (h >> 32));
  }
  std::size_t home(std::uint32_t h) const {
    // Fibonacci hashing spreads keys whose hashes differ only in high or low bits.
    return (h * 0x9E3779B97F4A7C15ull) >> shift_;
  }
  std::size_t indexSize() const { return index_ ? std::size_t{1} << (64 - shift_) : 0; }
  std::size_t mask() const { return indexSize() - 1; }
  std::uint32_t live() const { return static_cast<std::uint32_t>(slots_.size()) - dead_; }
  void releaseIndex() {
    if (index_) poolRelease(index_, indexSize() * sizeof(std::uint32_t));
    index_ = nullptr;
  }

  std::uint32_t indexPosOf(K const& k, std::uint32_t h) const {
    if (!index_) return kNone;
    for (std::size_t p = home(h);; p = (p + 1) & mask()) {
      std::uint32_t e = index_[p];
      if (e == 0) return kNone;
      Slot const& s = slots_[e - 1];
      if (s.hash == h && s.entry.key == k) return static_cast<std::uint32_t>(p);
    }
  }
  std::uint32_t slotOf(K const& k, std::uint32_t h) const {
    std::uint32_t p = indexPosOf(k, h);
    return p == kNone ? kNone : index_[p] - 1;
  }
  void placeInIndex(std::uint32_t h, std::uint32_t slot) {
    std::size_t p = home(h);
    while (index_[p] != 0) p = (p + 1) & mask();
    index_[p] = slot + 1;
  }
  void removeFromIndex(std::size_t p) {
    // Backward-shift deletion keeps every probe chain unbroken without tombstones.
    index_[p] = 0;
    for (std::size_t q = (p + 1) & mask(); index_[q] != 0; q = (q + 1) & mask()) {
      std::size_t h = home(slots_[index_[q] - 1].hash);
      bool between = (p <= q) ? (p < h && h <= q) : (p < h || h <= q);
      if (!between) {
        index_[p] = index_[q];
        index_[q] = 0;
        p = q;
      }
    }
  }
  void removeAt(std::uint32_t pos, V* out) {
    std::uint32_t s = index_[pos] - 1;
    removeFromIndex(pos);
    // Released on return, once the table is consistent: its destructor may look at the map.
    Entry gone = std::move(slots_[s].entry);
    if (out) *out = std::move(gone.value);
    if (iterators_ != 0) {
      kill(slots_[s]);
    } else {
      KIV_DEBUG_ASSERT(dead_ == 0);  // else the last slot may be dead, and absent from the index
      std::uint32_t last = static_cast<std::uint32_t>(slots_.size() - 1);
      if (s != last) {
        slots_[s] = std::move(slots_[last]);
        repoint(last, s);
      }
      slots_.pop_back();
      if (s != last) moved();
    }
    checkQuick();
  }
  // Marks a slot whose entry has been taken dead; iterations skip it until compaction.
  void kill(Slot& s) {
    s.live = false;
    s.entry = Entry{K(), V()};
    ++dead_;
  }
  void repoint(std::uint32_t from, std::uint32_t to) {
    for (std::size_t p = home(slots_[to].hash);; p = (p + 1) & mask()) {
      if (index_[p] == from + 1) {
        index_[p] = to + 1;
        return;
      }
    }
  }
  void compact() {
    Slots kept;
    kept.reserve(live());
    for (Slot& s : slots_)
      if (s.live) kept.push_back(std::move(s));
    slots_ = std::move(kept);
    dead_ = 0;
    moved();
    rehash(indexSize());
  }
  void moved() {
#if KIV_CHECKS_ON
    ++epoch_;
#endif
  }
  // The constant-time part of checkInvariants(), after every change in checked builds.
  void checkQuick() const {
    KIV_DEBUG_ASSERT((iterators_ != 0 || dead_ == 0) && "a dead slot outlived the last iterator");
  }
  void grow() { rehash(index_ ? indexSize() * 2 : kSmallest); }
  void rehash(std::size_t cap) {
    if (cap != indexSize()) {
      releaseIndex();
      index_ = static_cast<std::uint32_t*>(poolAllocate(cap * sizeof(std::uint32_t)));
      shift_ = 64 - std::countr_zero(cap);
    }
    std::fill_n(index_, cap, 0u);
    for (std::uint32_t i = 0; i < slots_.size(); ++i)
      if (slots_[i].live) placeInIndex(slots_[i].hash, i);
  }

  Slots slots_;
  std::uint32_t* index_ = nullptr;  // of 2^(64 - shift_) entries: slot + 1, or 0 where empty
  int shift_ = 64;
  std::uint32_t dead_ = 0;
  mutable std::uint32_t iterators_ = 0;
#if KIV_CHECKS_ON
  std::uint64_t epoch_ = 0;
#endif
};

// Value collections use the same storage; the separate name keeps declarations saying what the
// collection holds.
template <class K, class V, class Hash = KeyHash<K>>
using HashMap2018 = HashMap<K, V, Hash>;

}  // namespace Kiv
