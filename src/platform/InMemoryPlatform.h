// The agent framework in memory: the shared entity framework with a virtual
// clock and fake sockets and packet access. Tests and the simulator host the
// real agent on it.
#pragma once

#include "platform/Framework.h"
#include "platform/PacketAccess.h"
#include "platform/Services.h"
#include "platform/UdpPam.h"
#include "rt/Clock.h"

namespace Tavrin::Platform {

// The clock lives in a base so that it exists before the framework's scheduler.
struct VirtualClockHolder {
   explicit VirtualClockHolder(Seconds start) : clock_(start) {}
   Rt::VirtualClock clock_;
};

class InMemoryPlatform : private VirtualClockHolder, public Framework, public Services {
 public:
   // Installs itself as the process's clock and platform services.
   explicit InMemoryPlatform(Seconds startTime = 1000.0);
   ~InMemoryPlatform() override;

   Rt::VirtualClock& virtualClock() { return clock_; }
   const Rt::VirtualClock& virtualClock() const { return clock_; }

   // Moves the clock by dt, running every timer due on the way at its own
   // instant, in order; `afterEach` runs after each timer run.
   void advance(Seconds dt, const std::function<void()>& afterEach = {});

   // ---- Services
   Ptr<UdpPam> udpPamIs(const std::string& name) override;
   Ptr<FakeUdpPam> udpPam(const std::string& name) const;
   Ptr<Rt::TaskScheduler> taskScheduler() override { return scheduler(); }
   Ptr<DeviceIntfStatusDir> deviceIntfStatusDirIs(const std::string& name) override;
   Ptr<PamDesiredIntfDir> pamDesiredIntfDirIs(const std::string& name) override;
   Ptr<EthDevPamCollection> ethDevPamCollectionIs(const std::string& name) override;
   Ptr<EthDevPamManager> ethDevPamManagerIs(Ptr<const PamDesiredIntfDir> desired,
                                            Ptr<EthDevPamCollection> collection,
                                            Ptr<const DeviceIntfStatusDir> devices) override;
   Ptr<IntfStatusManager> intfStatusManagerIs(Ptr<const AllIntfStatusDir> all,
                                              Ptr<const AllIntfStatusLocalDir> local,
                                              Ptr<DeviceIntfStatusDir> devices,
                                              Ptr<const KernelNetStatus> kernel) override;
   // The running agent's packet access, for tests and the simulator; empty
   // before the agent asked for it.
   Ptr<PamDesiredIntfDir> pamDesiredIntfDir() const;
   Ptr<FakePam> pam(IntfId intf) const;
   Ptr<FakeEthDevPamManager> ethDevPamManager() const { return pamManager_; }
   // Told of every socket the agent opens (the simulator prints what is sent).
   void udpPamCreatedIs(std::function<void(FakeUdpPam&)> f) { udpPamCreated_ = std::move(f); }

 protected:
   void agentStopped() override;

 private:
   std::map<std::string, Ptr<FakeUdpPam>> udpPams_;
   std::function<void(FakeUdpPam&)> udpPamCreated_;
   std::map<std::string, Ptr<Rt::EntityBase>> named_;
   Ptr<FakeEthDevPamManager> pamManager_;
};

}  // namespace Tavrin::Platform
