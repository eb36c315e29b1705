// The single-slot records through which the state machines talk. A writer
// fills in the fields and then bumps the 8-bit version; readers follow the
// version and read every field in their handler. Delivery is synchronous, so
// each posting is handled completely before the writer goes on.
#pragma once

#include <set>
#include <unordered_map>
#include <unordered_set>

#include "model/TavrinTypes.h"

namespace Tavrin {

// The version field shared by the versioned records: increments wrap at 256
// and notify only when the stored value changed (so +0 and +256 are silent).
template <class Self>
class VersionedRecord : public Rt::EntityBase {
 public:
   uint8_t versionNumber() const { return version_; }
   void versionNumberIs(uint8_t v) {
      if (Rt::assignIfChanged(version_, v)) {
         this->template notify<typename Self::Notifiee>(
             [](typename Self::Notifiee& n) { n.onVersionNumber(); });
      }
   }
   void versionNumberInc(unsigned n) { versionNumberIs(uint8_t(version_ + n)); }

 private:
   uint8_t version_ = 0;
};

// A request to query the DHCP servers about one client.
class LeaseQueryRequest : public VersionedRecord<LeaseQueryRequest> {
 public:
   class Notifiee : public Rt::Notifiee<LeaseQueryRequest> {
    public:
      using Rt::Notifiee<LeaseQueryRequest>::Notifiee;
      virtual void onVersionNumber() {}
   };
   EthAddr mac() const { return mac_; }
   void macIs(EthAddr v) { mac_ = v; }
   const IpGenAddr& ip() const { return ip_; }
   void ipIs(const IpGenAddr& v) { ip_ = v; }
   IntfId intfId() const { return intfId_; }
   void intfIdIs(IntfId v) { intfId_ = v; }
   const IpGenAddr& dhcpAddr() const { return dhcpAddr_; }
   void dhcpAddrIs(const IpGenAddr& v) { dhcpAddr_ = v; }
   bool delay() const { return delay_; }
   void delayIs(bool v) { delay_ = v; }
   bool force() const { return force_; }
   void forceIs(bool v) { force_ = v; }

 private:
   EthAddr mac_;
   IpGenAddr ip_;
   IntfId intfId_;
   IpGenAddr dhcpAddr_;
   bool delay_ = false;
   bool force_ = false;
};

// The outcome of a lease query. An expiration time of 0: no lease.
class LeaseQueryResponse : public VersionedRecord<LeaseQueryResponse> {
 public:
   class Notifiee : public Rt::Notifiee<LeaseQueryResponse> {
    public:
      using Rt::Notifiee<LeaseQueryResponse>::Notifiee;
      virtual void onVersionNumber() {}
   };
   bool queryByMac() const { return queryByMac_; }
   void queryByMacIs(bool v) { queryByMac_ = v; }
   EthAddr mac() const { return mac_; }
   void macIs(EthAddr v) { mac_ = v; }
   const IpGenAddr& ip() const { return ip_; }
   void ipIs(const IpGenAddr& v) { ip_ = v; }
   const IpGenAddr& dhcpAddr() const { return dhcpAddr_; }
   void dhcpAddrIs(const IpGenAddr& v) { dhcpAddr_ = v; }
   IntfId intfId() const { return intfId_; }
   void intfIdIs(IntfId v) { intfId_ = v; }
   Seconds lastTransactionTime() const { return lastTransactionTime_; }
   void lastTransactionTimeIs(Seconds v) { lastTransactionTime_ = v; }
   Seconds expirationTime() const { return expirationTime_; }
   void expirationTimeIs(Seconds v) { expirationTime_ = v; }
   const std::set<IpGenAddr>& associatedIpAll() const { return associatedIp_; }
   void associatedIpIs(const IpGenAddr& v) { associatedIp_.insert(v); }
   void associatedIpDelAll() { associatedIp_.clear(); }
   // The answer's DHCP message type, for traces; 0 for a give-up.
   uint8_t messageType() const { return messageType_; }
   void messageTypeIs(uint8_t v) { messageType_ = v; }

 private:
   bool queryByMac_ = false;
   EthAddr mac_;
   IpGenAddr ip_;
   IpGenAddr dhcpAddr_;
   IntfId intfId_;
   Seconds lastTransactionTime_ = 0;
   Seconds expirationTime_ = 0;
   std::set<IpGenAddr> associatedIp_;
   uint8_t messageType_ = 0;
};

// A MAC seen on a new interface.
class MovedMac : public VersionedRecord<MovedMac> {
 public:
   class Notifiee : public Rt::Notifiee<MovedMac> {
    public:
      using Rt::Notifiee<MovedMac>::Notifiee;
      virtual void onVersionNumber() {}
   };
   EthAddr mac() const { return mac_; }
   void macIs(EthAddr v) { mac_ = v; }
   IntfId newIntfId() const { return newIntfId_; }
   void newIntfIdIs(IntfId v) { newIntfId_ = v; }

 private:
   EthAddr mac_;
   IntfId newIntfId_;
};

// The interface on which each MAC is currently known.
class MacIntfMap : public Rt::EntityBase {
 public:
   IntfId intfId(EthAddr mac) const { return Rt::mapFind(map_, mac); }
   bool intfIdHas(EthAddr mac) const { return map_.count(mac) != 0; }
   const std::unordered_map<EthAddr, IntfId>& intfIdAll() const { return map_; }
   void intfIdIs(EthAddr mac, IntfId i) { map_[mac] = i; }
   // Returns the interface it held (empty when none).
   IntfId intfIdDel(EthAddr mac);

 private:
   std::unordered_map<EthAddr, IntfId> map_;
};

// The MACs on one interface.
class IntfMacSet : public Rt::EntityBase {
 public:
   explicit IntfMacSet(IntfId intfId) : intfId_(intfId) {}
   IntfId intfId() const { return intfId_; }
   bool macHas(EthAddr m) const { return mac_.count(m) != 0; }
   // Ordered, so that a batch of queries goes out in a stable order.
   const std::set<EthAddr>& macAll() const { return mac_; }
   size_t macSize() const { return mac_.size(); }
   void macIs(EthAddr m) { mac_.insert(m); }
   void macDel(EthAddr m) { mac_.erase(m); }

 private:
   IntfId intfId_;
   std::set<EthAddr> mac_;
};

class IntfMacSetMap : public Rt::EntityBase {
 public:
   Ptr<IntfMacSet> intfMacSet(IntfId i) const { return Rt::mapFind(map_, i); }
   const std::map<IntfId, Ptr<IntfMacSet>>& intfMacSetAll() const { return map_; }
   // Find-or-create.
   Ptr<IntfMacSet> intfMacSetIs(IntfId i);
   void intfMacSetDel(IntfId i) { map_.erase(i); }

 private:
   std::map<IntfId, Ptr<IntfMacSet>> map_;
};

}  // namespace Tavrin
