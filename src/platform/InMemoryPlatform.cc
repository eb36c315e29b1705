#include "platform/InMemoryPlatform.h"

namespace Tavrin::Platform {

namespace {

Ptr<Rt::EntityBase> findIn(const std::map<std::string, Ptr<Rt::EntityBase>, std::less<>>& m,
                           std::string_view path) {
   auto it = m.find(path);
   return it == m.end() ? nullptr : it->second;
}

}  // namespace

class InMemoryPlatform::Em final : public EntityManager, public MountGroup {
 public:
   explicit Em(InMemoryPlatform& p) : p_(p) {}
   MountGroup& mountGroup() override { return *this; }
   Ptr<Rt::EntityBase> entity(std::string_view path) override {
      if (auto e = findIn(p_.local_, path)) return e;
      return findIn(p_.state_, path);
   }
   Ptr<Rt::EntityBase> localEntityIs(std::string_view path, std::string_view typeName,
                                     std::string_view) override {
      if (auto e = findIn(p_.local_, path)) return e;
      auto e = p_.types_.entityIs(typeName);
      if (e) p_.local_.emplace(std::string(path), e);
      return e;
   }
   void localEntitiesCreatedIs(bool created) override { p_.localEntitiesCreated_ = created; }
   std::string cellRelativePath(std::string_view path) const override {
      return "cell/1/" + std::string(path);
   }
   void mountIs(const Mount& m) override {
      p_.stateMounts_.push_back(m);
      p_.stateEntityIs(m.path, m.typeName);
   }
   void close() override { p_.mountGroupClosed_ = true; }

 private:
   InMemoryPlatform& p_;
};

class InMemoryPlatform::ShmEm final : public ShmEntityManager {
 public:
   explicit ShmEm(InMemoryPlatform& p) : p_(p) {}
   void doInit() override {}
   Ptr<Rt::EntityBase> writerMountIs(std::string_view path, std::string_view typeName,
                                     const std::vector<ShmCollection>& collections) override {
      std::string desc = "w " + std::string(path) + " " + std::string(typeName);
      for (auto& c : collections) desc += " " + c.name + "=" + std::to_string(c.size);
      p_.shmMounts_.push_back(desc);
      return p_.shmEntityIs(path, typeName);
   }
   Ptr<Rt::EntityBase> readerMountIs(std::string_view path, std::string_view typeName,
                                     int mode) override {
      p_.shmMounts_.push_back("r" + std::to_string(mode) + " " + std::string(path) + " " +
                              std::string(typeName));
      return p_.shmEntityIs(path, typeName);
   }
   Ptr<Rt::EntityBase> entity(std::string_view path) override { return p_.shmEntity(path); }

 private:
   InMemoryPlatform& p_;
};

InMemoryPlatform::InMemoryPlatform(Seconds startTime)
    : clock_(startTime), scheduler_(Rt::makePtr<Rt::TaskScheduler>(clock_)) {
   registerPlatformTypes(types_);
   em_ = std::make_unique<Em>(*this);
   Rt::clockIs(&clock_);
   servicesIs(this);
}

InMemoryPlatform::~InMemoryPlatform() {
   stop();
   Rt::clockIs(nullptr);
   servicesIs(nullptr);
}

Ptr<Rt::EntityBase> InMemoryPlatform::stateEntity(std::string_view path) const {
   return findIn(state_, path);
}

Ptr<Rt::EntityBase> InMemoryPlatform::stateEntityIs(std::string_view path,
                                                    std::string_view typeName) {
   if (auto e = findIn(state_, path)) return e;
   auto e = types_.entityIs(typeName);
   if (e) state_.emplace(std::string(path), e);
   return e;
}

Ptr<Rt::EntityBase> InMemoryPlatform::shmEntity(std::string_view path) const {
   return findIn(shm_, path);
}

Ptr<Rt::EntityBase> InMemoryPlatform::shmEntityIs(std::string_view path,
                                                  std::string_view typeName) {
   if (auto e = findIn(shm_, path)) return e;
   auto e = types_.entityIs(typeName);
   if (e) shm_.emplace(std::string(path), e);
   return e;
}

Ptr<Rt::EntityBase> InMemoryPlatform::localEntity(std::string_view path) const {
   return findIn(local_, path);
}

void InMemoryPlatform::envIs(const std::string& name, std::optional<std::string> value) {
   if (value) {
      env_[name] = *value;
   } else {
      env_.erase(name);
   }
}

std::optional<std::string> InMemoryPlatform::env(std::string_view name) const {
   auto it = env_.find(name);
   if (it == env_.end()) return std::nullopt;
   return it->second;
}

EntityManager& InMemoryPlatform::entityManager() { return *em_; }

std::unique_ptr<ShmEntityManager> InMemoryPlatform::shmEntityManagerIs(EntityManager&) {
   return std::make_unique<ShmEm>(*this);
}

Ptr<AgentBase> InMemoryPlatform::start(const AgentFactory& factory, const std::string& name) {
   stop();
   mountGroupClosed_ = false;
   auto agent = factory(name, *this);
   agent_ = agent;
   agent->doInit();
   if (mountGroupClosed_) agent->doMountsComplete(MountStatus::mountSuccessful, *em_);
   return agent;
}

void InMemoryPlatform::stop() {
   agent_ = nullptr;
   local_.clear();
   localEntitiesCreated_ = false;
   udpPams_.clear();
   named_.clear();
   pamManager_ = nullptr;
}

void InMemoryPlatform::advance(Seconds dt, const std::function<void()>& afterEach) {
   Seconds target = clock_.now() + dt;
   while (scheduler_->nextRunTime() <= target) {
      clock_.timeIs(std::max(clock_.now(), scheduler_->nextRunTime()));
      scheduler_->runNext(clock_.now());
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
