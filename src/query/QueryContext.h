// One lease query in flight, keyed by the (IP, MAC) pair it asks about.
#pragma once

#include <algorithm>
#include <optional>
#include <string>

#include "rt/Entity.h"
#include "rt/SmallMap.h"
#include "rt/Types.h"

namespace Tavrin {

// The key of every per-query table. A query by MAC has the empty IP, a
// query by IP the zero MAC.
struct IpMacPair {
   IpGenAddr ip;
   EthAddr mac;

   // IPv4 0.0.0.0 counts as empty, as it does for equality: a pair parsed
   // back from its text form must stay invalid.
   bool operator!() const { return ip == IpGenAddr() && mac.isZero(); }
   bool operator==(const IpMacPair&) const = default;
   auto operator<=>(const IpMacPair&) const = default;
   // "Value('Tavrin::IpMacPair', ** {'ip': 10.0.0.1, 'mac': 00:00:00:00:00:00})"
   std::string str() const;
   static std::optional<IpMacPair> parse(std::string_view text);
};

std::ostream& operator<<(std::ostream& os, const IpMacPair& p);

class QueryContext : public Rt::RefCounted {
 public:
   explicit QueryContext(const IpMacPair& pair) : ipMacPair_(pair) {}

   const IpMacPair& ipMacPair() const { return ipMacPair_; }
   uint32_t genId() const { return genId_; }
   void genIdIs(uint32_t v) { genId_ = v; }
   void genIdInc(uint32_t n) { genId_ += n; }
   IntfId intfId() const { return intfId_; }
   void intfIdIs(IntfId v) { intfId_ = v; }
   uint8_t sentCount() const { return sentCount_; }
   void sentCountIs(uint8_t v) { sentCount_ = v; }
   void sentCountInc(uint8_t n) { sentCount_ = uint8_t(sentCount_ + n); }
   bool receivedValidLease() const { return receivedValidLease_; }
   void receivedValidLeaseIs(bool v) { receivedValidLease_ = v; }
   // Sorted, so that a round goes to the servers in a stable order. A
   // query nearly always waits on one server, held in place: a start makes
   // a query per client, and a tree would allocate a node for each.
   using ServerSet = Rt::SmallVec<IpGenAddr>;
   const ServerSet& pendingServerAll() const { return pendingServer_; }
   bool pendingServerHas(const IpGenAddr& s) const {
      return std::binary_search(pendingServer_.begin(), pendingServer_.end(), s);
   }
   void pendingServerIs(const IpGenAddr& s) {
      auto* at = std::lower_bound(pendingServer_.begin(), pendingServer_.end(), s);
      if (at == pendingServer_.end() || !(*at == s)) pendingServer_.insert(at, s);
   }
   void pendingServerDel(const IpGenAddr& s) {
      auto* at = std::lower_bound(pendingServer_.begin(), pendingServer_.end(), s);
      if (at != pendingServer_.end() && *at == s) pendingServer_.erase(at);
   }
   void pendingServerDelAll() { pendingServer_.clear(); }

 private:
   IpMacPair ipMacPair_;
   uint32_t genId_ = 0;
   IntfId intfId_;
   uint8_t sentCount_ = 0;
   bool receivedValidLease_ = false;
   ServerSet pendingServer_;
};

}  // namespace Tavrin

template <>
struct std::hash<Tavrin::IpMacPair> {
   size_t operator()(const Tavrin::IpMacPair& p) const {
      return Tavrin::hashCombine(p.ip.hash(), std::hash<Tavrin::EthAddr>()(p.mac));
   }
};
