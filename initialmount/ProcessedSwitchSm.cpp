#include "initialmount/ProcessedSwitchSm.h"

#include <vector>

namespace Controller {

// --- GroupProcessedSm ---

GroupProcessedSm::GroupProcessedSm(Kiv::Name const& systemName, Kiv::Name const& groupName,
                                   Kiv::PtrConst<ServiceMountGroupStatus> const& serviceMountGroupStatus,
                                   Kiv::Ptr<ProcessedSwitchSet> const& processedSwitchSet)
    : GroupProcessedSmBase(systemName, groupName, serviceMountGroupStatus, processedSwitchSet) {
  handleInitialized();
}

GroupProcessedSm::~GroupProcessedSm() = default;

void GroupProcessedSm::handleInitialized() {
  if (initialized_) return;
  initialized_ = true;
  handleProcessed();
}

void GroupProcessedSm::handleProcessed() {
  if (!serviceMountGroupStatus_->processed()) return;
  KIV_SM_TRACE_TEXT(8, "handleProcessed",
                    kivSigHandleProcessed << ": systemName: " << systemName_ << ", groupName: " << groupName_);
  processedSwitchSet_->processedIs(systemName_, true);
}

// --- SystemProcessedSm ---

SystemProcessedSm::SystemProcessedSm(Kiv::Name const& systemName, Kiv::Name const& groupName,
                                     Kiv::PtrConst<SystemStatus> const& systemStatus,
                                     Kiv::Ptr<ProcessedSwitchSet> const& processedSwitchSet,
                                     MountGroupInitialMountSm* parent)
    : SystemProcessedSmBase(systemName, groupName, systemStatus, processedSwitchSet, parent) {
  handleInitialized();
}

SystemProcessedSm::~SystemProcessedSm() = default;

// The set's entries stay: a switch once processed counts for the group for good. Only the
// watching ends.
void SystemProcessedSm::doCleanup() {
  kivSystemStatus_ = nullptr;
  groupProcessedSm_ = nullptr;
}

void SystemProcessedSm::handleInitialized() {
  KIV_SM_TRACE_TEXT(8, "handleInitialized", kivSigHandleInitialized << ": ");
  if (initialized_) return;
  initialized_ = true;
  handleServiceMountGroupStatus();
}

void SystemProcessedSm::handleServiceMountGroupStatus() {
  for (Kiv::Name const& group : Kiv::keysOf(systemStatus_->serviceMountGroupStatusIter()))
    handleServiceMountGroupStatus(group);
}

void SystemProcessedSm::handleServiceMountGroupStatus(Kiv::Name const& group) {
  if (!initialized_ || group != groupName_) return;
  Kiv::PtrConst<ServiceMountGroupStatus> status = systemStatus_->serviceMountGroupStatus(group);
  // A status that goes away leaves the tracker (and what it recorded) in place; one that is
  // replaced by a new entity gets a tracker of its own.
  if (!status || (groupProcessedSm_ && groupProcessedSm_->serviceMountGroupStatus() == status)) return;
  groupProcessedSm_ = new GroupProcessedSm(systemName_, groupName_, status, processedSwitchSet_);
}

}  // namespace Controller
