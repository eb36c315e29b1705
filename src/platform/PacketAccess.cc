#include "platform/PacketAccess.h"

#include "rt/Collection.h"

namespace Tavrin::Platform {

void PamDesiredIntfDir::intfDesiredIs(IntfId i, bool desired) {
   if (!desired) {
      intfDesiredDel(i);
      return;
   }
   if (desired_.insert(i).second) notify<Notifiee>([i](Notifiee& n) { n.onIntfDesired(i); });
}

void PamDesiredIntfDir::intfDesiredDel(IntfId i) {
   if (desired_.erase(i)) notify<Notifiee>([i](Notifiee& n) { n.onIntfDesired(i); });
}

Ptr<Pam> EthDevPamCollection::intfPam(IntfId i) const { return Rt::mapFind(pam_, i); }

void EthDevPamCollection::intfPamIs(IntfId i, const Ptr<Pam>& pam) {
   if (Rt::mapAssign(pam_, i, pam)) notify<Notifiee>([i](Notifiee& n) { n.onIntfPam(i); });
}

void EthDevPamCollection::intfPamDel(IntfId i) {
   if (pam_.erase(i)) notify<Notifiee>([i](Notifiee& n) { n.onIntfPam(i); });
}

Ptr<Rt::Pkt> FakePam::rxPkt() {
   if (rx_.empty()) return nullptr;
   auto pkt = std::move(rx_.front());
   rx_.pop_front();
   if (advance_) advance_(rxCost_);
   return pkt;
}

void FakePam::deliver(const std::vector<Ptr<Rt::Pkt>>& frames) {
   for (const auto& f : frames) rx_.push_back(f);
   readableCountInc();
}

FakeEthDevPamManager::FakeEthDevPamManager(Ptr<const PamDesiredIntfDir> desired,
                                           Ptr<EthDevPamCollection> collection)
    : desired_(std::move(desired)), collection_(std::move(collection)) {}

FakeEthDevPamManager::~FakeEthDevPamManager() = default;

void FakeEthDevPamManager::enabledIs(bool enabled) {
   if (enabled_ == enabled) return;
   enabled_ = enabled;
   if (!enabled_) {
      reactor_.reset();
      return;
   }
   reactor_ = std::make_unique<Reactor>(*this, desired_);
   for (auto i : desired_->intfDesiredAll()) sync(i);
}

void FakeEthDevPamManager::sync(IntfId i) {
   if (desired_->intfDesired(i)) {
      if (!collection_->intfPam(i)) collection_->intfPamIs(i, Rt::makePtr<FakePam>(i));
   } else {
      collection_->intfPamDel(i);
   }
}

}  // namespace Tavrin::Platform
