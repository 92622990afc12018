#include <gtest/gtest.h>

#include "initialmount/ProcessedSwitchSm.h"

namespace Controller {
namespace {

TEST(ProcessedSwitchTest, ASwitchIsRecordedOnceItsOwnGroupIsProcessedAndStaysRecorded) {
  auto serviceStatus = Kiv::Dir::DirIs("status")->entryIs<ServiceMountStatus>("svc");
  auto set = ProcessedSwitchSet::ProcessedSwitchSetIs("g");

  // Processed before the tracker exists: recorded while it initialises; unprocessed: kept.
  auto early = serviceStatus->systemStatusIs("sw1");
  early->serviceMountGroupStatusIs("g")->processedIs(true);
  Kiv::Ptr<SystemProcessedSm> first(new SystemProcessedSm("sw1", "g", early, set, nullptr));
  EXPECT_TRUE(set->processed("sw1"));
  early->serviceMountGroupStatus("g")->processedIs(false);
  EXPECT_TRUE(set->processed("sw1"));

  // Another group's status is ignored; the own group's is tracked from when it appears.
  auto late = serviceStatus->systemStatusIs("sw2");
  late->serviceMountGroupStatusIs("h")->processedIs(true);
  Kiv::Ptr<SystemProcessedSm> second(new SystemProcessedSm("sw2", "g", late, set, nullptr));
  late->serviceMountGroupStatusIs("g");
  EXPECT_EQ(set->processedSize(), 1u);

  // A status replaced by a new entity is tracked in its place.
  late->serviceMountGroupStatusDel("g");
  late->serviceMountGroupStatusIs("g")->processedIs(true);
  EXPECT_EQ(set->processedSize(), 2u);

  // After its clean-up a tracker records nothing more.
  auto third = serviceStatus->systemStatusIs("sw3");
  Kiv::Ptr<SystemProcessedSm> cleaned(new SystemProcessedSm("sw3", "g", third, set, nullptr));
  cleaned->doCleanup();
  third->serviceMountGroupStatusIs("g")->processedIs(true);
  EXPECT_FALSE(set->processed("sw3"));
}

}  // namespace
}  // namespace Controller
