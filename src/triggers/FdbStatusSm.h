// Follows the MAC address table: queries learned MACs and announces moves.
#pragma once

#include "model/LeaseTable.h"
#include "model/WorkRecords.h"
#include "platform/Platform.h"

namespace Tavrin {

class FdbStatusSm : public Rt::RefCounted {
 public:
   FdbStatusSm(Ptr<const LeaseTable> leaseTable,
      Ptr<LeaseQueryRequest> leaseQueryRequest,
      Ptr<MovedMac> movedMac,
      Ptr<MacIntfMap> macIntfMap,
      Ptr<IntfMacSetMap> intfMacSetMap,
      Ptr<const Platform::BridgingStatus> bridgingStatus,
      Ptr<const CliConfig> cliConfig);
};

Ptr<FdbStatusSm> fdbStatusSmFactory(Ptr<const LeaseTable> leaseTable,
   Ptr<LeaseQueryRequest> leaseQueryRequest,
   Ptr<MovedMac> movedMac,
   Ptr<MacIntfMap> macIntfMap,
   Ptr<IntfMacSetMap> intfMacSetMap,
   Ptr<const Platform::BridgingStatus> bridgingStatus,
   Ptr<const CliConfig> cliConfig);

}  // namespace Tavrin
