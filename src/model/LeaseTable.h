// The agent's in-memory index of the leases it holds, organised so that each
// question the state machines ask is one lookup: the leases of a MAC, the
// client of an IP, the clients of a server, the clients on an interface.
//
// The lease records are the persisted IpMacLease entities themselves; the
// table holds Ptrs to them, never copies. Only LeaseTableSm writes it.
#pragma once

#include <unordered_map>
#include <unordered_set>

#include "model/TavrinTypes.h"

namespace Tavrin {

// One client's leases from one server.
class DhcpLeaseSet : public Rt::EntityBase {
 public:
   using LeaseSet = std::unordered_set<Ptr<IpMacLease>>;
   explicit DhcpLeaseSet(const IpGenAddr& dhcpAddr) : dhcpAddr_(dhcpAddr) {}

   const IpGenAddr& dhcpAddr() const { return dhcpAddr_; }
   bool ipMacLeaseHas(const Ptr<IpMacLease>& l) const { return lease_.count(l) != 0; }
   const LeaseSet& ipMacLeaseAll() const { return lease_; }
   size_t ipMacLeaseSize() const { return lease_.size(); }
   void ipMacLeaseIs(const Ptr<IpMacLease>& l) { lease_.insert(l); }
   void ipMacLeaseDel(const Ptr<IpMacLease>& l) { lease_.erase(l); }
   Seconds newestLastTransactionTime() const { return newest_; }
   void newestLastTransactionTimeIs(Seconds t) { newest_ = t; }

 private:
   IpGenAddr dhcpAddr_;
   LeaseSet lease_;
   Seconds newest_ = 0;
};

// Every lease of one client MAC, all applying on one interface.
class ClientLease : public Rt::EntityBase {
 public:
   ClientLease(EthAddr mac, IntfId intfId) : mac_(mac), intfId_(intfId) {}

   EthAddr mac() const { return mac_; }
   IntfId intfId() const { return intfId_; }
   // Only a MAC move re-files a client under another interface.
   void intfIdIs(IntfId i) { intfId_ = i; }

   Ptr<IpMacLease> ipMacLeaseByIp(const IpGenAddr& ip) const { return Rt::mapFind(byIp_, ip); }
   const std::unordered_map<IpGenAddr, Ptr<IpMacLease>>& ipMacLeaseByIpAll() const { return byIp_; }
   size_t ipMacLeaseByIpSize() const { return byIp_.size(); }
   void ipMacLeaseByIpIs(const IpGenAddr& ip, const Ptr<IpMacLease>& l) { byIp_[ip] = l; }
   // Returns the removed lease (empty when there was none).
   Ptr<IpMacLease> ipMacLeaseByIpDel(const IpGenAddr& ip);

   Ptr<DhcpLeaseSet> dhcpLeaseSet(const IpGenAddr& s) const { return Rt::mapFind(dhcp_, s); }
   const std::map<IpGenAddr, Ptr<DhcpLeaseSet>>& dhcpLeaseSetAll() const { return dhcp_; }
   size_t dhcpLeaseSetSize() const { return dhcp_.size(); }
   Ptr<DhcpLeaseSet> dhcpLeaseSetIs(const IpGenAddr& s);
   void dhcpLeaseSetDel(const IpGenAddr& s) { dhcp_.erase(s); }

 private:
   EthAddr mac_;
   IntfId intfId_;
   std::unordered_map<IpGenAddr, Ptr<IpMacLease>> byIp_;
   // A client has leases from one or two servers: a small ordered map.
   std::map<IpGenAddr, Ptr<DhcpLeaseSet>> dhcp_;
};

// A set of client leases, keyed by the record itself.
class ClientLeaseSet : public Rt::EntityBase {
 public:
   using Set = std::unordered_set<Ptr<ClientLease>>;
   bool clientLeaseHas(const Ptr<ClientLease>& c) const { return client_.count(c) != 0; }
   const Set& clientLeaseAll() const { return client_; }
   size_t clientLeaseSize() const { return client_.size(); }
   void clientLeaseIs(const Ptr<ClientLease>& c) { client_.insert(c); }
   void clientLeaseDel(const Ptr<ClientLease>& c) { client_.erase(c); }

 private:
   Set client_;
};

// Every client that holds at least one lease from one server.
class DhcpServerLeaseSet : public ClientLeaseSet {
 public:
   explicit DhcpServerLeaseSet(const IpGenAddr& dhcpAddr) : dhcpAddr_(dhcpAddr) {}
   const IpGenAddr& dhcpAddr() const { return dhcpAddr_; }

 private:
   IpGenAddr dhcpAddr_;
};

// Every client on one interface.
class InterfaceClientLeaseSet : public ClientLeaseSet {
 public:
   explicit InterfaceClientLeaseSet(IntfId intfId) : intfId_(intfId) {}
   IntfId intfId() const { return intfId_; }

 private:
   IntfId intfId_;
};

class LeaseTable : public Rt::EntityBase {
 public:
   class Notifiee : public Rt::Notifiee<LeaseTable> {
    public:
      using Rt::Notifiee<LeaseTable>::Notifiee;
      virtual void onIpToLease(const IpGenAddr&) {}
      virtual void onMacToLease(EthAddr) {}
      virtual void onInterfaceClientLeaseSet(IntfId) {}
      virtual void onDhcpServerLeaseSet(const IpGenAddr&) {}
   };

   explicit LeaseTable(Ptr<LeaseStatus> leaseStatus) : leaseStatus_(std::move(leaseStatus)) {}

   const Ptr<LeaseStatus>& leaseStatus() const { return leaseStatus_; }

   Ptr<InterfaceClientLeaseSet> interfaceClientLeaseSet(IntfId i) const {
      return Rt::mapFind(intf_, i);
   }
   const std::map<IntfId, Ptr<InterfaceClientLeaseSet>>& interfaceClientLeaseSetAll() const {
      return intf_;
   }
   Ptr<InterfaceClientLeaseSet> interfaceClientLeaseSetIs(IntfId i);
   void interfaceClientLeaseSetDel(IntfId i);

   Ptr<DhcpServerLeaseSet> dhcpServerLeaseSet(const IpGenAddr& s) const {
      return Rt::mapFind(server_, s);
   }
   const std::map<IpGenAddr, Ptr<DhcpServerLeaseSet>>& dhcpServerLeaseSetAll() const {
      return server_;
   }
   Ptr<DhcpServerLeaseSet> dhcpServerLeaseSetIs(const IpGenAddr& s);
   void dhcpServerLeaseSetDel(const IpGenAddr& s);

   Ptr<ClientLease> macToLease(EthAddr mac) const { return Rt::mapFind(mac_, mac); }
   const std::unordered_map<EthAddr, Ptr<ClientLease>>& macToLeaseAll() const { return mac_; }
   // Find-or-create. A client of that MAC on another interface is not
   // re-filed: the call fails with the name-in-use error (std::logic_error)
   // and leaves the table unchanged; a move deletes and re-creates instead.
   Ptr<ClientLease> macToLeaseIs(EthAddr mac, IntfId intfId);
   void macToLeaseDel(EthAddr mac);

   Ptr<ClientLease> ipToLease(const IpGenAddr& ip) const { return Rt::mapFind(ip_, ip); }
   const std::unordered_map<IpGenAddr, Ptr<ClientLease>>& ipToLeaseAll() const { return ip_; }
   void ipToLeaseIs(const IpGenAddr& ip, const Ptr<ClientLease>& c);
   void ipToLeaseDel(const IpGenAddr& ip);

   void reserve(size_t leases);

 private:
   Ptr<LeaseStatus> leaseStatus_;
   std::map<IntfId, Ptr<InterfaceClientLeaseSet>> intf_;
   std::map<IpGenAddr, Ptr<DhcpServerLeaseSet>> server_;
   std::unordered_map<EthAddr, Ptr<ClientLease>> mac_;
   std::unordered_map<IpGenAddr, Ptr<ClientLease>> ip_;
};

}  // namespace Tavrin
