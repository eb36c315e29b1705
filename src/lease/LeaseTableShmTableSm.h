// Publishes the installed leases into the shared-memory table for the data plane.
#pragma once

#include "model/LeaseTable.h"

namespace Tavrin {

class LeaseTableShmTableSm : public Rt::RefCounted {
 public:
   LeaseTableShmTableSm(Ptr<const LeaseTable> leaseTable,
      Ptr<Status> status,
      Ptr<const Hardware::InstalledConfig> installedConfig);
};

Ptr<LeaseTableShmTableSm> leaseTableShmTableSmFactory(Ptr<const LeaseTable> leaseTable,
   Ptr<Status> status,
   Ptr<const Hardware::InstalledConfig> installedConfig);

}  // namespace Tavrin
