#include "model/LeaseTable.h"

namespace Tavrin {

// A million clients each have one: 120 bytes make a 128-byte heap block.
static_assert(sizeof(void*) != 8 || sizeof(ClientLease) <= 120,
              "ClientLease has left the 128-byte heap block");

Ptr<IpMacLease> ClientLease::ipMacLeaseByIpDel(const IpGenAddr& ip) {
   auto it = byIp_.find(ip);
   if (it == byIp_.end()) return nullptr;
   Ptr<IpMacLease> removed = std::move(it->second);
   byIp_.erase(it);
   return removed;
}

Ptr<InterfaceClientLeaseSet> LeaseTable::interfaceClientLeaseSetIs(IntfId i) {
   auto& slot = intf_[i];
   if (slot) return slot;
   slot = Rt::makePtr<InterfaceClientLeaseSet>(i);
   Ptr<InterfaceClientLeaseSet> result = slot;
   notify<Notifiee>([i](Notifiee& n) { n.onInterfaceClientLeaseSet(i); });
   return result;
}

void LeaseTable::interfaceClientLeaseSetDel(IntfId i) {
   if (intf_.erase(i)) notify<Notifiee>([i](Notifiee& n) { n.onInterfaceClientLeaseSet(i); });
}

Ptr<DhcpServerLeaseSet> LeaseTable::dhcpServerLeaseSetIs(const IpGenAddr& s) {
   auto& slot = server_[s];
   if (slot) return slot;
   slot = Rt::makePtr<DhcpServerLeaseSet>(s);
   Ptr<DhcpServerLeaseSet> result = slot;
   notify<Notifiee>([&s](Notifiee& n) { n.onDhcpServerLeaseSet(s); });
   return result;
}

void LeaseTable::dhcpServerLeaseSetDel(const IpGenAddr& server) {
   IpGenAddr s = server;
   if (server_.erase(s)) notify<Notifiee>([&s](Notifiee& n) { n.onDhcpServerLeaseSet(s); });
}

Ptr<ClientLease> LeaseTable::macToLeaseIs(EthAddr mac, IntfId intfId) {
   if (auto existing = Rt::mapFind(mac_, mac)) {
      if (existing->intfId() != intfId) {
         throw Rt::NameInUseError(
             "Reinstantiating the pointer interface where constructor parameter attribute "
             "_intfId has a different value of " +
             intfId.name() + " than the current value of " + existing->intfId().name() +
             " not allowed");
      }
      return existing;
   }
   auto c = Rt::makePtr<ClientLease>(mac, intfId);
   mac_.emplace(mac, c);
   notify<Notifiee>([mac](Notifiee& n) { n.onMacToLease(mac); });
   return c;
}

void LeaseTable::macToLeaseDel(EthAddr mac) {
   if (mac_.erase(mac)) notify<Notifiee>([mac](Notifiee& n) { n.onMacToLease(mac); });
}

void LeaseTable::ipToLeaseIs(const IpGenAddr& ip, const Ptr<ClientLease>& c) {
   if (!c) {
      ipToLeaseDel(ip);
      return;
   }
   IpGenAddr key = ip;
   if (ip_.assign(key, c)) notify<Notifiee>([&key](Notifiee& n) { n.onIpToLease(key); });
}

void LeaseTable::ipToLeaseDel(const IpGenAddr& ip) {
   IpGenAddr key = ip;
   if (ip_.erase(key)) notify<Notifiee>([&key](Notifiee& n) { n.onIpToLease(key); });
}

void LeaseTable::reserve(size_t leases) {
   mac_.reserve(leases);
   ip_.reserve(leases);
}

}  // namespace Tavrin
