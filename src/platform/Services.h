// Platform services the agent's machines create objects through (sockets,
// packet access). On a switch these are the platform library's factories;
// a host installs its implementation once, before any agent starts.
#pragma once

#include <string>

#include "platform/PacketAccess.h"
#include "platform/Platform.h"
#include "platform/UdpPam.h"
#include "rt/TaskScheduler.h"

namespace Tavrin::Platform {

class Services {
 public:
   virtual ~Services() = default;
   virtual Ptr<UdpPam> udpPamIs(const std::string& name) = 0;
   // The agent thread's scheduler.
   virtual Ptr<Rt::TaskScheduler> taskScheduler() = 0;

   // Packet access: the agent's local directories (created under the given
   // names) and the managers that keep them current.
   virtual Ptr<DeviceIntfStatusDir> deviceIntfStatusDirIs(const std::string& name) = 0;
   virtual Ptr<PamDesiredIntfDir> pamDesiredIntfDirIs(const std::string& name) = 0;
   virtual Ptr<EthDevPamCollection> ethDevPamCollectionIs(const std::string& name) = 0;
   virtual Ptr<EthDevPamManager> ethDevPamManagerIs(Ptr<const PamDesiredIntfDir> desired,
                                                    Ptr<EthDevPamCollection> collection,
                                                    Ptr<const DeviceIntfStatusDir> devices) = 0;
   virtual Ptr<IntfStatusManager> intfStatusManagerIs(
       Ptr<const AllIntfStatusDir> all, Ptr<const AllIntfStatusLocalDir> local,
       Ptr<DeviceIntfStatusDir> devices, Ptr<const KernelNetStatus> kernel) = 0;
};

void servicesIs(Services* s);
// The installed services; asserts that a host installed them.
Services& services();

}  // namespace Tavrin::Platform
