#include "daemon/Daemon.h"

#include <errno.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>

#include "agent/TavrinAgent.h"
#include "daemon/Log.h"

namespace Tavrin::Daemon {

namespace {

// How soon a failed database write is tried again when nothing else happens.
constexpr Seconds kStoreRetryDelay = 1.0;

// The agent's name: its trace file is named after it.
constexpr const char* kAgentName = "Tavrin";

// Creates the database's directory when missing (systemd makes it for the
// unit; a hand-started daemon must not fail on a fresh machine).
void makeDatabaseDir(const std::string& path) {
   auto dir = std::filesystem::path(path).parent_path();
   if (dir.empty()) return;
   std::error_code ec;
   if (std::filesystem::is_directory(dir, ec)) return;
   if (::mkdir(dir.c_str(), 0750) != 0 && errno != EEXIST) {
      throw StartError(
          "cannot create the database directory " + dir.string() + ": " + std::strerror(errno),
          kExitFailure);
   }
}

std::string plural(size_t n, const char* one, const char* many) {
   return std::to_string(n) + " " + (n == 1 ? one : many);
}

// The Linux host with the tap on the agent's query socket; the socket
// underneath stays the platform's, with its own counters.
class DaemonPlatform : public Linux::LinuxPlatform {
 public:
   explicit DaemonPlatform(QueryTap& tap) : tap_(tap) {}
   Ptr<Platform::UdpPam> udpPamIs(const std::string& name) override {
      return Rt::makePtr<TappedUdpPam>(Linux::LinuxPlatform::udpPamIs(name), tap_);
   }

 private:
   QueryTap& tap_;
};

}  // namespace

Daemon::Daemon(std::string configPath, bool traceToStderr) : configPath_(std::move(configPath)) {
   auto loaded = Linux::loadConfig(configPath_);
   if (auto* err = std::get_if<Linux::ConfigError>(&loaded)) {
      throw StartError(err->str(), kExitConfig);
   }
   config_ = std::get<Linux::DaemonConfig>(loaded);
   openStore();
   tap_ = std::make_unique<QueryTap>(clock_,
                                     [](LogLevel level, const std::string& m) { log(level, m); });
   platform_ = std::make_unique<DaemonPlatform>(*tap_);
   if (config_.traceDir) platform_->traceDirDefaultIs(*config_.traceDir);
   platform_->traceToStderrIs(traceToStderr);
   createEntities();
   tap_->cliConfigIs(cliConfig_);
   storeRetry_ = std::make_unique<Rt::TimerTask>(platform_->loop().scheduler(), Rt::TaskPriority(0),
                                                 "tavrind store retry");
   storeRetryReactor_.notifierIs(storeRetry_.get());
   // First of the iteration-end hooks: whatever an event changed is in the
   // database before any later hook publishes it.
   platform_->loop().iterationEndIs([this] { commit(); });
   loadState();
   startAgent();
   programDataPlane();
   followKernel();
   readTraps();
   declareCounters();
   serveControl();
   auto& loop = platform_->loop();
   loop.signalIs(SIGTERM, [this] { stop(); });
   loop.signalIs(SIGINT, [this] { stop(); });
   loop.signalIs(SIGHUP, [this] {
      // The outcome is logged by reload(); nobody waits for a reply here.
      (void)reload();
   });
   logInfo("serving: bridge " + config_.bridge + ", local interface " +
           config_.localInterface.name() + ", database " + config_.database + ", control socket " +
           config_.controlSocket);
}

Daemon::~Daemon() {
   storeRetry_.reset();
   control_.reset();
   handlers_.reset();
   leaseOps_.reset();
   counters_ = CounterRegistry();
   // The trap reader names ports through the kernel follower.
   traps_.reset();
   arpDrops_.reset();
   rtnl_.reset();
   // Gone before the agent, whose teardown must not reach the kernel: the
   // table stays as it is, and the lock holds while tavrind is away.
   dataPlane_.reset();
   if (platform_) {
      commit();
      // The agent goes while the entities and the loop still exist; what its
      // teardown changes is written too.
      platform_->stop();
      commit();
      if (store_ && store_->pending() > 0) {
         logError("stopping with " + plural(store_->pending(), "change", "changes") +
                  " not written to the database: " + store_->lastError());
      } else if (!store_) {
         logError("stopping without having written the database " + config_.database +
                  ": it never became writable");
      }
   }
   store_.reset();
}

void Daemon::openStore() {
   makeDatabaseDir(config_.database);
   try {
      store_ = std::make_unique<Linux::SqliteStore>(config_.database);
   } catch (const Linux::StoreError& e) {
      const int code = e.code() & 0xff;
      const bool unwritable =
          code == SQLITE_READONLY || code == SQLITE_CANTOPEN || code == SQLITE_PERM;
      if (!unwritable) throw StartError(std::string("database: ") + e.what(), kExitFailure);
      // A read-only file system: the leases are read from the file as it
      // is, enforcement goes on from memory, and the file is opened for
      // writing as soon as it can be (loadState, commit).
      storeDown_ = e.what();
   }
}

void Daemon::createEntities() {
   auto& p = *platform_;
   registerTavrinTypes(p.types());
   // The state store and tables exist before the agent, as on a switch.
   cliConfig_ = Rt::ptrCast<CliConfig>(p.stateEntityIs("tavrin/cliConfig", "Tavrin::CliConfig"));
   p.stateEntityIs("tavrin/hardware/config", "Tavrin::Hardware::Config");
   ipStatus_ = Rt::ptrCast<Platform::IpStatus>(p.stateEntityIs("ip/status", "Ip::Status"));
   interfaceStatus_ = Rt::ptrCast<ConfiguredInterfaceStatus>(
       p.stateEntityIs("tavrin/interfaceStatus", "Tavrin::ConfiguredInterfaceStatus"));
   leaseStatus_ =
       Rt::ptrCast<LeaseStatus>(p.stateEntityIs("tavrin/leaseStatus", "Tavrin::LeaseStatus"));
   p.shmEntityIs("tavrin/status", "Tavrin::Status");
   p.shmEntityIs("tavrin/hardware/installedConfig", "Tavrin::Hardware::InstalledConfig");
   p.shmEntityIs("tavrin/hardware/arpdrops", "Tavrin::Hardware::ArpDropCounterStatus");
   bridgingStatus_ = Rt::ptrCast<Platform::BridgingStatus>(
       p.shmEntityIs("bridging/status", "ShmTable::Bridging::Status"));
   if (!cliConfig_ || !ipStatus_ || !interfaceStatus_ || !leaseStatus_ || !bridgingStatus_) {
      throw StartError("internal error: an entity type is not registered", kExitFailure);
   }
}

void Daemon::loadState() {
   if (!store_) {
      try {
         auto report =
             Linux::SqliteStore::loadReadOnly(config_.database, *leaseStatus_, *interfaceStatus_);
         for (const auto& why : report.skipped) logWarning("database: skipped " + why);
         logInfo("database " + config_.database + ", read-only: loaded " +
                 plural(report.leases, "lease", "leases") + " and " +
                 plural(report.rules, "interface rule", "interface rules"));
      } catch (const Linux::StoreError& e) {
         throw StartError("database: " + storeDown_ + "; reading it failed too: " + e.what(),
                          kExitFailure);
      }
      ++storeOpenFailures_;
      commitFailing_ = true;
      logError("cannot write the database " + config_.database + ": " + storeDown_ +
               "; enforcing from memory, and opening it for writing again every second");
      storeRetry_->scheduleTaskDelay(kStoreRetryDelay);
      return;
   }
   try {
      auto report = store_->load(*leaseStatus_, *interfaceStatus_);
      for (const auto& why : report.skipped) logWarning("database: skipped " + why);
      logInfo("database " + config_.database + ": loaded " +
              plural(report.leases, "lease", "leases") + " and " +
              plural(report.rules, "interface rule", "interface rules"));
      // Followed before the agent starts: its first changes are persisted too.
      store_->follow(leaseStatus_, interfaceStatus_);
   } catch (const Linux::StoreError& e) {
      throw StartError(std::string("database: ") + e.what(), kExitFailure);
   }
}

void Daemon::startAgent() {
   // Applied before the machines are built, so each finds its configuration
   // in place instead of as a burst of changes.
   for (const auto& change : Linux::applyConfig(config_, *cliConfig_)) {
      logInfo("configuration: " + change);
   }
   try {
      platform_->start(
          [](const std::string& name, Platform::AgentFrame& frame) {
             return Ptr<Platform::AgentBase>(agentFactory(name, frame));
          },
          kAgentName);
   } catch (const std::exception& e) {
      throw StartError(std::string("the agent did not start: ") + e.what(), kExitFailure);
   }
   auto pam = platform_->udpPam(kAgentName);
   if (!pam || !pam->isOpen()) {
      throw StartError("cannot listen for lease query answers on UDP port " +
                           std::to_string(LeaseQuerySm::kDhcpServerPort) + ": " +
                           (pam ? pam->lastError() : std::string("no socket was opened")),
                       kExitFailure);
   }
}

void Daemon::followKernel() {
   try {
      rtnl_ = std::make_unique<Linux::RtnlFollower>(platform_->loop(), bridgingStatus_, ipStatus_,
                                                    Linux::RtnlFollower::Options{config_.bridge});
   } catch (const Linux::RtnlError& e) {
      throw StartError(std::string("cannot follow the kernel's tables: ") + e.what(), kExitFailure);
   }
   bool first = true;
   rtnl_->syncHandlerIs([this, first]() mutable {
      if (!first) return;
      first = false;
      handleFirstSync();
   });
   rtnl_->start();
}

// Once the agent has published what it holds, so that the table replaced
// here already passes every client that passed before the restart.
void Daemon::programDataPlane() {
   auto settings = Linux::Nft::dataPlaneSettings(config_.dataPlane, configPath_);
   if (auto* err = std::get_if<Linux::ConfigError>(&settings)) {
      throw StartError(err->str(), kExitConfig);
   }
   auto& p = *platform_;
   Linux::NftProgrammer::Options options;
   options.settings = std::get<Linux::Nft::DataPlaneSettings>(settings);
   try {
      dataPlane_ = std::make_unique<Linux::NftProgrammer>(
          p.loop(), p.shm<Status>("tavrin/status"), interfaceStatus_,
          p.shm<Hardware::InstalledConfig>("tavrin/hardware/installedConfig"), options);
   } catch (const Linux::Nft::NftError& e) {
      throw StartError(std::string("cannot program the data plane: ") + e.what(), kExitFailure);
   }
   dataPlane_->healthHandlerIs([](bool healthy, const std::string& message) {
      healthy ? logInfo("data plane: " + message) : logError("data plane: " + message);
   });
   // Nothing reaches the kernel before it is on disk, start-up included.
   commit();
   dataPlane_->start();
   p.loop().iterationEndIs([this] {
      if (dataPlane_) dataPlane_->flush();
   });
   using T = Family::Type;
   counters_.familyIs({"tavrin_dataplane_transactions_total", T::counter,
                       "Transactions that changed the nftables table's elements"});
   counters_.familyIs({"tavrin_dataplane_transaction_failures_total", T::counter,
                       "nftables transactions the kernel refused; each is retried"});
   counters_.familyIs({"tavrin_dataplane_rebuilds_total", T::counter,
                       "Times the nftables table was replaced whole"});
   counters_.familyIs({"tavrin_dataplane_drift_total", T::counter,
                       "Changes to the nftables table by another program, put right"});
   counters_.familyIs(
       {"tavrin_dataplane_allowed", T::gauge, "(port, MAC, IPv4) elements the kernel holds"});
   counters_.sourceIs(
       "dataplane", std::make_unique<FunctionSource>([this](std::vector<Sample>& out) {
          const auto& c = dataPlane_->counters();
          out.push_back({"tavrin_dataplane_transactions_total", {}, double(c.batches)});
          out.push_back({"tavrin_dataplane_transaction_failures_total",
                         {},
                         double(c.batchFailures + c.rebuildFailures)});
          out.push_back({"tavrin_dataplane_rebuilds_total", {}, double(c.rebuilds)});
          out.push_back({"tavrin_dataplane_drift_total", {}, double(c.drift)});
          out.push_back(
              {"tavrin_dataplane_allowed", {}, double(dataPlane_->kernelView().allowedSize())});
       }));
}

// What the data plane tells the agent of the clients it stops: the packets
// it traps, each handed to the Pam of its port, and the ARP packets it
// drops, counted per port. The NFLOG group is the data plane's setting,
// checked when the data plane was programmed.
void Daemon::readTraps() {
   auto& p = *platform_;
   const auto settings = std::get<Linux::Nft::DataPlaneSettings>(
       Linux::Nft::dataPlaneSettings(config_.dataPlane, configPath_));
   Linux::NflogReader::Options options;
   options.group = settings.nflogGroup;
   try {
      traps_ = std::make_unique<Linux::NflogReader>(
          p.loop(), options, [this](int ifindex) { return rtnl_->mirror().ifname(ifindex); },
          [&p](IntfId port, std::vector<Ptr<Rt::Pkt>> frames) {
             if (auto manager = p.ethDevPamManager()) manager->deliver(port, std::move(frames));
          });
      arpDrops_ = std::make_unique<Linux::ArpDropPoller>(
          p.loop(), p.shm<Hardware::ArpDropCounterStatus>("tavrin/hardware/arpdrops"),
          Linux::ArpDropPoller::Options{std::string(Linux::Nft::kTable),
                                        Linux::Nft::arpDropCounterPort});
   } catch (const Linux::NflogError& e) {
      throw StartError(std::string("cannot read trapped packets: ") + e.what(), kExitFailure);
   } catch (const Linux::ArpDropError& e) {
      throw StartError(std::string("cannot read ARP drop counters: ") + e.what(), kExitFailure);
   }
}

// What an operator most often gets wrong shows here, once the kernel's view
// is known; none of it is fatal, since the kernel may yet catch up.
void Daemon::handleFirstSync() {
   const auto& mirror = rtnl_->mirror();
   const int bridge = mirror.bridgeIfindex();
   if (bridge == 0) {
      logWarning("bridge " + config_.bridge +
                 " does not exist; no MAC is learned until it appears");
   } else if (mirror.linkKind(bridge).value_or("") != "bridge") {
      logWarning(config_.bridge + " is not a bridge; no MAC is learned from it");
   }
   const auto& local = config_.localInterface;
   auto ifindex = mirror.ifindex(local.name());
   if (!ifindex) {
      logWarning("local interface " + local.name() +
                 " does not exist; no lease query is sent until it does");
   } else if (mirror.primaryAddr(*ifindex).isAny()) {
      logWarning("local interface " + local.name() +
                 " has no IPv4 address; no lease query is sent until it has one");
   }
   logInfo("following bridge " + config_.bridge + ": " +
           plural(bridgingStatus_->fdbStatusSize(), "MAC", "MACs") + " learned on its ports");
}

void Daemon::declareCounters() {
   declareDaemonFamilies(counters_);
   auto& p = *platform_;
   counters_.sourceIs(
       "socket", std::make_unique<FunctionSource>([&p](std::vector<Sample>& out) {
          auto pam = p.udpPam(kAgentName);
          Linux::LinuxUdpPam::Counters c = pam ? pam->counters() : Linux::LinuxUdpPam::Counters();
          out.push_back({"tavrin_queries_sent_total", {}, double(c.sent)});
          out.push_back({"tavrin_queries_deferred_total", {}, pam ? double(pam->deferred()) : 0.0});
          out.push_back({"tavrin_queries_waiting", {}, pam ? double(pam->waiting()) : 0.0});
          out.push_back({"tavrin_query_send_errors_total", {}, double(c.sendErrors)});
          out.push_back({"tavrin_datagrams_received_total", {}, double(c.received)});
          out.push_back(
              {"tavrin_drops_total", {{"reason", "socket queue full"}}, double(c.rxQueueDrops)});
       }));
   counters_.sourceIs("query", std::make_unique<FunctionSource>(
                                   [this](std::vector<Sample>& out) { tap_->collect(out); }));
   counters_.sourceIs("leases", std::make_unique<LeaseChangeCounter>(leaseStatus_));
   counters_.sourceIs(
       "trap", std::make_unique<FunctionSource>([this](std::vector<Sample>& out) {
          auto manager = platform_->ethDevPamManager();
          trapSamples(traps_->counters(),
                      manager ? manager->counters() : Linux::NflogPamManager::Counters(), out);
       }));
   counters_.sourceIs(
       "state", std::make_unique<FunctionSource>([this](std::vector<Sample>& out) {
          size_t leases = 0;
          for (const auto& [intf, set] : leaseStatus_->interfaceLeaseSetAll()) {
             leases += set->ipMacLeaseSize();
          }
          size_t queries = 0;
          if (auto agent = Rt::ptrCast<Agent>(platform_->agent());
              agent && agent->tavrinRoot() && agent->tavrinRoot()->leaseQuerySm()) {
             queries = agent->tavrinRoot()->leaseQuerySm()->queryContextAll().size();
          }
          out.push_back({"tavrin_leases", {}, double(leases)});
          out.push_back({"tavrin_queries_in_flight", {}, double(queries)});
          out.push_back({"tavrin_locked_interfaces",
                         {},
                         double(interfaceStatus_->interfaceRuleAll().size())});
          out.push_back({"tavrin_fdb_entries", {}, double(bridgingStatus_->fdbStatusSize())});
       }));
   counters_.sourceIs(
       "kernel", std::make_unique<FunctionSource>([this](std::vector<Sample>& out) {
          const auto& c = rtnl_->counters();
          out.push_back({"tavrin_netlink_notifications_total", {}, double(c.notifications)});
          out.push_back({"tavrin_netlink_resyncs_total", {}, double(c.resyncs)});
       }));
   counters_.sourceIs(
       "store", std::make_unique<FunctionSource>([this](std::vector<Sample>& out) {
          const auto c = store_ ? store_->counters() : Linux::StoreCounters();
          out.push_back({"tavrin_store_commits_total", {}, double(c.commits)});
          out.push_back({"tavrin_store_commit_failures_total",
                         {},
                         double(c.commitFailures + storeOpenFailures_)});
          out.push_back({"tavrin_store_pending", {}, store_ ? double(store_->pending()) : 0.0});
       }));
}

void Daemon::serveControl() {
   leaseOps_ =
       std::make_unique<AgentLeaseOps>([this] { return Rt::ptrCast<Agent>(platform_->agent()); });
   handlers_ = std::make_unique<ControlHandlers>(*platform_, *leaseOps_, counters_,
                                                 [this] { return reload(); });
   try {
      control_ = std::make_unique<ControlServer>(
          platform_->loop(), config_.controlSocket,
          [this](std::string_view line) { return handlers_->handleLine(line); });
   } catch (const ControlError& e) {
      throw StartError(e.what(), kExitFailure);
   }
}

int Daemon::run() {
   platform_->loop().run();
   return kExitOk;
}

void Daemon::stop() {
   if (stopped_) return;
   stopped_ = true;
   logInfo("stopping");
   platform_->loop().stop();
}

void Daemon::commit() {
   if (!store_ && !storeDown_.empty()) reopenStore();
   if (!store_) return;
   if (store_->commit()) {
      if (commitFailing_) logInfo("database writes resumed");
      commitFailing_ = false;
      return;
   }
   // An idle switch makes no iterations of its own; the changes must not
   // wait for the next client to reach the disk.
   if (storeRetry_) storeRetry_->scheduleTaskLowestDelay(kStoreRetryDelay);
   // Said once per episode: the changes are kept and retried each iteration.
   if (!commitFailing_) {
      logError("cannot write the database " + config_.database + ": " + store_->lastError() +
               "; keeping " + plural(store_->pending(), "change", "changes") + " and trying again");
   }
   commitFailing_ = true;
}

// The file could not be written when tavrind started. Opened now, it is
// brought in line with what the agent holds (the commit that follows writes
// it); tried at most once per retry delay, however busy the loop.
void Daemon::reopenStore() {
   const Seconds now = clock_.monotonic();
   if (now < nextReopen_) {
      // Too soon; the timer makes sure the next try is not forgotten.
      storeRetry_->scheduleTaskLowestDelay(nextReopen_ - now);
      return;
   }
   nextReopen_ = now + kStoreRetryDelay;
   try {
      auto store = std::make_unique<Linux::SqliteStore>(config_.database);
      store->follow(leaseStatus_, interfaceStatus_);
      store_ = std::move(store);
      storeDown_.clear();
      logInfo("database " + config_.database + " opened for writing");
   } catch (const Linux::StoreError& e) {
      ++storeOpenFailures_;
      // Said again only when the reason changes, not once a second.
      if (e.what() != storeDown_) {
         storeDown_ = e.what();
         logError("still cannot write the database: " + storeDown_);
      }
      storeRetry_->scheduleTaskLowestDelay(kStoreRetryDelay);
   }
}

std::variant<Json, std::string> Daemon::reload() {
   auto loaded = Linux::loadConfig(configPath_);
   if (auto* err = std::get_if<Linux::ConfigError>(&loaded)) {
      std::string why = "reload refused, the running configuration is kept: " + err->str();
      logError(why);
      return why;
   }
   const auto& next = std::get<Linux::DaemonConfig>(loaded);
   auto changes = Linux::applyConfig(next, *cliConfig_);
   auto restart = Linux::settingsNeedingRestart(config_, next);
   for (const auto& c : changes) logInfo("reload: " + c);
   if (changes.empty()) logInfo("reload: no change");
   for (const auto& r : restart) logWarning("reload: " + r + " changes only at the next start");
   return Json{{"changes", changes}, {"restart_needed", restart}};
}

}  // namespace Tavrin::Daemon
