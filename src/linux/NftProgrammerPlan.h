// What the data plane should hold, what the kernel holds, and the batch that
// takes the one to the other. No sockets here: the programmer feeds the
// kernel's side from its own commits, notifications and dumps, and tests
// feed it by hand.
//
// The planner does not record changes, only which keys changed. A batch is
// planned by comparing, for each key touched since the last batch, the
// entity's current value with the kernel's, so a key that changed ten times
// in one loop iteration costs at most one delete and one add, and a key that
// came and went costs nothing.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "linux/NftRules.h"
#include "model/TavrinTypes.h"

namespace Tavrin::Linux::Nft {

// A published pair's key with its IPv4 address: the part of an element
// that a Status key names.
struct PairKey {
   EthAddr mac;
   IpAddr ip;
   auto operator<=>(const PairKey&) const = default;
   bool operator==(const PairKey&) const = default;
};

}  // namespace Tavrin::Linux::Nft

template <>
struct std::hash<Tavrin::Linux::Nft::PairKey> {
   size_t operator()(const Tavrin::Linux::Nft::PairKey& k) const {
      return Tavrin::hashCombine(std::hash<Tavrin::EthAddr>()(k.mac),
                                 std::hash<Tavrin::IpAddr>()(k.ip));
   }
};

namespace Tavrin::Linux::Nft {

// The `allowed` elements the kernel holds, kept flat: a million of them is
// the common case, and node-based maps cost four to five times the 16 bytes
// an element needs here. Open addressing with linear probing on the pair
// alone, so that every port holding a pair is found in one run of slots;
// deletion shifts the run back instead of leaving tombstones, so a long-lived
// daemon's churn never slows lookups down.
class AllowedTable {
 public:
   bool has(const AllowedElem& e) const;
   bool insert(const AllowedElem& e);  // false when present already
   bool erase(const AllowedElem& e);   // false when absent
   std::vector<IntfId> ports(const PairKey& key) const;
   size_t size() const { return size_; }
   // Room for n elements without growing, for a caller that knows its count.
   void reserve(size_t n);
   // Frees the slots too: the table after a rebuild may be much smaller.
   void clear();
   template <class F>
   void forEach(F&& f) const {
      for (const auto& s : slots_) {
         if (s.port != kEmpty) f(elem(s));
      }
   }

 private:
   struct Slot {
      uint32_t ip = 0;
      uint32_t port = 0;  // index into ports_; kEmpty marks a free slot
      std::array<uint8_t, 6> mac{};
   };
   static constexpr uint32_t kEmpty = 0;

   static uint64_t hashOf(uint64_t mac, uint32_t ip);
   size_t home(const Slot& s) const;
   size_t home(uint64_t mac, uint32_t ip) const;
   size_t next(size_t i) const { return i + 1 == slots_.size() ? 0 : i + 1; }
   uint32_t portIndex(IntfId port);  // adds the port when new
   std::optional<uint32_t> portFind(IntfId port) const;
   AllowedElem elem(const Slot& s) const;
   std::optional<size_t> find(const AllowedElem& e) const;
   void grow(size_t atLeast);

   std::vector<Slot> slots_;
   size_t size_ = 0;
   // Ports by the index slots hold; ports_[0] stands for "free".
   std::vector<IntfId> ports_{IntfId()};
   std::unordered_map<IntfId, uint32_t> portIndex_;
};

// What the kernel's table holds, as far as the programmer knows.
class KernelView {
 public:
   bool allowedHas(const AllowedElem& e) const { return allowed_.has(e); }
   // False when it was there already (resp. absent).
   bool allowedIs(const AllowedElem& e) { return allowed_.insert(e); }
   bool allowedDel(const AllowedElem& e) { return allowed_.erase(e); }
   // The ports on which the kernel allows the pair; normally one at most.
   std::vector<IntfId> allowedPorts(const PairKey& key) const { return allowed_.ports(key); }
   size_t allowedSize() const { return allowed_.size(); }
   void allowedReserve(size_t n) { allowed_.reserve(n); }
   template <class F>
   void allowedForEach(F&& f) const {
      allowed_.forEach(std::forward<F>(f));
   }

   bool lockedHas(IntfId port) const { return locked_.count(port) != 0; }
   bool lockedIs(IntfId port) { return locked_.insert(port).second; }
   bool lockedDel(IntfId port) { return locked_.erase(port) != 0; }
   const std::set<IntfId>& lockedAll() const { return locked_; }

   // Counters named after a port (arpDropCounterName).
   bool counterHas(IntfId port) const { return counter_.count(port) != 0; }
   bool counterIs(IntfId port) { return counter_.insert(port).second; }
   bool counterDel(IntfId port) { return counter_.erase(port) != 0; }
   const std::set<IntfId>& counterAll() const { return counter_; }

   // Elements of the ARP drop map: port -> the counter it names.
   std::optional<std::string> arpMap(IntfId port) const;
   bool arpMapIs(IntfId port, const std::string& counter);
   bool arpMapDel(IntfId port) { return arpMap_.erase(port) != 0; }
   const std::map<IntfId, std::string>& arpMapAll() const { return arpMap_; }

   void clear();

 private:
   AllowedTable allowed_;
   std::set<IntfId> locked_;
   std::set<IntfId> counter_;
   std::map<IntfId, std::string> arpMap_;
};

// One batch, in the order its parts go to the kernel: a map element must
// find its counter, and must go before its counter does.
struct Plan {
   std::vector<IntfId> counterAdd;
   std::vector<IntfId> arpMapDel;  // also elements naming the wrong counter
   std::vector<IntfId> arpMapAdd;
   std::vector<AllowedElem> allowedDel;
   std::vector<AllowedElem> allowedAdd;
   std::vector<IntfId> lockedAdd;
   std::vector<IntfId> lockedDel;
   std::vector<IntfId> counterDel;

   size_t size() const;
   bool empty() const { return size() == 0; }
   bool operator==(const Plan&) const = default;
};

// Applies a batch the kernel accepted to the view of it.
void apply(KernelView& view, const Plan& plan);

// Cuts a plan into plans of at most maxItems each, in order, so that what
// one part needs (a counter before its map element) is in it or an earlier one.
std::vector<Plan> splitPlan(const Plan& plan, size_t maxItems);

// What the data plane should hold, read from the agent's entities.
struct Desired {
   const IpMacLeaseTable& status;
   const ConfiguredInterfaceStatus& rules;

   // The element a published key calls for; nullopt when the key is not
   // published, or its pair cannot be put in the table (an IPv6 address, a
   // port name the kernel cannot have): see representable().
   std::optional<AllowedElem> allowed(const PairKey& key) const;
   bool locked(IntfId port) const;
};

// Why a published entry or a rule is not in the table.
std::optional<std::string> unrepresentable(const IpMacLeaseEntry& entry);

class Planner {
 public:
   // A key of the published table changed (added, replaced or deleted).
   // Keys of other address families have no element and are ignored.
   void pairDirty(const IpMacLeaseKey& key);
   void pairDirty(const PairKey& key) { pairs_.insert(key); }
   // A port's rule changed, or the kernel's view of its lock did.
   void portDirty(IntfId port) { ports_.insert(port); }
   // Everything is compared, as after the kernel's view was read afresh.
   void allDirty() { all_ = true; }

   bool pending() const { return all_ || !pairs_.empty() || !ports_.empty(); }
   bool allDirtyIs() const { return all_; }
   const std::unordered_set<PairKey>& dirtyPairs() const { return pairs_; }
   // The smallest batch that takes the kernel's view to the desired state
   // for every key touched since clear().
   Plan plan(const Desired& desired, const KernelView& kernel) const;
   // The touched keys have been handled (the batch was committed).
   void clear();

 private:
   void planPair(const PairKey& key, const Desired& desired, const KernelView& kernel,
                 Plan& out) const;
   void planPort(IntfId port, const Desired& desired, const KernelView& kernel, Plan& out) const;

   std::unordered_set<PairKey> pairs_;
   std::set<IntfId> ports_;
   bool all_ = false;
};

}  // namespace Tavrin::Linux::Nft
