// Owns every change to the lease table and the persisted lease status.
#pragma once

#include "model/LeaseTable.h"
#include "model/WorkRecords.h"

namespace Tavrin {

class LeaseTableSm : public Rt::RefCounted {
 public:
   LeaseTableSm(Ptr<LeaseTable> leaseTable,
      Ptr<MacIntfMap> macIntfMap,
      Ptr<LeaseQueryRequest> leaseQueryRequest,
      Ptr<const LeaseQueryResponse> leaseQueryResponse,
      Ptr<const MovedMac> movedMac,
      Ptr<const CliConfig> cliConfig);
};

Ptr<LeaseTableSm> leaseTableSmFactory(Ptr<LeaseTable> leaseTable,
   Ptr<MacIntfMap> macIntfMap,
   Ptr<LeaseQueryRequest> leaseQueryRequest,
   Ptr<const LeaseQueryResponse> leaseQueryResponse,
   Ptr<const MovedMac> movedMac,
   Ptr<const CliConfig> cliConfig);

}  // namespace Tavrin
