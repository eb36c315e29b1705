// The agent framework's entity side, shared by every host: a state store
// and shared-memory tables that outlive an agent (as on a switch, a restarted
// agent finds what the previous one wrote), local entities, mount groups, and
// the agent's lifecycle. Hosts add a clock and the platform services.
#pragma once

#include <map>
#include <memory>

#include "platform/Platform.h"

namespace Tavrin::Platform {

class Framework : public AgentFrame {
 public:
   using AgentFactory = std::function<Ptr<AgentBase>(const std::string& name, AgentFrame&)>;

   explicit Framework(const Rt::Clock& clock);
   ~Framework() override;

   TypeRegistry& types() { return types_; }

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

   // ---- what the agent asked of the framework
   const std::vector<Mount>& stateMounts() const { return stateMounts_; }
   const std::vector<std::string>& shmMounts() const { return shmMounts_; }
   const std::optional<TraceRingParams>& traceRing() const { return traceRing_; }
   bool localEntitiesCreated() const { return localEntitiesCreated_; }

   // Overrides an environment variable for the agent (nullopt: unset it).
   void envIs(const std::string& name, std::optional<std::string> value);
   // Whether variables not overridden are read from the process environment.
   void processEnvIs(bool use) { processEnv_ = use; }

   // ---- agent lifecycle
   // Constructs the agent, runs doInit and, once its mount group is closed,
   // doMountsComplete. Throws what the agent throws.
   Ptr<AgentBase> start(const AgentFactory& factory, const std::string& name);
   // Destroys the agent; the state store and tables keep their contents.
   void stop();
   const Ptr<AgentBase>& agent() const { return agent_; }

   // ---- AgentFrame
   EntityManager& entityManager() override;
   std::unique_ptr<ShmEntityManager> shmEntityManagerIs(EntityManager& em) override;
   std::optional<std::string> env(std::string_view name) const override;
   void traceRingIs(const TraceRingParams& params) override;
   Ptr<Rt::TaskScheduler> scheduler() override { return scheduler_; }

 protected:
   // Called by stop() after the agent is gone: hosts drop what the agent
   // made through their services.
   virtual void agentStopped() {}
   // Called when the agent sets up its trace file.
   virtual void traceRingSetUp(const TraceRingParams&) {}

 private:
   class Em;
   class ShmEm;
   friend class Em;
   friend class ShmEm;

   TypeRegistry types_;
   Ptr<Rt::TaskScheduler> scheduler_;
   std::map<std::string, Ptr<Rt::EntityBase>, std::less<>> state_;
   std::map<std::string, Ptr<Rt::EntityBase>, std::less<>> shm_;
   std::map<std::string, Ptr<Rt::EntityBase>, std::less<>> local_;
   std::map<std::string, std::optional<std::string>, std::less<>> env_;
   bool processEnv_ = false;
   std::vector<Mount> stateMounts_;
   std::vector<std::string> shmMounts_;
   std::optional<TraceRingParams> traceRing_;
   bool localEntitiesCreated_ = false;
   bool mountGroupClosed_ = false;
   std::unique_ptr<Em> em_;
   Ptr<AgentBase> agent_;
};

}  // namespace Tavrin::Platform
