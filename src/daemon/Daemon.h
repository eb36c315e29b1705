// tavrind assembled: the configuration file, the database, the Linux host
// of the agent, the kernel followers, the counters and the control socket,
// started in the order the agent needs and stopped in reverse.
//
// Start order: configuration, database (a bad file stops here with a clear
// message), platform and its state entities, the commit hook (first of the
// iteration-end hooks, so that nothing is published before it is written),
// persisted state loaded and then followed, configuration applied, agent
// started, kernel tables followed, control socket served. The agent thus
// finds its leases and rules as a restarted agent on a switch finds them,
// and each MAC of the bridge's table reaches it as a fresh change, which
// queries it again.
#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <variant>

#include "daemon/ControlHandlers.h"
#include "daemon/ControlServer.h"
#include "daemon/Counters.h"
#include "daemon/LeaseOps.h"
#include "daemon/QueryTap.h"
#include "linux/ArpDropPoller.h"
#include "linux/ConfigFile.h"
#include "linux/LinuxPlatform.h"
#include "linux/NflogReader.h"
#include "linux/NftProgrammer.h"
#include "linux/RtnlFollower.h"
#include "linux/SqliteStore.h"

namespace Tavrin::Daemon {

// The daemon cannot start; what() is the message for the operator.
class StartError : public std::runtime_error {
 public:
   StartError(const std::string& what, int exitStatus)
       : std::runtime_error(what), exitStatus_(exitStatus) {}
   int exitStatus() const { return exitStatus_; }

 private:
   int exitStatus_;
};

// Exit statuses of tavrind.
enum DaemonExit : int {
   kExitOk = 0,
   kExitFailure = 1,  // could not start or keep running (database, sockets, kernel)
   kExitConfig = 2,   // bad command line or configuration file
};

class Daemon {
 public:
   // Everything up to and including the control socket; throws StartError.
   // traceToStderr: the agent's trace lines go to standard error as well as
   // to the trace file (a foreground run).
   explicit Daemon(std::string configPath, bool traceToStderr = false);
   // Final commit, agent stopped, sockets closed.
   ~Daemon();
   Daemon(const Daemon&) = delete;
   Daemon& operator=(const Daemon&) = delete;

   // Serves until SIGTERM or SIGINT; returns the exit status.
   int run();
   // Re-reads the configuration file and applies what changed; a file that
   // cannot be read or is wrong changes nothing. What changed, or why not.
   std::variant<Json, std::string> reload();

   Linux::LinuxPlatform& platform() { return *platform_; }

 private:
   void openStore();
   void createEntities();
   void loadState();
   void startAgent();
   void followKernel();
   void programDataPlane();
   void readTraps();
   void handleFirstSync();
   void declareCounters();
   void serveControl();
   void commit();
   void reopenStore();
   void stop();

   std::string configPath_;
   Linux::DaemonConfig config_;  // as started: the settings a reload cannot change
   std::unique_ptr<Linux::SqliteStore> store_;
   // Before the platform: the agent's socket reports to it until it goes.
   Rt::SystemClock clock_;
   std::unique_ptr<QueryTap> tap_;
   std::unique_ptr<Linux::LinuxPlatform> platform_;
   Ptr<CliConfig> cliConfig_;
   Ptr<LeaseStatus> leaseStatus_;
   Ptr<ConfiguredInterfaceStatus> interfaceStatus_;
   Ptr<Platform::BridgingStatus> bridgingStatus_;
   Ptr<Platform::IpStatus> ipStatus_;
   std::unique_ptr<Linux::RtnlFollower> rtnl_;
   std::unique_ptr<Linux::NftProgrammer> dataPlane_;
   std::unique_ptr<Linux::NflogReader> traps_;
   std::unique_ptr<Linux::ArpDropPoller> arpDrops_;
   CounterRegistry counters_;
   std::unique_ptr<AgentLeaseOps> leaseOps_;
   std::unique_ptr<ControlHandlers> handlers_;
   std::unique_ptr<ControlServer> control_;
   // Wakes an idle loop to retry a failed commit; the retry is the commit
   // at the end of the iteration that its run makes.
   class StoreRetry : public Rt::TimerTask::Notifiee {
    public:
      void onTaskRun() override {}
   };
   std::unique_ptr<Rt::TimerTask> storeRetry_;
   StoreRetry storeRetryReactor_;
   bool commitFailing_ = false;
   // Why the database could not be opened for writing at start; empty once
   // it is (or if it was).
   std::string storeDown_;
   Seconds nextReopen_ = 0;
   uint64_t storeOpenFailures_ = 0;
   bool stopped_ = false;
};

}  // namespace Tavrin::Daemon
