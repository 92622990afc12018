#pragma once
// How many rows of each group status are in each mount state, so that a row's change yields the
// group's combined state at once: a group has a row per path, and combining by a walk over the
// rows on every change made a cold start quadratic in paths.
//
// The registry's machines write every row through here. A group status leaves the tally when
// they delete it (or its system status); the tally holds the ones it counts, so that a new group
// status never meets the counts of a deleted one at the same address. Should a group's rows ever
// differ in number from its counts, the group is counted afresh.

#include <array>
#include <cstdint>
#include <unordered_map>

#include "MountInterface.h"

namespace Controller {

class GroupStateTally {
 public:
  // The row of the path, made (unmounted) when absent.
  Kiv::Ptr<MountStatus> rowIs(ServiceMountGroupStatus& group, Kiv::Name const& path);
  // False when the group had no such row.
  bool rowDel(ServiceMountGroupStatus& group, Kiv::Name const& path);
  void rowStateIs(ServiceMountGroupStatus& group, MountStatus& row, MountState state);
  // The group's state from its rows' (see MountsRegistryEntrySm::combinedMountState).
  MountState combined(ServiceMountGroupStatus const& group);

  // The group statuses go, or are about to.
  void groupDel(ServiceMountGroupStatus const& group) {
    if (&group == lastGroup_) lastGroup_ = nullptr;
    counts_.erase(&group);
  }
  void systemDel(SystemStatus const& system);
  void clear() {
    lastGroup_ = nullptr;
    counts_.clear();
  }
  std::size_t size() const { return counts_.size(); }

 private:
  static constexpr std::size_t kStates = 5;
  struct Counts {
    Kiv::PtrConst<ServiceMountGroupStatus> group;
    std::array<std::uint32_t, kStates> n{};
    std::uint32_t total = 0;  // rows with a known state
  };
  Counts& countsOf(ServiceMountGroupStatus const& group);
  static void count(Counts& c, MountState s, int by);

  std::unordered_map<ServiceMountGroupStatus const*, Counts> counts_;
  // A row's change asks for its group's counts several times over: the last ones are kept at hand
  // (the map's nodes stay put until erased).
  ServiceMountGroupStatus const* lastGroup_ = nullptr;
  Counts* last_ = nullptr;
};

}  // namespace Controller
