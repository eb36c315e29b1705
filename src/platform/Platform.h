// The seams the agent is written against: the agent framework, the state
// store with its mount groups, the shared-memory table manager and the
// platform's own entities. Each has an in-memory implementation
// (InMemoryPlatform.h) used by tests and the simulator; the Linux host
// implements them for real.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "rt/Entity.h"
#include "rt/TaskScheduler.h"
#include "rt/Trace.h"
#include "rt/Types.h"

namespace Tavrin::Platform {

using Rt::Ptr;

// Builds entities by type name, as the framework does when it mounts a path.
class TypeRegistry {
 public:
   using Factory = std::function<Ptr<Rt::EntityBase>()>;
   void typeIs(std::string name, Factory factory) { factories_[std::move(name)] = std::move(factory); }
   template <class T>
   void typeIs(std::string name) {
      typeIs(std::move(name), [] { return Ptr<Rt::EntityBase>(Rt::makePtr<T>()); });
   }
   // An empty Ptr for an unknown type.
   Ptr<Rt::EntityBase> entityIs(std::string_view typeName) const;
   bool has(std::string_view typeName) const { return factories_.count(std::string(typeName)); }

 private:
   std::map<std::string, Factory, std::less<>> factories_;
};

struct Mount {
   std::string path;
   std::string typeName;
   std::string flags;  // "r" or "w"
   std::string filter;
};

// One group of state-store mounts; closing it starts them, and the framework
// calls the agent's doMountsComplete when they are done.
class MountGroup {
 public:
   virtual ~MountGroup() = default;
   virtual void mountIs(const Mount& m) = 0;
   virtual void close() = 0;
};

enum class MountStatus : uint8_t { mountSuccessful, mountFailed };

// The framework's entity access for one agent.
class EntityManager {
 public:
   virtual ~EntityManager() = default;
   virtual MountGroup& mountGroup() = 0;
   // A mounted state-store entity or a local entity; empty when absent.
   virtual Ptr<Rt::EntityBase> entity(std::string_view path) = 0;
   // Creates an entity that exists in this agent's process only.
   virtual Ptr<Rt::EntityBase> localEntityIs(std::string_view path, std::string_view typeName,
                                             std::string_view name) = 0;
   virtual void localEntitiesCreatedIs(bool created) = 0;
   // The cell-relative form of a path ("cell/1/" prefix on a switch).
   virtual std::string cellRelativePath(std::string_view path) const = 0;
};

struct ShmCollection {
   std::string name;
   size_t size;
};

// Writer and reader mounts of shared-memory tables.
class ShmEntityManager {
 public:
   virtual ~ShmEntityManager() = default;
   virtual void doInit() = 0;
   virtual Ptr<Rt::EntityBase> writerMountIs(std::string_view path, std::string_view typeName,
                                             const std::vector<ShmCollection>& collections) = 0;
   // mode: the platform's reader mode (1 or 3).
   virtual Ptr<Rt::EntityBase> readerMountIs(std::string_view path, std::string_view typeName,
                                             int mode) = 0;
   virtual Ptr<Rt::EntityBase> entity(std::string_view path) = 0;
};

// The platform trace facility's set-up parameters, passed as they stand.
struct TraceRingParams {
   std::string fileName;
   std::array<uint32_t, 10> levelSizes{};
   uint32_t param24 = 0;
   uint32_t param0 = 0;
   bool multiThreaded = false;
   uint32_t param512 = 0;
};

// What the framework offers an agent beyond entities.
class AgentFrame {
 public:
   virtual ~AgentFrame() = default;
   virtual EntityManager& entityManager() = 0;
   virtual std::unique_ptr<ShmEntityManager> shmEntityManagerIs(EntityManager& em) = 0;
   virtual std::optional<std::string> env(std::string_view name) const = 0;
   virtual void traceRingIs(const TraceRingParams& params) = 0;
   virtual Ptr<Rt::TaskScheduler> scheduler() = 0;
};

// Base of an agent the framework loads.
class AgentBase : public Rt::EntityBase {
 public:
   AgentBase(std::string name, AgentFrame& frame) : name_(std::move(name)), frame_(frame) {}
   const std::string& name() const { return name_; }
   AgentFrame& frame() const { return frame_; }

   virtual void doInit() = 0;
   virtual void doMountsComplete(MountStatus status, EntityManager& em) = 0;
   virtual bool hasBackupSupport() const { return false; }
   virtual std::string typeName() const = 0;

 private:
   std::string name_;
   AgentFrame& frame_;
};

// The platform's default network namespace name (the network value-type
// library's global). Longer than 150 bytes it is refused where it is used.
std::string& defaultNamespaceName();
// Checks a namespace name; throws std::range_error
// "NamespaceName::bytes > 150 not allowed" when it is too long.
const std::string& checkedNamespaceName(const std::string& name);

// ---------------------------------------------------------------- platform entities

// The IP status of one interface: its primary IPv4 address (0.0.0.0: none).
class IpIntfStatus : public Rt::EntityBase {
 public:
   class Notifiee : public Rt::Notifiee<IpIntfStatus> {
    public:
      using Rt::Notifiee<IpIntfStatus>::Notifiee;
      virtual void onPrimaryAddr() {}
   };
   explicit IpIntfStatus(IntfId intfId) : intfId_(intfId) {}
   IntfId intfId() const { return intfId_; }
   IpAddr primaryAddr() const { return primary_; }
   void primaryAddrIs(IpAddr a);

 private:
   IntfId intfId_;
   IpAddr primary_;
};

// "ip/status": per-interface IP status.
class IpStatus : public Rt::EntityBase {
 public:
   class Notifiee : public Rt::Notifiee<IpStatus> {
    public:
      using Rt::Notifiee<IpStatus>::Notifiee;
      virtual void onIpIntfStatus(IntfId) {}
   };
   Ptr<IpIntfStatus> ipIntfStatus(IntfId i) const;
   const std::map<IntfId, Ptr<IpIntfStatus>>& ipIntfStatusAll() const { return status_; }
   Ptr<IpIntfStatus> ipIntfStatusIs(IntfId i);
   void ipIntfStatusDel(IntfId i);

 private:
   std::map<IntfId, Ptr<IpIntfStatus>> status_;
};

// Key of the MAC address table: forwarding database (VLAN id or 0) and MAC.
struct HostKey {
   uint16_t fid = 0;
   EthAddr mac;
   auto operator<=>(const HostKey&) const = default;
   bool operator==(const HostKey&) const = default;
};

struct FdbStatusEntry {
   IntfId intf;
   bool operator==(const FdbStatusEntry&) const = default;
};

// "bridging/status": the MAC address table.
class BridgingStatus : public Rt::EntityBase {
 public:
   class Notifiee : public Rt::Notifiee<BridgingStatus> {
    public:
      using Rt::Notifiee<BridgingStatus>::Notifiee;
      virtual void onFdbStatus(const HostKey&) {}
   };
   std::optional<FdbStatusEntry> fdbStatus(const HostKey& k) const;
   const std::map<HostKey, FdbStatusEntry>& fdbStatusAll() const { return fdb_; }
   size_t fdbStatusSize() const { return fdb_.size(); }
   void fdbStatusIs(const HostKey& k, const FdbStatusEntry& e);
   void fdbStatusDel(const HostKey& k);

 private:
   std::map<HostKey, FdbStatusEntry> fdb_;
};

// Interface status directories and the kernel network status: inputs of the
// platform's interface status manager, which the agent only hands on.
class AllIntfStatusDir : public Rt::EntityBase {};
class AllIntfStatusLocalDir : public Rt::EntityBase {};
class KernelNetStatus : public Rt::EntityBase {};

// Registers the platform's own entity types under their type names.
void registerPlatformTypes(TypeRegistry& registry);

}  // namespace Tavrin::Platform
