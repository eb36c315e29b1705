#include "platform/Platform.h"

#include <stdexcept>

#include "platform/Services.h"
#include "rt/Assert.h"
#include "rt/Collection.h"

namespace Tavrin::Platform {

Ptr<Rt::EntityBase> TypeRegistry::entityIs(std::string_view typeName) const {
   auto it = factories_.find(typeName);
   if (it == factories_.end()) return nullptr;
   return it->second();
}

std::string& defaultNamespaceName() {
   static std::string name = "default";
   return name;
}

const std::string& checkedNamespaceName(const std::string& name) {
   if (name.size() > 150) throw std::range_error("NamespaceName::bytes > 150 not allowed");
   return name;
}

void IpIntfStatus::primaryAddrIs(IpAddr a) {
   if (Rt::assignIfChanged(primary_, a)) notify<Notifiee>([](Notifiee& n) { n.onPrimaryAddr(); });
}

Ptr<IpIntfStatus> IpStatus::ipIntfStatus(IntfId i) const { return Rt::mapFind(status_, i); }

Ptr<IpIntfStatus> IpStatus::ipIntfStatusIs(IntfId i) {
   auto& slot = status_[i];
   if (slot) return slot;
   slot = Rt::makePtr<IpIntfStatus>(i);
   Ptr<IpIntfStatus> result = slot;
   notify<Notifiee>([i](Notifiee& n) { n.onIpIntfStatus(i); });
   return result;
}

void IpStatus::ipIntfStatusDel(IntfId i) {
   if (status_.erase(i)) notify<Notifiee>([i](Notifiee& n) { n.onIpIntfStatus(i); });
}

std::optional<FdbStatusEntry> BridgingStatus::fdbStatus(const HostKey& k) const {
   auto it = fdb_.find(k);
   if (it == fdb_.end()) return std::nullopt;
   return it->second;
}

void BridgingStatus::fdbStatusIs(const HostKey& key, const FdbStatusEntry& e) {
   HostKey k = key;
   if (Rt::mapAssign(fdb_, k, e)) notify<Notifiee>([&k](Notifiee& n) { n.onFdbStatus(k); });
}

void BridgingStatus::fdbStatusDel(const HostKey& key) {
   HostKey k = key;
   if (fdb_.erase(k)) notify<Notifiee>([&k](Notifiee& n) { n.onFdbStatus(k); });
}

void registerPlatformTypes(TypeRegistry& r) {
   r.typeIs<IpStatus>("Ip::Status");
   r.typeIs<BridgingStatus>("ShmTable::Bridging::Status");
   r.typeIs<AllIntfStatusDir>("Interface::AllIntfStatusDir");
   r.typeIs<AllIntfStatusLocalDir>("Interface::AllIntfStatusLocalDir");
   r.typeIs<KernelNetStatus>("KernelNetStatus::Status");
}

namespace {
Services* gServices = nullptr;
}

void servicesIs(Services* s) { gServices = s; }

Services& services() {
   TAVRIN_ASSERT(gServices);
   return *gServices;
}

}  // namespace Tavrin::Platform
