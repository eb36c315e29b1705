#include "agent/TavrinAgent.h"

#include "model/TavrinCommon.h"

namespace Tavrin {

namespace {

// The platform trace facility's own parameters, passed as they stand.
constexpr std::array<uint32_t, 10> kTraceRingSizes = {8, 16, 32, 168, 96, 0, 0, 0, 0, 0};

template <class T>
Ptr<T> fetch(Platform::EntityManager& em, std::string_view path) {
   return Rt::ptrCast<T>(em.entity(path));
}

template <class T>
Ptr<T> fetchShm(Platform::ShmEntityManager& shm, std::string_view path) {
   return Rt::ptrCast<T>(shm.entity(path));
}

}  // namespace

Agent::Agent(std::string name, Platform::AgentFrame& frame)
    : Platform::AgentBase(std::move(name), frame) {}

Agent::~Agent() {
   tavrinRootDel();
   entities_ = {};
}

std::string Agent::traceFileName(const std::string& agentName, bool traceRingDirSet) {
   return agentName + (traceRingDirSet ? "" : "-%d") + ".tr";
}

void Agent::doInit() {
   TAVRIN_TRACE(tavrinTrace(), 4, " BEGIN");
   if (!frame().env("TRACERING_DISABLE")) {
      Platform::TraceRingParams params;
      params.fileName = traceFileName(name(), frame().env("TRACERINGDIR").has_value());
      params.levelSizes = kTraceRingSizes;
      params.param24 = 24;
      params.param0 = 0;
      params.multiThreaded = true;
      params.param512 = 512;
      frame().traceRingIs(params);
      TAVRIN_TRACE(tavrinTrace(), 4, " After tracering initialization");
   }
   auto& em = frame().entityManager();
   auto& group = em.mountGroup();
   group.mountIs({"tavrin/hardware/config", "Tavrin::Hardware::Config", "r", ""});
   group.mountIs({"tavrin/cliConfig", "Tavrin::CliConfig", "r", ""});
   group.mountIs({"ip/status", "Ip::Status", "r", ""});
   group.mountIs({"tavrin/interfaceStatus", "Tavrin::ConfiguredInterfaceStatus", "w", ""});
   group.mountIs({"tavrin/leaseStatus", "Tavrin::LeaseStatus", "w", ""});
   em.localEntityIs("interface/status/all", "Interface::AllIntfStatusDir", "AllIntfStatusDir");
   em.localEntityIs(em.cellRelativePath("interface/status/local"),
                    "Interface::AllIntfStatusLocalDir", "AllIntfStatusLocalDir");
   em.localEntitiesCreatedIs(true);
   group.close();
   TAVRIN_TRACE(tavrinTrace(), 4, " END");
}

void Agent::doMountsComplete(Platform::MountStatus, Platform::EntityManager& em) {
   TAVRIN_TRACE(tavrinTrace(), 4, " BEGIN");
   TavrinRoot::Inputs in;
   in.hardwareConfig = fetch<const Hardware::Config>(em, "tavrin/hardware/config");
   in.cliConfig = fetch<const CliConfig>(em, "tavrin/cliConfig");
   in.configuredInterfaceStatus = fetch<ConfiguredInterfaceStatus>(em, "tavrin/interfaceStatus");
   in.ipStatus = fetch<const Platform::IpStatus>(em, "ip/status");
   in.leaseStatus = fetch<LeaseStatus>(em, "tavrin/leaseStatus");

   shmEntityManager_ = frame().shmEntityManagerIs(em);
   auto& shm = *shmEntityManager_;
   shm.doInit();
   in.ipMacLeaseShmTable =
       Rt::ptrCast<Status>(shm.writerMountIs("tavrin/status", "Tavrin::Status", {{"ipMacLease", 256}}));
   in.installedIpMacLeaseShmTable = Rt::ptrCast<const Hardware::InstalledConfig>(
       shm.readerMountIs("tavrin/hardware/installedConfig", "Tavrin::Hardware::InstalledConfig", 3));
   in.bridgingStatus = Rt::ptrCast<const Platform::BridgingStatus>(
       shm.readerMountIs("bridging/status", "ShmTable::Bridging::Status", 1));
   const auto& ns = Platform::checkedNamespaceName(Platform::defaultNamespaceName());
   in.kniStatus = Rt::ptrCast<const Platform::KernelNetStatus>(
       shm.readerMountIs("kni/ns/" + ns + "/status", "KernelNetStatus::Status", 3));
   in.arpDropCounterStatus =
       fetchShm<const Hardware::ArpDropCounterStatus>(shm, "tavrin/hardware/arpdrops");

   in.allIntfStatusDir = fetch<const Platform::AllIntfStatusDir>(em, "interface/status/all");
   in.allIntfStatusLocalDir = fetch<const Platform::AllIntfStatusLocalDir>(
       em, em.cellRelativePath("interface/status/local"));
   tavrinRootIs(in);
   TAVRIN_TRACE(tavrinTrace(), 4, " END");
}

const Ptr<TavrinRoot>& Agent::tavrinRootIs(const TavrinRoot::Inputs& inputs) {
   if (tavrinRoot_ && tavrinRoot_->inputs() == inputs) return tavrinRoot_;
   entities_ = inputs;
   // The old root goes first, so that two sets of machines never share the
   // records and tables at once.
   tavrinRoot_ = nullptr;
   tavrinRoot_ = Rt::makePtr<TavrinRoot>(inputs, rootObserver_);
   notify<Notifiee>([](Notifiee& n) { n.onTavrinRoot(); });
   return tavrinRoot_;
}

Ptr<TavrinRoot> Agent::tavrinRootDel() {
   Ptr<TavrinRoot> released = std::move(tavrinRoot_);
   tavrinRoot_ = nullptr;
   if (released) notify<Notifiee>([](Notifiee& n) { n.onTavrinRoot(); });
   return released;
}

Ptr<Agent> agentFactory(const std::string& name, Platform::AgentFrame& frame) {
   return Rt::makePtr<Agent>(name, frame);
}

void registerTavrinTypes(Platform::TypeRegistry& r) {
   r.typeIs<Hardware::Config>("Tavrin::Hardware::Config");
   r.typeIs<CliConfig>("Tavrin::CliConfig");
   r.typeIs<ConfiguredInterfaceStatus>("Tavrin::ConfiguredInterfaceStatus");
   r.typeIs<LeaseStatus>("Tavrin::LeaseStatus");
   r.typeIs<Status>("Tavrin::Status");
   r.typeIs<Hardware::InstalledConfig>("Tavrin::Hardware::InstalledConfig");
   r.typeIs<Hardware::ArpDropCounterStatus>("Tavrin::Hardware::ArpDropCounterStatus");
}

}  // namespace Tavrin
