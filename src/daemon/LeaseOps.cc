#include "daemon/LeaseOps.h"

#include <unordered_set>

namespace Tavrin::Daemon {

Ptr<TavrinRoot> AgentLeaseOps::root() const {
   auto agent = agent_();
   if (!agent || !agent->tavrinRoot() || !agent->tavrinRoot()->leaseTableSm()) return nullptr;
   return agent->tavrinRoot();
}

bool AgentLeaseOps::removeIntf(IntfId intf) {
   auto r = root();
   if (!r) return false;
   r->leaseTableSm()->removeIntf(intf);
   return true;
}

bool AgentLeaseOps::removeDhcpServer(IpAddr server) {
   auto r = root();
   if (!r) return false;
   r->leaseTableSm()->removeDhcpServer(IpGenAddr(server));
   return true;
}

bool AgentLeaseOps::removeLeaseByMac(EthAddr mac, IpAddr server) {
   auto r = root();
   if (!r) return false;
   r->leaseTableSm()->removeLeaseByMac(mac, IpGenAddr(server));
   return true;
}

std::optional<size_t> AgentLeaseOps::queryAllMacs(std::optional<IpAddr> server) {
   auto r = root();
   if (!r) return std::nullopt;
   // The machine asks for the leased clients and for the MACs learned on
   // locked ports; count the union the same way.
   std::unordered_set<EthAddr> macs;
   if (r->leaseTable()) {
      for (const auto& [mac, client] : r->leaseTable()->macToLeaseAll()) macs.insert(mac);
   }
   if (r->macIntfMap()) {
      for (const auto& [mac, intf] : r->macIntfMap()->intfIdAll()) macs.insert(mac);
   }
   r->leaseTableSm()->queryAllMacs(server ? IpGenAddr(*server) : IpGenAddr());
   return macs.size();
}

std::vector<IpAddr> AgentLeaseOps::serversOfMac(EthAddr mac) const {
   std::vector<IpAddr> out;
   auto r = root();
   if (!r || !r->leaseTable()) return out;
   auto client = r->leaseTable()->macToLease(mac);
   if (!client) return out;
   for (const auto& [server, set] : client->dhcpLeaseSetAll()) {
      if (server.isV4() || server.isEmpty()) out.push_back(server.v4Addr());
   }
   return out;
}

}  // namespace Tavrin::Daemon
