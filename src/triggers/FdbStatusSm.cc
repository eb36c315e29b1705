#include "triggers/FdbStatusSm.h"

#include <vector>

#include "model/TavrinCommon.h"
#include "rt/Assert.h"

namespace Tavrin {

namespace {

Rt::TraceFacility& fdbTrace() {
   static Rt::TraceFacility& f = Rt::traceFacility("TavrinFdbStatusSm");
   return f;
}

}  // namespace

// ---------------------------------------------------------------- MacIntfColl

IntfId MacIntfColl::intfIdDel(Fid fid) {
   auto it = intfId_.find(fid);
   if (it == intfId_.end()) return IntfId();
   IntfId intf = it->second;
   intfId_.erase(it);
   return intf;
}

Ptr<MacIntfColl> macIntfCollFactory(EthAddr mac) {
   return Rt::makePtr<MacIntfColl>(mac);
}

// ---------------------------------------------------------------- shared helpers

bool checkIntfValid(const Ptr<const CliConfig>& cliConfig, IntfId intf) {
   if (!cliConfig) return false;
   auto intfConfig = cliConfig->interface(intf);
   return intfConfig && intfConfig->ipv4() && !cliConfig->dhcpV4ServerAll().empty();
}

void addToMacIntfMap(const Ptr<MacIntfMap>& macIntfMap, const Ptr<IntfMacSetMap>& intfMacSetMap,
                     EthAddr mac, IntfId intf) {
   if (!macIntfMap || !intfMacSetMap) return;
   if (macIntfMap->intfIdHas(mac) && macIntfMap->intfId(mac) != intf) {
      // A MAC that moved: an ARP drop batch on the interface it left must
      // not query it there any more.
      delFromMacIntfMap(macIntfMap, intfMacSetMap, mac);
   }
   macIntfMap->intfIdIs(mac, intf);
   intfMacSetMap->intfMacSetIs(intf)->macIs(mac);
}

void delFromMacIntfMap(const Ptr<MacIntfMap>& macIntfMap, const Ptr<IntfMacSetMap>& intfMacSetMap,
                       EthAddr mac) {
   if (!macIntfMap || !intfMacSetMap) return;
   IntfId intf = macIntfMap->intfIdDel(mac);
   auto set = intfMacSetMap->intfMacSet(intf);
   if (!set) return;
   if (set->macSize() == 1) {
      intfMacSetMap->intfMacSetDel(intf);
   } else {
      set->macDel(mac);
   }
}

void maybeMoveMac(const Ptr<const LeaseTable>& leaseTable,
                  const Ptr<const MacIntfColl>& macIntfColl, const Ptr<MovedMac>& movedMac,
                  EthAddr mac) {
   TAVRIN_ASSERT(macIntfColl->intfIdSize() == 1);
   IntfId newIntf = macIntfColl->intfIdAll().begin()->second;
   auto clientLease = leaseTable ? leaseTable->macToLease(mac) : nullptr;
   if (!clientLease) return;
   TAVRIN_TRACE(fdbTrace(), 4, "Mac was previously on intf " << clientLease->intfId());
   if (clientLease->intfId() == newIntf) {
      TAVRIN_TRACE(fdbTrace(), 4, "No change in interface");
      return;
   }
   TAVRIN_TRACE(fdbTrace(), 4, "Notify LeaseTableSm about mac move");
   if (!movedMac) return;
   movedMac->macIs(mac);
   movedMac->newIntfIdIs(newIntf);
   movedMac->versionNumberInc(1);
}

// ---------------------------------------------------------------- FdbStatusSm

FdbStatusSm::FdbStatusSm(Ptr<const LeaseTable> leaseTable, Ptr<LeaseQueryRequest> leaseQueryRequest,
                         Ptr<MovedMac> movedMac, Ptr<MacIntfMap> macIntfMap,
                         Ptr<IntfMacSetMap> intfMacSetMap,
                         Ptr<const Platform::BridgingStatus> bridgingStatus,
                         Ptr<const CliConfig> cliConfig)
    : leaseTable_(std::move(leaseTable)),
      leaseQueryRequest_(std::move(leaseQueryRequest)),
      movedMac_(std::move(movedMac)),
      macIntfMap_(std::move(macIntfMap)),
      intfMacSetMap_(std::move(intfMacSetMap)),
      bridgingStatus_(std::move(bridgingStatus)),
      cliConfig_(std::move(cliConfig)) {
   if (cliConfig_) {
      cliConfigReactor_ = std::make_unique<CliConfigReactor>(*this, cliConfig_);
      for (const auto& [intf, intfConfig] : cliConfig_->interfaceAll()) intfConfigSmIs(intfConfig);
   }
   if (!bridgingStatus_) return;
   bridgingStatusReactor_ = std::make_unique<BridgingStatusReactor>(*this, bridgingStatus_);
   handleAllFdbStatus();
}

FdbStatusSm::~FdbStatusSm() {
   bridgingStatusReactor_.reset();
   cliConfigReactor_.reset();
   intfConfigSmDelAll();
}

void FdbStatusSm::CliConfigReactor::onInterface(IntfId i) {
   sm_.handleInterface(i);
   if (auto intfConfig = notifier()->interface(i)) {
      sm_.intfConfigSmIs(intfConfig);
   } else {
      sm_.intfConfigSmDel(i);
   }
}

void FdbStatusSm::intfConfigSmIs(const Ptr<const IntfConfig>& intfConfig) {
   auto& slot = intfConfigSm_[intfConfig->intfId()];
   if (slot && slot->notifier() == intfConfig) return;
   slot = std::make_unique<IntfConfigSm>(*this, intfConfig);
}

void FdbStatusSm::intfConfigSmDel(IntfId intf) {
   intfConfigSm_.erase(intf);
}

bool FdbStatusSm::intfConfigured(IntfId intf) const {
   return cliConfig_ && cliConfig_->interface(intf);
}

Ptr<MacIntfColl> FdbStatusSm::fdbMacIs(const Platform::HostKey& hostKey, IntfId intf) {
   auto& coll = fdbMacIntfColl_[hostKey.mac];
   if (!coll) coll = macIntfCollFactory(hostKey.mac);
   IntfId previous = coll->intfId(hostKey.fid);
   coll->intfIdIs(hostKey.fid, intf);
   // The same key learned on another port: the port it left keeps the MAC
   // only if another forwarding database still has it there.
   if (!previous.isEmpty() && previous != intf) fdbIntfMacSetDel(previous, hostKey.mac);
   auto& set = fdbIntfMacSet_[intf];
   if (!set) set = Rt::makePtr<IntfMacSet>(intf);
   set->macIs(hostKey.mac);
   return coll;
}

IntfId FdbStatusSm::fdbMacDel(const Platform::HostKey& hostKey,
                              const Ptr<MacIntfColl>& macIntfColl) {
   IntfId intf = macIntfColl->intfIdDel(hostKey.fid);
   if (!intf.isEmpty()) fdbIntfMacSetDel(intf, hostKey.mac);
   if (macIntfColl->intfIdSize() == 0) fdbMacIntfColl_.erase(hostKey.mac);
   return intf;
}

void FdbStatusSm::fdbIntfMacSetDel(IntfId intf, EthAddr mac) {
   auto coll = Rt::mapFind(fdbMacIntfColl_, mac);
   if (coll) {
      for (const auto& [fid, other] : coll->intfIdAll()) {
         if (other == intf) return;  // still learned there in another forwarding database
      }
   }
   auto it = fdbIntfMacSet_.find(intf);
   if (it == fdbIntfMacSet_.end()) return;
   it->second->macDel(mac);
   if (it->second->macSize() == 0) fdbIntfMacSet_.erase(it);
}

void FdbStatusSm::handleFdbStatus(const Platform::HostKey& hostKey) {
   const EthAddr mac = hostKey.mac;
   TAVRIN_TRACE(fdbTrace(), 4, "mac: " << mac);
   IntfId intf;
   bool delay = true;
   if (auto entry = bridgingStatus_->fdbStatus(hostKey)) {
      intf = entry->intf;
      TAVRIN_TRACE(fdbTrace(), 4, "Mac was added on interface " << intf);
      auto coll = fdbMacIs(hostKey, intf);
      if (coll->intfIdSize() > 1) {
         TAVRIN_TRACE(fdbTrace(), 4, "More than 1 interface for mac " << mac);
         return;
      }
      if (intfConfigured(intf)) addToMacIntfMap(macIntfMap_, intfMacSetMap_, mac, intf);
      maybeMoveMac(leaseTable_, coll, movedMac_, mac);
   } else {
      auto coll = Rt::mapFind(fdbMacIntfColl_, mac);
      if (!coll) return;  // a removal of an entry that was never reported
      intf = fdbMacDel(hostKey, coll);
      TAVRIN_TRACE(fdbTrace(), 4, "Mac was removed from interface " << intf);
      if (coll->intfIdSize() > 1) {
         TAVRIN_TRACE(fdbTrace(), 4, "More than 1 interface for mac " << mac);
         return;
      }
      if (coll->intfIdSize() == 0) {
         delFromMacIntfMap(macIntfMap_, intfMacSetMap_, mac);
         delay = false;
      } else {
         intf = coll->intfIdAll().begin()->second;
         TAVRIN_TRACE(fdbTrace(), 4, "Mac is now present on 1 interface: " << intf);
         if (intfConfigured(intf)) {
            addToMacIntfMap(macIntfMap_, intfMacSetMap_, mac, intf);
         } else {
            delFromMacIntfMap(macIntfMap_, intfMacSetMap_, mac);
         }
         maybeMoveMac(leaseTable_, coll, movedMac_, mac);
      }
   }
   if (!checkIntfValid(cliConfig_, intf)) {
      TAVRIN_TRACE(fdbTrace(), 4, "Intf not configured");
      return;
   }
   if (leaseQueryRequest_) {
      sendLeaseQuery(leaseQueryRequest_, mac, IpGenAddr(), intf, delay, true, IpGenAddr());
   }
}

void FdbStatusSm::handleInterface(IntfId intf) {
   TAVRIN_TRACE(fdbTrace(), 4, "intfId: " << intf);
   auto learned = Rt::mapFind(fdbIntfMacSet_, intf);
   if (!learned) {
      TAVRIN_TRACE(fdbTrace(), 4, "No macs learned on intf " << intf);
      return;
   }
   // Copied: the queries below run other machines before they return.
   const std::vector<EthAddr> macs(learned->macAll().begin(), learned->macAll().end());
   if (!intfConfigured(intf)) {
      TAVRIN_TRACE(fdbTrace(), 4, "Intf not configured");
      if (intfMacSetMap_) intfMacSetMap_->intfMacSetDel(intf);
      if (macIntfMap_) {
         for (auto mac : macs) macIntfMap_->intfIdDel(mac);
      }
      return;
   }
   const bool canQuery = checkIntfValid(cliConfig_, intf);
   if (canQuery) {
      TAVRIN_TRACE(fdbTrace(), 4, "Intf configured");
   } else {
      TAVRIN_TRACE(fdbTrace(), 4, "Intf configured, but no servers configured");
   }
   for (auto mac : macs) {
      auto macIntfColl = Rt::mapFind(fdbMacIntfColl_, mac);
      TAVRIN_ASSERT(macIntfColl);
      if (macIntfColl->intfIdSize() != 1) continue;
      addToMacIntfMap(macIntfMap_, intfMacSetMap_, mac, intf);
      if (canQuery && leaseQueryRequest_) {
         sendLeaseQuery(leaseQueryRequest_, mac, IpGenAddr(), intf, false, true, IpGenAddr());
      }
   }
}

void FdbStatusSm::handleAllFdbStatus() {
   TAVRIN_TRACE(fdbTrace(), 4, "mac addresses: " << bridgingStatus_->fdbStatusSize());
   for (const auto& [hostKey, entry] : bridgingStatus_->fdbStatusAll())
      fdbMacIs(hostKey, entry.intf);
   // No queries here: they come as interfaces get configured and as the
   // table changes, so a restart does not flood the servers.
   for (const auto& [mac, macIntfColl] : fdbMacIntfColl_) {
      if (macIntfColl->intfIdSize() != 1) continue;
      IntfId intf = macIntfColl->intfIdAll().begin()->second;
      if (checkIntfValid(cliConfig_, intf)) addToMacIntfMap(macIntfMap_, intfMacSetMap_, mac, intf);
   }
}

Ptr<FdbStatusSm> fdbStatusSmFactory(Ptr<const LeaseTable> leaseTable,
                                    Ptr<LeaseQueryRequest> leaseQueryRequest,
                                    Ptr<MovedMac> movedMac, Ptr<MacIntfMap> macIntfMap,
                                    Ptr<IntfMacSetMap> intfMacSetMap,
                                    Ptr<const Platform::BridgingStatus> bridgingStatus,
                                    Ptr<const CliConfig> cliConfig) {
   return Rt::makePtr<FdbStatusSm>(std::move(leaseTable), std::move(leaseQueryRequest),
                                   std::move(movedMac), std::move(macIntfMap),
                                   std::move(intfMacSetMap), std::move(bridgingStatus),
                                   std::move(cliConfig));
}

}  // namespace Tavrin
