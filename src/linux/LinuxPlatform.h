// The agent framework hosted on Linux: the shared entity framework with the
// system clock, the agent thread's event loop, real UDP sockets, and the
// packet access objects the agent asks for. It installs itself as the
// process's clock and platform services, so at most one exists at a time.
#pragma once

#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "linux/EventLoop.h"
#include "linux/LinuxUdpPam.h"
#include "linux/NflogPamManager.h"
#include "platform/Framework.h"
#include "platform/PacketAccess.h"
#include "platform/Services.h"
#include "rt/Clock.h"
#include "rt/Trace.h"

namespace Tavrin::Linux {

// The clock lives in a base so that it exists before the framework's scheduler.
struct SystemClockHolder {
   Rt::SystemClock clock_;
};

class LinuxPlatform : private SystemClockHolder,
                      public Platform::Framework,
                      public Platform::Services {
 public:
   // Where the trace file goes when TRACERINGDIR is not set.
   static constexpr const char* kDefaultTraceDir = "/var/log/tavrin";

   // Installs the system clock and these services, and reads unset
   // environment variables (TRACERING_DISABLE, TRACERINGDIR) from the process.
   LinuxPlatform();
   // Stops the agent first: its sockets leave the loop before the loop goes.
   ~LinuxPlatform() override;

   EventLoop& loop() { return *loop_; }
   const Rt::Clock& systemClock() const { return clock_; }

   // The directory of the trace file when TRACERINGDIR is unset; empty: no
   // file unless TRACERINGDIR names one.
   void traceDirDefaultIs(std::string dir) { traceDirDefault_ = std::move(dir); }
   // Also writes every trace line to standard error (foreground runs).
   void traceToStderrIs(bool on) { traceToStderr_ = on; }
   // The trace file in use; empty when none is open.
   const std::string& traceFilePath() const { return traceFilePath_; }
   Rt::DualTrace& trace() { return *trace_; }

   // ---- Services
   Ptr<Platform::UdpPam> udpPamIs(const std::string& name) override;
   Ptr<Rt::TaskScheduler> taskScheduler() override { return scheduler(); }
   Ptr<Platform::DeviceIntfStatusDir> deviceIntfStatusDirIs(const std::string& name) override;
   Ptr<Platform::PamDesiredIntfDir> pamDesiredIntfDirIs(const std::string& name) override;
   Ptr<Platform::EthDevPamCollection> ethDevPamCollectionIs(const std::string& name) override;
   Ptr<Platform::EthDevPamManager> ethDevPamManagerIs(
       Ptr<const Platform::PamDesiredIntfDir> desired,
       Ptr<Platform::EthDevPamCollection> collection,
       Ptr<const Platform::DeviceIntfStatusDir> devices) override;
   Ptr<Platform::IntfStatusManager> intfStatusManagerIs(
       Ptr<const Platform::AllIntfStatusDir> all, Ptr<const Platform::AllIntfStatusLocalDir> local,
       Ptr<Platform::DeviceIntfStatusDir> devices,
       Ptr<const Platform::KernelNetStatus> kernel) override;

   // What the running agent made through the services; empty before it asked.
   Ptr<LinuxUdpPam> udpPam(const std::string& name) const;
   const std::map<std::string, Ptr<LinuxUdpPam>>& udpPamAll() const { return udpPams_; }
   Ptr<NflogPamManager> ethDevPamManager() const { return pamManager_; }

 protected:
   void agentStopped() override;
   void traceRingSetUp(const Platform::TraceRingParams& params) override;

 private:
   struct FileCloser {
      void operator()(std::FILE* f) const { std::fclose(f); }
   };
   void writeTraceLine(const Rt::TraceFacility& f, int level, std::string_view message);

   std::unique_ptr<EventLoop> loop_;
   std::unique_ptr<Rt::DualTrace> trace_;
   std::unique_ptr<std::FILE, FileCloser> traceFile_;
   std::string traceFilePath_;
   std::string traceDirDefault_ = kDefaultTraceDir;
   bool traceToStderr_ = false;
   std::map<std::string, Ptr<LinuxUdpPam>> udpPams_;
   std::map<std::string, Ptr<Rt::EntityBase>> named_;
   Ptr<NflogPamManager> pamManager_;
};

// The trace file's path: dir / fileName with "%d" replaced by pid (the
// per-process file of agents that were given no trace directory).
std::string traceFileFor(const std::string& dir, const std::string& fileName, long pid);

}  // namespace Tavrin::Linux
