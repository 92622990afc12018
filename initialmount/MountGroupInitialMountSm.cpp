#include "initialmount/MountGroupInitialMountSm.h"

#include <cstdint>
#include <utility>
#include <vector>

#include "kiv/Assert.h"
#include "kiv/AttrLog.h"

namespace Controller {

namespace {
// Deliberate: the two flush steps trace under their bare names, not full signatures.
constexpr char const* kFlushLocalPassiveEntityLogs = "flushLocalPassiveEntityLogs";
constexpr char const* kIsLocalPassiveCurrentRoundSyncComplete = "isLocalPassiveCurrentRoundSyncComplete";

using Kiv::NboAttrLog::Demuxer;
}  // namespace

bool isFinishedMountState(MountState state) {
  auto const n = static_cast<std::uint32_t>(state);
  return n == 3 || n == 4;
}

MountGroupInitialMountSm::MountGroupInitialMountSm(Kiv::Name const& groupName,
                                                   Kiv::Ptr<ServiceMountStatus> const& serviceMountStatus,
                                                   Kiv::PtrConst<ControllerOob::Status> const& oobStatus,
                                                   Kiv::PtrConst<ConnectionPeriod> const& connectionPeriod,
                                                   ServiceInitialMountSm* parent)
    : MountGroupInitialMountSmBase(groupName, serviceMountStatus, oobStatus, connectionPeriod, parent) {
  handleInitialized();
}

// Here rather than in doCleanup(), so that a machine held after its deletion keeps following its
// remaining switches.
MountGroupInitialMountSm::~MountGroupInitialMountSm() { remainingSwitchDelAll(); }

Kiv::PtrConst<PeerTable> MountGroupInitialMountSm::peerTable() const {
  return oobStatus_ ? Kiv::PtrConst<PeerTable>(oobStatus_->peerTable()) : nullptr;
}

Kiv::String MountGroupInitialMountSm::serviceName() const {
  return serviceMountStatus_ ? Kiv::String(serviceMountStatus_->name()) : Kiv::String();
}

void MountGroupInitialMountSm::localInitialMountsCompleteIs(bool complete) {
  if (complete == localInitialMountsComplete_) return;
  localInitialMountsComplete_ = complete;
  handleInitialMountsComplete();
}

void MountGroupInitialMountSm::handleInitialized() {
  KIV_SM_TRACE(8, "handleInitialized", "");
  if (initialized_) return;
  // Named after the group, so that a trace showing either tells whose it is.
  mountGroupInitialSwitchSet_ = InitialSwitchSet::InitialSwitchSetIs(groupName_);
  processedSwitchSetInternal_ = ProcessedSwitchSet::ProcessedSwitchSetIs(groupName_);
  processedSwitchSetIs(processedSwitchSetInternal_);
  initialized_ = true;
  handleConnectionPeriodComplete();
  handleSystemStatus();
}

void MountGroupInitialMountSm::handleSystemStatus() {
  KIV_SM_TRACE(8, "handleSystemStatus", "");
  // Trackers of entries that went without a keyed notification are dropped too.
  std::vector<Kiv::Name> names;
  for (auto it = serviceMountStatus_->systemStatusIter(); it; ++it) names.push_back(it.key());
  for (auto it = systemProcessedSm_.begin(); it; ++it) names.push_back(it.key());
  for (Kiv::Name const& name : names) handleSystemStatus(name);
}

void MountGroupInitialMountSm::handleSystemStatus(Kiv::Name const& systemName) {
  Kiv::Ptr<SystemStatus> status = serviceMountStatus_->systemStatus(systemName);
  KIV_SM_TRACE(8, "handleSystemStatus", " " << systemName << " exists=" << bool(status));
  if (!initialized_) return;
  if (!status) {
    systemProcessedSmDel(systemName);
  } else if (!systemProcessedSm(systemName)) {
    systemProcessedSmIs(systemName, groupName_, status, processedSwitchSet_);
  }
}

void MountGroupInitialMountSm::handleConnectionPeriodComplete() {
  KIV_SM_TRACE(8, "handleConnectionPeriodComplete", "");
  // The snapshot is taken once: the set is final when complete.
  if (!initialized_ || !connectionPeriod_->complete() || mountGroupInitialSwitchSet_->complete()) return;
  if (Kiv::PtrConst<PeerTable> table = peerTable()) {
    for (auto it = table->peerIter(); it; ++it) mountGroupInitialSwitchSet_->initialSwitchIs(it.key(), true);
  }
  mountGroupInitialSwitchSet_->completeIs(true);
  handleProcessed();
}

void MountGroupInitialMountSm::handleProcessed(Kiv::Name const& systemName) {
  bool const processed = processedSwitchSet_->processed(systemName);
  KIV_SM_TRACE(8, "handleProcessed", " " << systemName << " processed=" << processed);
  if (processed) handleProcessed();
}

void MountGroupInitialMountSm::handleProcessed() {
  KIV_SM_TRACE(8, "handleProcessed",
               " groupName: " << groupName_ << " complete=" << mountGroupInitialSwitchSet_->complete());
  if (!mountGroupInitialSwitchSet_->complete()) return;
  if (serviceMountStatus_->initialMountsComplete(groupName_) || remainingSwitchSize() != 0) return;
  // Counts, not membership: any processed switch counts towards the total.
  if (mountGroupInitialSwitchSet_->initialSwitchSize() <= processedSwitchSet_->processedSize()) {
    doPopulateRemainingSwitch();
    checkSwitchMountsPending();
  }
}

void MountGroupInitialMountSm::doPopulateRemainingSwitch() {
  KIV_SM_TRACE(8, "doPopulateRemainingSwitch", "");
  for (SystemId const& id : Kiv::keysOf(mountGroupInitialSwitchSet_->initialSwitchIter())) {
    Kiv::Ptr<SystemStatus> systemStatus = serviceMountStatus_->systemStatus(Kiv::Name(id.stringValue()));
    // Guarded on purpose where a null reference would end the process: an initial switch that
    // left after the connection period has no system status any more. That is ordinary churn,
    // and a switch flap must not end the agent; the switch is not waited for.
    if (!systemStatus) {
      KIV_SM_DUALLOG(1, kivSigDoPopulateRemainingSwitch,
                     "Initial switch %s has no system status; group %s does not wait for it", id, groupName_);
      continue;
    }
    Kiv::PtrConst<ServiceMountGroupStatus> groupStatus = systemStatus->serviceMountGroupStatus(groupName_);
    if (!groupStatus || isFinishedMountState(groupStatus->mountState())) continue;
    KIV_SM_DUALLOG(5, kivSigDoPopulateRemainingSwitch, "Adding remaining switch: %s", id);
    remainingSwitchIs(systemStatus);
  }
  if (remainingSwitchSize() == 0) {
    handleMountTimeout();
    return;
  }
  mountClockTimeMinIs(Kiv::System::currentTime() + mountWindow);
}

void MountGroupInitialMountSm::handleMountState(Kiv::Name systemName, Kiv::Name groupName) {
  KIV_SM_TRACE(8, "handleMountState", " " << systemName << " " << groupName);
  // The period, not the group's set: the set is completed in the step that sees the period end.
  if (!connectionPeriod_->complete()) {
    KIV_SM_TRACE(8, "handleMountState", ": initial switch set not yet complete");
    return;
  }
  if (groupName != groupName_) return;
  // Only the status is held: the remaining switch goes as soon as it is struck off.
  Kiv::PtrConst<SystemStatus> systemStatus;
  if (Kiv::Ptr<RemainingSwitchSm> remaining = remainingSwitch(systemName)) systemStatus = remaining->systemStatus();
  if (!systemStatus) {
    KIV_SM_TRACE(8, "handleMountState", ": " << systemName << " not in remaining.");
    return;
  }
  Kiv::PtrConst<ServiceMountGroupStatus> groupStatus = systemStatus->serviceMountGroupStatus(groupName_);
  if (!groupStatus || !isFinishedMountState(groupStatus->mountState())) return;
  KIV_SM_DUALLOG(5, kivSigHandleMountState, ": deleting remaining switch %s", systemName);
  remainingSwitchDel(systemName);
  checkSwitchMountsPending();
}

void MountGroupInitialMountSm::handleMountState() {
  KIV_SM_TRACE(8, "handleMountState", "");
  if (!mountGroupInitialSwitchSet_->complete()) {
    KIV_SM_TRACE(8, "handleMountState", ": initial switch set not yet complete");
    return;
  }
  std::vector<std::pair<Kiv::Name, Kiv::Name>> changes;
  for (auto r = remainingSwitch_.begin(); r; ++r) {
    for (auto g = r.value()->systemStatus()->serviceMountGroupStatusIter(); g; ++g) changes.emplace_back(r.key(), g.key());
  }
  for (auto const& [systemName, groupName] : changes) handleMountState(systemName, groupName);
}

void MountGroupInitialMountSm::handleMountTimeout() {
  if (!initialized_) return;
  KIV_SM_DUALLOG(5, kivSigHandleMountTimeout, "");
  // Switches that have not finished within the window are not waited for any longer.
  remainingSwitchDelAll();
  checkSwitchMountsPending();
}

void MountGroupInitialMountSm::checkSwitchMountsPending() {
  KIV_SM_TRACE(8, "checkSwitchMountsPending", "");
  if (remainingSwitchSize() != 0 || !connectionPeriod_->complete()) return;
  KIV_SM_TRACE(8, "checkSwitchMountsPending", ": no remaining switches");
  mountClockTimeMinIs(Kiv::kInfinity);
  localInitialMountsCompleteIs(true);
}

void MountGroupInitialMountSm::handleInitialMountsComplete() {
  // No test of the flag: it is only ever set to true, so this runs once.
  KIV_SM_TRACE_TEXT(8, "handleInitialMountsComplete", kivSigHandleInitialMountsComplete);
  flushLocalPassiveEntityLogs();
  attrlogFlushRemainingTimeIs(attrlogFlushTimeout);
  handleAttrlogFlushTimer();
}

// A demuxer's request table (Demuxer::kRequestTable) is the one whose nextRound asks for a round;
// its applied table (Demuxer::kAppliedTable) is the one whose round says what was applied.
void MountGroupInitialMountSm::flushLocalPassiveEntityLogs() {
  Kiv::Ptr<Kiv::NboAttrLog::DemuxerManager> manager = Kiv::globalNboAttrLogDemuxerManager();
  for (Kiv::Name const& name : Kiv::NboAttrLog::ConnectionDir::instance()->passiveConnectionNames()) {
    Kiv::Ptr<Demuxer> demuxer = manager->demuxer(name);
    if (!demuxer) continue;
    KIV_SM_DUALLOG(5, kFlushLocalPassiveEntityLogs, "Flushing Demuxer:%s", name);
    Kiv::Ptr<Kiv::MountTable> request = demuxer->mountTable(Demuxer::kRequestTable);
    request->nextRoundIs(request->nextRound() + 1);
  }
}

bool MountGroupInitialMountSm::isLocalPassiveCurrentRoundSyncComplete() const {
  Kiv::Ptr<Kiv::NboAttrLog::DemuxerManager> manager = Kiv::globalNboAttrLogDemuxerManager();
  bool complete = true;
  // Every connection is looked at (and traced), not only up to the first one behind.
  for (Kiv::Name const& name : Kiv::NboAttrLog::ConnectionDir::instance()->passiveConnectionNames()) {
    Kiv::Ptr<Demuxer> demuxer = manager->demuxer(name);
    if (!demuxer) {
      KIV_SM_DUALLOG(5, kIsLocalPassiveCurrentRoundSyncComplete, "No Demuxer for:%s", name);
      continue;
    }
    std::uint64_t const round = demuxer->mountTable(Demuxer::kAppliedTable)->round();
    std::uint64_t const nextRound = demuxer->mountTable(Demuxer::kRequestTable)->nextRound();
    KIV_SM_DUALLOG(5, kIsLocalPassiveCurrentRoundSyncComplete, "Demuxer:%s connectStatus:%s round:%s nextRound:%s",
                   name, static_cast<std::uint32_t>(demuxer->connectStatus()), round, nextRound);
    // A connection that is down has nothing to catch up on.
    if (demuxer->connectStatus() != Kiv::NboAttrLog::connectStatusConnected) continue;
    if (round != nextRound) complete = false;
  }
  return complete;
}

void MountGroupInitialMountSm::handleAttrlogFlushTimer() {
  if (!initialized_) return;
  KIV_SM_DUALLOG(5, kivSigHandleAttrlogFlushTimer, "");
  bool const synchronised = isLocalPassiveCurrentRoundSyncComplete();
  if (!synchronised && attrlogFlushRemainingTime_ > 0) {
    KIV_SM_TRACE(8, "handleAttrlogFlushTimer",
                 " Attrlog flush not complete yet, remaining time until timeout: " << attrlogFlushRemainingTime_);
    attrlogFlushClockTimeMinIs(Kiv::System::currentTime() + attrlogFlushWaitPeriod_);
    attrlogFlushRemainingTimeIs(attrlogFlushRemainingTime_ - attrlogFlushWaitPeriod_);
    return;
  }
  KIV_SM_TRACE(
      8, "handleAttrlogFlushTimer",
      " Attrlog flush " << (synchronised ? "completed" : "timed out") << " for " << serviceName() << ":" << groupName_);
  attrlogFlushClockTimeMinIs(Kiv::kInfinity);
  serviceMountStatus_->initialMountsCompleteIs(groupName_, true);
}

void MountGroupInitialMountSm::doCleanup() {
  // A machine held on to after its deletion must not write the flag back.
  mountClockTimeMinIs(Kiv::kInfinity);
  attrlogFlushClockTimeMinIs(Kiv::kInfinity);
  systemProcessedSmDelAll();
  serviceMountStatus_->initialMountsCompleteDel(groupName_);
}

RemainingSwitchSm::RemainingSwitchSm(Kiv::PtrConst<SystemStatus> const& systemStatus, MountGroupInitialMountSm* parent)
    : RemainingSwitchSmBase(systemStatus, parent) {
  for (auto it = systemStatus_->serviceMountGroupStatusIter(); it; ++it) follow(it.key());
}

RemainingSwitchSm::~RemainingSwitchSm() = default;

void RemainingSwitchSm::handleServiceMountGroupStatus(Kiv::Name const& group) {
  Kiv::Ptr<RemainingSwitchSm> self(this);
  Kiv::Name const name = group;
  follow(name);
  if (systemStatus_->serviceMountGroupStatus(name)) parent_->handleMountState(systemStatus_->name(), name);
}

void RemainingSwitchSm::handleServiceMountGroupStatus() {
  Kiv::Ptr<RemainingSwitchSm> self(this);
  // The followed names too, so that statuses gone without a keyed notification lose theirs.
  std::vector<Kiv::Name> names;
  for (auto it = groupStatusIter(); it; ++it) names.push_back(it.key());
  for (auto it = systemStatus_->serviceMountGroupStatusIter(); it; ++it) names.push_back(it.key());
  for (Kiv::Name const& name : names) follow(name);
  parent_->handleMountState();
}

void RemainingSwitchSm::handleMountState(Kiv::Name const& group) {
  Kiv::Ptr<RemainingSwitchSm> self(this);
  parent_->handleMountState(systemStatus_->name(), group);
}

void RemainingSwitchSm::follow(Kiv::Name const& group) {
  if (Kiv::PtrConst<ServiceMountGroupStatus> status = systemStatus_->serviceMountGroupStatus(group)) {
    groupStatusIs(group, status);
  } else {
    groupStatusDel(group);
  }
}

}  // namespace Controller
