#include "triggers/TrappedIpSm.h"

namespace Tavrin {

TrappedIpSm::TrappedIpSm(Ptr<const LeaseTable>,
   Ptr<const ConfiguredInterfaceStatus>,
   Ptr<LeaseQueryRequest>,
   Ptr<const Platform::AllIntfStatusDir>,
   Ptr<const Platform::AllIntfStatusLocalDir>,
   Ptr<const Platform::KernelNetStatus>) {}

Ptr<TrappedIpSm> trappedIpSmFactory(Ptr<const LeaseTable> leaseTable,
   Ptr<const ConfiguredInterfaceStatus> configuredInterfaceStatus,
   Ptr<LeaseQueryRequest> leaseQueryRequest,
   Ptr<const Platform::AllIntfStatusDir> allIntfStatusDir,
   Ptr<const Platform::AllIntfStatusLocalDir> allIntfStatusLocalDir,
   Ptr<const Platform::KernelNetStatus> kernelNetStatus) {
   return Rt::makePtr<TrappedIpSm>(std::move(leaseTable), std::move(configuredInterfaceStatus), std::move(leaseQueryRequest), std::move(allIntfStatusDir), std::move(allIntfStatusLocalDir), std::move(kernelNetStatus));
}

}  // namespace Tavrin
