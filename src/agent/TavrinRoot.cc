#include "agent/TavrinRoot.h"

#include "platform/Services.h"

namespace Tavrin {

TavrinRoot::TavrinRoot(const Inputs& inputs, const Observer& recordsCreated) : inputs_(inputs) {
   handleInitialized(recordsCreated);
}

void TavrinRoot::handleInitialized(const Observer& recordsCreated) {
   leaseTable_ = Rt::makePtr<LeaseTable>(inputs_.leaseStatus);
   leaseQueryRequest_ = Rt::makePtr<LeaseQueryRequest>();
   leaseQueryResponse_ = Rt::makePtr<LeaseQueryResponse>();
   movedMac_ = Rt::makePtr<MovedMac>();
   schedulerRoot_ =
       Rt::makePtr<Rt::SchedulerActivity>("root", Platform::services().taskScheduler());
   schedulerRoot_->hasNotificationActiveIs(true);
   macIntfMap_ = Rt::makePtr<MacIntfMap>();
   intfMacSetMap_ = Rt::makePtr<IntfMacSetMap>();
   if (recordsCreated) recordsCreated(*this);
   createMachines();
}

void TavrinRoot::createMachines() {
   const auto& in = inputs_;
   const auto& scheduler = schedulerRoot_->scheduler();
   cliConfigSm_ = cliConfigSmFactory(in.cliConfig, in.configuredInterfaceStatus);
   leaseQuerySm_ = leaseQuerySmFactory(in.cliConfig, leaseQueryRequest_, leaseQueryResponse_,
                                       in.ipStatus, scheduler);
   fdbStatusSm_ = fdbStatusSmFactory(leaseTable_, leaseQueryRequest_, movedMac_, macIntfMap_,
                                     intfMacSetMap_, in.bridgingStatus, in.cliConfig);
   leaseTimerSm_ = leaseTimerSmFactory(in.leaseStatus, leaseQueryRequest_, scheduler);
   leaseTableSm_ = leaseTableSmFactory(leaseTable_, macIntfMap_, leaseQueryRequest_,
                                       leaseQueryResponse_, movedMac_, in.cliConfig);
   leaseTableShmTableSm_ = leaseTableShmTableSmFactory(leaseTable_, in.ipMacLeaseShmTable,
                                                       in.installedIpMacLeaseShmTable);
   trappedIpSm_ = trappedIpSmFactory(leaseTable_, in.configuredInterfaceStatus,
                                     leaseQueryRequest_, in.allIntfStatusDir,
                                     in.allIntfStatusLocalDir, in.kniStatus);
   arpDropCounterStatusSm_ =
       arpDropCounterStatusSmFactory(in.arpDropCounterStatus, in.cliConfig, intfMacSetMap_,
                                     leaseQueryRequest_, leaseQueryResponse_);
}

TavrinRoot::~TavrinRoot() {
   // Fixed order: the table, the scheduler activity, the records, then the
   // machines in their order of declaration. Objects a machine still holds
   // live until that machine goes.
   leaseTable_ = nullptr;
   if (schedulerRoot_) schedulerRoot_->hasNotificationActiveIs(false);
   schedulerRoot_ = nullptr;
   leaseQueryRequest_ = nullptr;
   leaseQueryResponse_ = nullptr;
   movedMac_ = nullptr;
   macIntfMap_ = nullptr;
   intfMacSetMap_ = nullptr;
   cliConfigSm_ = nullptr;
   leaseQuerySm_ = nullptr;
   fdbStatusSm_ = nullptr;
   leaseTableSm_ = nullptr;
   leaseTimerSm_ = nullptr;
   leaseTableShmTableSm_ = nullptr;
   trappedIpSm_ = nullptr;
   arpDropCounterStatusSm_ = nullptr;
}

}  // namespace Tavrin
