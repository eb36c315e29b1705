// rtnl-watch: runs the Linux host's rtnetlink follower on its event loop
// and prints what it makes of the kernel, so the lab can hold it against
// `bridge fdb show` and `ip addr` in a namespace it controls.
//
//   rtnl-watch --bridge BR [--rcvbuf BYTES]
//
// Prints, one line each, as they happen:
//   synced N                 a dump (the first, or a resync) completed
//   fdb+ VLAN MAC PORT       an entry of the MAC table appeared or moved
//   fdb- VLAN MAC            an entry left it
//   ip+ INTF ADDR            an interface's primary IPv4 address
//   ip- INTF                 an interface lost its last IPv4 address
// and on SIGUSR1 the whole view, numbered:
//   snapshot begin N / fdb VLAN MAC PORT / ip INTF ADDR /
//   counters notifications=.. resyncs=.. overruns=.. malformed=..
//            dump-restarts=.. dump-errors=.. / snapshot end N
// SIGTERM and SIGINT end it with status 0; a socket the kernel refuses, 3.
//
// Lab tool, not part of the agent.

#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "linux/LinuxPlatform.h"
#include "linux/RtnlFollower.h"

using namespace Tavrin;

namespace {

[[noreturn]] void usage(const char* why) {
   std::fprintf(stderr, "rtnl-watch: %s\nusage: rtnl-watch --bridge BR [--rcvbuf BYTES]\n", why);
   std::exit(64);
}

void line(const std::string& s) {
   std::fputs(s.c_str(), stdout);
   std::fputc('\n', stdout);
}

std::string fdbText(const Platform::HostKey& k) {
   return std::to_string(k.fid) + " " + k.mac.str();
}

struct FdbPrinter : Platform::BridgingStatus::Notifiee {
   using Notifiee::Notifiee;
   void onFdbStatus(const Platform::HostKey& k) override {
      auto e = notifier()->fdbStatus(k);
      line(e ? "fdb+ " + fdbText(k) + " " + e->intf.name() : "fdb- " + fdbText(k));
   }
};

struct IpPrinter : Platform::IpStatus::Notifiee {
   using Notifiee::Notifiee;
   void onIpIntfStatus(IntfId i) override {
      auto s = notifier()->ipIntfStatus(i);
      if (!s) {
         line("ip- " + i.name());
         return;
      }
      intf = std::make_unique<IntfPrinter>(s);
      intf->onPrimaryAddr();
   }
   // Follows the latest interface's address changes; the lab changes one at
   // a time. A new entry is told before its address is set: that is skipped.
   struct IntfPrinter : Platform::IpIntfStatus::Notifiee {
      using Notifiee::Notifiee;
      void onPrimaryAddr() override {
         if (notifier()->primaryAddr().isAny()) return;
         line("ip+ " + notifier()->intfId().name() + " " + notifier()->primaryAddr().str());
      }
   };
   std::unique_ptr<IntfPrinter> intf;
};

void snapshot(int n, const Platform::BridgingStatus& fdb, const Platform::IpStatus& ip,
              const Linux::RtnlFollower::Counters& c) {
   line("snapshot begin " + std::to_string(n));
   for (const auto& [k, e] : fdb.fdbStatusAll()) line("fdb " + fdbText(k) + " " + e.intf.name());
   for (const auto& [i, s] : ip.ipIntfStatusAll()) {
      line("ip " + i.name() + " " + s->primaryAddr().str());
   }
   line("counters notifications=" + std::to_string(c.notifications) +
        " resyncs=" + std::to_string(c.resyncs) + " overruns=" + std::to_string(c.overruns) +
        " malformed=" + std::to_string(c.malformed) +
        " dump-restarts=" + std::to_string(c.dumpRestarts) +
        " dump-errors=" + std::to_string(c.dumpErrors));
   line("snapshot end " + std::to_string(n));
}

}  // namespace

int main(int argc, char** argv) {
   Linux::RtnlFollower::Options options;
   for (int i = 1; i < argc; ++i) {
      std::string_view a = argv[i];
      if (i + 1 >= argc) usage("missing value");
      if (a == "--bridge") {
         options.bridge = argv[++i];
      } else if (a == "--rcvbuf") {
         options.rcvBufBytes = std::atoi(argv[++i]);
      } else {
         usage("unknown argument");
      }
   }
   if (options.bridge.empty()) usage("--bridge is required");
   std::setvbuf(stdout, nullptr, _IOLBF, 0);

   Linux::LinuxPlatform platform;
   platform.traceDirDefaultIs("");
   platform.traceToStderrIs(true);
   auto fdb = Rt::ptrCast<Platform::BridgingStatus>(
       platform.shmEntityIs("bridging/status", "ShmTable::Bridging::Status"));
   auto ip = Rt::ptrCast<Platform::IpStatus>(platform.stateEntityIs("ip/status", "Ip::Status"));
   FdbPrinter fdbPrinter(fdb);
   IpPrinter ipPrinter(ip);

   std::unique_ptr<Linux::RtnlFollower> follower;
   try {
      follower = std::make_unique<Linux::RtnlFollower>(platform.loop(), fdb, ip, options);
   } catch (const Linux::RtnlError& e) {
      std::fprintf(stderr, "rtnl-watch: %s\n", e.what());
      return 3;
   }
   int syncs = 0, snapshots = 0;
   follower->syncHandlerIs([&] { line("synced " + std::to_string(++syncs)); });
   auto& loop = platform.loop();
   loop.signalIs(SIGTERM, [&] { loop.stop(); });
   loop.signalIs(SIGINT, [&] { loop.stop(); });
   loop.signalIs(SIGUSR1, [&] { snapshot(++snapshots, *fdb, *ip, follower->counters()); });
   follower->start();
   loop.run();
   return 0;
}
