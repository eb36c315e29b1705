#include "expiry/LeaseTimerSm.h"

#include <iomanip>
#include <vector>

#include "model/TavrinCommon.h"
#include "rt/Clock.h"

namespace Tavrin {

namespace {

// Shared with the trapped-packet machine on purpose: both are the agent's
// answer to "a client may have lost its lease".
Rt::TraceFacility& leaseTimerTrace() {
   static Rt::TraceFacility& f = Rt::traceFacility("TavrinTrappedIpSm");
   return f;
}

// Lease times are epoch seconds: print them whole, to the millisecond.
struct TimeText {
   Seconds t;
};
std::ostream& operator<<(std::ostream& os, TimeText t) {
   return os << std::fixed << std::setprecision(3) << t.t << std::defaultfloat;
}

}  // namespace

// ---------------------------------------------------------------- IpMacLeaseSm

IpMacLeaseSm::IpMacLeaseSm(Ptr<const IpMacLease> ipMacLease, IntfId intfId,
                           Ptr<LeaseQueryRequest> leaseQueryRequest,
                           Ptr<Rt::TaskScheduler> scheduler)
    : IpMacLease::Notifiee(ipMacLease),
      intfId_(intfId),
      leaseQueryRequest_(std::move(leaseQueryRequest)),
      queryTask_(std::move(scheduler), kLeaseTimerPriority, "leaseTimerTask") {
   Rt::TimerTask::Notifiee::notifierIs(&queryTask_);
   handleExpirationTime();
}

// A million leases each have one: keep the layout described in the header.
static_assert(sizeof(void*) != 8 || sizeof(IpMacLeaseSm) <= 120,
              "IpMacLeaseSm has left the 128-byte heap block");

void IpMacLeaseSm::handleExpirationTime() {
   const Seconds now = Rt::now();
   const auto& lease = *ipMacLease();
   const Seconds expirationTime = lease.expirationTime();
   TAVRIN_TRACE(leaseTimerTrace(), 4,
                "mac: " << lease.mac() << ", ip: " << lease.ip()
                        << ", expirationTime: " << TimeText{expirationTime});
   if (expirationTime > now) {
      TAVRIN_TRACE(leaseTimerTrace(), 4, "Scheduling timer");
      queryTask_.scheduleTaskDelay(expirationTime - now);
   } else if (expirationTime == 0) {
      TAVRIN_TRACE(leaseTimerTrace(), 3, "expirationTime is 0");
      queryTask_.cancel();
   } else {
      TAVRIN_TRACE(leaseTimerTrace(), 4, "expirationTime <= Rt::now()," << TimeText{now});
      queryTask_.cancel();
      requery();
   }
}

void IpMacLeaseSm::handleTimer() {
   const auto& lease = *ipMacLease();
   TAVRIN_TRACE(leaseTimerTrace(), 4, "mac: " << lease.mac() << ", ip: " << lease.ip());
   if (!queryTask_.taskCurrentlyRunning()) TAVRIN_TRACE(leaseTimerTrace(), 4, "Timer not running");
   requery();
}

void IpMacLeaseSm::requery() {
   // Forced, so that a query already in flight for the MAC starts over; delayed,
   // so that its first round goes out a second later. By MAC: the answer
   // brings every lease of the client.
   sendLeaseQuery(leaseQueryRequest_, ipMacLease()->mac(), IpGenAddr(), intfId_, true, true,
                  IpGenAddr());
}

// ---------------------------------------------------------------- InterfaceLeaseSetSm

InterfaceLeaseSetSm::InterfaceLeaseSetSm(Ptr<const InterfaceLeaseSet> interfaceLeaseSet,
                                         IntfId intfId, Ptr<LeaseQueryRequest> leaseQueryRequest,
                                         Ptr<Rt::TaskScheduler> scheduler)
    : intfId_(intfId),
      leaseQueryRequest_(std::move(leaseQueryRequest)),
      scheduler_(std::move(scheduler)),
      interfaceLeaseSetReactor_(
          std::make_unique<InterfaceLeaseSetReactor>(*this, interfaceLeaseSet)) {
   handleAllLeases();
}

InterfaceLeaseSetSm::~InterfaceLeaseSetSm() {
   interfaceLeaseSetReactor_.reset();
   ipMacLeaseSmDelAll();
}

void InterfaceLeaseSetSm::handleAllLeases() {
   // Copied: a lease already due is re-queried from inside this walk, and
   // that runs other machines before it returns.
   std::vector<Ptr<const IpMacLease>> leases;
   leases.reserve(interfaceLeaseSet()->ipMacLeaseSize());
   for (const auto& [key, lease] : interfaceLeaseSet()->ipMacLeaseAll()) leases.emplace_back(lease);
   ipMacLeaseSm_.reserve(leases.size());
   for (const auto& lease : leases) handleLease(lease->key());
}

void InterfaceLeaseSetSm::handleLease(const LeaseKey& key) {
   auto lease = interfaceLeaseSet()->ipMacLease(key);
   if (auto* held = ipMacLeaseSm_.get(key)) {
      if (held->ipMacLease() == lease) return;
      TAVRIN_TRACE(leaseTimerTrace(), 4,
                   "Deleting IpMacLeaseSm. mac: " << key.mac << ", ip: " << key.ip);
      // The key may live in the lease the machine holds: erase by a copy.
      ipMacLeaseSm_.erase(LeaseKey(key));
   }
   if (lease) {
      TAVRIN_TRACE(leaseTimerTrace(), 4,
                   "Creating IpMacLeaseSm. mac: " << key.mac << ", ip: " << key.ip);
      ipMacLeaseSmIs(lease);
   }
}

Ptr<IpMacLeaseSm> InterfaceLeaseSetSm::ipMacLeaseSmIs(const Ptr<const IpMacLease>& ipMacLease) {
   const LeaseKey& key = ipMacLease->key();
   if (auto* existing = ipMacLeaseSm_.get(key)) {
      if (existing->ipMacLease() == ipMacLease) return Ptr<IpMacLeaseSm>(existing);
   }
   auto sm = Rt::makePtr<IpMacLeaseSm>(ipMacLease, intfId_, leaseQueryRequest_, scheduler_);
   // Building it re-queries a lease already due, which runs other machines
   // first: keep it only if its lease is still there.
   if (interfaceLeaseSet()->ipMacLease(key) != ipMacLease) return nullptr;
   ipMacLeaseSm_.erase(key);
   ipMacLeaseSm_.insert(sm);
   return sm;
}

// ---------------------------------------------------------------- LeaseTimerSm

LeaseTimerSm::LeaseTimerSm(Ptr<const LeaseStatus> leaseStatus,
                           Ptr<LeaseQueryRequest> leaseQueryRequest,
                           Ptr<Rt::TaskScheduler> scheduler)
    : leaseStatus_(std::move(leaseStatus)),
      leaseQueryRequest_(std::move(leaseQueryRequest)),
      scheduler_(std::move(scheduler)) {
   if (!leaseStatus_ || !leaseQueryRequest_ || !scheduler_) return;
   leaseStatusReactor_ = std::make_unique<LeaseStatusReactor>(*this, leaseStatus_);
   handleAllIntfIds();
}

LeaseTimerSm::~LeaseTimerSm() {
   leaseStatusReactor_.reset();
   interfaceLeaseSetSmDelAll();
}

void LeaseTimerSm::handleAllIntfIds() {
   std::vector<IntfId> intfs;
   for (const auto& [intf, set] : leaseStatus_->interfaceLeaseSetAll()) intfs.push_back(intf);
   for (auto intf : intfs) handleInterfaceLeaseSet(intf);
}

void LeaseTimerSm::handleInterfaceLeaseSet(IntfId intf) {
   auto set = leaseStatus_->interfaceLeaseSet(intf);
   auto existing = Rt::mapFind(interfaceLeaseSetSm_, intf);
   if (existing && existing->interfaceLeaseSet() == set) return;
   if (existing) {
      TAVRIN_TRACE(leaseTimerTrace(), 4, "Deleting InterfaceLeaseSet. intfId: " << intf);
      interfaceLeaseSetSmDel(intf);
   }
   if (set) {
      TAVRIN_TRACE(leaseTimerTrace(), 4, "Creating InterfaceLeaseSet. intfId: " << intf);
      interfaceLeaseSetSmIs(set);
   }
}

void LeaseTimerSm::interfaceLeaseSetSmIs(const Ptr<const InterfaceLeaseSet>& interfaceLeaseSet) {
   const IntfId intf = interfaceLeaseSet->intfId();
   auto existing = Rt::mapFind(interfaceLeaseSetSm_, intf);
   if (existing && existing->interfaceLeaseSet() == interfaceLeaseSet) return;
   interfaceLeaseSetSm_[intf] =
       Rt::makePtr<InterfaceLeaseSetSm>(interfaceLeaseSet, intf, leaseQueryRequest_, scheduler_);
}

Ptr<LeaseTimerSm> leaseTimerSmFactory(Ptr<const LeaseStatus> leaseStatus,
                                      Ptr<LeaseQueryRequest> leaseQueryRequest,
                                      Ptr<Rt::TaskScheduler> scheduler) {
   return Rt::makePtr<LeaseTimerSm>(std::move(leaseStatus), std::move(leaseQueryRequest),
                                    std::move(scheduler));
}

}  // namespace Tavrin
