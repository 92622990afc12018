#pragma once
// Keyed collections whose iterators survive the erasure of the member they stand on.
//
// Members live in a dense slot array; an open-addressing index (linear probing, backward-shift
// deletion, so no tombstones) maps keys to slots. Erasing while no iterator is live moves the last
// slot into the hole. Erasing while iterators are live only marks the slot dead, and iterators
// skip it; the last iterator to go away compacts. Members added during an iteration are appended
// and visited by it. Iteration order is the slot order and carries no meaning.
//
// A member is released only once the table is consistent again, so its destructor may use the map.
// Most maps are small (a record's attributes, a directory of one member) and millions of them come
// and go together: the map is 16 bytes, and its slots and index share one block from the
// framework's pool (kiv/Pool.h); a map of up to kLinear slots has no index and is searched by
// its slots' hashes.
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

    bool done() const { return !m_ || i_ >= m_->slotCount(); }
    explicit operator bool() const { return !done(); }
    // Whether the member the iterator stands on is still in the map (not erased since it got there).
    bool live() const { return !done() && m_->slot(i_).live; }
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
      return const_cast<HashMap*>(m_)->slot(i_).entry;
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
      while (m_ && i_ < m_->slotCount() && !m_->slot(i_).live) ++i_;
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
    if (t_) destroy(t_);
  }

  std::size_t size() const { return live(); }
  bool empty() const { return live() == 0; }

  V* find(K const& k) {
    std::uint32_t s = slotOf(k, hashOf(k));
    return s == kNone ? nullptr : &slot(s).entry.value;
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
    if (s != kNone) return {&slot(s).entry.value, false};
    s = slotCount();
    if (s == capacity()) regrow(s ? s * 2 : 1);
    new (slots(t_) + s) Slot{Entry{k, std::forward<VV>(v)}, h, true};
    ++t_->size;
    if (indexed()) placeInIndex(h, s);
    checkQuick();
    return {&slot(s).entry.value, true};
  }

  // Removes k; its value is moved to *out when given. Returns whether k was present.
  bool erase(K const& k, V* out = nullptr) {
    std::uint32_t s = slotOf(k, hashOf(k));
    if (s == kNone) return false;
    removeAt(s, out);
    return true;
  }

  // Removes the member the iterator stands on; the iterator stays valid and moves on with ++.
  // Returns whether there was one: its member may have been erased already (by key, or by
  // another iterator on the same place).
  bool erase(Iterator const& it, V* out = nullptr) {
    KIV_ASSERT(it.map() == this);
    if (!it.live()) return false;
    removeAt(it.index(), out);
    return true;
  }

  void clear() {
    if (!t_) return;
    if (iterators_ == 0) {
      // Released once the map is consistent (empty) again.
      Table* gone = std::exchange(t_, nullptr);
      dead_ = 0;
      moved();
      destroy(gone);
    } else {
      std::vector<Entry> gone;
      gone.reserve(live());
      for (std::uint32_t i = 0; i < slotCount(); ++i) {
        Slot& s = slot(i);
        if (!s.live) continue;
        gone.push_back(std::move(s.entry));
        kill(s);
      }
      std::fill_n(index(t_), indexSize(capacity()), 0u);
    }
    checkQuick();
  }

  void reserve(std::size_t n) {
    if (n > capacity()) regrow(std::bit_ceil(n));
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
    for (std::uint32_t i = 0; i < slotCount(); ++i) {
      Slot const& s = slot(i);
      if (!s.live) continue;
      ++counted;
      KIV_ASSERT(s.hash == hashOf(s.entry.key));
      KIV_ASSERT(slotOf(s.entry.key, s.hash) == i && "a live member is not found from its home slot");
    }
    KIV_ASSERT(counted == live());
    std::size_t indexed = 0;
    std::size_t const entries = indexSize(capacity());
    for (std::size_t p = 0; p < entries; ++p) {
      std::uint32_t const e = index(t_)[p];
      if (e == 0) continue;
      ++indexed;
      KIV_ASSERT(e - 1 < slotCount() && slot(e - 1).live && "the index names a dead or missing slot");
    }
    KIV_ASSERT(entries == 0 || indexed == live());
    KIV_ASSERT(live() * 2 <= std::max<std::size_t>(entries, kLinear * 2));
  }

 private:
  static constexpr std::uint32_t kNone = ~std::uint32_t{0};
  // Up to this many slots, a search reads the slots' hashes; larger tables have an index of
  // twice their slots, so that it is never more than half full.
  static constexpr std::uint32_t kLinear = 4;
  struct Slot {
    Entry entry;
    std::uint32_t hash;  // folded to 32 bits, which keeps a slot of two pointers at 24 bytes
    bool live;
  };
  // One block: this header, the index (slot + 1, or 0 where empty), then the slots.
  struct Table {
    std::uint32_t size;  // slots in use, dead ones included
    std::uint32_t capacity;
  };
  static_assert(alignof(Slot) <= 16, "the pool aligns blocks to 16");

  static std::size_t indexSize(std::uint32_t capacity) { return capacity <= kLinear ? 0 : std::size_t{capacity} * 2; }
  static std::size_t slotsOffset(std::uint32_t capacity) {
    std::size_t const end = sizeof(Table) + indexSize(capacity) * sizeof(std::uint32_t);
    return (end + alignof(Slot) - 1) / alignof(Slot) * alignof(Slot);
  }
  static std::size_t bytesOf(std::uint32_t capacity) { return slotsOffset(capacity) + capacity * sizeof(Slot); }
  static std::uint32_t* index(Table* t) { return reinterpret_cast<std::uint32_t*>(t + 1); }
  static Slot* slots(Table* t) { return reinterpret_cast<Slot*>(reinterpret_cast<char*>(t) + slotsOffset(t->capacity)); }
  static void destroy(Table* t) {
    std::destroy_n(slots(t), t->size);
    poolRelease(t, bytesOf(t->capacity));
  }

  std::uint32_t slotCount() const { return t_ ? t_->size : 0; }
  std::uint32_t capacity() const { return t_ ? t_->capacity : 0; }
  Slot& slot(std::uint32_t i) { return slots(t_)[i]; }
  Slot const& slot(std::uint32_t i) const { return slots(t_)[i]; }
  bool indexed() const { return capacity() > kLinear; }
  std::uint32_t live() const { return slotCount() - dead_; }

  static std::uint32_t hashOf(K const& k) {
    std::uint64_t const h = Hash()(k);
    return static_cast<std::uint32_t>(h ^ (h >> 32));
  }
  std::size_t home(std::uint32_t h) const {
    // Fibonacci hashing spreads keys whose hashes differ only in high or low bits.
    return (h * 0x9E3779B97F4A7C15ull) >> (64 - std::countr_zero(indexSize(capacity())));
  }
  std::size_t mask() const { return indexSize(capacity()) - 1; }

  // The index position that holds slot s (which must be live and indexed).
  std::size_t indexPosOfSlot(std::uint32_t s) const {
    std::uint32_t const* idx = index(t_);
    std::size_t p = home(slot(s).hash);
    while (idx[p] != s + 1) p = (p + 1) & mask();
    return p;
  }
  std::uint32_t slotOf(K const& k, std::uint32_t h) const {
    if (!t_) return kNone;
    if (!indexed()) {
      for (std::uint32_t i = 0; i < t_->size; ++i) {
        Slot const& s = slot(i);
        if (s.live && s.hash == h && s.entry.key == k) return i;
      }
      return kNone;
    }
    std::uint32_t const* idx = index(t_);
    for (std::size_t p = home(h);; p = (p + 1) & mask()) {
      std::uint32_t e = idx[p];
      if (e == 0) return kNone;
      Slot const& s = slot(e - 1);
      if (s.hash == h && s.entry.key == k) return e - 1;
    }
  }
  void placeInIndex(std::uint32_t h, std::uint32_t s) {
    std::uint32_t* idx = index(t_);
    std::size_t p = home(h);
    while (idx[p] != 0) p = (p + 1) & mask();
    idx[p] = s + 1;
  }
  void removeFromIndex(std::size_t p) {
    // Backward-shift deletion keeps every probe chain unbroken without tombstones.
    std::uint32_t* idx = index(t_);
    idx[p] = 0;
    for (std::size_t q = (p + 1) & mask(); idx[q] != 0; q = (q + 1) & mask()) {
      std::size_t h = home(slot(idx[q] - 1).hash);
      bool between = (p <= q) ? (p < h && h <= q) : (p < h || h <= q);
      if (!between) {
        idx[p] = idx[q];
        idx[q] = 0;
        p = q;
      }
    }
  }
  void removeAt(std::uint32_t s, V* out) {
    if (indexed()) removeFromIndex(indexPosOfSlot(s));
    // Released on return, once the table is consistent: its destructor may look at the map.
    Entry gone = std::move(slot(s).entry);
    if (out) *out = std::move(gone.value);
    if (iterators_ != 0) {
      kill(slot(s));
    } else {
      KIV_DEBUG_ASSERT(dead_ == 0);  // else the last slot may be dead, and absent from the index
      std::uint32_t last = t_->size - 1;
      if (s != last) {
        if (indexed()) index(t_)[indexPosOfSlot(last)] = s + 1;
        slot(s) = std::move(slot(last));
      }
      std::destroy_at(&slot(last));
      --t_->size;
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
  void compact() {
    std::uint32_t kept = 0;
    for (std::uint32_t i = 0; i < t_->size; ++i) {
      if (!slot(i).live) continue;
      if (i != kept) slot(kept) = std::move(slot(i));
      ++kept;
    }
    std::destroy_n(slots(t_) + kept, t_->size - kept);
    t_->size = kept;
    dead_ = 0;
    moved();
    reindex();
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
  // Moves the slots, dead ones in their places, to a block of `capacity`.
  void regrow(std::uint32_t capacity) {
    auto* grown = static_cast<Table*>(poolAllocate(bytesOf(capacity)));
    grown->capacity = capacity;
    grown->size = 0;
    if (t_) {
      std::uninitialized_move_n(slots(t_), t_->size, slots(grown));
      grown->size = t_->size;
      destroy(t_);
    }
    t_ = grown;
    moved();
    reindex();
  }
  void reindex() {
    if (!indexed()) return;
    std::fill_n(index(t_), indexSize(t_->capacity), 0u);
    for (std::uint32_t i = 0; i < t_->size; ++i)
      if (slot(i).live) placeInIndex(slot(i).hash, i);
  }

  Table* t_ = nullptr;
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
