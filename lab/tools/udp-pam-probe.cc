// udp-pam-probe: drives the Linux host's UDP socket (LinuxUdpPam) on its
// event loop as the lease query client does, so the lab can check with a
// peer we did not write what goes out (source address and port) and what
// comes back (every datagram, with its sender).
//
//   udp-pam-probe [--mode txrx|tx] [--bind IP:PORT] [--send DST:PORT]
//                 [--src SRC] [--count N] [--expect N] [--timeout SEC]
//
// --mode txrx (default) binds --bind (default 0.0.0.0:67); tx stays unbound.
// Sends --count datagrams "probe I" to --send from --src (default 0.0.0.0:
// the kernel picks), then runs the loop until --expect datagrams arrived or
// --timeout (default 5) passed. Prints:
//   open PORT | open-error TEXT
//   rx SENDER LEN PAYLOAD                  for each datagram read
//   counters sent=.. send-errors=.. received=.. receive-errors=.. queue-drops=.. open-errors=..
// Exit: 0 all expected arrived, 1 fewer, 3 the socket did not open, 64 usage.
//
// Lab tool, not part of the agent.

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "linux/LinuxPlatform.h"

using namespace Tavrin;
using Rt::Ptr;

namespace {

[[noreturn]] void usage(const char* why) {
   std::fprintf(stderr,
                "udp-pam-probe: %s\n"
                "usage: udp-pam-probe [--mode txrx|tx] [--bind IP:PORT] [--send DST:PORT]\n"
                "                     [--src SRC] [--count N] [--expect N] [--timeout SEC]\n",
                why);
   std::exit(64);
}

std::pair<IpAddr, uint16_t> endpoint(std::string_view s) {
   auto colon = s.rfind(':');
   if (colon == std::string_view::npos) usage("expected IP:PORT");
   auto a = IpAddr::parse(s.substr(0, colon));
   if (!a) usage("bad address");
   return {*a, uint16_t(std::atoi(std::string(s.substr(colon + 1)).c_str()))};
}

}  // namespace

int main(int argc, char** argv) {
   auto mode = Platform::UdpPam::Mode::txRx;
   std::pair<IpAddr, uint16_t> bind{IpAddr(), 67};
   std::optional<std::pair<IpAddr, uint16_t>> dst;
   IpAddr src;
   int count = 0, expect = 0;
   double timeout = 5;
   for (int i = 1; i < argc; ++i) {
      std::string_view a = argv[i];
      if (i + 1 >= argc) usage("missing value");
      std::string_view v = argv[++i];
      if (a == "--mode") {
         if (v == "tx") {
            mode = Platform::UdpPam::Mode::tx;
         } else if (v != "txrx") {
            usage("bad mode");
         }
      } else if (a == "--bind") {
         bind = endpoint(v);
      } else if (a == "--send") {
         dst = endpoint(v);
      } else if (a == "--src") {
         auto s = IpAddr::parse(v);
         if (!s) usage("bad --src");
         src = *s;
      } else if (a == "--count") {
         count = std::atoi(std::string(v).c_str());
      } else if (a == "--expect") {
         expect = std::atoi(std::string(v).c_str());
      } else if (a == "--timeout") {
         timeout = std::atof(std::string(v).c_str());
      } else {
         usage("unknown argument");
      }
   }
   std::setvbuf(stdout, nullptr, _IOLBF, 0);

   Linux::LinuxPlatform platform;
   platform.traceDirDefaultIs("");
   auto pam = Rt::ptrCast<Linux::LinuxUdpPam>(platform.udpPamIs("probe"));
   pam->rxIpAddrIs(bind.first);
   pam->rxPortIs(bind.second);
   pam->modeIs(mode);
   if (!pam->isOpen()) {
      std::printf("open-error %s\n", pam->lastError().c_str());
      return 3;
   }
   std::printf("open %u\n", unsigned(pam->localPort()));

   int received = 0;
   struct Reader : Platform::UdpPam::Notifiee {
      Reader(const Ptr<Linux::LinuxUdpPam>& p, int& n) : Notifiee(p), pam(p), n(n) {}
      void onReadableCount() override {
         for (auto pkt = pam->rxPkt(); pkt; pkt = pam->rxPkt()) {
            ++n;
            std::string payload(pkt->bytes().begin(), pkt->bytes().end());
            std::printf("rx %s %zu %s\n", pam->rxSrcIpAddr().str().c_str(), pkt->size(),
                        payload.c_str());
         }
      }
      Ptr<Linux::LinuxUdpPam> pam;
      int& n;
   } reader(pam, received);

   if (dst) {
      pam->txDstIpAddrIs(dst->first);
      pam->txPortIs(dst->second);
      pam->txSrcIpAddrIs(src);
      for (int i = 0; i < count; ++i) {
         std::string text = "probe " + std::to_string(i);
         pam->pktIs(Rt::makePtr<Rt::Pkt>(std::vector<uint8_t>(text.begin(), text.end())));
      }
   }
   const Seconds deadline = platform.systemClock().monotonic() + timeout;
   while (received < expect) {
      Seconds left = deadline - platform.systemClock().monotonic();
      if (left <= 0) break;
      platform.loop().runOnce(int(left * 1000) + 1);
   }
   const auto& c = pam->counters();
   std::printf(
       "counters sent=%llu send-errors=%llu received=%llu receive-errors=%llu queue-drops=%llu "
       "open-errors=%llu\n",
       (unsigned long long)c.sent, (unsigned long long)c.sendErrors, (unsigned long long)c.received,
       (unsigned long long)c.receiveErrors, (unsigned long long)c.rxQueueDrops,
       (unsigned long long)c.openErrors);
   return received >= expect ? 0 : 1;
}
