// fdb-follow: the rtnetlink follower (as lab/tools/rtnl-watch runs it) with
// monotonic time stamps, for the MAC table benchmark: how long a dump or a
// resync after an overrun takes, and whether the view matches the kernel.
//
//   fdb-follow --bridge BR [--rcvbuf BYTES] --snapshot FILE
//
// Prints, one line each, times in seconds on the monotonic clock:
//   started T              the follower is about to send its first dump
//   overrun T N            the loop saw the overrun counter reach N
//   synced N T ENTRIES     a dump (the first, or a resync) completed
// and on SIGUSR1 writes the MAC table it holds, sorted, "VLAN MAC PORT" per
// line, to FILE, then prints
//   snapshot N ENTRIES notifications=.. overruns=.. resyncs=.. malformed=..
// SIGTERM and SIGINT end it with status 0; a socket the kernel refuses, 3.
//
// Lab tool, not part of the agent.

#include <signal.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "linux/LinuxPlatform.h"
#include "linux/RtnlFollower.h"

using namespace Tavrin;

namespace {

[[noreturn]] void usage(const char* why) {
   std::fprintf(stderr,
                "fdb-follow: %s\nusage: fdb-follow --bridge BR [--rcvbuf BYTES] --snapshot FILE\n",
                why);
   std::exit(64);
}

double mono() {
   timespec ts{};
   ::clock_gettime(CLOCK_MONOTONIC, &ts);
   return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

}  // namespace

int main(int argc, char** argv) {
   Linux::RtnlFollower::Options options;
   std::string snapshotFile;
   for (int i = 1; i < argc; ++i) {
      std::string_view a = argv[i];
      if (i + 1 >= argc) usage("missing value");
      if (a == "--bridge") options.bridge = argv[++i];
      else if (a == "--rcvbuf") options.rcvBufBytes = std::atoi(argv[++i]);
      else if (a == "--snapshot") snapshotFile = argv[++i];
      else usage("unknown argument");
   }
   if (options.bridge.empty() || snapshotFile.empty()) usage("--bridge and --snapshot are required");
   std::setvbuf(stdout, nullptr, _IOLBF, 0);

   Linux::LinuxPlatform platform;
   platform.traceDirDefaultIs("");
   platform.traceToStderrIs(true);
   auto fdb = Rt::ptrCast<Platform::BridgingStatus>(
       platform.shmEntityIs("bridging/status", "ShmTable::Bridging::Status"));
   auto ip = Rt::ptrCast<Platform::IpStatus>(platform.stateEntityIs("ip/status", "Ip::Status"));

   std::unique_ptr<Linux::RtnlFollower> follower;
   try {
      follower = std::make_unique<Linux::RtnlFollower>(platform.loop(), fdb, ip, options);
   } catch (const Linux::RtnlError& e) {
      std::fprintf(stderr, "fdb-follow: %s\n", e.what());
      return 3;
   }
   int syncs = 0, snapshots = 0;
   uint64_t overruns = 0;
   follower->syncHandlerIs([&] {
      std::printf("synced %d %.6f %zu\n", ++syncs, mono(), fdb->fdbStatusAll().size());
   });
   auto& loop = platform.loop();
   // The follower starts its resync from inside the read that saw ENOBUFS,
   // so the end of that iteration is within one read of the overrun itself.
   loop.iterationEndIs([&] {
      if (follower->counters().overruns != overruns) {
         overruns = follower->counters().overruns;
         std::printf("overrun %.6f %llu\n", mono(), (unsigned long long)overruns);
      }
   });
   loop.signalIs(SIGTERM, [&] { loop.stop(); });
   loop.signalIs(SIGINT, [&] { loop.stop(); });
   loop.signalIs(SIGUSR1, [&] {
      std::vector<std::string> lines;
      lines.reserve(fdb->fdbStatusAll().size());
      for (const auto& [k, e] : fdb->fdbStatusAll()) {
         lines.push_back(std::to_string(k.fid) + " " + k.mac.str() + " " + e.intf.name());
      }
      std::sort(lines.begin(), lines.end());
      std::ofstream f(snapshotFile);
      for (const auto& l : lines) f << l << '\n';
      f.close();
      const auto& c = follower->counters();
      std::printf("snapshot %d %zu notifications=%llu overruns=%llu resyncs=%llu malformed=%llu\n",
                  ++snapshots, lines.size(), (unsigned long long)c.notifications,
                  (unsigned long long)c.overruns, (unsigned long long)c.resyncs,
                  (unsigned long long)c.malformed);
   });
   std::printf("started %.6f\n", mono());
   follower->start();
   loop.run();
   return 0;
}
