// Owns every change to the lease table and to the persisted lease status:
// admits answers as leases, removes and re-evaluates them, follows MAC moves,
// and follows the configuration so that a server or interface that leaves it
// takes its leases with it.
#pragma once

#include <map>
#include <memory>

#include "model/LeaseTable.h"
#include "model/WorkRecords.h"

namespace Tavrin {

class LeaseTableSm : public Rt::RefCounted {
 public:
   LeaseTableSm(Ptr<LeaseTable> leaseTable, Ptr<MacIntfMap> macIntfMap,
                Ptr<LeaseQueryRequest> leaseQueryRequest,
                Ptr<const LeaseQueryResponse> leaseQueryResponse, Ptr<const MovedMac> movedMac,
                Ptr<const CliConfig> cliConfig);
   ~LeaseTableSm() override;

   const Ptr<LeaseTable>& leaseTable() const { return leaseTable_; }
   const Ptr<const LeaseQueryResponse>& leaseQueryResponse() const { return leaseQueryResponse_; }
   bool initialized() const { return initialized_; }

   // ---- reactions
   void handleInitialized();
   void handleLeaseQueryResponse();
   void handleMacMove();
   void handleDhcpV4Server(IpAddr server);
   void handleInterface(IntfId intf);

   // ---- admission
   void updateCurrentLease(IntfId intf);
   void addLease(EthAddr mac, IpGenAddr ip, IntfId intf, IpGenAddr dhcpServer, Seconds lastTxTime,
                 Seconds expirationTime);
   void addLeaseFromStateStore(Ptr<IpMacLease> lease, IntfId intf);
   void addInterface(IntfId intf);
   void addDhcpServer(IpGenAddr dhcpServer);

   // ---- removal
   void removeServerLeaseByIp(IpGenAddr ip, IpGenAddr dhcpServer);
   void removeLeaseByIp(IpGenAddr ip);
   void reevaluateClientIps(Ptr<ClientLease> clientLease, IpGenAddr ip, IpGenAddr dhcpServer,
                            bool remove);
   void removeLeaseByMac(EthAddr mac, IpGenAddr dhcpServer);
   void removeDhcpServer(IpGenAddr dhcpServer);
   void removeIntf(IntfId intf);

   // ---- moves and re-queries
   void moveMac(EthAddr mac, IntfId newIntf);
   void queryAllMacs(IpGenAddr dhcpServer);

 private:
   class LeaseQueryResponseReactor : public LeaseQueryResponse::Notifiee {
    public:
      LeaseQueryResponseReactor(LeaseTableSm& sm, const Ptr<const LeaseQueryResponse>& r)
          : LeaseQueryResponse::Notifiee(r), sm_(sm) {}
      void onVersionNumber() override { sm_.handleLeaseQueryResponse(); }

    private:
      LeaseTableSm& sm_;
   };
   class MovedMacReactor : public MovedMac::Notifiee {
    public:
      MovedMacReactor(LeaseTableSm& sm, const Ptr<const MovedMac>& m)
          : MovedMac::Notifiee(m), sm_(sm) {}
      void onVersionNumber() override { sm_.handleMacMove(); }

    private:
      LeaseTableSm& sm_;
   };
   class CliConfigReactor : public CliConfig::Notifiee {
    public:
      CliConfigReactor(LeaseTableSm& sm, const Ptr<const CliConfig>& c)
          : CliConfig::Notifiee(c), sm_(sm) {}
      void onDhcpV4Server(IpAddr a) override { sm_.handleDhcpV4Server(a); }
      void onInterface(IntfId i) override { sm_.handleInterface(i); }

    private:
      LeaseTableSm& sm_;
   };
   // One per configured interface: its ipv4 flag switches locking on and off.
   class IntfConfigReactor : public IntfConfig::Notifiee {
    public:
      IntfConfigReactor(LeaseTableSm& sm, const Ptr<const IntfConfig>& c)
          : IntfConfig::Notifiee(c), sm_(sm) {}
      void onIpv4() override { sm_.handleInterface(notifier()->intfId()); }

    private:
      LeaseTableSm& sm_;
   };

   bool intfConfigured(IntfId intf) const;
   bool dhcpServerConfigured(const IpGenAddr& dhcpServer) const;
   void query(EthAddr mac, const IpGenAddr& ip, IntfId intf, const IpGenAddr& dhcpServer);
   void rebuildInterface(IntfId intf);
   void rebuildLease(const Ptr<IpMacLease>& lease, IntfId intf);
   void followConfiguration();
   void intfConfigReactorIs(IntfId intf);

   Ptr<LeaseTable> leaseTable_;
   Ptr<MacIntfMap> macIntfMap_;
   Ptr<LeaseQueryRequest> leaseQueryRequest_;
   Ptr<const LeaseQueryResponse> leaseQueryResponse_;
   Ptr<const MovedMac> movedMac_;
   Ptr<const CliConfig> cliConfig_;
   bool initialized_ = false;
   std::unique_ptr<LeaseQueryResponseReactor> leaseQueryResponseReactor_;
   std::unique_ptr<MovedMacReactor> movedMacReactor_;
   std::unique_ptr<CliConfigReactor> cliConfigReactor_;
   std::map<IntfId, std::unique_ptr<IntfConfigReactor>> intfConfigReactor_;
};

Ptr<LeaseTableSm> leaseTableSmFactory(Ptr<LeaseTable> leaseTable, Ptr<MacIntfMap> macIntfMap,
                                      Ptr<LeaseQueryRequest> leaseQueryRequest,
                                      Ptr<const LeaseQueryResponse> leaseQueryResponse,
                                      Ptr<const MovedMac> movedMac, Ptr<const CliConfig> cliConfig);

// Free functions of lease removal; each keeps every index of the table and
// the persisted status in step.
void removeDhcpFromClientLease(const Ptr<LeaseTable>& leaseTable,
                               const Ptr<ClientLease>& clientLease, IpGenAddr dhcpServer);
void delClientLeaseInternals(const Ptr<LeaseTable>& leaseTable,
                             const Ptr<ClientLease>& clientLease);
void delFromLeaseStatus(const Ptr<LeaseTable>& leaseTable, IntfId intf, LeaseKey key);

}  // namespace Tavrin
