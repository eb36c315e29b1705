#include "lease/LeaseTableSm.h"

#include <algorithm>
#include <charconv>
#include <vector>

#include "model/TavrinCommon.h"
#include "rt/Assert.h"

namespace Tavrin {

namespace {

Rt::TraceFacility& leaseTrace() {
   static Rt::TraceFacility& f = Rt::traceFacility("TavrinLeaseTableSm");
   return f;
}

// Lease times are wall-clock seconds: print them in full, never as 1.7e+09.
struct TimeText {
   Seconds t;
};
std::ostream& operator<<(std::ostream& os, TimeText s) {
   char buf[64];
   auto r = std::to_chars(buf, buf + sizeof buf, s.t, std::chars_format::fixed);
   return os.write(buf, r.ptr - buf);
}

// Hash and pointer order differ from run to run and from library to library;
// walks whose traces or queries are visible go in address order instead.
template <class Leases>
std::vector<Ptr<IpMacLease>> byIpOrder(const Leases& leases) {
   std::vector<Ptr<IpMacLease>> out;
   out.reserve(leases.size());
   for (const auto& l : leases) {
      if constexpr (requires { l.second; }) {
         out.push_back(l.second);
      } else {
         out.push_back(l);
      }
   }
   std::sort(out.begin(), out.end(),
             [](const auto& a, const auto& b) { return a->ip() < b->ip(); });
   return out;
}

std::vector<Ptr<ClientLease>> byMacOrder(const ClientLeaseSet& set) {
   std::vector<Ptr<ClientLease>> out(set.clientLeaseAll().begin(), set.clientLeaseAll().end());
   std::sort(out.begin(), out.end(),
             [](const auto& a, const auto& b) { return a->mac() < b->mac(); });
   return out;
}

// Drops the client's index entries, but only while they still name this very
// client: a client of the same MAC may have been created since.
void dropClientIfCurrent(LeaseTable& leaseTable, const Ptr<ClientLease>& clientLease) {
   if (leaseTable.macToLease(clientLease->mac()) == clientLease) {
      leaseTable.macToLeaseDel(clientLease->mac());
   }
}

}  // namespace

LeaseTableSm::LeaseTableSm(Ptr<LeaseTable> leaseTable, Ptr<MacIntfMap> macIntfMap,
                           Ptr<LeaseQueryRequest> leaseQueryRequest,
                           Ptr<const LeaseQueryResponse> leaseQueryResponse,
                           Ptr<const MovedMac> movedMac, Ptr<const CliConfig> cliConfig)
    : leaseTable_(std::move(leaseTable)),
      macIntfMap_(std::move(macIntfMap)),
      leaseQueryRequest_(std::move(leaseQueryRequest)),
      leaseQueryResponse_(std::move(leaseQueryResponse)),
      movedMac_(std::move(movedMac)),
      cliConfig_(std::move(cliConfig)) {
   if (!leaseTable_) return;
   if (leaseQueryResponse_) {
      leaseQueryResponseReactor_ =
          std::make_unique<LeaseQueryResponseReactor>(*this, leaseQueryResponse_);
   }
   if (movedMac_) movedMacReactor_ = std::make_unique<MovedMacReactor>(*this, movedMac_);
   if (cliConfig_) {
      cliConfigReactor_ = std::make_unique<CliConfigReactor>(*this, cliConfig_);
      for (const auto& [intf, intfConfig] : cliConfig_->interfaceAll()) intfConfigReactorIs(intf);
   }
   handleInitialized();
}

LeaseTableSm::~LeaseTableSm() {
   leaseQueryResponseReactor_.reset();
   movedMacReactor_.reset();
   cliConfigReactor_.reset();
   intfConfigReactor_.clear();
}

// ---------------------------------------------------------------- helpers

// Without a configuration there is nothing to judge by: no interface counts
// as configured (answers are dropped), and nothing persisted is withdrawn.
bool LeaseTableSm::intfConfigured(IntfId intf) const {
   if (!cliConfig_) return false;
   auto intfConfig = cliConfig_->interface(intf);
   return intfConfig && intfConfig->ipv4();
}

bool LeaseTableSm::dhcpServerConfigured(const IpGenAddr& dhcpServer) const {
   if (dhcpServer.isV6()) return cliConfig_->dhcpV6ServerHas(dhcpServer.v6Addr());
   return cliConfig_->dhcpV4ServerHas(dhcpServer.v4Addr());
}

void LeaseTableSm::query(EthAddr mac, const IpGenAddr& ip, IntfId intf,
                         const IpGenAddr& dhcpServer) {
   if (!leaseQueryRequest_) return;
   sendLeaseQuery(leaseQueryRequest_, mac, ip, intf, false, true, dhcpServer);
}

void LeaseTableSm::intfConfigReactorIs(IntfId intf) {
   auto intfConfig = cliConfig_->interface(intf);
   auto& slot = intfConfigReactor_[intf];
   if (slot && slot->notifier() == intfConfig) return;
   slot = std::make_unique<IntfConfigReactor>(*this, intfConfig);
}

// ---------------------------------------------------------------- start

void LeaseTableSm::handleInitialized() {
   if (auto leaseStatus = leaseTable_->leaseStatus()) {
      std::vector<IntfId> intfs;
      size_t leases = 0;
      for (const auto& [intf, set] : leaseStatus->interfaceLeaseSetAll()) {
         intfs.push_back(intf);
         leases += set->ipMacLeaseSize();
      }
      // A restart with a full table would otherwise grow every index a
      // dozen times over.
      leaseTable_->reserve(leases);
      for (auto intf : intfs) rebuildInterface(intf);
   }
   followConfiguration();
   queryAllMacs(IpGenAddr());
   initialized_ = true;
}

void LeaseTableSm::rebuildInterface(IntfId intf) {
   auto leaseStatus = leaseTable_->leaseStatus();
   if (cliConfig_ && !intfConfigured(intf)) {
      leaseStatus->interfaceLeaseSetDel(intf);
      return;
   }
   auto set = leaseStatus->interfaceLeaseSet(intf);
   // Sorted with the keys beside the records: comparing through the
   // pointers would miss the cache at every step with a million leases.
   std::vector<std::pair<LeaseKey, Ptr<IpMacLease>>> leases;
   leases.reserve(set->ipMacLeaseSize());
   for (const auto& [key, lease] : set->ipMacLeaseAll()) leases.emplace_back(key, lease);
   std::sort(leases.begin(), leases.end(),
             [](const auto& a, const auto& b) { return a.first < b.first; });
   for (const auto& [key, lease] : leases) rebuildLease(lease, intf);
}

// The persisted status comes from outside this run (an earlier version, a
// crash, an operator): a MAC filed under two interfaces, or an IP held twice,
// is resolved here as admission would have resolved it, never asserted.
void LeaseTableSm::rebuildLease(const Ptr<IpMacLease>& lease, IntfId intf) {
   auto holder = leaseTable_->ipToLease(lease->ip());
   // Already entered: moved here from an interface rebuilt earlier.
   if (holder && holder->ipMacLeaseByIp(lease->ip()) == lease) return;
   IntfId target = intf;
   if (macIntfMap_ && macIntfMap_->intfIdHas(lease->mac())) {
      auto seen = macIntfMap_->intfId(lease->mac());
      if (seen != intf && intfConfigured(seen)) target = seen;
   }
   if (auto client = leaseTable_->macToLease(lease->mac())) target = client->intfId();
   if (holder) {
      auto held = holder->ipMacLeaseByIp(lease->ip());
      if (held && held->lastTransactionTime() >= lease->lastTransactionTime()) {
         TAVRIN_TRACE(leaseTrace(), 4,
                      "Dropping persisted lease of ip " << lease->ip() << " from " << lease->mac()
                                                        << ": the ip is held by a newer lease");
         delFromLeaseStatus(leaseTable_, intf, lease->key());
         return;
      }
      removeLeaseByIp(lease->ip());
   }
   if (target == intf) {
      addLeaseFromStateStore(lease, intf);
      return;
   }
   delFromLeaseStatus(leaseTable_, intf, lease->key());
   addLease(lease->mac(), lease->ip(), target, lease->dhcpAddr(), lease->lastTransactionTime(),
            lease->expirationTime());
}

// Configuration changes made while the agent was down take effect now, as
// they would have had it been running.
void LeaseTableSm::followConfiguration() {
   if (!cliConfig_) return;
   std::vector<IpGenAddr> gone;
   for (const auto& [server, set] : leaseTable_->dhcpServerLeaseSetAll()) {
      if (!dhcpServerConfigured(server)) gone.push_back(server);
   }
   for (const auto& server : gone) removeDhcpServer(server);
   for (auto server : cliConfig_->dhcpV4ServerAll()) addDhcpServer(server);
   for (const auto& [intf, intfConfig] : cliConfig_->interfaceAll()) {
      if (intfConfig->ipv4()) addInterface(intf);
   }
}

// ---------------------------------------------------------------- configuration

void LeaseTableSm::handleDhcpV4Server(IpAddr server) {
   if (cliConfig_->dhcpV4ServerHas(server)) {
      addDhcpServer(server);
      queryAllMacs(server);
   } else {
      removeDhcpServer(server);
   }
}

void LeaseTableSm::handleInterface(IntfId intf) {
   if (cliConfig_->interface(intf)) {
      intfConfigReactorIs(intf);
   } else {
      intfConfigReactor_.erase(intf);
   }
   if (intfConfigured(intf)) {
      addInterface(intf);
   } else {
      removeIntf(intf);
   }
}

// ---------------------------------------------------------------- admission

void LeaseTableSm::handleLeaseQueryResponse() {
   if (!initialized_) return;
   const auto& response = *leaseQueryResponse_;
   EthAddr mac = response.mac();
   IpGenAddr ip = response.ip();
   IpGenAddr dhcpServer = response.dhcpAddr();
   Seconds lastTxTime = response.lastTransactionTime();
   Seconds expirationTime = response.expirationTime();
   TAVRIN_TRACE(leaseTrace(), 4,
                "Processing response. MAC: " << mac << " Ip " << ip << " Intf " << IntfId()
                                             << " Server " << dhcpServer << " Txn time "
                                             << TimeText{lastTxTime} << " Exp time "
                                             << TimeText{expirationTime});
   if (dhcpServer == IpGenAddr(IpAddr())) {
      TAVRIN_TRACE(leaseTrace(), 4,
                   "No dhcp addr or intfId in leasequery response " << int(response.messageType()));
      return;
   }
   if (ip.isUnset()) {
      if (mac.isZero()) return;
      if (auto clientLease = leaseTable_->macToLease(mac)) {
         reevaluateClientIps(clientLease, IpGenAddr(IpAddr()), dhcpServer, true);
      }
      return;
   }
   if (mac.isZero()) {
      removeServerLeaseByIp(ip, dhcpServer);
      return;
   }
   auto clientLease = leaseTable_->macToLease(mac);
   IntfId intf = macIntfMap_ ? macIntfMap_->intfId(mac) : IntfId();
   if (intf.isEmpty()) intf = clientLease ? clientLease->intfId() : response.intfId();
   if (intf.isEmpty()) {
      TAVRIN_TRACE(leaseTrace(), 4,
                   "No intfId in leasequery response " << int(response.messageType()));
      TAVRIN_ASSERT(!leaseQueryResponse()->queryByMac());
      return;
   }
   if (!intfConfigured(intf)) {
      TAVRIN_TRACE(leaseTrace(), 3, "intf " << intf << " not configured");
      return;
   }
   if (leaseTable_->ipToLease(ip) || clientLease) {
      updateCurrentLease(intf);
   } else {
      addLease(mac, ip, intf, dhcpServer, lastTxTime, expirationTime);
   }
}

void LeaseTableSm::updateCurrentLease(IntfId intf) {
   const auto& response = *leaseQueryResponse_;
   EthAddr mac = response.mac();
   IpGenAddr ip = response.ip();
   IpGenAddr dhcpServer = response.dhcpAddr();
   Seconds lastTxTime = response.lastTransactionTime();
   Seconds expirationTime = response.expirationTime();
   bool queryByMac = response.queryByMac();

   auto clientLease = leaseTable_->macToLease(mac);
   if (clientLease && clientLease->intfId() != intf) {
      TAVRIN_TRACE(leaseTrace(), 4,
                   "Existing lease for mac " << mac << " is on " << clientLease->intfId()
                                             << " . Moving the lease to intf " << intf);
      moveMac(mac, intf);
   }
   auto owner = leaseTable_->ipToLease(ip);
   if (!owner) {
      TAVRIN_TRACE(leaseTrace(), 4, "Adding IP " << ip << " to client lease of MAC " << mac);
      addLease(mac, ip, intf, dhcpServer, lastTxTime, expirationTime);
      if (queryByMac && clientLease) reevaluateClientIps(clientLease, ip, dhcpServer, true);
      return;
   }
   auto curIpLease = owner->ipMacLeaseByIp(ip);
   TAVRIN_ASSERT(curIpLease);
   TAVRIN_TRACE(leaseTrace(), 4,
                "Existing lease for ip " << ip << " is with " << curIpLease->mac() << " issued by "
                                         << curIpLease->dhcpAddr());
   if (lastTxTime <= curIpLease->lastTransactionTime()) {
      TAVRIN_TRACE(leaseTrace(), 4,
                   "Disregarding LeaseActive because Lease for ip " << ip << " is latest");
      if (queryByMac && clientLease) reevaluateClientIps(clientLease, ip, dhcpServer, false);
      return;
   }
   TAVRIN_TRACE(leaseTrace(), 4, "Lease for ip " << ip << " is stale");
   if (curIpLease->mac() != mac) {
      EthAddr displacedMac = curIpLease->mac();
      IntfId displacedIntf = owner->intfId();
      removeLeaseByIp(ip);
      query(displacedMac, IpGenAddr(), displacedIntf, IpGenAddr());
   } else if (curIpLease->dhcpAddr() != dhcpServer) {
      removeLeaseByIp(ip);
   }
   addLease(mac, ip, intf, dhcpServer, lastTxTime, expirationTime);
   // Removing the IP may have emptied and dropped the client: re-evaluate
   // the one that holds the MAC's leases now.
   if (queryByMac && clientLease) {
      if (auto current = leaseTable_->macToLease(mac)) {
         reevaluateClientIps(current, ip, dhcpServer, true);
      }
   }
}

void LeaseTableSm::addLease(EthAddr mac, IpGenAddr ip, IntfId intf, IpGenAddr dhcpServer,
                            Seconds lastTxTime, Seconds expirationTime) {
   TAVRIN_TRACE(leaseTrace(), 4,
                "mac: " << mac << ", ip: " << ip << ", intfId: " << intf
                        << ", dhcpAddr: " << dhcpServer << ", lastTxTime: " << TimeText{lastTxTime}
                        << ", expirationTime: " << TimeText{expirationTime});
   auto leaseStatus = leaseTable_->leaseStatus();
   if (!leaseStatus) return;
   auto set = leaseStatus->interfaceLeaseSetIs(intf);
   LeaseKey key{mac, ip, dhcpServer};
   bool existed = !!set->ipMacLease(key);
   auto ipMacLease = set->ipMacLeaseIs(key);
   ipMacLease->lastTransactionTimeIs(lastTxTime);
   ipMacLease->expirationTimeIs(expirationTime);
   if (!existed) {
      addLeaseFromStateStore(ipMacLease, intf);
      return;
   }
   auto clientLease = leaseTable_->macToLease(mac);
   auto dhcpLeaseSet = clientLease ? clientLease->dhcpLeaseSet(dhcpServer) : DhcpLeaseSet();
   if (dhcpLeaseSet && lastTxTime > dhcpLeaseSet.newestLastTransactionTime()) {
      dhcpLeaseSet.newestLastTransactionTimeIs(lastTxTime);
   }
}

void LeaseTableSm::addLeaseFromStateStore(Ptr<IpMacLease> lease, IntfId intf) {
   TAVRIN_TRACE(leaseTrace(), 4,
                "New lease added for mac "
                    << lease->mac() << ", ip: " << lease->ip()
                    << ", dhcpAddr: " << lease->dhcpAddr() << ", intfId: " << intf
                    << ", lastTxTime: " << TimeText{lease->lastTransactionTime()}
                    << ", expirationTime: " << TimeText{lease->expirationTime()});
   auto clientLease = leaseTable_->macToLeaseIs(lease->mac(), intf);
   clientLease->ipMacLeaseByIpIs(lease->ip(), lease);
   // A set without other leases has no newest time yet, whatever it stores.
   // (A MAC move re-files a lease by replacing it: the old record is gone
   // from the client by now.)
   bool first = clientLease->dhcpLeaseSetIs(lease->dhcpAddr()).ipMacLeaseSize() == 1;
   leaseTable_->ipToLeaseIs(lease->ip(), clientLease);
   leaseTable_->dhcpServerLeaseSetIs(lease->dhcpAddr())->clientLeaseIs(clientLease);
   leaseTable_->interfaceClientLeaseSetIs(intf)->clientLeaseIs(clientLease);
   // Looked up again: a view does not survive a change to the client's
   // servers, and the calls above run other machines.
   auto dhcpLeaseSet = clientLease->dhcpLeaseSet(lease->dhcpAddr());
   if (dhcpLeaseSet &&
       (first || lease->lastTransactionTime() > dhcpLeaseSet.newestLastTransactionTime())) {
      dhcpLeaseSet.newestLastTransactionTimeIs(lease->lastTransactionTime());
   }
}

void LeaseTableSm::addInterface(IntfId intf) {
   TAVRIN_TRACE(leaseTrace(), 4, "intfId: " << intf);
   if (auto leaseStatus = leaseTable_->leaseStatus()) leaseStatus->interfaceLeaseSetIs(intf);
   leaseTable_->interfaceClientLeaseSetIs(intf);
}

void LeaseTableSm::addDhcpServer(IpGenAddr dhcpServer) {
   TAVRIN_TRACE(leaseTrace(), 4, "DHCP server: " << dhcpServer);
   leaseTable_->dhcpServerLeaseSetIs(dhcpServer);
}

// ---------------------------------------------------------------- removal

void LeaseTableSm::removeServerLeaseByIp(IpGenAddr ip, IpGenAddr dhcpServer) {
   TAVRIN_TRACE(leaseTrace(), 4, "ip: " << ip << " dhcpSvr: " << dhcpServer);
   auto owner = leaseTable_->ipToLease(ip);
   if (!owner) {
      TAVRIN_TRACE(leaseTrace(), 4, "No lease present for this IP");
      return;
   }
   auto ipMacLease = owner->ipMacLeaseByIp(ip);
   TAVRIN_ASSERT(ipMacLease);
   if (ipMacLease->dhcpAddr() != dhcpServer) {
      TAVRIN_TRACE(leaseTrace(), 4, "Not deleting DHCP Server's lease because it is not used");
      return;
   }
   removeLeaseByIp(ip);
}

void LeaseTableSm::removeLeaseByIp(IpGenAddr ip) {
   TAVRIN_TRACE(leaseTrace(), 4, "ip: " << ip);
   auto owner = leaseTable_->ipToLease(ip);
   if (!owner) return;
   leaseTable_->ipToLeaseDel(ip);
   auto lease = owner->ipMacLeaseByIpDel(ip);
   if (!lease) return;
   IpGenAddr dhcpServer = lease->dhcpAddr();
   TAVRIN_TRACE(leaseTrace(), 4,
                "ip: " << ip << ", lastTxTime: " << TimeText{lease->lastTransactionTime()}
                       << ", dhcpServer: " << dhcpServer);
   if (auto dhcpLeaseSet = owner->dhcpLeaseSet(dhcpServer)) {
      // The lease has left the client, and with it the set.
      if (dhcpLeaseSet.ipMacLeaseSize() == 0) {
         owner->dhcpLeaseSetDel(dhcpServer);
         // The server set lists the clients holding a lease from the server;
         // this one holds none now, whatever else it holds.
         if (auto serverSet = leaseTable_->dhcpServerLeaseSet(dhcpServer)) {
            serverSet->clientLeaseDel(owner);
         }
      } else {
         if (dhcpLeaseSet.newestLastTransactionTime() == lease->lastTransactionTime()) {
            Seconds newest = 0;
            bool any = false;
            for (const auto& l : dhcpLeaseSet.ipMacLeaseAll()) {
               if (!any || l->lastTransactionTime() > newest) newest = l->lastTransactionTime();
               any = true;
            }
            dhcpLeaseSet.newestLastTransactionTimeIs(newest);
         }
      }
   }
   if (owner->ipMacLeaseByIpSize() == 0) {
      dropClientIfCurrent(*leaseTable_, owner);
      if (auto intfSet = leaseTable_->interfaceClientLeaseSet(owner->intfId())) {
         intfSet->clientLeaseDel(owner);
      }
      if (auto serverSet = leaseTable_->dhcpServerLeaseSet(dhcpServer)) {
         serverSet->clientLeaseDel(owner);
      }
      TAVRIN_TRACE(leaseTrace(), 4, "Deleting ClientLease for mac:" << owner->mac());
   }
   delFromLeaseStatus(leaseTable_, owner->intfId(), lease->key());
}

void LeaseTableSm::reevaluateClientIps(Ptr<ClientLease> clientLease, IpGenAddr ip,
                                       IpGenAddr dhcpServer, bool remove) {
   TAVRIN_ASSERT(!!clientLease);
   TAVRIN_TRACE(
       leaseTrace(), 4,
       "Reevaluating client IPs for MAC " << clientLease->mac() << " from server " << dhcpServer);
   IntfId intf = clientLease->intfId();
   for (const auto& lease : byIpOrder(clientLease->ipMacLeaseByIpAll())) {
      if (lease->dhcpAddr() != dhcpServer || lease->ip() == ip) {
         TAVRIN_TRACE(leaseTrace(), 4,
                      "Keeping lease for " << lease->ip() << " from server " << lease->dhcpAddr());
         continue;
      }
      TAVRIN_TRACE(
          leaseTrace(), 4,
          "Removing IP " << lease->ip() << " from client lease of MAC " << clientLease->mac());
      if (remove) removeLeaseByIp(lease->ip());
      query(EthAddr(), lease->ip(), intf, IpGenAddr());
   }
}

void LeaseTableSm::removeLeaseByMac(EthAddr mac, IpGenAddr dhcpServer) {
   TAVRIN_TRACE(leaseTrace(), 4, "mac: " << mac << ", DHCP server: " << dhcpServer);
   auto clientLease = leaseTable_->macToLease(mac);
   if (!clientLease) return;
   removeDhcpFromClientLease(leaseTable_, clientLease, dhcpServer);
   if (auto serverSet = leaseTable_->dhcpServerLeaseSet(dhcpServer)) {
      serverSet->clientLeaseDel(clientLease);
   }
}

void LeaseTableSm::removeDhcpServer(IpGenAddr dhcpServer) {
   TAVRIN_TRACE(leaseTrace(), 4, "DHCP server: " << dhcpServer);
   auto serverSet = leaseTable_->dhcpServerLeaseSet(dhcpServer);
   leaseTable_->dhcpServerLeaseSetDel(dhcpServer);
   size_t count = serverSet ? serverSet->clientLeaseSize() : 0;
   TAVRIN_TRACE(leaseTrace(), 4, "Removing " << count << " ClientLeases");
   if (!serverSet) return;
   for (const auto& clientLease : byMacOrder(*serverSet)) {
      removeDhcpFromClientLease(leaseTable_, clientLease, dhcpServer);
   }
}

void LeaseTableSm::removeIntf(IntfId intf) {
   TAVRIN_TRACE(leaseTrace(), 4, "intfId: " << intf);
   auto intfSet = leaseTable_->interfaceClientLeaseSet(intf);
   leaseTable_->interfaceClientLeaseSetDel(intf);
   size_t count = intfSet ? intfSet->clientLeaseSize() : 0;
   TAVRIN_TRACE(leaseTrace(), 4, "Removing " << count << " ClientLeases");
   if (intfSet) {
      for (const auto& clientLease : byMacOrder(*intfSet)) {
         delClientLeaseInternals(leaseTable_, clientLease);
         dropClientIfCurrent(*leaseTable_, clientLease);
      }
   }
   if (auto leaseStatus = leaseTable_->leaseStatus()) leaseStatus->interfaceLeaseSetDel(intf);
}

void removeDhcpFromClientLease(const Ptr<LeaseTable>& leaseTable,
                               const Ptr<ClientLease>& clientLease, IpGenAddr dhcpServer) {
   TAVRIN_TRACE(leaseTrace(), 4,
                "ClientLease mac: " << clientLease->mac() << ", dhcpServer: " << dhcpServer);
   // Taken before the set goes: it is a view of the client's leases.
   std::vector<Ptr<IpMacLease>> leases;
   if (auto dhcpLeaseSet = clientLease->dhcpLeaseSet(dhcpServer)) {
      leases = byIpOrder(dhcpLeaseSet.ipMacLeaseAll());
   }
   clientLease->dhcpLeaseSetDel(dhcpServer);
   TAVRIN_TRACE(leaseTrace(), 4, "Removing " << leases.size() << " IPs");
   for (const auto& ipMacLease : leases) {
      IpGenAddr ip = ipMacLease->ip();
      if (leaseTable->ipToLease(ip) == clientLease) leaseTable->ipToLeaseDel(ip);
      // clang-format off
      TAVRIN_ASSERT(ipMacLease == clientLease->ipMacLeaseByIpDel( ip ));
      // clang-format on
      delFromLeaseStatus(leaseTable, clientLease->intfId(), ipMacLease->key());
   }
   if (clientLease->dhcpLeaseSetSize() == 0) {
      TAVRIN_TRACE(leaseTrace(), 4, "Deleting clientLease");
      dropClientIfCurrent(*leaseTable, clientLease);
      if (auto intfSet = leaseTable->interfaceClientLeaseSet(clientLease->intfId())) {
         intfSet->clientLeaseDel(clientLease);
      }
   }
}

void delClientLeaseInternals(const Ptr<LeaseTable>& leaseTable,
                             const Ptr<ClientLease>& clientLease) {
   TAVRIN_TRACE(leaseTrace(), 4, "Deleting client lease for mac:" << clientLease->mac());
   for (const auto& lease : byIpOrder(clientLease->ipMacLeaseByIpAll())) {
      TAVRIN_TRACE(leaseTrace(), 4, "Removing ip:" << lease->ip());
      if (leaseTable->ipToLease(lease->ip()) == clientLease) leaseTable->ipToLeaseDel(lease->ip());
   }
   for (const auto& [dhcpServer, newest] : clientLease->dhcpLeaseSetAll()) {
      TAVRIN_TRACE(leaseTrace(), 4, "Removing clientLease from DHCP server:" << dhcpServer);
      if (auto serverSet = leaseTable->dhcpServerLeaseSet(dhcpServer)) {
         serverSet->clientLeaseDel(clientLease);
      }
   }
}

void delFromLeaseStatus(const Ptr<LeaseTable>& leaseTable, IntfId intf, LeaseKey key) {
   TAVRIN_TRACE(leaseTrace(), 4,
                "ip:" << key.ip << ", mac:" << key.mac << ", dhcpServer:" << key.dhcpAddr
                      << ", intfId:" << intf);
   auto leaseStatus = leaseTable->leaseStatus();
   if (!leaseStatus) return;
   if (auto set = leaseStatus->interfaceLeaseSet(intf)) set->ipMacLeaseDel(key);
}

// ---------------------------------------------------------------- moves and re-queries

void LeaseTableSm::handleMacMove() {
   EthAddr mac = movedMac_->mac();
   IntfId intf = movedMac_->newIntfId();
   if (!leaseTable_->macToLease(mac)) {
      TAVRIN_TRACE(leaseTrace(), 4, "No lease for MAC " << mac);
      return;
   }
   // Leases follow a MAC onto locked interfaces only: on any other port they
   // would be published for a port that nothing locks or unlocks.
   if (!intfConfigured(intf)) {
      TAVRIN_TRACE(leaseTrace(), 3, "intf " << intf << " not configured");
      return;
   }
   moveMac(mac, intf);
}

void LeaseTableSm::moveMac(EthAddr mac, IntfId newIntf) {
   auto clientLease = leaseTable_->macToLease(mac);
   if (!clientLease) return;
   IntfId oldIntf = clientLease->intfId();
   TAVRIN_TRACE(leaseTrace(), 4,
                "mac: " << mac << ", old intfId: " << oldIntf << ", new intfId: " << newIntf);
   if (oldIntf == newIntf) return;
   if (auto oldSet = leaseTable_->interfaceClientLeaseSet(oldIntf)) {
      oldSet->clientLeaseDel(clientLease);
   }
   leaseTable_->interfaceClientLeaseSetIs(newIntf)->clientLeaseIs(clientLease);
   clientLease->intfIdIs(newIntf);
   auto leaseStatus = leaseTable_->leaseStatus();
   auto oldStatusSet = leaseStatus ? leaseStatus->interfaceLeaseSet(oldIntf) : nullptr;
   for (const auto& lease : byIpOrder(clientLease->ipMacLeaseByIpAll())) {
      if (oldStatusSet) oldStatusSet->ipMacLeaseDel(lease->key());
      // The record is written anew under the new interface, and replaces the
      // old one in the client (and so in its server set); the IP is
      // re-entered so that its publication follows the interface.
      leaseTable_->ipToLeaseDel(lease->ip());
      addLease(mac, lease->ip(), newIntf, lease->dhcpAddr(), lease->lastTransactionTime(),
               lease->expirationTime());
   }
}

void LeaseTableSm::queryAllMacs(IpGenAddr dhcpServer) {
   std::vector<std::pair<EthAddr, IntfId>> macs;
   for (const auto& [mac, clientLease] : leaseTable_->macToLeaseAll()) {
      macs.emplace_back(mac, clientLease->intfId());
   }
   std::sort(macs.begin(), macs.end());
   size_t clients = macs.size();
   if (macIntfMap_) {
      for (const auto& [mac, intf] : macIntfMap_->intfIdAll()) {
         if (!leaseTable_->macToLease(mac)) macs.emplace_back(mac, intf);
      }
      std::sort(macs.begin() + long(clients), macs.end());
   }
   for (const auto& [mac, intf] : macs) query(mac, IpGenAddr(), intf, dhcpServer);
}

Ptr<LeaseTableSm> leaseTableSmFactory(Ptr<LeaseTable> leaseTable, Ptr<MacIntfMap> macIntfMap,
                                      Ptr<LeaseQueryRequest> leaseQueryRequest,
                                      Ptr<const LeaseQueryResponse> leaseQueryResponse,
                                      Ptr<const MovedMac> movedMac,
                                      Ptr<const CliConfig> cliConfig) {
   return Rt::makePtr<LeaseTableSm>(std::move(leaseTable), std::move(macIntfMap),
                                    std::move(leaseQueryRequest), std::move(leaseQueryResponse),
                                    std::move(movedMac), std::move(cliConfig));
}

}  // namespace Tavrin
