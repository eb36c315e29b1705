// The one object that owns the agent's logic: the lease table, the work
// records, the scheduler activity and the eight top-level state machines,
// each connected to exactly the entities it may read or write. Creation and
// teardown follow a fixed order.
#pragma once

#include <functional>

#include "config/CliConfigSm.h"
#include "expiry/LeaseTimerSm.h"
#include "lease/LeaseTableShmTableSm.h"
#include "lease/LeaseTableSm.h"
#include "model/LeaseTable.h"
#include "model/WorkRecords.h"
#include "platform/Platform.h"
#include "query/LeaseQuerySm.h"
#include "rt/TaskScheduler.h"
#include "triggers/ArpDropCounterStatusSm.h"
#include "triggers/FdbStatusSm.h"
#include "triggers/TrappedIpSm.h"

namespace Tavrin {

class TavrinRoot : public Rt::EntityBase {
 public:
   // The twelve mounted entities, in their fixed order. Any may be empty
   // (a mount that failed); the machines tolerate that.
   struct Inputs {
      Ptr<const Hardware::Config> hardwareConfig;
      Ptr<const CliConfig> cliConfig;
      Ptr<ConfiguredInterfaceStatus> configuredInterfaceStatus;
      Ptr<Status> ipMacLeaseShmTable;
      Ptr<const Hardware::InstalledConfig> installedIpMacLeaseShmTable;
      Ptr<const Platform::IpStatus> ipStatus;
      Ptr<const Platform::BridgingStatus> bridgingStatus;
      Ptr<const Platform::AllIntfStatusDir> allIntfStatusDir;
      Ptr<const Platform::AllIntfStatusLocalDir> allIntfStatusLocalDir;
      Ptr<const Platform::KernelNetStatus> kniStatus;
      Ptr<const Hardware::ArpDropCounterStatus> arpDropCounterStatus;
      Ptr<LeaseStatus> leaseStatus;
      bool operator==(const Inputs&) const = default;
   };
   // Called once the records exist and before any machine is built, so that
   // an observer (the simulator) hears every posting from the first.
   using Observer = std::function<void(TavrinRoot&)>;

   explicit TavrinRoot(const Inputs& inputs, const Observer& recordsCreated = {});
   ~TavrinRoot() override;

   const Inputs& inputs() const { return inputs_; }

   const Ptr<LeaseTable>& leaseTable() const { return leaseTable_; }
   const Ptr<LeaseQueryRequest>& leaseQueryRequest() const { return leaseQueryRequest_; }
   const Ptr<LeaseQueryResponse>& leaseQueryResponse() const { return leaseQueryResponse_; }
   const Ptr<MovedMac>& movedMac() const { return movedMac_; }
   const Ptr<MacIntfMap>& macIntfMap() const { return macIntfMap_; }
   const Ptr<IntfMacSetMap>& intfMacSetMap() const { return intfMacSetMap_; }
   const Ptr<Rt::SchedulerActivity>& schedulerRoot() const { return schedulerRoot_; }

   const Ptr<CliConfigSm>& cliConfigSm() const { return cliConfigSm_; }
   const Ptr<LeaseQuerySm>& leaseQuerySm() const { return leaseQuerySm_; }
   const Ptr<FdbStatusSm>& fdbStatusSm() const { return fdbStatusSm_; }
   const Ptr<LeaseTableSm>& leaseTableSm() const { return leaseTableSm_; }
   const Ptr<LeaseTimerSm>& leaseTimerSm() const { return leaseTimerSm_; }
   const Ptr<LeaseTableShmTableSm>& leaseTableShmTableSm() const { return leaseTableShmTableSm_; }
   const Ptr<TrappedIpSm>& trappedIpSm() const { return trappedIpSm_; }
   const Ptr<ArpDropCounterStatusSm>& arpDropCounterStatusSm() const {
      return arpDropCounterStatusSm_;
   }

   bool initialized() const { return initialized_; }
   void initializedIs(bool v) { initialized_ = v; }

 private:
   void handleInitialized(const Observer& recordsCreated);
   void createMachines();

   Inputs inputs_;
   Ptr<LeaseTable> leaseTable_;
   Ptr<LeaseQueryRequest> leaseQueryRequest_;
   Ptr<LeaseQueryResponse> leaseQueryResponse_;
   Ptr<MovedMac> movedMac_;
   Ptr<MacIntfMap> macIntfMap_;
   Ptr<IntfMacSetMap> intfMacSetMap_;
   Ptr<Rt::SchedulerActivity> schedulerRoot_;
   Ptr<CliConfigSm> cliConfigSm_;
   Ptr<LeaseQuerySm> leaseQuerySm_;
   Ptr<FdbStatusSm> fdbStatusSm_;
   Ptr<LeaseTableSm> leaseTableSm_;
   Ptr<LeaseTimerSm> leaseTimerSm_;
   Ptr<LeaseTableShmTableSm> leaseTableShmTableSm_;
   Ptr<TrappedIpSm> trappedIpSm_;
   Ptr<ArpDropCounterStatusSm> arpDropCounterStatusSm_;
   bool initialized_ = false;
};

}  // namespace Tavrin
