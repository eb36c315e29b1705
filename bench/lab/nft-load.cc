// nft-load: loads N allowed pairs into the nftables table the way tavrind
// does at start (NftProgrammer::start, one whole-table replacement), or
// writes the same table as text for `nft -f`, the baseline.
//
//   nft-load text    --count N --port P --out FILE
//   nft-load program --count N --port P
//
// Pairs: MAC 02:00:5e:00:00:00 + i, IPv4 10.0.0.0 + i, all on port P, which
// carries a locking rule. `program` prints, on standard output:
//   load-seconds S rss-before-kb A peak-during-load-kb B load-peak-kb B-A elements E
//   installed I resyncs R batches T
// where the peak is the process's VmHWM with the mark reset (clear_refs 5)
// just before the load, so B-A is what programming itself added on top of
// the published table the process already held (the installed table it
// fills, I pairs, included); R counts read-backs of the whole table, which
// a load nobody interferes with does without.
// Exit: 0 loaded, 1 the kernel refused (the reason on standard error), 64 usage.
//
// Lab tool, not part of the agent.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "linux/EventLoop.h"
#include "linux/NftProgrammer.h"
#include "linux/NftRules.h"
#include "model/TavrinTypes.h"
#include "rt/Clock.h"
#include "rt/TaskScheduler.h"

using namespace Tavrin;

namespace {

[[noreturn]] void usage(const char* why) {
   std::fprintf(stderr,
                "nft-load: %s\n"
                "usage: nft-load text --count N --port P --out FILE\n"
                "       nft-load program --count N --port P\n",
                why);
   std::exit(64);
}

long statusKb(const char* field) {
   std::ifstream in("/proc/self/status");
   for (std::string line; std::getline(in, line);) {
      if (line.rfind(field, 0) == 0) return std::atol(line.c_str() + std::string_view(field).size());
   }
   return -1;
}

EthAddr macOf(size_t i) { return EthAddr::fromU64(0x02005e000000ull + i); }
IpAddr ipOf(size_t i) { return IpAddr(0x0a000000u + uint32_t(i)); }

}  // namespace

int main(int argc, char** argv) {
   if (argc < 2) usage("missing mode");
   std::string_view mode = argv[1];
   size_t count = 0;
   std::string port, out;
   for (int i = 2; i < argc; ++i) {
      std::string_view a = argv[i];
      if (i + 1 >= argc) usage("missing value");
      const char* v = argv[++i];
      if (a == "--count") count = size_t(std::atol(v));
      else if (a == "--port") port = v;
      else if (a == "--out") out = v;
      else usage("unknown option");
   }
   if (count == 0 || count > 16000000 || port.empty()) usage("--count (1..16M) and --port");
   const IntfId portId(port);

   if (mode == "text") {
      if (out.empty()) usage("--out is required");
      std::vector<Linux::Nft::AllowedElem> allowed;
      allowed.reserve(count);
      for (size_t i = 0; i < count; ++i) allowed.push_back({portId, macOf(i), ipOf(i)});
      auto text = Linux::Nft::tableReplaceText({}, {portId}, allowed);
      std::ofstream f(out);
      f << text.text;
      return f ? 0 : 1;
   }
   if (mode != "program") usage("mode is text or program");

   Rt::SystemClock clock;
   auto scheduler = Rt::makePtr<Rt::TaskScheduler>(clock);
   Linux::EventLoop loop(scheduler);
   auto status = Rt::makePtr<Status>();
   status->collectionSizeIs(count);
   for (size_t i = 0; i < count; ++i) {
      status->ipMacLeaseIs({{macOf(i), IpGenAddr(ipOf(i))}, portId, false});
   }
   auto rules = Rt::makePtr<ConfiguredInterfaceStatus>();
   rules->interfaceRuleIs(portId, 1);
   auto installed = Rt::makePtr<Hardware::InstalledConfig>();

   {
      std::ofstream("/proc/self/clear_refs") << "5";
   }
   const long before = statusKb("VmRSS:");
   const auto t0 = std::chrono::steady_clock::now();
   bool ok = false;
   size_t elements = 0;
   Linux::NftProgrammer::Counters counters;
   try {
      Linux::NftProgrammer programmer(loop, status, rules, installed, {});
      ok = programmer.start();
      elements = programmer.kernelView().allowedSize();
      counters = programmer.counters();
      if (!ok) std::fprintf(stderr, "nft-load: %s\n", programmer.lastError().c_str());
   } catch (const std::exception& e) {
      std::fprintf(stderr, "nft-load: %s\n", e.what());
      return 1;
   }
   const double secs =
       std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
   const long peak = statusKb("VmHWM:");
   std::printf("load-seconds %.3f rss-before-kb %ld peak-during-load-kb %ld load-peak-kb %ld "
               "elements %zu installed %zu resyncs %llu batches %llu\n",
               secs, before, peak, peak - before, elements, installed->ipMacLeaseSize(),
               static_cast<unsigned long long>(counters.resyncs),
               static_cast<unsigned long long>(counters.batches));
   return ok ? 0 : 1;
}
