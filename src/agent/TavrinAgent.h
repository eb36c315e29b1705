// The entry point the agent framework loads: sets up tracing, mounts every
// entity and table the logic reads or writes, and once the mounts are done
// builds the root from them. All behaviour beyond start-up lives in the root.
#pragma once

#include <memory>

#include "agent/TavrinRoot.h"
#include "platform/Platform.h"

namespace Tavrin {

class Agent : public Platform::AgentBase {
 public:
   class Notifiee : public Rt::Notifiee<Agent> {
    public:
      using Rt::Notifiee<Agent>::Notifiee;
      virtual void onTavrinRoot() {}
   };

   Agent(std::string name, Platform::AgentFrame& frame);
   ~Agent() override;

   void doInit() override;
   void doMountsComplete(Platform::MountStatus status, Platform::EntityManager& em) override;
   bool hasBackupSupport() const override { return false; }
   std::string typeName() const override { return "Tavrin::Agent"; }

   const TavrinRoot::Inputs& entities() const { return entities_; }
   const Ptr<TavrinRoot>& tavrinRoot() const { return tavrinRoot_; }
   // Keeps the root when built from exactly the same entities; otherwise
   // builds a new one in place of the old.
   const Ptr<TavrinRoot>& tavrinRootIs(const TavrinRoot::Inputs& inputs);
   Ptr<TavrinRoot> tavrinRootDel();

   // Told when a root's records exist, before its machines (the simulator
   // listens to every posting from the first).
   void rootObserverIs(TavrinRoot::Observer observer) { rootObserver_ = std::move(observer); }

   // The trace file name of the start-up rules; empty when tracing to a
   // file is disabled.
   static std::string traceFileName(const std::string& agentName, bool traceRingDirSet);

 private:
   TavrinRoot::Inputs entities_;
   Ptr<TavrinRoot> tavrinRoot_;
   TavrinRoot::Observer rootObserver_;
   std::unique_ptr<Platform::ShmEntityManager> shmEntityManager_;
};

Ptr<Agent> agentFactory(const std::string& name, Platform::AgentFrame& frame);

// Registers the entity types of this agent under their type names.
void registerTavrinTypes(Platform::TypeRegistry& registry);

}  // namespace Tavrin
