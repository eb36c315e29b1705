// One timer per persisted lease, re-querying it at its expiration instant.
//
// The machines mirror the persisted lease status: LeaseTimerSm per status,
// InterfaceLeaseSetSm per interface, IpMacLeaseSm per lease. Each lease's
// timer sits in the scheduler's heap at its exact expiry, so a million armed
// leases cost nothing until one is due: there is no periodic scan.
//
// An expiry does not remove the lease: it asks the servers again (forced,
// delayed, by MAC) and their answer renews or removes it.
#pragma once

#include <map>
#include <memory>
#include <unordered_map>

#include "model/WorkRecords.h"
#include "rt/FlatTable.h"
#include "rt/TaskScheduler.h"

namespace Tavrin {

// The machine is itself the subscriber of its lease and of its timer: with
// a reactor object for each, it paid for two back references and a third
// object's padding. The order of the bases matters: the reference count
// comes last, so that intfId_ fits in its padding. 120 bytes make a 128-byte
// heap block, where 136 made a 144-byte one.
class IpMacLeaseSm : private IpMacLease::Notifiee,
                     private Rt::TimerTask::Notifiee,
                     public Rt::RefCounted {
 public:
   static constexpr Rt::TaskPriority kLeaseTimerPriority = 2;

   IpMacLeaseSm(Ptr<const IpMacLease> ipMacLease, IntfId intfId,
                Ptr<LeaseQueryRequest> leaseQueryRequest, Ptr<Rt::TaskScheduler> scheduler);

   const Ptr<const IpMacLease>& ipMacLease() const { return IpMacLease::Notifiee::notifier(); }
   IntfId intfId() const { return intfId_; }
   const Rt::TimerTask& queryTask() const { return queryTask_; }

   void handleExpirationTime();
   void handleTimer();

 private:
   void onExpirationTime() override { handleExpirationTime(); }
   void onTaskRun() override { handleTimer(); }

   void requery();

   // Held by value: a million of these must stay small.
   IntfId intfId_;
   Ptr<LeaseQueryRequest> leaseQueryRequest_;
   Rt::TimerTask queryTask_;
};

class InterfaceLeaseSetSm : public Rt::RefCounted {
 public:
   InterfaceLeaseSetSm(Ptr<const InterfaceLeaseSet> interfaceLeaseSet, IntfId intfId,
                       Ptr<LeaseQueryRequest> leaseQueryRequest, Ptr<Rt::TaskScheduler> scheduler);
   ~InterfaceLeaseSetSm() override;

   const Ptr<const InterfaceLeaseSet>& interfaceLeaseSet() const {
      return interfaceLeaseSetReactor_->notifier();
   }
   IntfId intfId() const { return intfId_; }

   void handleAllLeases();
   void handleLease(const LeaseKey& key);

   Ptr<const IpMacLeaseSm> ipMacLeaseSm(const LeaseKey& key) const {
      return Ptr<const IpMacLeaseSm>(ipMacLeaseSm_.get(key));
   }
   size_t ipMacLeaseSmSize() const { return ipMacLeaseSm_.size(); }
   // Find-or-create; empty when the lease went while its machine was built.
   Ptr<IpMacLeaseSm> ipMacLeaseSmIs(const Ptr<const IpMacLease>& ipMacLease);
   void ipMacLeaseSmDel(const LeaseKey& key) { ipMacLeaseSm_.erase(key); }
   void ipMacLeaseSmDelAll() { ipMacLeaseSm_.clear(); }

 private:
   class InterfaceLeaseSetReactor : public InterfaceLeaseSet::Notifiee {
    public:
      InterfaceLeaseSetReactor(InterfaceLeaseSetSm& sm, const Ptr<const InterfaceLeaseSet>& s)
          : InterfaceLeaseSet::Notifiee(s), sm_(sm) {}
      void onIpMacLease(const LeaseKey& k) override { sm_.handleLease(k); }

    private:
      InterfaceLeaseSetSm& sm_;
   };

   IntfId intfId_;
   Ptr<LeaseQueryRequest> leaseQueryRequest_;
   Ptr<Rt::TaskScheduler> scheduler_;
   struct KeyOf {
      const LeaseKey& operator()(const IpMacLeaseSm& sm) const { return sm.ipMacLease()->key(); }
   };
   // Keyed by the lease each machine follows; only the Ptr is stored.
   Rt::FlatKeyedMap<IpMacLeaseSm, KeyOf> ipMacLeaseSm_;
   std::unique_ptr<InterfaceLeaseSetReactor> interfaceLeaseSetReactor_;
};

class LeaseTimerSm : public Rt::RefCounted {
 public:
   LeaseTimerSm(Ptr<const LeaseStatus> leaseStatus, Ptr<LeaseQueryRequest> leaseQueryRequest,
                Ptr<Rt::TaskScheduler> scheduler);
   ~LeaseTimerSm() override;

   void handleAllIntfIds();
   void handleInterfaceLeaseSet(IntfId intf);

   Ptr<const InterfaceLeaseSetSm> interfaceLeaseSetSm(IntfId intf) const {
      return Rt::mapFind(interfaceLeaseSetSm_, intf);
   }
   const std::map<IntfId, Ptr<InterfaceLeaseSetSm>>& interfaceLeaseSetSmAll() const {
      return interfaceLeaseSetSm_;
   }
   void interfaceLeaseSetSmIs(const Ptr<const InterfaceLeaseSet>& interfaceLeaseSet);
   void interfaceLeaseSetSmDel(IntfId intf) { interfaceLeaseSetSm_.erase(intf); }
   void interfaceLeaseSetSmDelAll() { interfaceLeaseSetSm_.clear(); }

 private:
   class LeaseStatusReactor : public LeaseStatus::Notifiee {
    public:
      LeaseStatusReactor(LeaseTimerSm& sm, const Ptr<const LeaseStatus>& s)
          : LeaseStatus::Notifiee(s), sm_(sm) {}
      void onInterfaceLeaseSet(IntfId i) override { sm_.handleInterfaceLeaseSet(i); }

    private:
      LeaseTimerSm& sm_;
   };

   Ptr<const LeaseStatus> leaseStatus_;
   Ptr<LeaseQueryRequest> leaseQueryRequest_;
   Ptr<Rt::TaskScheduler> scheduler_;
   std::map<IntfId, Ptr<InterfaceLeaseSetSm>> interfaceLeaseSetSm_;
   std::unique_ptr<LeaseStatusReactor> leaseStatusReactor_;
};

Ptr<LeaseTimerSm> leaseTimerSmFactory(Ptr<const LeaseStatus> leaseStatus,
                                      Ptr<LeaseQueryRequest> leaseQueryRequest,
                                      Ptr<Rt::TaskScheduler> scheduler);

}  // namespace Tavrin
