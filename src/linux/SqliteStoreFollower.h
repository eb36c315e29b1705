// What the state store has still to write, and the subscriptions that note
// it as the agent changes its persisted entities.
//
// The queue records which rows are out of date, not the changes themselves:
// the commit reads the entities as they stand. Ten refreshes of one lease
// between two commits are one row write, a lease created and deleted in the
// same iteration is one (harmless) delete, and a commit that failed can be
// retried later without replaying anything.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "model/TavrinTypes.h"

namespace Tavrin::Linux {

// A lease row's key as stored, for rows no entity names (unreadable or not
// written in the canonical form) that must go.
struct StoredLeaseKey {
   std::string interface;
   std::string mac;
   std::string ip;
   std::string server;
   auto operator<=>(const StoredLeaseKey&) const = default;
};

class StoreQueue {
 public:
   struct LeaseRef {
      IntfId intf;
      LeaseKey key;
      auto operator<=>(const LeaseRef&) const = default;
      bool operator==(const LeaseRef&) const = default;
   };

   void leaseIs(IntfId intf, const LeaseKey& key) { lease_.insert({intf, key}); }
   void leaseSetIs(IntfId intf) { droppedSet_.insert(intf); }
   void ruleIs(IntfId intf) { rule_.insert(intf); }
   void strayLeaseIs(StoredLeaseKey row) { strayLease_.insert(std::move(row)); }
   void strayRuleIs(std::string intf) { strayRule_.insert(std::move(intf)); }

   const std::set<LeaseRef>& leases() const { return lease_; }
   // Interfaces whose lease set was deleted: all their rows go first.
   const std::set<IntfId>& droppedSets() const { return droppedSet_; }
   const std::set<IntfId>& rules() const { return rule_; }
   const std::set<StoredLeaseKey>& strayLeases() const { return strayLease_; }
   const std::set<std::string>& strayRules() const { return strayRule_; }

   size_t size() const {
      return lease_.size() + droppedSet_.size() + rule_.size() + strayLease_.size() +
             strayRule_.size();
   }
   void clear();

 private:
   // Ordered by interface then key, so that a commit walks the table's
   // primary key in order.
   std::set<LeaseRef> lease_;
   std::set<IntfId> droppedSet_;
   std::set<IntfId> rule_;
   std::set<StoredLeaseKey> strayLease_;
   std::set<std::string> strayRule_;
};

// Subscribes to every persisted lease (per interface set, per lease) and to
// the interface rules, and notes each change in the queue.
class StoreFollower {
 public:
   StoreFollower(Ptr<const LeaseStatus> leaseStatus,
                 Ptr<const ConfiguredInterfaceStatus> interfaceStatus, StoreQueue& queue);
   ~StoreFollower();
   StoreFollower(const StoreFollower&) = delete;
   StoreFollower& operator=(const StoreFollower&) = delete;

   const Ptr<const LeaseStatus>& leaseStatus() const { return leaseStatus_; }
   const Ptr<const ConfiguredInterfaceStatus>& interfaceStatus() const { return interfaceStatus_; }

 private:
   class LeaseReactor : public IpMacLease::Notifiee {
    public:
      LeaseReactor(StoreQueue& queue, IntfId intf, const Ptr<const IpMacLease>& lease)
          : IpMacLease::Notifiee(lease), queue_(queue), intf_(intf) {}
      void onLastTransactionTime() override { changed(); }
      void onExpirationTime() override { changed(); }

    private:
      void changed() { queue_.leaseIs(intf_, notifier()->key()); }
      StoreQueue& queue_;
      IntfId intf_;
   };

   class LeaseSetReactor : public InterfaceLeaseSet::Notifiee {
    public:
      LeaseSetReactor(StoreQueue& queue, const Ptr<const InterfaceLeaseSet>& set);
      void onIpMacLease(const LeaseKey& key) override;

    private:
      StoreQueue& queue_;
      // By value: a million leases each carry one.
      std::unordered_map<LeaseKey, LeaseReactor> lease_;
   };

   class LeaseStatusReactor : public LeaseStatus::Notifiee {
    public:
      LeaseStatusReactor(StoreQueue& queue, const Ptr<const LeaseStatus>& status);
      void onInterfaceLeaseSet(IntfId intf) override;

    private:
      StoreQueue& queue_;
      std::map<IntfId, std::unique_ptr<LeaseSetReactor>> set_;
   };

   class RuleReactor : public ConfiguredInterfaceStatus::Notifiee {
    public:
      RuleReactor(StoreQueue& queue, const Ptr<const ConfiguredInterfaceStatus>& status)
          : ConfiguredInterfaceStatus::Notifiee(status), queue_(queue) {}
      void onInterfaceRule(IntfId intf) override { queue_.ruleIs(intf); }

    private:
      StoreQueue& queue_;
   };

   Ptr<const LeaseStatus> leaseStatus_;
   Ptr<const ConfiguredInterfaceStatus> interfaceStatus_;
   std::unique_ptr<LeaseStatusReactor> leaseStatusReactor_;
   std::unique_ptr<RuleReactor> ruleReactor_;
};

}  // namespace Tavrin::Linux
