// Turns packets trapped on locked interfaces from unknown (MAC, IP) pairs into queries.
#pragma once

#include "model/LeaseTable.h"
#include "model/WorkRecords.h"
#include "platform/Platform.h"

namespace Tavrin {

class TrappedIpSm : public Rt::RefCounted {
 public:
   TrappedIpSm(Ptr<const LeaseTable> leaseTable,
      Ptr<const ConfiguredInterfaceStatus> configuredInterfaceStatus,
      Ptr<LeaseQueryRequest> leaseQueryRequest,
      Ptr<const Platform::AllIntfStatusDir> allIntfStatusDir,
      Ptr<const Platform::AllIntfStatusLocalDir> allIntfStatusLocalDir,
      Ptr<const Platform::KernelNetStatus> kernelNetStatus);
};

Ptr<TrappedIpSm> trappedIpSmFactory(Ptr<const LeaseTable> leaseTable,
   Ptr<const ConfiguredInterfaceStatus> configuredInterfaceStatus,
   Ptr<LeaseQueryRequest> leaseQueryRequest,
   Ptr<const Platform::AllIntfStatusDir> allIntfStatusDir,
   Ptr<const Platform::AllIntfStatusLocalDir> allIntfStatusLocalDir,
   Ptr<const Platform::KernelNetStatus> kernelNetStatus);

}  // namespace Tavrin
