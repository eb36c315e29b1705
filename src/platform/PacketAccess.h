// Per-interface packet access: the agent says on which interfaces it wants
// trapped packets (PamDesiredIntfDir); the platform's manager opens one Pam
// per such interface into a collection (EthDevPamCollection); the agent
// reads each Pam when its readable count moves.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <map>
#include <set>

#include "rt/Entity.h"
#include "rt/Pkt.h"
#include "rt/Types.h"

namespace Tavrin::Platform {

using Rt::Ptr;

// Packet access on one interface.
class Pam : public Rt::EntityBase {
 public:
   class Notifiee : public Rt::Notifiee<Pam> {
    public:
      using Rt::Notifiee<Pam>::Notifiee;
      virtual void onReadableCount() {}
   };
   explicit Pam(IntfId intfId) : intfId_(intfId) {}
   IntfId intfId() const { return intfId_; }
   // The next received frame, or empty.
   virtual Ptr<Rt::Pkt> rxPkt() = 0;
   uint32_t readableCount() const { return readable_; }

 protected:
   void readableCountInc() {
      ++readable_;
      notify<Notifiee>([](Notifiee& n) { n.onReadableCount(); });
   }

 private:
   IntfId intfId_;
   uint32_t readable_ = 0;
};

class PamDesiredIntfDir : public Rt::EntityBase {
 public:
   class Notifiee : public Rt::Notifiee<PamDesiredIntfDir> {
    public:
      using Rt::Notifiee<PamDesiredIntfDir>::Notifiee;
      virtual void onIntfDesired(IntfId) {}
   };
   bool intfDesired(IntfId i) const { return desired_.count(i) != 0; }
   const std::set<IntfId>& intfDesiredAll() const { return desired_; }
   void intfDesiredIs(IntfId i, bool desired);
   void intfDesiredDel(IntfId i);

 private:
   std::set<IntfId> desired_;
};

class EthDevPamCollection : public Rt::EntityBase {
 public:
   class Notifiee : public Rt::Notifiee<EthDevPamCollection> {
    public:
      using Rt::Notifiee<EthDevPamCollection>::Notifiee;
      virtual void onIntfPam(IntfId) {}
   };
   Ptr<Pam> intfPam(IntfId i) const;
   const std::map<IntfId, Ptr<Pam>>& intfPamAll() const { return pam_; }
   void intfPamIs(IntfId i, const Ptr<Pam>& pam);
   void intfPamDel(IntfId i);

 private:
   std::map<IntfId, Ptr<Pam>> pam_;
};

// Produced by the interface status manager, read by the packet access manager.
class DeviceIntfStatusDir : public Rt::EntityBase {};

// Opens a Pam for every desired interface (and closes it when no longer
// desired) once enabled.
class EthDevPamManager : public Rt::RefCounted {
 public:
   virtual void ethProtocolIs(uint16_t protocol) = 0;
   virtual void enabledIs(bool enabled) = 0;
};

// Keeps the device interface status current from the platform's inputs.
class IntfStatusManager : public Rt::RefCounted {};

// ---------------------------------------------------------------- in memory

class FakePam : public Pam {
 public:
   using Pam::Pam;
   Ptr<Rt::Pkt> rxPkt() override;
   // Queues frames and tells the reader once.
   void deliver(const std::vector<Ptr<Rt::Pkt>>& frames);
   size_t queued() const { return rx_.size(); }
   // Each rxPkt takes this long on the given clock: a test's stand-in for
   // the work of reading and handling one frame.
   void rxCostIs(Seconds cost, std::function<void(Seconds)> advance) {
      rxCost_ = cost;
      advance_ = std::move(advance);
   }

 private:
   std::deque<Ptr<Rt::Pkt>> rx_;
   Seconds rxCost_ = 0;
   std::function<void(Seconds)> advance_;
};

class FakeEthDevPamManager : public EthDevPamManager {
 public:
   FakeEthDevPamManager(Ptr<const PamDesiredIntfDir> desired, Ptr<EthDevPamCollection> collection);
   ~FakeEthDevPamManager() override;
   void ethProtocolIs(uint16_t protocol) override { protocol_ = protocol; }
   uint16_t ethProtocol() const { return protocol_; }
   void enabledIs(bool enabled) override;
   bool enabled() const { return enabled_; }

 private:
   class Reactor : public PamDesiredIntfDir::Notifiee {
    public:
      Reactor(FakeEthDevPamManager& m, const Ptr<const PamDesiredIntfDir>& d)
          : PamDesiredIntfDir::Notifiee(d), m_(m) {}
      void onIntfDesired(IntfId i) override { m_.sync(i); }

    private:
      FakeEthDevPamManager& m_;
   };
   void sync(IntfId i);

   Ptr<const PamDesiredIntfDir> desired_;
   Ptr<EthDevPamCollection> collection_;
   std::unique_ptr<Reactor> reactor_;
   uint16_t protocol_ = 0;
   bool enabled_ = false;
};

}  // namespace Tavrin::Platform
