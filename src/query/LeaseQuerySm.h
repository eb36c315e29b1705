// The lease query client: turns requests into DHCPLEASEQUERY messages, retries
// them, and turns answers into response records.
#pragma once

#include <map>

#include "model/WorkRecords.h"
#include "query/QueryContext.h"
#include "platform/Platform.h"
#include "rt/TaskScheduler.h"

namespace Tavrin {

class LeaseQuerySm : public Rt::RefCounted {
 public:
   LeaseQuerySm(Ptr<const CliConfig> cliConfig,
      Ptr<const LeaseQueryRequest> leaseQueryRequest,
      Ptr<LeaseQueryResponse> leaseQueryResponse,
      Ptr<const Platform::IpStatus> ipStatus,
      Ptr<Rt::TaskScheduler> scheduler);

   // Queries in flight (read by the simulator's dump and the daemon's show).
   const std::map<IpMacPair, Ptr<QueryContext>>& queryContextAll() const { return queryContext_; }

 private:
   std::map<IpMacPair, Ptr<QueryContext>> queryContext_;
};

Ptr<LeaseQuerySm> leaseQuerySmFactory(Ptr<const CliConfig> cliConfig,
   Ptr<const LeaseQueryRequest> leaseQueryRequest,
   Ptr<LeaseQueryResponse> leaseQueryResponse,
   Ptr<const Platform::IpStatus> ipStatus,
   Ptr<Rt::TaskScheduler> scheduler);

}  // namespace Tavrin
