// Follows the MAC address table: queries learned MACs and announces moves.
//
// The table is mirrored privately (every MAC with every forwarding database
// it is learned in), and the agent-wide maps MacIntfMap / IntfMacSetMap are
// kept to the MACs that sit on exactly one configured interface. A MAC
// learned in two forwarding databases counts as two interfaces even on one
// port: the agent cannot tell which VLAN's client the lease belongs to, so it
// leaves such a MAC alone until one entry ages out.
#pragma once

#include <map>
#include <memory>
#include <unordered_map>

#include "model/LeaseTable.h"
#include "model/WorkRecords.h"
#include "platform/Platform.h"

namespace Tavrin {

// Forwarding-database number: the VLAN/FID part of a MAC table key.
using Fid = uint16_t;

// The interfaces of one MAC, one member per forwarding database it is
// learned in.
class MacIntfColl : public Rt::RefCounted {
 public:
   explicit MacIntfColl(EthAddr mac) : mac_(mac) {}

   EthAddr mac() const { return mac_; }
   IntfId intfId(Fid fid) const { return Rt::mapFind(intfId_, fid); }
   const std::map<Fid, IntfId>& intfIdAll() const { return intfId_; }
   size_t intfIdSize() const { return intfId_.size(); }
   void intfIdIs(Fid fid, IntfId intf) { intfId_[fid] = intf; }
   // Returns the interface it held (empty when there was none).
   IntfId intfIdDel(Fid fid);
   void intfIdDelAll() { intfId_.clear(); }

 private:
   EthAddr mac_;
   std::map<Fid, IntfId> intfId_;
};

Ptr<MacIntfColl> macIntfCollFactory(EthAddr mac);

// True when intf is configured with ipv4 on and at least one DHCPv4 server
// is configured: the only case in which a query about it can go anywhere.
bool checkIntfValid(const Ptr<const CliConfig>& cliConfig, IntfId intf);

// macIntfMap[mac] = intf, and mac joins intfMacSetMap[intf]. A MAC the map
// held on another interface leaves that interface's set first, so that the
// two maps never disagree about where a MAC is.
void addToMacIntfMap(const Ptr<MacIntfMap>& macIntfMap, const Ptr<IntfMacSetMap>& intfMacSetMap,
                     EthAddr mac, IntfId intf);

// Removes mac from macIntfMap and from the set of the interface it held. A
// set with one member is dropped whole: an interface never keeps an empty set.
void delFromMacIntfMap(const Ptr<MacIntfMap>& macIntfMap, const Ptr<IntfMacSetMap>& intfMacSetMap,
                       EthAddr mac);

// Announces in movedMac a MAC now learned (alone) on another interface than
// the one its client lease records. macIntfColl has exactly one member.
void maybeMoveMac(const Ptr<const LeaseTable>& leaseTable,
                  const Ptr<const MacIntfColl>& macIntfColl, const Ptr<MovedMac>& movedMac,
                  EthAddr mac);

class FdbStatusSm : public Rt::RefCounted {
 public:
   FdbStatusSm(Ptr<const LeaseTable> leaseTable, Ptr<LeaseQueryRequest> leaseQueryRequest,
               Ptr<MovedMac> movedMac, Ptr<MacIntfMap> macIntfMap, Ptr<IntfMacSetMap> intfMacSetMap,
               Ptr<const Platform::BridgingStatus> bridgingStatus, Ptr<const CliConfig> cliConfig);
   ~FdbStatusSm() override;

   void handleFdbStatus(const Platform::HostKey& hostKey);
   void handleInterface(IntfId intf);
   void handleAllFdbStatus();

   // The private mirror of the MAC table.
   Ptr<const IntfMacSet> fdbIntfMacSet(IntfId intf) const {
      return Rt::mapFind(fdbIntfMacSet_, intf);
   }
   const std::map<IntfId, Ptr<IntfMacSet>>& fdbIntfMacSetAll() const { return fdbIntfMacSet_; }
   Ptr<const MacIntfColl> fdbMacIntfColl(EthAddr mac) const {
      return Rt::mapFind(fdbMacIntfColl_, mac);
   }
   size_t fdbMacIntfCollSize() const { return fdbMacIntfColl_.size(); }

   void intfConfigSmIs(const Ptr<const IntfConfig>& intfConfig);
   void intfConfigSmDel(IntfId intf);
   void intfConfigSmDelAll() { intfConfigSm_.clear(); }
   size_t intfConfigSmSize() const { return intfConfigSm_.size(); }

 private:
   class BridgingStatusReactor : public Platform::BridgingStatus::Notifiee {
    public:
      BridgingStatusReactor(FdbStatusSm& sm, const Ptr<const Platform::BridgingStatus>& b)
          : Platform::BridgingStatus::Notifiee(b), sm_(sm) {}
      void onFdbStatus(const Platform::HostKey& k) override { sm_.handleFdbStatus(k); }

    private:
      FdbStatusSm& sm_;
   };
   class CliConfigReactor : public CliConfig::Notifiee {
    public:
      CliConfigReactor(FdbStatusSm& sm, const Ptr<const CliConfig>& c)
          : CliConfig::Notifiee(c), sm_(sm) {}
      void onInterface(IntfId i) override;

    private:
      FdbStatusSm& sm_;
   };
   // One per configured interface: its ipv4 flag decides whether its MACs
   // can be queried.
   class IntfConfigSm : public IntfConfig::Notifiee {
    public:
      IntfConfigSm(FdbStatusSm& sm, const Ptr<const IntfConfig>& c)
          : IntfConfig::Notifiee(c), sm_(sm) {}
      void onIpv4() override { sm_.handleInterface(notifier()->intfId()); }

    private:
      FdbStatusSm& sm_;
   };

   bool intfConfigured(IntfId intf) const;
   // Mirror upkeep: a MAC learned on intf in fid, or gone from fid.
   Ptr<MacIntfColl> fdbMacIs(const Platform::HostKey& hostKey, IntfId intf);
   IntfId fdbMacDel(const Platform::HostKey& hostKey, const Ptr<MacIntfColl>& macIntfColl);
   void fdbIntfMacSetDel(IntfId intf, EthAddr mac);

   Ptr<const LeaseTable> leaseTable_;
   Ptr<LeaseQueryRequest> leaseQueryRequest_;
   Ptr<MovedMac> movedMac_;
   Ptr<MacIntfMap> macIntfMap_;
   Ptr<IntfMacSetMap> intfMacSetMap_;
   Ptr<const Platform::BridgingStatus> bridgingStatus_;
   Ptr<const CliConfig> cliConfig_;

   std::map<IntfId, Ptr<IntfMacSet>> fdbIntfMacSet_;
   std::unordered_map<EthAddr, Ptr<MacIntfColl>> fdbMacIntfColl_;
   std::map<IntfId, std::unique_ptr<IntfConfigSm>> intfConfigSm_;
   std::unique_ptr<CliConfigReactor> cliConfigReactor_;
   std::unique_ptr<BridgingStatusReactor> bridgingStatusReactor_;
};

Ptr<FdbStatusSm> fdbStatusSmFactory(Ptr<const LeaseTable> leaseTable,
                                    Ptr<LeaseQueryRequest> leaseQueryRequest,
                                    Ptr<MovedMac> movedMac, Ptr<MacIntfMap> macIntfMap,
                                    Ptr<IntfMacSetMap> intfMacSetMap,
                                    Ptr<const Platform::BridgingStatus> bridgingStatus,
                                    Ptr<const CliConfig> cliConfig);

}  // namespace Tavrin
