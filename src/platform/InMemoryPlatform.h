// The agent framework in memory: a state store and shared-memory tables that
// outlive an agent (as on a switch, a restarted agent finds what the previous
// one wrote), a virtual clock and scheduler, fake sockets. Tests and the
// simulator host the real agent on it.
#pragma once

#include <map>
#include <memory>

#include "platform/PacketAccess.h"
#include "platform/Platform.h"
#include "platform/Services.h"
#include "platform/UdpPam.h"
#include "rt/Clock.h"

namespace Tavrin::Platform {

class InMemoryPlatform : public AgentFrame, public Services {
 public:
   using AgentFactory = std::function<Ptr<AgentBase>(const std::string& name, AgentFrame&)>;

   // Installs itself as the process's clock and platform services.
   explicit InMemoryPlatform(Seconds startTime = 1000.0);
   ~InMemoryPlatform() override;

   TypeRegistry& types() { return types_; }
   Rt::VirtualClock& virtualClock() { return clock_; }
   const Rt::VirtualClock& virtualClock() const { return clock_; }

   // ---- the state store and shared-memory tables (they outlive agents)
   Ptr<Rt::EntityBase> stateEntity(std::string_view path) const;
   // Find-or-create by type name; empty for an unknown type.
   Ptr<Rt::EntityBase> stateEntityIs(std::string_view path, std::string_view typeName);
   template <class T>
   Ptr<T> state(std::string_view path) const {
      return Rt::ptrCast<T>(stateEntity(path));
   }
   Ptr<Rt::EntityBase> shmEntity(std::string_view path) const;
   Ptr<Rt::EntityBase> shmEntityIs(std::string_view path, std::string_view typeName);
   template <class T>
   Ptr<T> shm(std::string_view path) const {
      return Rt::ptrCast<T>(shmEntity(path));
   }
   Ptr<Rt::EntityBase> localEntity(std::string_view path) const;

   // ---- what the agent asked of the framework, for tests
   const std::vector<Mount>& stateMounts() const { return stateMounts_; }
   const std::vector<std::string>& shmMounts() const { return shmMounts_; }
   const std::optional<TraceRingParams>& traceRing() const { return traceRing_; }
   bool localEntitiesCreated() const { return localEntitiesCreated_; }

   void envIs(const std::string& name, std::optional<std::string> value);

   // ---- agent lifecycle
   // Constructs the agent, runs doInit and, once its mount group is closed,
   // doMountsComplete. Throws what the agent throws.
   Ptr<AgentBase> start(const AgentFactory& factory, const std::string& name);
   // Destroys the agent; the state store and tables keep their contents.
   void stop();
   const Ptr<AgentBase>& agent() const { return agent_; }

   // Moves the clock by dt, running every timer due on the way at its own
   // instant, in order; `afterEach` runs after each timer run.
   void advance(Seconds dt, const std::function<void()>& afterEach = {});

   // ---- AgentFrame
   EntityManager& entityManager() override;
   std::unique_ptr<ShmEntityManager> shmEntityManagerIs(EntityManager& em) override;
   std::optional<std::string> env(std::string_view name) const override;
   void traceRingIs(const TraceRingParams& params) override { traceRing_ = params; }
   Ptr<Rt::TaskScheduler> scheduler() override { return scheduler_; }

   // ---- Services
   Ptr<UdpPam> udpPamIs(const std::string& name) override;
   Ptr<FakeUdpPam> udpPam(const std::string& name) const;
   Ptr<Rt::TaskScheduler> taskScheduler() override { return scheduler_; }
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

 private:
   class Em;
   class ShmEm;
   friend class Em;
   friend class ShmEm;

   TypeRegistry types_;
   Rt::VirtualClock clock_;
   Ptr<Rt::TaskScheduler> scheduler_;
   std::map<std::string, Ptr<Rt::EntityBase>, std::less<>> state_;
   std::map<std::string, Ptr<Rt::EntityBase>, std::less<>> shm_;
   std::map<std::string, Ptr<Rt::EntityBase>, std::less<>> local_;
   std::map<std::string, std::string, std::less<>> env_;
   std::vector<Mount> stateMounts_;
   std::vector<std::string> shmMounts_;
   std::optional<TraceRingParams> traceRing_;
   bool localEntitiesCreated_ = false;
   bool mountGroupClosed_ = false;
   std::unique_ptr<Em> em_;
   std::map<std::string, Ptr<FakeUdpPam>> udpPams_;
   std::function<void(FakeUdpPam&)> udpPamCreated_;
   std::map<std::string, Ptr<Rt::EntityBase>> named_;
   Ptr<FakeEthDevPamManager> pamManager_;
   Ptr<AgentBase> agent_;
};

}  // namespace Tavrin::Platform
