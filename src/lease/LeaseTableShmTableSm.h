// Publishes the installed leases into the shared-memory table for the data
// plane: one entry per leased IP, keyed by (MAC, IP), naming the interface on
// which the pair may pass.
#pragma once

#include <memory>
#include <optional>
#include <unordered_map>

#include "model/LeaseTable.h"

namespace Tavrin {

class LeaseTableShmTableSm : public Rt::RefCounted {
 public:
   LeaseTableShmTableSm(Ptr<const LeaseTable> leaseTable, Ptr<Status> status,
                        Ptr<const Hardware::InstalledConfig> installedConfig);
   ~LeaseTableShmTableSm() override;

   void handleIpToLease(IpGenAddr ip);
   void handleAllLeases();

   // What this machine has published for each IP, so that a withdrawal
   // needs no read of the shared table.
   std::optional<IpMacLeaseKey> ipToLeaseKey(const IpGenAddr& ip) const;
   size_t ipToLeaseKeySize() const { return published_.size(); }
   void ipToLeaseKeyIs(const IpGenAddr& ip, const IpMacLeaseEntry& entry);
   void ipToLeaseKeyDel(const IpGenAddr& ip);
   void ipToLeaseKeyDelAll();

   void leaseTableIs(const Ptr<const LeaseTable>& leaseTable);
   void leaseTableDel();

 private:
   IntfId publishedIntf(const IpMacLeaseKey& key) const;

   class LeaseTableReactor : public LeaseTable::Notifiee {
    public:
      LeaseTableReactor(LeaseTableShmTableSm& sm, const Ptr<const LeaseTable>& t)
          : LeaseTable::Notifiee(t), sm_(sm) {}
      void onIpToLease(const IpGenAddr& ip) override { sm_.handleIpToLease(ip); }

    private:
      LeaseTableShmTableSm& sm_;
   };

   Ptr<const LeaseTable> leaseTable_;
   Ptr<Status> status_;
   // Kept for the data plane's feedback; nothing reads it yet.
   Ptr<const Hardware::InstalledConfig> installedConfig_;
   std::unique_ptr<LeaseTableReactor> leaseTableReactor_;
   struct IpOf {
      const IpGenAddr& operator()(const IpMacLeaseKey& k) const { return k.ip; }
   };
   // The key alone (23 bytes, where the whole entry takes 32): a withdrawal
   // needs nothing else, and the interface a withdrawal traces is read back
   // from the shared table only when that trace is on.
   Rt::DenseKeyedMap<IpMacLeaseKey, IpOf> published_;
};

Ptr<LeaseTableShmTableSm> leaseTableShmTableSmFactory(
    Ptr<const LeaseTable> leaseTable, Ptr<Status> status,
    Ptr<const Hardware::InstalledConfig> installedConfig);

}  // namespace Tavrin
