#include "lease/LeaseTableShmTableSm.h"

namespace Tavrin {

LeaseTableShmTableSm::LeaseTableShmTableSm(Ptr<const LeaseTable>,
   Ptr<Status>,
   Ptr<const Hardware::InstalledConfig>) {}

Ptr<LeaseTableShmTableSm> leaseTableShmTableSmFactory(Ptr<const LeaseTable> leaseTable,
   Ptr<Status> status,
   Ptr<const Hardware::InstalledConfig> installedConfig) {
   return Rt::makePtr<LeaseTableShmTableSm>(std::move(leaseTable), std::move(status), std::move(installedConfig));
}

}  // namespace Tavrin
