#include "linux/LinuxPlatform.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "rt/Collection.h"

namespace Tavrin::Linux {

namespace {

Rt::TraceFacility& linuxTrace() {
   static Rt::TraceFacility& f = Rt::traceFacility("TavrinLinux");
   return f;
}

template <class T>
Ptr<T> namedIs(std::map<std::string, Ptr<Rt::EntityBase>>& named, const std::string& name) {
   auto e = Rt::makePtr<T>();
   named[name] = e;
   return e;
}

}  // namespace

// ---------------------------------------------------------------- platform

std::string traceFileFor(const std::string& dir, const std::string& fileName, long pid) {
   std::string name = fileName;
   if (auto at = name.find("%d"); at != std::string::npos) {
      name.replace(at, 2, std::to_string(pid));
   }
   if (dir.empty() || dir.back() == '/') return dir + name;
   return dir + "/" + name;
}

LinuxPlatform::LinuxPlatform()
    : Framework(clock_),
      loop_(std::make_unique<EventLoop>(scheduler())),
      trace_(std::make_unique<Rt::DualTrace>()) {
   Rt::clockIs(&clock_);
   Platform::servicesIs(this);
   processEnvIs(true);
   trace_->textTwinIs([this](const Rt::TraceFacility& f, int level, std::string_view message) {
      writeTraceLine(f, level, message);
   });
   Rt::traceSinkIs(trace_.get());
}

LinuxPlatform::~LinuxPlatform() {
   stop();
   Rt::traceSinkIs(nullptr);
   Rt::clockIs(nullptr);
   Platform::servicesIs(nullptr);
}

void LinuxPlatform::agentStopped() {
   udpPams_.clear();
   named_.clear();
   pamManager_ = nullptr;
}

void LinuxPlatform::traceRingSetUp(const Platform::TraceRingParams& params) {
   trace_->ring().init(params.fileName, params.levelSizes);
   traceFile_.reset();
   traceFilePath_.clear();
   std::string dir = env("TRACERINGDIR").value_or(traceDirDefault_);
   if (dir.empty()) return;
   std::string path = traceFileFor(dir, params.fileName, long(::getpid()));
   std::FILE* f = std::fopen(path.c_str(), "ae");
   if (!f) {
      // Tracing is diagnosis, not service: the agent runs without its file.
      TAVRIN_TRACE(linuxTrace(), 0,
                   "cannot open trace file " << path << ": " << std::strerror(errno));
      return;
   }
   // Line buffered: what was traced before a crash is in the file.
   std::setvbuf(f, nullptr, _IOLBF, 0);
   traceFile_.reset(f);
   traceFilePath_ = path;
}

void LinuxPlatform::writeTraceLine(const Rt::TraceFacility& f, int level,
                                   std::string_view message) {
   char stamp[32];
   std::snprintf(stamp, sizeof stamp, "%.6f", clock_.now());
   if (traceFile_) {
      std::fprintf(traceFile_.get(), "%s %s %d %.*s\n", stamp, f.name().c_str(), level,
                   int(message.size()), message.data());
   }
   if (traceToStderr_ || (!traceFile_ && level == 0)) {
      // Level 0 is an error: with no file to hold it, standard error must.
      std::cerr << stamp << ' ' << f.name() << ' ' << level << ' ' << message << '\n';
   }
}

Ptr<Platform::UdpPam> LinuxPlatform::udpPamIs(const std::string& name) {
   auto pam = Rt::makePtr<LinuxUdpPam>(name, *loop_);
   udpPams_[name] = pam;
   return pam;
}

Ptr<LinuxUdpPam> LinuxPlatform::udpPam(const std::string& name) const {
   return Rt::mapFind(udpPams_, name);
}

Ptr<Platform::DeviceIntfStatusDir> LinuxPlatform::deviceIntfStatusDirIs(const std::string& name) {
   return namedIs<Platform::DeviceIntfStatusDir>(named_, name);
}

Ptr<Platform::PamDesiredIntfDir> LinuxPlatform::pamDesiredIntfDirIs(const std::string& name) {
   return namedIs<Platform::PamDesiredIntfDir>(named_, name);
}

Ptr<Platform::EthDevPamCollection> LinuxPlatform::ethDevPamCollectionIs(const std::string& name) {
   return namedIs<Platform::EthDevPamCollection>(named_, name);
}

Ptr<Platform::EthDevPamManager> LinuxPlatform::ethDevPamManagerIs(
    Ptr<const Platform::PamDesiredIntfDir> desired, Ptr<Platform::EthDevPamCollection> collection,
    Ptr<const Platform::DeviceIntfStatusDir>) {
   pamManager_ =
       Rt::makePtr<NflogPamManager>(std::move(desired), std::move(collection), scheduler());
   return pamManager_;
}

Ptr<Platform::IntfStatusManager> LinuxPlatform::intfStatusManagerIs(
    Ptr<const Platform::AllIntfStatusDir>, Ptr<const Platform::AllIntfStatusLocalDir>,
    Ptr<Platform::DeviceIntfStatusDir>, Ptr<const Platform::KernelNetStatus>) {
   // Interface status on Linux comes from rtnetlink (RtnlFollower), not
   // from a status manager; the agent only holds on to this one.
   return Rt::makePtr<Platform::IntfStatusManager>();
}

}  // namespace Tavrin::Linux
