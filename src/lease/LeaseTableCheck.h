// A full cross-check of the lease table's indexes against each other, against
// the persisted leases and against the published entries. It walks
// everything, so it belongs in tests and diagnostics, never in a handler.
#pragma once

#include <string>
#include <vector>

#include "model/LeaseTable.h"

namespace Tavrin {

// Every broken invariant, one line each; empty when all agree. `published`
// may be null to leave the shared-memory table out.
std::vector<std::string> checkLeaseTableConsistency(const LeaseTable& leaseTable,
                                                    const LeaseStatus& leaseStatus,
                                                    const Status* published);

}  // namespace Tavrin
