#include "registry/GroupStateTally.h"

#include "registry/MountsRegistryEntrySm.h"

namespace Controller {

void GroupStateTally::count(Counts& c, MountState s, int by) {
  // A state outside the known ones is left out: the group is then walked like before.
  if (static_cast<std::size_t>(s) >= kStates) return;
  c.n[s] += static_cast<std::uint32_t>(by);
  c.total += static_cast<std::uint32_t>(by);
}

GroupStateTally::Counts& GroupStateTally::countsOf(ServiceMountGroupStatus const& group) {
  bool made = false;
  if (&group != lastGroup_) {
    auto [it, inserted] = counts_.try_emplace(&group);
    made = inserted;
    lastGroup_ = &group;
    last_ = &it->second;
  }
  Counts& c = *last_;
  if (made) c.group = &group;
  if (made || c.total != group.mountStatusSize()) {
    c.n = {};
    c.total = 0;
    for (auto row = group.mountStatusIter(); row; ++row) count(c, row.value()->mountState(), 1);
  }
  return c;
}

Kiv::Ptr<MountStatus> GroupStateTally::rowIs(ServiceMountGroupStatus& group, Kiv::Name const& path) {
  if (Kiv::Ptr<MountStatus> row = group.mountStatus(path)) return row;
  Counts& c = countsOf(group);
  Kiv::Ptr<MountStatus> row = group.mountStatusIs(path);
  count(c, row->mountState(), 1);
  return row;
}

bool GroupStateTally::rowDel(ServiceMountGroupStatus& group, Kiv::Name const& path) {
  Kiv::Ptr<MountStatus> row = group.mountStatus(path);
  if (!row) return false;
  Counts& c = countsOf(group);
  count(c, row->mountState(), -1);
  group.mountStatusDel(path);
  return true;
}

void GroupStateTally::rowStateIs(ServiceMountGroupStatus& group, MountStatus& row, MountState state) {
  Counts& c = countsOf(group);
  count(c, row.mountState(), -1);
  count(c, state, 1);
  row.mountStateIs(state);
}

MountState GroupStateTally::combined(ServiceMountGroupStatus const& group) {
  Counts const& c = countsOf(group);
  if (c.total != group.mountStatusSize()) return MountsRegistryEntrySm::combinedMountState(group);
  for (std::size_t s = 0; s < kStates; ++s)
    if (c.n[s] == c.total && c.total != 0) return static_cast<MountState>(s);
  if (c.n[mountStateMounting]) return mountStateMounting;
  if (c.n[mountStateUnmounting]) return mountStateUnmounting;
  if (c.n[mountStateFailed]) return mountStateFailed;
  return mountStateUnmounted;
}

void GroupStateTally::systemDel(SystemStatus const& system) {
  for (auto it = system.serviceMountGroupStatusIter(); it; ++it) groupDel(*it.value());
}

}  // namespace Controller
