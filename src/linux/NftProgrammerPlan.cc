#include "linux/NftProgrammerPlan.h"

#include <algorithm>

namespace Tavrin::Linux::Nft {

// ---------------------------------------------------------------- kernel view

namespace {

// Slots per element at most: beyond that, runs grow long under linear probing.
constexpr size_t kLoadNum = 4;
constexpr size_t kLoadDen = 5;

}  // namespace

uint64_t AllowedTable::hashOf(uint64_t mac, uint32_t ip) {
   return mixHash(mac ^ (mixHash(ip) << 1));
}

size_t AllowedTable::home(uint64_t mac, uint32_t ip) const {
   // Any table size, not only powers of two: the top bits of the product.
   return size_t((static_cast<unsigned __int128>(hashOf(mac, ip)) * slots_.size()) >> 64);
}

size_t AllowedTable::home(const Slot& s) const {
   return home(EthAddr(s.mac).toU64(), s.ip);
}

std::optional<uint32_t> AllowedTable::portFind(IntfId port) const {
   auto it = portIndex_.find(port);
   if (it == portIndex_.end()) return std::nullopt;
   return it->second;
}

uint32_t AllowedTable::portIndex(IntfId port) {
   auto [it, added] = portIndex_.try_emplace(port, uint32_t(ports_.size()));
   if (added) ports_.push_back(port);
   return it->second;
}

AllowedElem AllowedTable::elem(const Slot& s) const {
   return AllowedElem{ports_[s.port], EthAddr(s.mac), IpAddr(s.ip)};
}

std::optional<size_t> AllowedTable::find(const AllowedElem& e) const {
   if (slots_.empty()) return std::nullopt;
   auto port = portFind(e.port);
   if (!port) return std::nullopt;
   const uint32_t ip = e.ip.value();
   for (size_t i = home(e.mac.toU64(), ip);; i = next(i)) {
      const Slot& s = slots_[i];
      if (s.port == kEmpty) return std::nullopt;
      if (s.port == *port && s.ip == ip && s.mac == e.mac.bytes()) return i;
   }
}

bool AllowedTable::has(const AllowedElem& e) const {
   return find(e).has_value();
}

std::vector<IntfId> AllowedTable::ports(const PairKey& key) const {
   std::vector<IntfId> out;
   if (slots_.empty()) return out;
   const uint32_t ip = key.ip.value();
   for (size_t i = home(key.mac.toU64(), ip);; i = next(i)) {
      const Slot& s = slots_[i];
      if (s.port == kEmpty) return out;
      if (s.ip == ip && s.mac == key.mac.bytes()) out.push_back(ports_[s.port]);
   }
}

void AllowedTable::grow(size_t atLeast) {
   const size_t want = std::max<size_t>(16, atLeast * kLoadDen / kLoadNum + 1);
   if (want <= slots_.size()) return;
   std::vector<Slot> old(want);
   old.swap(slots_);
   for (const Slot& s : old) {
      if (s.port == kEmpty) continue;
      size_t i = home(s);
      while (slots_[i].port != kEmpty) i = next(i);
      slots_[i] = s;
   }
}

void AllowedTable::reserve(size_t n) {
   grow(n);
}

bool AllowedTable::insert(const AllowedElem& e) {
   if (has(e)) return false;
   if ((size_ + 1) * kLoadDen > slots_.size() * kLoadNum) grow(std::max(size_ + 1, size_ * 2));
   Slot slot;
   slot.ip = e.ip.value();
   slot.port = portIndex(e.port);
   slot.mac = e.mac.bytes();
   size_t i = home(slot);
   while (slots_[i].port != kEmpty) i = next(i);
   slots_[i] = slot;
   ++size_;
   return true;
}

bool AllowedTable::erase(const AllowedElem& e) {
   auto found = find(e);
   if (!found) return false;
   size_t hole = *found;
   slots_[hole] = Slot{};
   --size_;
   // Pull back every later slot of the run that may live in the hole, so
   // that no lookup stops early at it.
   for (size_t j = next(hole); slots_[j].port != kEmpty; j = next(j)) {
      const size_t k = home(slots_[j]);
      const bool staysPut = hole <= j ? (hole < k && k <= j) : (hole < k || k <= j);
      if (staysPut) continue;
      slots_[hole] = slots_[j];
      slots_[j] = Slot{};
      hole = j;
   }
   return true;
}

void AllowedTable::clear() {
   std::vector<Slot>().swap(slots_);
   size_ = 0;
   ports_.assign(1, IntfId());
   portIndex_.clear();
}

std::optional<std::string> KernelView::arpMap(IntfId port) const {
   auto it = arpMap_.find(port);
   if (it == arpMap_.end()) return std::nullopt;
   return it->second;
}

bool KernelView::arpMapIs(IntfId port, const std::string& counter) {
   auto [it, inserted] = arpMap_.try_emplace(port, counter);
   if (inserted) return true;
   if (it->second == counter) return false;
   it->second = counter;
   return true;
}

void KernelView::clear() {
   allowed_.clear();
   locked_.clear();
   counter_.clear();
   arpMap_.clear();
}

// ---------------------------------------------------------------- plan

size_t Plan::size() const {
   return counterAdd.size() + arpMapDel.size() + arpMapAdd.size() + allowedDel.size() +
          allowedAdd.size() + lockedAdd.size() + lockedDel.size() + counterDel.size();
}

void apply(KernelView& view, const Plan& plan) {
   for (auto p : plan.counterAdd) view.counterIs(p);
   for (auto p : plan.arpMapDel) view.arpMapDel(p);
   for (auto p : plan.arpMapAdd) view.arpMapIs(p, arpDropCounterName(p.name()));
   for (const auto& e : plan.allowedDel) view.allowedDel(e);
   for (const auto& e : plan.allowedAdd) view.allowedIs(e);
   for (auto p : plan.lockedAdd) view.lockedIs(p);
   for (auto p : plan.lockedDel) view.lockedDel(p);
   for (auto p : plan.counterDel) view.counterDel(p);
}

std::vector<Plan> splitPlan(const Plan& plan, size_t maxItems) {
   std::vector<Plan> out(1);
   size_t room = maxItems;
   auto take = [&](const auto& from, auto member) {
      for (const auto& item : from) {
         if (room == 0) {
            out.emplace_back();
            room = maxItems;
         }
         (out.back().*member).push_back(item);
         --room;
      }
   };
   take(plan.counterAdd, &Plan::counterAdd);
   take(plan.arpMapDel, &Plan::arpMapDel);
   take(plan.arpMapAdd, &Plan::arpMapAdd);
   take(plan.allowedDel, &Plan::allowedDel);
   take(plan.allowedAdd, &Plan::allowedAdd);
   take(plan.lockedAdd, &Plan::lockedAdd);
   take(plan.lockedDel, &Plan::lockedDel);
   take(plan.counterDel, &Plan::counterDel);
   if (out.back().empty() && out.size() > 1) out.pop_back();
   return out;
}

std::optional<std::string> unrepresentable(const IpMacLeaseEntry& entry) {
   if (entry.key.ip.isV6()) return "not an IPv4 address";
   if (entry.key.ip.isUnset()) return "no address";
   if (!ifnameFits(entry.intfId.name())) {
      return "port name '" + entry.intfId.name() + "' is not a kernel interface name";
   }
   return std::nullopt;
}

std::optional<AllowedElem> Desired::allowed(const PairKey& key) const {
   auto entry = status.ipMacLease(IpMacLeaseKey{key.mac, IpGenAddr(key.ip)});
   if (!entry || unrepresentable(*entry)) return std::nullopt;
   return AllowedElem{entry->intfId, key.mac, key.ip};
}

bool Desired::locked(IntfId port) const {
   // Only rule 1 locks; other values are the configuration front end's.
   auto rule = rules.interfaceRule(port);
   return rule && *rule == 1 && ifnameFits(port.name());
}

void Planner::pairDirty(const IpMacLeaseKey& key) {
   if (key.ip.isV6()) return;
   pairs_.insert(PairKey{key.mac, key.ip.v4Addr()});
}

void Planner::clear() {
   pairs_.clear();
   ports_.clear();
   all_ = false;
}

void Planner::planPair(const PairKey& key, const Desired& desired, const KernelView& kernel,
                       Plan& out) const {
   auto want = desired.allowed(key);
   bool have = false;
   for (auto port : kernel.allowedPorts(key)) {
      if (want && port == want->port) {
         have = true;
      } else {
         out.allowedDel.push_back(AllowedElem{port, key.mac, key.ip});
      }
   }
   if (want && !have) out.allowedAdd.push_back(*want);
}

void Planner::planPort(IntfId port, const Desired& desired, const KernelView& kernel,
                       Plan& out) const {
   const std::string counter = arpDropCounterName(port.name());
   auto mapped = kernel.arpMap(port);
   if (desired.locked(port)) {
      if (!kernel.counterHas(port)) out.counterAdd.push_back(port);
      if (mapped && *mapped != counter) out.arpMapDel.push_back(port);
      if (!mapped || *mapped != counter) out.arpMapAdd.push_back(port);
      if (!kernel.lockedHas(port)) out.lockedAdd.push_back(port);
      return;
   }
   if (kernel.lockedHas(port)) out.lockedDel.push_back(port);
   if (mapped) out.arpMapDel.push_back(port);
   if (kernel.counterHas(port)) out.counterDel.push_back(port);
}

Plan Planner::plan(const Desired& desired, const KernelView& kernel) const {
   Plan out;
   if (all_) {
      // Each pair once, without a set of a million keys to say which were
      // seen: a published pair is planned from the published side (all its
      // ports at once), an element nobody asks for from the kernel's side.
      for (const auto& [key, entry] : desired.status.ipMacLeaseAll()) {
         if (key.ip.isV6()) continue;
         const PairKey pair{key.mac, key.ip.v4Addr()};
         if (desired.allowed(pair)) planPair(pair, desired, kernel, out);
      }
      kernel.allowedForEach([&](const AllowedElem& e) {
         if (!desired.allowed(PairKey{e.mac, e.ip})) out.allowedDel.push_back(e);
      });
      std::set<IntfId> ports;
      for (const auto& [port, rule] : desired.rules.interfaceRuleAll()) ports.insert(port);
      ports.insert(kernel.lockedAll().begin(), kernel.lockedAll().end());
      ports.insert(kernel.counterAll().begin(), kernel.counterAll().end());
      for (const auto& [port, counter] : kernel.arpMapAll()) ports.insert(port);
      for (auto port : ports) planPort(port, desired, kernel, out);
   } else {
      for (const auto& key : pairs_) planPair(key, desired, kernel, out);
      for (auto port : ports_) planPort(port, desired, kernel, out);
   }
   // A stable order: the same changes make the same batch, whatever the
   // order the hash sets kept them in.
   std::sort(out.allowedAdd.begin(), out.allowedAdd.end());
   std::sort(out.allowedDel.begin(), out.allowedDel.end());
   return out;
}

}  // namespace Tavrin::Linux::Nft
