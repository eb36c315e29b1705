#include "model/TavrinTypes.h"

namespace Tavrin {

std::ostream& operator<<(std::ostream& os, const LeaseKey& k) {
   return os << "mac " << k.mac << " ip " << k.ip << " dhcpAddr " << k.dhcpAddr;
}

// ---- IntfConfig

void IntfConfig::ipv4Is(bool v) {
   if (Rt::assignIfChanged(ipv4_, v)) notify<Notifiee>([](Notifiee& n) { n.onIpv4(); });
}

void IntfConfig::ipv6Is(bool v) {
   if (Rt::assignIfChanged(ipv6_, v)) notify<Notifiee>([](Notifiee& n) { n.onIpv6(); });
}

// ---- CliConfig

void CliConfig::configuredIs(bool v) {
   if (Rt::assignIfChanged(configured_, v)) notify<Notifiee>([](Notifiee& n) { n.onConfigured(); });
}

void CliConfig::disabledIs(bool v) {
   if (Rt::assignIfChanged(disabled_, v)) notify<Notifiee>([](Notifiee& n) { n.onDisabled(); });
}

void CliConfig::localInterfaceIs(IntfId v) {
   if (Rt::assignIfChanged(localInterface_, v)) {
      notify<Notifiee>([](Notifiee& n) { n.onLocalInterface(); });
   }
}

void CliConfig::dhcpV4ServerIs(IpAddr a) {
   if (dhcpV4Server_.insert(a).second) notify<Notifiee>([a](Notifiee& n) { n.onDhcpV4Server(a); });
}

void CliConfig::dhcpV4ServerDel(IpAddr a) {
   if (dhcpV4Server_.erase(a)) notify<Notifiee>([a](Notifiee& n) { n.onDhcpV4Server(a); });
}

void CliConfig::dhcpV6ServerIs(const Ip6Addr& a) {
   if (dhcpV6Server_.insert(a).second) notify<Notifiee>([&a](Notifiee& n) { n.onDhcpV6Server(a); });
}

void CliConfig::dhcpV6ServerDel(const Ip6Addr& a) {
   Ip6Addr key = a;
   if (dhcpV6Server_.erase(key)) notify<Notifiee>([&key](Notifiee& n) { n.onDhcpV6Server(key); });
}

Ptr<IntfConfig> CliConfig::interfaceIs(IntfId i) {
   auto& slot = interface_[i];
   if (slot) return slot;
   slot = Rt::makePtr<IntfConfig>(i);
   Ptr<IntfConfig> result = slot;
   notify<Notifiee>([i](Notifiee& n) { n.onInterface(i); });
   return result;
}

Ptr<IntfConfig> CliConfig::interfaceIs(IntfId i, bool ipv4) {
   if (auto existing = Rt::mapFind(interface_, i)) {
      existing->ipv4Is(ipv4);
      return existing;
   }
   auto c = Rt::makePtr<IntfConfig>(i);
   c->ipv4Is(ipv4);
   interface_.emplace(i, c);
   notify<Notifiee>([i](Notifiee& n) { n.onInterface(i); });
   return c;
}

void CliConfig::interfaceDel(IntfId i) {
   if (interface_.erase(i)) notify<Notifiee>([i](Notifiee& n) { n.onInterface(i); });
}

void CliConfig::reflectorIs(const IpGenAddr& a) {
   if (reflector_.insert(a).second) notify<Notifiee>([&a](Notifiee& n) { n.onReflector(a); });
}

void CliConfig::reflectorDel(const IpGenAddr& a) {
   IpGenAddr key = a;
   if (reflector_.erase(key)) notify<Notifiee>([&key](Notifiee& n) { n.onReflector(key); });
}

void CliConfig::reflectorRoleIs(uint32_t v) {
   if (Rt::assignIfChanged(reflectorRole_, v)) {
      notify<Notifiee>([](Notifiee& n) { n.onReflectorRole(); });
   }
}

// ---- ConfiguredInterfaceStatus

std::optional<InterfaceRule> ConfiguredInterfaceStatus::interfaceRule(IntfId i) const {
   auto it = interfaceRule_.find(i);
   if (it == interfaceRule_.end()) return std::nullopt;
   return it->second;
}

void ConfiguredInterfaceStatus::interfaceRuleIs(IntfId i, InterfaceRule rule) {
   if (Rt::mapAssign(interfaceRule_, i, rule)) {
      notify<Notifiee>([i](Notifiee& n) { n.onInterfaceRule(i); });
   }
}

void ConfiguredInterfaceStatus::interfaceRuleDel(IntfId i) {
   if (interfaceRule_.erase(i)) notify<Notifiee>([i](Notifiee& n) { n.onInterfaceRule(i); });
}

// ---- IpMacLease, InterfaceLeaseSet, LeaseStatus

void IpMacLease::lastTransactionTimeIs(Seconds t) {
   if (Rt::assignIfChanged(lastTransactionTime_, t)) {
      notify<Notifiee>([](Notifiee& n) { n.onLastTransactionTime(); });
   }
}

void IpMacLease::expirationTimeIs(Seconds t) {
   if (Rt::assignIfChanged(expirationTime_, t)) {
      notify<Notifiee>([](Notifiee& n) { n.onExpirationTime(); });
   }
}

Ptr<IpMacLease> InterfaceLeaseSet::ipMacLeaseIs(const LeaseKey& k) {
   if (auto* held = lease_.get(k)) return Ptr<IpMacLease>(held);
   Ptr<IpMacLease> result = lease_.insert(Rt::makePtr<IpMacLease>(k));
   notify<Notifiee>([&k](Notifiee& n) { n.onIpMacLease(k); });
   return result;
}

void InterfaceLeaseSet::ipMacLeaseDel(const LeaseKey& k) {
   auto* held = lease_.get(k);
   if (!held) return;
   // Keep the record alive until the subscribers have seen it go: the key
   // they are told may live inside it.
   Ptr<IpMacLease> gone(held);
   lease_.erase(gone->key());
   notify<Notifiee>([&gone](Notifiee& n) { n.onIpMacLease(gone->key()); });
}

Ptr<InterfaceLeaseSet> LeaseStatus::interfaceLeaseSetIs(IntfId i) {
   auto& slot = set_[i];
   if (slot) return slot;
   slot = Rt::makePtr<InterfaceLeaseSet>(i);
   Ptr<InterfaceLeaseSet> result = slot;
   notify<Notifiee>([i](Notifiee& n) { n.onInterfaceLeaseSet(i); });
   return result;
}

void LeaseStatus::interfaceLeaseSetDel(IntfId i) {
   if (set_.erase(i)) notify<Notifiee>([i](Notifiee& n) { n.onInterfaceLeaseSet(i); });
}

// ---- IpMacLeaseTable

std::optional<IpMacLeaseEntry> IpMacLeaseTable::ipMacLease(const IpMacLeaseKey& k) const {
   if (const auto* e = entry_.get(k)) return *e;
   return std::nullopt;
}

void IpMacLeaseTable::ipMacLeaseIs(const IpMacLeaseEntry& e) {
   IpMacLeaseKey k = e.key;
   if (entry_.assign(e)) notify<Notifiee>([&k](Notifiee& n) { n.onIpMacLease(k); });
}

void IpMacLeaseTable::ipMacLeaseDel(const IpMacLeaseKey& key) {
   IpMacLeaseKey k = key;
   if (entry_.erase(k)) notify<Notifiee>([&k](Notifiee& n) { n.onIpMacLease(k); });
}

// ---- Hardware::ArpDropCounterStatus

namespace Hardware {

void ArpDropCounterStatus::arpDropCounterIs(IntfId i, uint64_t n) {
   if (Rt::mapAssign(counter_, i, n)) {
      notify<Notifiee>([i](Notifiee& no) { no.onArpDropCounter(i); });
   }
}

void ArpDropCounterStatus::arpDropCounterDel(IntfId i) {
   if (counter_.erase(i)) notify<Notifiee>([i](Notifiee& n) { n.onArpDropCounter(i); });
}

void ArpDropCounterStatus::arpDropCounterControlIs(uint32_t v) {
   if (Rt::assignIfChanged(control_, v)) {
      notify<Notifiee>([](Notifiee& n) { n.onArpDropCounterControl(); });
   }
}

}  // namespace Hardware

}  // namespace Tavrin
