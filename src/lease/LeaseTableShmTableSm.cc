#include "lease/LeaseTableShmTableSm.h"

#include <algorithm>
#include <exception>
#include <vector>

#include "model/TavrinCommon.h"

namespace Tavrin {

LeaseTableShmTableSm::LeaseTableShmTableSm(Ptr<const LeaseTable> leaseTable, Ptr<Status> status,
                                           Ptr<const Hardware::InstalledConfig> installedConfig)
    : status_(std::move(status)), installedConfig_(std::move(installedConfig)) {
   if (!leaseTable || !status_) return;
   leaseTableIs(leaseTable);
   handleAllLeases();
}

LeaseTableShmTableSm::~LeaseTableShmTableSm() {
   leaseTableDel();
}

void LeaseTableShmTableSm::leaseTableIs(const Ptr<const LeaseTable>& leaseTable) {
   leaseTable_ = leaseTable;
   leaseTableReactor_ = std::make_unique<LeaseTableReactor>(*this, leaseTable);
}

void LeaseTableShmTableSm::leaseTableDel() {
   leaseTableReactor_.reset();
   leaseTable_ = nullptr;
}

std::optional<IpMacLeaseKey> LeaseTableShmTableSm::ipToLeaseKey(const IpGenAddr& ip) const {
   if (const auto* k = published_.get(ip)) return *k;
   return std::nullopt;
}

void LeaseTableShmTableSm::ipToLeaseKeyIs(const IpGenAddr& ip, const IpMacLeaseEntry& entry) {
   IpMacLeaseKey k = entry.key;
   k.ip = ip;
   published_.assign(k);
}

void LeaseTableShmTableSm::ipToLeaseKeyDel(const IpGenAddr& ip) {
   published_.erase(ip);
}

void LeaseTableShmTableSm::ipToLeaseKeyDelAll() {
   published_.clear();
}

// While the machine runs nothing else writes the shared table, so what the
// table holds under a key is what the machine published.
IntfId LeaseTableShmTableSm::publishedIntf(const IpMacLeaseKey& key) const {
   auto entry = status_->ipMacLease(key);
   return entry ? entry->intfId : IntfId();
}

// Traces are written here, not in a shared helper, so that each names the
// handler that published or withdrew the entry.
void LeaseTableShmTableSm::handleIpToLease(IpGenAddr ip) {
   auto clientLease = leaseTable_->ipToLease(ip);
   std::optional<IpMacLeaseKey> old;
   if (const auto* k = published_.get(ip)) old = *k;
   bool held = clientLease && clientLease->ipMacLeaseByIp(ip);
   IpMacLeaseEntry entry;
   if (held) entry = {{clientLease->mac(), ip}, clientLease->intfId(), false};
   // Withdrawn, or handed to another MAC without a withdrawal in between:
   // the old pair must not stay allowed.
   if (old && (!held || *old != entry.key)) {
      TAVRIN_TRACE(
          tavrinTrace(), 4,
          "Deleting mac " << old->mac << ", ip " << ip << ", intfId " << publishedIntf(*old));
      status_->ipMacLeaseDel(*old);
      ipToLeaseKeyDel(ip);
   }
   if (!held) return;
   TAVRIN_TRACE(tavrinTrace(), 4,
                "Adding mac " << entry.key.mac << ", ip " << ip << ", intfId " << entry.intfId);
   status_->ipMacLeaseIs(entry);
   ipToLeaseKeyIs(ip, entry);
}

void LeaseTableShmTableSm::handleAllLeases() {
   // The table outlives the agent: what an earlier run published and this
   // run does not hold must go before anything is added.
   try {
      std::vector<IpMacLeaseEntry> entries;
      for (const auto& [key, entry] : status_->ipMacLeaseAll()) entries.push_back(entry);
      std::sort(entries.begin(), entries.end(),
                [](const auto& a, const auto& b) { return a.key < b.key; });
      for (const auto& entry : entries) {
         auto clientLease = leaseTable_->ipToLease(entry.key.ip);
         if (clientLease && clientLease->mac() == entry.key.mac &&
             clientLease->intfId() == entry.intfId) {
            continue;
         }
         TAVRIN_TRACE(tavrinTrace(), 4,
                      "Deleting mac " << entry.key.mac << ", ip " << entry.key.ip << ", intfId "
                                      << entry.intfId);
         status_->ipMacLeaseDel(entry.key);
      }
   } catch (const std::exception& e) {
      TAVRIN_TRACE(tavrinTrace(), 1, e.what());
   }
   std::vector<std::pair<IpGenAddr, EthAddr>> pairs;
   pairs.reserve(leaseTable_->ipToLeaseAll().size());
   published_.reserve(pairs.capacity());
   status_->collectionSizeIs(pairs.capacity());
   leaseTable_->ipToLeaseMacEach(
       [&pairs](const IpGenAddr& ip, EthAddr mac) { pairs.emplace_back(ip, mac); });
   std::sort(pairs.begin(), pairs.end(),
             [](const auto& a, const auto& b) { return a.first < b.first; });
   for (const auto& [ip, mac] : pairs) {
      auto clientLease = leaseTable_->macToLease(mac);
      IpMacLeaseEntry entry{{mac, ip}, clientLease->intfId(), false};
      TAVRIN_TRACE(tavrinTrace(), 4,
                   "Adding mac " << entry.key.mac << ", ip " << ip << ", intfId " << entry.intfId);
      status_->ipMacLeaseIs(entry);
      ipToLeaseKeyIs(ip, entry);
   }
}

Ptr<LeaseTableShmTableSm> leaseTableShmTableSmFactory(
    Ptr<const LeaseTable> leaseTable, Ptr<Status> status,
    Ptr<const Hardware::InstalledConfig> installedConfig) {
   return Rt::makePtr<LeaseTableShmTableSm>(std::move(leaseTable), std::move(status),
                                            std::move(installedConfig));
}

}  // namespace Tavrin
