// The entities the agent shares with the configuration front end and the
// hardware-programming agent, through the state store and shared-memory
// tables. Their attribute names, keys and value types are the contract with
// those agents; keep them stable.
#pragma once

#include <map>
#include <set>
#include <unordered_map>

#include "rt/Collection.h"
#include "rt/Entity.h"
#include "rt/FlatTable.h"
#include "rt/Types.h"

namespace Tavrin {

using Rt::Ptr;

// ---------------------------------------------------------------- keys

// A lease within its interface: the same client and address from two
// servers are two leases.
struct LeaseKey {
   EthAddr mac;
   IpGenAddr ip;
   IpGenAddr dhcpAddr;
   auto operator<=>(const LeaseKey&) const = default;
   bool operator==(const LeaseKey&) const = default;
};

// A published (MAC, IP) pair; at most one entry per pair, whatever its interface.
struct IpMacLeaseKey {
   EthAddr mac;
   IpGenAddr ip;
   auto operator<=>(const IpMacLeaseKey&) const = default;
   bool operator==(const IpMacLeaseKey&) const = default;
};

struct IpMacLeaseEntry {
   IpMacLeaseKey key;
   IntfId intfId;
   bool flag = false;  // reserved for the reader; the agent writes false
   bool operator==(const IpMacLeaseEntry&) const = default;
};

std::ostream& operator<<(std::ostream& os, const LeaseKey& k);

}  // namespace Tavrin

template <>
struct std::hash<Tavrin::LeaseKey> {
   size_t operator()(const Tavrin::LeaseKey& k) const {
      return Tavrin::hashCombine(Tavrin::hashCombine(std::hash<Tavrin::EthAddr>()(k.mac), k.ip.hash()),
                                 k.dhcpAddr.hash());
   }
};
template <>
struct std::hash<Tavrin::IpMacLeaseKey> {
   size_t operator()(const Tavrin::IpMacLeaseKey& k) const {
      return Tavrin::hashCombine(std::hash<Tavrin::EthAddr>()(k.mac), k.ip.hash());
   }
};

namespace Tavrin {

// ---------------------------------------------------------------- configuration

// One configured interface.
class IntfConfig : public Rt::EntityBase {
 public:
   class Notifiee : public Rt::Notifiee<IntfConfig> {
    public:
      using Rt::Notifiee<IntfConfig>::Notifiee;
      virtual void onIpv4() {}
      virtual void onIpv6() {}
   };
   explicit IntfConfig(IntfId intfId) : intfId_(intfId) {}

   IntfId intfId() const { return intfId_; }
   bool ipv4() const { return ipv4_; }
   void ipv4Is(bool v);
   bool ipv6() const { return ipv6_; }
   void ipv6Is(bool v);

 private:
   IntfId intfId_;
   bool ipv4_ = false;
   bool ipv6_ = false;
};

// The user's configuration of the feature; the agent only reads it.
class CliConfig : public Rt::EntityBase {
 public:
   class Notifiee : public Rt::Notifiee<CliConfig> {
    public:
      using Rt::Notifiee<CliConfig>::Notifiee;
      virtual void onConfigured() {}
      virtual void onDisabled() {}
      virtual void onLocalInterface() {}
      virtual void onDhcpV4Server(IpAddr) {}
      virtual void onDhcpV6Server(const Ip6Addr&) {}
      virtual void onInterface(IntfId) {}
      virtual void onReflector(const IpGenAddr&) {}
      virtual void onReflectorRole() {}
   };

   bool configured() const { return configured_; }
   void configuredIs(bool v);
   bool disabled() const { return disabled_; }
   void disabledIs(bool v);
   IntfId localInterface() const { return localInterface_; }
   void localInterfaceIs(IntfId v);

   bool dhcpV4ServerHas(IpAddr a) const { return dhcpV4Server_.count(a) != 0; }
   const std::set<IpAddr>& dhcpV4ServerAll() const { return dhcpV4Server_; }
   void dhcpV4ServerIs(IpAddr a);
   void dhcpV4ServerDel(IpAddr a);

   bool dhcpV6ServerHas(const Ip6Addr& a) const { return dhcpV6Server_.count(a) != 0; }
   const std::set<Ip6Addr>& dhcpV6ServerAll() const { return dhcpV6Server_; }
   void dhcpV6ServerIs(const Ip6Addr& a);
   void dhcpV6ServerDel(const Ip6Addr& a);

   Ptr<const IntfConfig> interface(IntfId i) const { return Rt::mapFind(interface_, i); }
   Ptr<IntfConfig> interface(IntfId i) { return Rt::mapFind(interface_, i); }
   const std::map<IntfId, Ptr<IntfConfig>>& interfaceAll() const { return interface_; }
   // Find-or-create. A new member appears with its settings in place, so
   // that followers never see it half configured.
   Ptr<IntfConfig> interfaceIs(IntfId i);
   Ptr<IntfConfig> interfaceIs(IntfId i, bool ipv4);
   void interfaceDel(IntfId i);

   bool reflectorHas(const IpGenAddr& a) const { return reflector_.count(a) != 0; }
   void reflectorIs(const IpGenAddr& a);
   void reflectorDel(const IpGenAddr& a);
   uint32_t reflectorRole() const { return reflectorRole_; }
   void reflectorRoleIs(uint32_t v);

 private:
   bool configured_ = false;
   bool disabled_ = false;
   IntfId localInterface_;
   std::set<IpAddr> dhcpV4Server_;
   std::set<Ip6Addr> dhcpV6Server_;
   std::map<IntfId, Ptr<IntfConfig>> interface_;
   std::set<IpGenAddr> reflector_;
   uint32_t reflectorRole_ = 0;
};

using InterfaceRule = uint32_t;

// Which interfaces carry a locking rule; written by the configuration machine.
class ConfiguredInterfaceStatus : public Rt::EntityBase {
 public:
   class Notifiee : public Rt::Notifiee<ConfiguredInterfaceStatus> {
    public:
      using Rt::Notifiee<ConfiguredInterfaceStatus>::Notifiee;
      virtual void onInterfaceRule(IntfId) {}
   };
   std::optional<InterfaceRule> interfaceRule(IntfId i) const;
   const std::map<IntfId, InterfaceRule>& interfaceRuleAll() const { return interfaceRule_; }
   void interfaceRuleIs(IntfId i, InterfaceRule rule);
   void interfaceRuleDel(IntfId i);

 private:
   std::map<IntfId, InterfaceRule> interfaceRule_;
};

// ---------------------------------------------------------------- persisted leases

// One persisted lease. Its times are on the agent's clock.
class IpMacLease : public Rt::EntityBase {
 public:
   class Notifiee : public Rt::Notifiee<IpMacLease> {
    public:
      using Rt::Notifiee<IpMacLease>::Notifiee;
      virtual void onLastTransactionTime() {}
      virtual void onExpirationTime() {}
   };
   explicit IpMacLease(const LeaseKey& key) : key_(key) {}

   const LeaseKey& key() const { return key_; }
   EthAddr mac() const { return key_.mac; }
   const IpGenAddr& ip() const { return key_.ip; }
   const IpGenAddr& dhcpAddr() const { return key_.dhcpAddr; }
   Seconds lastTransactionTime() const { return lastTransactionTime_; }
   void lastTransactionTimeIs(Seconds t);
   Seconds expirationTime() const { return expirationTime_; }
   void expirationTimeIs(Seconds t);

 private:
   LeaseKey key_;
   Seconds lastTransactionTime_ = 0;
   Seconds expirationTime_ = 0;
};

// The leases held on one interface.
class InterfaceLeaseSet : public Rt::EntityBase {
 public:
   class Notifiee : public Rt::Notifiee<InterfaceLeaseSet> {
    public:
      using Rt::Notifiee<InterfaceLeaseSet>::Notifiee;
      virtual void onIpMacLease(const LeaseKey&) {}
   };
   struct KeyOf {
      const LeaseKey& operator()(const IpMacLease& l) const { return l.key(); }
   };
   // The lease holds its own key: the set stores only the Ptr.
   using LeaseMap = Rt::FlatKeyedMap<IpMacLease, KeyOf>;
   explicit InterfaceLeaseSet(IntfId intfId) : intfId_(intfId) {}

   IntfId intfId() const { return intfId_; }
   Ptr<const IpMacLease> ipMacLease(const LeaseKey& k) const {
      return Ptr<const IpMacLease>(lease_.get(k));
   }
   Ptr<IpMacLease> ipMacLease(const LeaseKey& k) { return Ptr<IpMacLease>(lease_.get(k)); }
   void reserve(size_t n) { lease_.reserve(n); }
   const LeaseMap& ipMacLeaseAll() const { return lease_; }
   size_t ipMacLeaseSize() const { return lease_.size(); }
   // Find-or-create.
   Ptr<IpMacLease> ipMacLeaseIs(const LeaseKey& k);
   void ipMacLeaseDel(const LeaseKey& k);

 private:
   IntfId intfId_;
   LeaseMap lease_;
};

// Every persisted lease, by interface.
class LeaseStatus : public Rt::EntityBase {
 public:
   class Notifiee : public Rt::Notifiee<LeaseStatus> {
    public:
      using Rt::Notifiee<LeaseStatus>::Notifiee;
      virtual void onInterfaceLeaseSet(IntfId) {}
   };
   Ptr<const InterfaceLeaseSet> interfaceLeaseSet(IntfId i) const { return Rt::mapFind(set_, i); }
   Ptr<InterfaceLeaseSet> interfaceLeaseSet(IntfId i) { return Rt::mapFind(set_, i); }
   const std::map<IntfId, Ptr<InterfaceLeaseSet>>& interfaceLeaseSetAll() const { return set_; }
   // Find-or-create.
   Ptr<InterfaceLeaseSet> interfaceLeaseSetIs(IntfId i);
   void interfaceLeaseSetDel(IntfId i);

 private:
   std::map<IntfId, Ptr<InterfaceLeaseSet>> set_;
};

// ---------------------------------------------------------------- shared-memory tables

// A keyed table of published (MAC, IP) entries. The "tavrin/status" table
// the agent writes and the installed-config table the data plane writes
// back have this shape.
class IpMacLeaseTable : public Rt::EntityBase {
 public:
   class Notifiee : public Rt::Notifiee<IpMacLeaseTable> {
    public:
      using Rt::Notifiee<IpMacLeaseTable>::Notifiee;
      virtual void onIpMacLease(const IpMacLeaseKey&) {}
   };
   struct KeyOf {
      const IpMacLeaseKey& operator()(const IpMacLeaseEntry& e) const { return e.key; }
   };
   // One record per published lease: dense records, hashed by their key.
   using EntryMap = Rt::DenseKeyedMap<IpMacLeaseEntry, KeyOf>;

   // The declared size is where the table starts; it grows as needed.
   void collectionSizeIs(size_t n) { entry_.reserve(n); }
   std::optional<IpMacLeaseEntry> ipMacLease(const IpMacLeaseKey& k) const;
   const EntryMap& ipMacLeaseAll() const { return entry_; }
   size_t ipMacLeaseSize() const { return entry_.size(); }
   // Insert or replace under the entry's key.
   void ipMacLeaseIs(const IpMacLeaseEntry& e);
   void ipMacLeaseDel(const IpMacLeaseKey& k);

 private:
   EntryMap entry_;
};

// "tavrin/status": what the agent publishes for the data plane.
class Status : public IpMacLeaseTable {};

namespace Hardware {

// Hardware-side settings; the agent passes them on and never writes them.
class Config : public Rt::EntityBase {};

// What the data plane reports as installed, in the shape of the published table.
class InstalledConfig : public IpMacLeaseTable {};

// Per-interface ARP drop counters of the data plane.
class ArpDropCounterStatus : public Rt::EntityBase {
 public:
   class Notifiee : public Rt::Notifiee<ArpDropCounterStatus> {
    public:
      using Rt::Notifiee<ArpDropCounterStatus>::Notifiee;
      virtual void onArpDropCounter(IntfId) {}
      virtual void onArpDropCounterControl() {}
   };
   uint64_t arpDropCounter(IntfId i) const { return Rt::mapFind(counter_, i); }
   const std::map<IntfId, uint64_t>& arpDropCounterAll() const { return counter_; }
   void arpDropCounterIs(IntfId i, uint64_t n);
   void arpDropCounterDel(IntfId i);
   uint32_t arpDropCounterControl() const { return control_; }
   void arpDropCounterControlIs(uint32_t v);

 private:
   std::map<IntfId, uint64_t> counter_;
   uint32_t control_ = 0;
};

}  // namespace Hardware

}  // namespace Tavrin
