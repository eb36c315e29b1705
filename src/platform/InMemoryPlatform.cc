#include "platform/InMemoryPlatform.h"

namespace Tavrin::Platform {

InMemoryPlatform::InMemoryPlatform(Seconds startTime)
    : VirtualClockHolder(startTime), Framework(clock_) {
   Rt::clockIs(&clock_);
   servicesIs(this);
}

InMemoryPlatform::~InMemoryPlatform() {
   stop();
   Rt::clockIs(nullptr);
   servicesIs(nullptr);
}

void InMemoryPlatform::agentStopped() {
   udpPams_.clear();
   named_.clear();
   pamManager_ = nullptr;
}

void InMemoryPlatform::advance(Seconds dt, const std::function<void()>& afterEach) {
   Seconds target = clock_.now() + dt;
   while (scheduler()->nextRunTime() <= target) {
      clock_.timeIs(std::max(clock_.now(), scheduler()->nextRunTime()));
      scheduler()->runNext(clock_.now());
      if (afterEach) afterEach();
   }
   clock_.timeIs(target);
}

Ptr<UdpPam> InMemoryPlatform::udpPamIs(const std::string& name) {
   auto pam = Rt::makePtr<FakeUdpPam>(name);
   udpPams_[name] = pam;
   if (udpPamCreated_) udpPamCreated_(*pam);
   return pam;
}

Ptr<FakeUdpPam> InMemoryPlatform::udpPam(const std::string& name) const {
   auto it = udpPams_.find(name);
   return it == udpPams_.end() ? nullptr : it->second;
}

namespace {

template <class T>
Ptr<T> namedIs(std::map<std::string, Ptr<Rt::EntityBase>>& named, const std::string& name) {
   auto e = Rt::makePtr<T>();
   named[name] = e;
   return e;
}

}  // namespace

Ptr<DeviceIntfStatusDir> InMemoryPlatform::deviceIntfStatusDirIs(const std::string& name) {
   return namedIs<DeviceIntfStatusDir>(named_, name);
}

Ptr<PamDesiredIntfDir> InMemoryPlatform::pamDesiredIntfDirIs(const std::string& name) {
   return namedIs<PamDesiredIntfDir>(named_, name);
}

Ptr<EthDevPamCollection> InMemoryPlatform::ethDevPamCollectionIs(const std::string& name) {
   return namedIs<EthDevPamCollection>(named_, name);
}

Ptr<EthDevPamManager> InMemoryPlatform::ethDevPamManagerIs(Ptr<const PamDesiredIntfDir> desired,
                                                           Ptr<EthDevPamCollection> collection,
                                                           Ptr<const DeviceIntfStatusDir>) {
   pamManager_ = Rt::makePtr<FakeEthDevPamManager>(std::move(desired), std::move(collection));
   return pamManager_;
}

Ptr<IntfStatusManager> InMemoryPlatform::intfStatusManagerIs(Ptr<const AllIntfStatusDir>,
                                                             Ptr<const AllIntfStatusLocalDir>,
                                                             Ptr<DeviceIntfStatusDir>,
                                                             Ptr<const KernelNetStatus>) {
   return Rt::makePtr<IntfStatusManager>();
}

Ptr<PamDesiredIntfDir> InMemoryPlatform::pamDesiredIntfDir() const {
   for (const auto& [name, e] : named_) {
      if (auto d = Rt::ptrCast<PamDesiredIntfDir>(e)) return d;
   }
   return nullptr;
}

Ptr<FakePam> InMemoryPlatform::pam(IntfId intf) const {
   for (const auto& [name, e] : named_) {
      if (auto c = Rt::ptrCast<EthDevPamCollection>(e)) return Rt::ptrCast<FakePam>(c->intfPam(intf));
   }
   return nullptr;
}

}  // namespace Tavrin::Platform
