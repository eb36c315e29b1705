#include "linux/SqliteStoreFollower.h"

namespace Tavrin::Linux {

void StoreQueue::clear() {
   lease_.clear();
   droppedSet_.clear();
   rule_.clear();
   strayLease_.clear();
   strayRule_.clear();
}

StoreFollower::LeaseSetReactor::LeaseSetReactor(StoreQueue& queue,
                                                const Ptr<const InterfaceLeaseSet>& set)
    : InterfaceLeaseSet::Notifiee(set), queue_(queue) {
   for (const auto& [key, lease] : set->ipMacLeaseAll()) {
      lease_.try_emplace(key, queue_, set->intfId(), lease);
   }
}

void StoreFollower::LeaseSetReactor::onIpMacLease(const LeaseKey& key) {
   IntfId intf = notifier()->intfId();
   queue_.leaseIs(intf, key);
   auto lease = notifier()->ipMacLease(key);
   if (!lease) {
      lease_.erase(key);
      return;
   }
   if (auto it = lease_.find(key); it != lease_.end() && it->second.notifier() == lease) return;
   lease_.erase(key);
   lease_.try_emplace(key, queue_, intf, lease);
}

StoreFollower::LeaseStatusReactor::LeaseStatusReactor(StoreQueue& queue,
                                                      const Ptr<const LeaseStatus>& status)
    : LeaseStatus::Notifiee(status), queue_(queue) {
   for (const auto& [intf, set] : status->interfaceLeaseSetAll()) {
      set_[intf] = std::make_unique<LeaseSetReactor>(queue_, set);
   }
}

void StoreFollower::LeaseStatusReactor::onInterfaceLeaseSet(IntfId intf) {
   auto set = notifier()->interfaceLeaseSet(intf);
   if (!set) {
      set_.erase(intf);
      queue_.leaseSetIs(intf);
      return;
   }
   // A set appears empty; its leases are noted as they arrive. Any it
   // already holds are noted now, in case it came in filled.
   for (const auto& [key, lease] : set->ipMacLeaseAll()) queue_.leaseIs(intf, key);
   set_[intf] = std::make_unique<LeaseSetReactor>(queue_, set);
}

StoreFollower::StoreFollower(Ptr<const LeaseStatus> leaseStatus,
                             Ptr<const ConfiguredInterfaceStatus> interfaceStatus,
                             StoreQueue& queue)
    : leaseStatus_(std::move(leaseStatus)), interfaceStatus_(std::move(interfaceStatus)) {
   if (leaseStatus_)
      leaseStatusReactor_ = std::make_unique<LeaseStatusReactor>(queue, leaseStatus_);
   if (interfaceStatus_) ruleReactor_ = std::make_unique<RuleReactor>(queue, interfaceStatus_);
}

StoreFollower::~StoreFollower() = default;

}  // namespace Tavrin::Linux
