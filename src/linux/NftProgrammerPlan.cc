#include "linux/NftProgrammerPlan.h"

#include <algorithm>

namespace Tavrin::Linux::Nft {

// ---------------------------------------------------------------- kernel view

bool KernelView::allowedHas(const AllowedElem& e) const {
   auto [b, end] = allowed_.equal_range(PairKey{e.mac, e.ip});
   return std::any_of(b, end, [&e](const auto& kv) { return kv.second == e.port; });
}

bool KernelView::allowedIs(const AllowedElem& e) {
   if (allowedHas(e)) return false;
   allowed_.emplace(PairKey{e.mac, e.ip}, e.port);
   return true;
}

bool KernelView::allowedDel(const AllowedElem& e) {
   auto [b, end] = allowed_.equal_range(PairKey{e.mac, e.ip});
   for (auto it = b; it != end; ++it) {
      if (it->second == e.port) {
         allowed_.erase(it);
         return true;
      }
   }
   return false;
}

std::vector<IntfId> KernelView::allowedPorts(const PairKey& key) const {
   std::vector<IntfId> out;
   auto [b, end] = allowed_.equal_range(key);
   for (auto it = b; it != end; ++it) out.push_back(it->second);
   return out;
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
      std::unordered_set<PairKey> pairs;
      for (const auto& [key, entry] : desired.status.ipMacLeaseAll()) {
         if (!key.ip.isV6()) pairs.insert(PairKey{key.mac, key.ip.v4Addr()});
      }
      kernel.allowedForEach([&pairs](const AllowedElem& e) { pairs.insert(PairKey{e.mac, e.ip}); });
      for (const auto& key : pairs) planPair(key, desired, kernel, out);
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
