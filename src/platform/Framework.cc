#include "platform/Framework.h"

#include <cstdlib>

namespace Tavrin::Platform {

namespace {

Ptr<Rt::EntityBase> findIn(const std::map<std::string, Ptr<Rt::EntityBase>, std::less<>>& m,
                           std::string_view path) {
   auto it = m.find(path);
   return it == m.end() ? nullptr : it->second;
}

}  // namespace

class Framework::Em final : public EntityManager, public MountGroup {
 public:
   explicit Em(Framework& p) : p_(p) {}
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
   Framework& p_;
};

class Framework::ShmEm final : public ShmEntityManager {
 public:
   explicit ShmEm(Framework& p) : p_(p) {}
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
   Framework& p_;
};

Framework::Framework(const Rt::Clock& clock)
    : scheduler_(Rt::makePtr<Rt::TaskScheduler>(clock)) {
   registerPlatformTypes(types_);
   em_ = std::make_unique<Em>(*this);
}

Framework::~Framework() { stop(); }

Ptr<Rt::EntityBase> Framework::stateEntity(std::string_view path) const {
   return findIn(state_, path);
}

Ptr<Rt::EntityBase> Framework::stateEntityIs(std::string_view path,
                                                    std::string_view typeName) {
   if (auto e = findIn(state_, path)) return e;
   auto e = types_.entityIs(typeName);
   if (e) state_.emplace(std::string(path), e);
   return e;
}

Ptr<Rt::EntityBase> Framework::shmEntity(std::string_view path) const {
   return findIn(shm_, path);
}

Ptr<Rt::EntityBase> Framework::shmEntityIs(std::string_view path,
                                                  std::string_view typeName) {
   if (auto e = findIn(shm_, path)) return e;
   auto e = types_.entityIs(typeName);
   if (e) shm_.emplace(std::string(path), e);
   return e;
}

Ptr<Rt::EntityBase> Framework::localEntity(std::string_view path) const {
   return findIn(local_, path);
}

void Framework::envIs(const std::string& name, std::optional<std::string> value) {
   env_[name] = std::move(value);
}

std::optional<std::string> Framework::env(std::string_view name) const {
   if (auto it = env_.find(name); it != env_.end()) return it->second;
   if (!processEnv_) return std::nullopt;
   if (const char* v = std::getenv(std::string(name).c_str())) return std::string(v);
   return std::nullopt;
}

void Framework::traceRingIs(const TraceRingParams& params) {
   traceRing_ = params;
   traceRingSetUp(params);
}

EntityManager& Framework::entityManager() { return *em_; }

std::unique_ptr<ShmEntityManager> Framework::shmEntityManagerIs(EntityManager&) {
   return std::make_unique<ShmEm>(*this);
}

Ptr<AgentBase> Framework::start(const AgentFactory& factory, const std::string& name) {
   stop();
   mountGroupClosed_ = false;
   auto agent = factory(name, *this);
   agent_ = agent;
   agent->doInit();
   if (mountGroupClosed_) agent->doMountsComplete(MountStatus::mountSuccessful, *em_);
   return agent;
}

void Framework::stop() {
   agent_ = nullptr;
   local_.clear();
   localEntitiesCreated_ = false;
   agentStopped();
}

}  // namespace Tavrin::Platform
