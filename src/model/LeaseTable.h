// The agent's in-memory index of the leases it holds, organised so that each
// question the state machines ask is one lookup: the leases of a MAC, the
// client of an IP, the clients of a server, the clients on an interface.
//
// The lease records are the persisted IpMacLease entities themselves; the
// table holds Ptrs to them, never copies. Only LeaseTableSm writes it.
#pragma once

#include "model/TavrinTypes.h"
#include "rt/FlatTable.h"
#include "rt/SmallMap.h"

namespace Tavrin {

// One client's leases from one server.
class DhcpLeaseSet : public Rt::EntityBase {
 public:
   using LeaseSet = Rt::SmallSet<Ptr<IpMacLease>>;
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

   using ByIp = Rt::SmallMap<IpGenAddr, Ptr<IpMacLease>>;
   using ByServer = Rt::SmallMap<IpGenAddr, Ptr<DhcpLeaseSet>>;

   Ptr<IpMacLease> ipMacLeaseByIp(const IpGenAddr& ip) const { return Rt::mapFind(byIp_, ip); }
   const ByIp& ipMacLeaseByIpAll() const { return byIp_; }
   size_t ipMacLeaseByIpSize() const { return byIp_.size(); }
   void ipMacLeaseByIpIs(const IpGenAddr& ip, const Ptr<IpMacLease>& l) { byIp_[ip] = l; }
   // Returns the removed lease (empty when there was none).
   Ptr<IpMacLease> ipMacLeaseByIpDel(const IpGenAddr& ip);

   Ptr<DhcpLeaseSet> dhcpLeaseSet(const IpGenAddr& s) const { return Rt::mapFind(dhcp_, s); }
   const ByServer& dhcpLeaseSetAll() const { return dhcp_; }
   size_t dhcpLeaseSetSize() const { return dhcp_.size(); }
   Ptr<DhcpLeaseSet> dhcpLeaseSetIs(const IpGenAddr& s);
   void dhcpLeaseSetDel(const IpGenAddr& s) { dhcp_.erase(s); }

 private:
   EthAddr mac_;
   IntfId intfId_;
   // Nearly every client holds one lease from one server: both are kept
   // in place, with no table of their own.
   ByIp byIp_;
   ByServer dhcp_;
};

// A set of client leases, keyed by the record itself.
class ClientLeaseSet : public Rt::EntityBase {
 public:
   using Set = Rt::FlatPtrSet<ClientLease>;
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

// The leased IPs, each with the client that holds it. The slot also keeps
// the client's MAC (it fits in the padding), so that the trapped-frame check
// is answered from the slot alone, with no visit to the client record.
class LeasedIpIndex {
   struct Slot {
      IpGenAddr ip;
      EthAddr mac;
      Ptr<ClientLease> client;
   };
   struct Traits {
      using Slot = LeasedIpIndex::Slot;
      using Key = IpGenAddr;
      static bool used(const Slot& s) { return bool(s.client); }
      static const IpGenAddr& key(const Slot& s) { return s.ip; }
      static size_t hash(const IpGenAddr& k) { return k.hash(); }
   };
   using Table = Rt::FlatTable<Traits>;

 public:
   using key_type = IpGenAddr;
   using mapped_type = Ptr<ClientLease>;

   struct AsPair {
      std::pair<const IpGenAddr&, const Ptr<ClientLease>&> operator()(const Slot& s) const {
         return {s.ip, s.client};
      }
   };
   using const_iterator = Rt::ProjectingIterator<Table::Iterator<const Slot>, AsPair>;
   using iterator = const_iterator;

   size_t size() const { return t_.size(); }
   bool empty() const { return t_.empty(); }
   void reserve(size_t n) { t_.reserve(n); }
   const_iterator begin() const { return const_iterator(t_.begin()); }
   const_iterator end() const { return const_iterator(t_.end()); }

   ClientLease* get(const IpGenAddr& ip) const {
      const Slot* s = t_.findSlot(ip);
      return s ? s->client.get() : nullptr;
   }
   bool pairHas(EthAddr mac, const IpGenAddr& ip) const {
      const Slot* s = t_.findSlot(ip);
      return s && s->mac == mac;
   }
   void prefetch(const IpGenAddr& ip) const { t_.prefetch(ip); }
   // True when the member was added or changed.
   bool assign(const IpGenAddr& ip, const Ptr<ClientLease>& c) {
      Slot& s = t_.slotFor(ip);
      if (s.client == c) return false;
      if (!s.client) t_.filled();
      s.ip = ip;
      s.mac = c->mac();
      s.client = c;
      return true;
   }
   size_t erase(const IpGenAddr& ip) { return t_.eraseKey(ip); }

 private:
   Table t_;
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

   using ByMac = Rt::FlatMap<EthAddr, ClientLease>;
   using ByIp = LeasedIpIndex;

   Ptr<ClientLease> macToLease(EthAddr mac) const { return Ptr<ClientLease>(mac_.get(mac)); }
   const ByMac& macToLeaseAll() const { return mac_; }
   // The trapped-frame check: whether mac holds a lease of ip. Asked for
   // every trapped frame, so it is one probe of the IP index: an IP is
   // held by one client at most, and the index names it.
   bool ipMacLeaseHas(EthAddr mac, const IpGenAddr& ip) const { return ip_.pairHas(mac, ip); }
   // Called for each frame of a batch before checking any: the probes'
   // cache misses then overlap instead of coming one after the other.
   void ipMacLeaseHasPrefetch(const IpGenAddr& ip) const { ip_.prefetch(ip); }
   // Find-or-create. A client of that MAC on another interface is not
   // re-filed: the call fails with the name-in-use error (std::logic_error)
   // and leaves the table unchanged; a move deletes and re-creates instead.
   Ptr<ClientLease> macToLeaseIs(EthAddr mac, IntfId intfId);
   void macToLeaseDel(EthAddr mac);

   Ptr<ClientLease> ipToLease(const IpGenAddr& ip) const { return Ptr<ClientLease>(ip_.get(ip)); }
   const ByIp& ipToLeaseAll() const { return ip_; }
   void ipToLeaseIs(const IpGenAddr& ip, const Ptr<ClientLease>& c);
   void ipToLeaseDel(const IpGenAddr& ip);

   void reserve(size_t leases);

 private:
   Ptr<LeaseStatus> leaseStatus_;
   std::map<IntfId, Ptr<InterfaceClientLeaseSet>> intf_;
   std::map<IpGenAddr, Ptr<DhcpServerLeaseSet>> server_;
   ByMac mac_;
   ByIp ip_;
};

}  // namespace Tavrin
