// The agent's in-memory index of the leases it holds, organised so that each
// question the state machines ask is one lookup: the leases of a MAC, the
// client of an IP, the clients of a server, the clients on an interface.
//
// The lease records are the persisted IpMacLease entities themselves; the
// table holds Ptrs to them, never copies. Only LeaseTableSm writes it.
#pragma once

#include <iterator>

#include "model/TavrinTypes.h"
#include "rt/FlatTable.h"
#include "rt/SmallMap.h"

namespace Tavrin {

class DhcpLeaseSet;

// Every lease of one client MAC, all applying on one interface.
class ClientLease : public Rt::EntityBase {
 public:
   ClientLease(EthAddr mac, IntfId intfId) : mac_(mac), intfId_(intfId) {}

   EthAddr mac() const { return mac_; }
   IntfId intfId() const { return intfId_; }
   // Only a MAC move re-files a client under another interface.
   void intfIdIs(IntfId i) { intfId_ = i; }

   using ByIp = Rt::SmallMap<IpGenAddr, Ptr<IpMacLease>>;
   // Each server the client holds a lease from, with the newest
   // last-transaction time among those leases.
   using ByServer = Rt::SmallMap<IpGenAddr, Seconds>;

   Ptr<IpMacLease> ipMacLeaseByIp(const IpGenAddr& ip) const { return Rt::mapFind(byIp_, ip); }
   const ByIp& ipMacLeaseByIpAll() const { return byIp_; }
   size_t ipMacLeaseByIpSize() const { return byIp_.size(); }
   void ipMacLeaseByIpIs(const IpGenAddr& ip, const Ptr<IpMacLease>& l) { byIp_[ip] = l; }
   // Returns the removed lease (empty when there was none).
   Ptr<IpMacLease> ipMacLeaseByIpDel(const IpGenAddr& ip);

   // Empty when the client has no set of that server.
   // As the records the sets once were, a set found through a read-only
   // client may still be written.
   inline DhcpLeaseSet dhcpLeaseSet(const IpGenAddr& s) const;
   const ByServer& dhcpLeaseSetAll() const { return dhcp_; }
   size_t dhcpLeaseSetSize() const { return dhcp_.size(); }
   inline DhcpLeaseSet dhcpLeaseSetIs(const IpGenAddr& s);
   void dhcpLeaseSetDel(const IpGenAddr& s) { dhcp_.erase(s); }

 private:
   EthAddr mac_;
   IntfId intfId_;
   // Nearly every client holds one lease from one server: both are kept
   // in place, with no table of their own.
   ByIp byIp_;
   ByServer dhcp_;
};

// One client's leases from one server. The leases are those of the client
// that name the server (a lease knows its server), so the set is a view of
// the client, not a record: a million clients would otherwise each pay for
// a second copy of their leases. Its own state, the newest last-transaction
// time, lives in the client, by server.
//
// A view holds on to the client's entry of the server: it is good until that
// client's servers change.
class DhcpLeaseSet {
 public:
   // The client's leases of the set's server, in the client's order.
   class LeaseRange {
    public:
      class iterator {
       public:
         using value_type = Ptr<IpMacLease>;
         using difference_type = std::ptrdiff_t;
         iterator() = default;
         iterator(const ClientLease::ByIp::value_type* at, const ClientLease::ByIp::value_type* end,
                  const IpGenAddr* server)
             : at_(at), end_(end), server_(server) {
            skip();
         }
         const Ptr<IpMacLease>& operator*() const { return at_->second; }
         iterator& operator++() {
            ++at_;
            skip();
            return *this;
         }
         iterator operator++(int) {
            iterator old = *this;
            ++*this;
            return old;
         }
         bool operator==(const iterator& o) const { return at_ == o.at_; }

       private:
         void skip() {
            while (at_ != end_ && !(at_->second->dhcpAddr() == *server_)) ++at_;
         }
         const ClientLease::ByIp::value_type* at_ = nullptr;
         const ClientLease::ByIp::value_type* end_ = nullptr;
         const IpGenAddr* server_ = nullptr;
      };
      LeaseRange(const ClientLease::ByIp& byIp, const IpGenAddr& server)
          : byIp_(byIp), server_(server) {}
      iterator begin() const { return {byIp_.begin(), byIp_.end(), &server_}; }
      iterator end() const { return {byIp_.end(), byIp_.end(), &server_}; }
      size_t size() const { return size_t(std::distance(begin(), end())); }

    private:
      const ClientLease::ByIp& byIp_;
      const IpGenAddr& server_;
   };

   DhcpLeaseSet() = default;
   DhcpLeaseSet(const ClientLease& client, ClientLease::ByServer::value_type& entry)
       : client_(&client), entry_(&entry) {}

   explicit operator bool() const { return entry_ != nullptr; }

   const IpGenAddr& dhcpAddr() const { return entry_->first; }
   LeaseRange ipMacLeaseAll() const { return {client_->ipMacLeaseByIpAll(), entry_->first}; }
   size_t ipMacLeaseSize() const { return ipMacLeaseAll().size(); }
   bool ipMacLeaseHas(const Ptr<IpMacLease>& l) const {
      return l && l->dhcpAddr() == dhcpAddr() && client_->ipMacLeaseByIp(l->ip()) == l;
   }
   Seconds newestLastTransactionTime() const { return entry_->second; }
   void newestLastTransactionTimeIs(Seconds t) { entry_->second = t; }

 private:
   const ClientLease* client_ = nullptr;
   ClientLease::ByServer::value_type* entry_ = nullptr;
};

DhcpLeaseSet ClientLease::dhcpLeaseSet(const IpGenAddr& s) const {
   auto it = dhcp_.find(s);
   if (it == dhcp_.end()) return DhcpLeaseSet();
   return DhcpLeaseSet(*this, const_cast<ByServer::value_type&>(*it));
}

DhcpLeaseSet ClientLease::dhcpLeaseSetIs(const IpGenAddr& s) {
   // A new server starts with no newest time; the first lease sets it.
   return DhcpLeaseSet(*this, *dhcp_.try_emplace(s, Seconds(0)).first);
}

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

// The leased IPs, each with the MAC of the client that holds it: the
// trapped-frame check is answered from the slot alone, and the client is one
// more probe, of the clients by MAC. A slot is 23 bytes, with no pointer: at
// a million leases the index is the table's largest, and a pointer per slot
// would cost a third more memory and cache. An unused slot has no address
// family; the empty address is filed as 0.0.0.0, which it equals.
class LeasedIpIndex {
   struct Slot {
      IpGenAddr ip;
      EthAddr mac;
   };
   struct Traits {
      using Slot = LeasedIpIndex::Slot;
      using Key = IpGenAddr;
      static bool used(const Slot& s) { return !s.ip.isEmpty(); }
      static const IpGenAddr& key(const Slot& s) { return s.ip; }
      static size_t hash(const IpGenAddr& k) { return k.hash(); }
   };
   using Table = Rt::FlatTable<Traits>;

 public:
   using Clients = Rt::FlatMap<EthAddr, ClientLease>;
   using key_type = IpGenAddr;
   using mapped_type = Ptr<ClientLease>;

   // Yields (IP, client) pairs, the client looked up by the slot's MAC.
   struct AsPair {
      const Clients* clients = nullptr;
      std::pair<const IpGenAddr&, Ptr<ClientLease>> operator()(const Slot& s) const {
         return {s.ip, Ptr<ClientLease>(clients->get(s.mac))};
      }
   };
   using const_iterator = Rt::ProjectingIterator<Table::Iterator<const Slot>, AsPair>;
   using iterator = const_iterator;

   explicit LeasedIpIndex(const Clients& clients) : clients_(clients) {}

   size_t size() const { return t_.size(); }
   bool empty() const { return t_.empty(); }
   void reserve(size_t n) { t_.reserve(n); }
   const_iterator begin() const { return const_iterator(t_.begin(), AsPair{&clients_}); }
   const_iterator end() const { return const_iterator(t_.end(), AsPair{&clients_}); }

   ClientLease* get(const IpGenAddr& ip) const {
      const Slot* s = t_.findSlot(ip);
      return s ? clients_.get(s->mac) : nullptr;
   }
   bool pairHas(EthAddr mac, const IpGenAddr& ip) const {
      const Slot* s = t_.findSlot(ip);
      return s && s->mac == mac;
   }
   void prefetch(const IpGenAddr& ip) const { t_.prefetch(ip); }
   // Calls f(ip, mac) for every leased IP and its holder's MAC, without
   // the lookup of the client that iterating pays per IP.
   template <class F>
   void forEachIpMac(F&& f) const {
      for (const Slot& s : t_) f(s.ip, s.mac);
   }
   // True when the member was added or changed. A MAC has one client, so
   // the same MAC is the same holder.
   bool assign(const IpGenAddr& ip, const Ptr<ClientLease>& c) {
      Slot& s = t_.slotFor(ip);
      const bool fresh = !Traits::used(s);
      if (!fresh && s.mac == c->mac()) return false;
      if (fresh) t_.filled();
      s.ip = ip.isEmpty() ? IpGenAddr(IpAddr()) : ip;
      s.mac = c->mac();
      return true;
   }
   size_t erase(const IpGenAddr& ip) { return t_.eraseKey(ip); }

 private:
   const Clients& clients_;
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

   explicit LeaseTable(Ptr<LeaseStatus> leaseStatus)
       : leaseStatus_(std::move(leaseStatus)), ip_(mac_) {}

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
   // f(ip, mac) for every leased IP: what a full walk needs, at one probe
   // less per IP than iterating ipToLeaseAll.
   template <class F>
   void ipToLeaseMacEach(F&& f) const {
      ip_.forEachIpMac(std::forward<F>(f));
   }
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
