#pragma once
// What the attribute-log adapters that kivc generates build on. Not for hand-written code.

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "kiv/AttrLog.h"

namespace Kiv::NboAttrLog {

// Sends the attributes whose bit is set, from identifier `id` on, through send(id), which is
// false when the output has no room. Returns the identifier to resume at, its bit set again, or 0
// when nothing is left.
template <std::size_t N, class Send>
std::uint32_t flowOutBits(std::bitset<N>& dirty, std::uint32_t id, Send&& send) {
  for (; id < kFirstAttrId + N; ++id) {
    std::size_t const bit = id - kFirstAttrId;
    if (!dirty.test(bit)) continue;
    dirty.reset(bit);
    if (!send(id)) {
      dirty.set(bit);
      return id;
    }
  }
  return 0;
}

// Sends the dirty keys of a collection through send(k), forgetting each one sent; false, with
// the rest still dirty, when the output has no room.
template <class K, class Send>
bool flowOutKeys(HashMap<K, bool>& dirty, Send&& send) {
  for (auto it = dirty.begin(); it; ++it) {
    K const k = it.key();  // erase() below clears the slot the iterator stands on
    if (!send(k)) return false;
    dirty.erase(k);
  }
  return true;
}

// The key under which `child` is held, if it is.
template <class K, class A>
std::optional<K> childKey(HashMap<K, Ptr<A>> const& children, Adapter const& child) {
  for (auto it = children.begin(); it; ++it)
    if (static_cast<Adapter const*>(it.value().ptr()) == &child) return it.key();
  return std::nullopt;
}

// The keys of `map` a remount did not send, collected before any is deleted.
template <class K, class V>
std::vector<K> unsentKeys(HashMap<K, V> const& map, HashMap<K, bool> const& sent) {
  std::vector<K> out;
  for (auto it = map.begin(); it; ++it)
    if (!sent.contains(it.key())) out.push_back(it.key());
  return out;
}

// A reference among a member's constructor parameters: kivSendMember puts its target on the wire
// ahead of the member and sends the target's handle.
inline RefTarget refParam(Side const&, Entity const* target) { return RefTarget{target}; }

}  // namespace Kiv::NboAttrLog
