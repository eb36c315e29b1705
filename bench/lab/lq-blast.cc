// lq-blast: the baseline of the lease query benchmark. Sends one
// DHCPLEASEQUERY by MAC (built by the agent's codec) for every client of a
// list to one server, keeping at most --window unanswered, and measures the
// time from the first send to the last answer: what the server and the
// kernel allow, with no agent in between.
//
//   lq-blast --src A --server S --macs FILE [--window N] [--resend GAPS]
//            [--timeout SEC]
//
// FILE: one client per line, MAC first (dhcp-swarm's output). --window 0
// (the default) sends every query at once, as the agent does with MACs
// learned within the same second; N > 0 keeps at most N unanswered.
// --resend "2,4,8,16,32,64" sends an unanswered query again after each gap
// in turn (the agent's schedule); without it no query is sent twice and a
// lost one shows as unanswered. Binds A:67 (servers answer to the relay's
// port).
//
// Prints: "sent N answered A active L span S send-errors E resent R" (S in
// seconds, first send to last answer) and exits 0 when every query was answered, 1 otherwise.
//
// Lab tool, not part of the agent.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "dhcp/DhcpCodec.h"
#include "rt/Types.h"

using namespace Tavrin;

namespace {

[[noreturn]] void usage(const char* why) {
   std::fprintf(stderr,
                "lq-blast: %s\n"
                "usage: lq-blast --src A --server S --macs FILE [--window N] [--timeout SEC]\n",
                why);
   std::exit(64);
}

sockaddr_in sockAddr(IpAddr a, uint16_t port) {
   sockaddr_in sa{};
   sa.sin_family = AF_INET;
   sa.sin_port = htons(port);
   sa.sin_addr.s_addr = htonl(a.value());
   return sa;
}

}  // namespace

int main(int argc, char** argv) {
   IpAddr src, server;
   std::string macsFile;
   size_t window = 0;
   double timeout = 20;
   std::vector<double> gaps;
   for (int i = 1; i < argc; ++i) {
      std::string_view a = argv[i];
      if (i + 1 >= argc) usage("missing value");
      const char* v = argv[++i];
      if (a == "--src" || a == "--server") {
         auto ip = IpAddr::parse(v);
         if (!ip) usage("bad address");
         (a == "--src" ? src : server) = *ip;
      } else if (a == "--macs") {
         macsFile = v;
      } else if (a == "--window") {
         window = size_t(std::atol(v));
      } else if (a == "--resend") {
         for (const char* p = v; *p;) {
            char* end = nullptr;
            double g = std::strtod(p, &end);
            if (end == p || !(g > 0)) usage("bad --resend");
            gaps.push_back(g);
            p = *end == ',' ? end + 1 : end;
         }
      } else if (a == "--timeout") {
         timeout = std::atof(v);
      } else {
         usage("unknown option");
      }
   }
   if (src.isAny() || server.isAny() || macsFile.empty()) usage("--src, --server, --macs");
   if (!(timeout > 0) || timeout > 120) usage("--timeout must be in (0, 120]");

   std::vector<EthAddr> macs;
   std::ifstream in(macsFile);
   for (std::string line; std::getline(in, line);) {
      auto m = EthAddr::parse(line.substr(0, line.find(' ')));
      if (m) macs.push_back(*m);
   }
   if (macs.empty()) usage("no MACs in --macs");
   if (window == 0 || window > macs.size()) window = macs.size();

   int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
   if (fd < 0) return std::perror("lq-blast: socket"), 3;
   int one = 1;
   ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
   sockaddr_in local = sockAddr(src, 67);
   if (::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) < 0) {
      return std::perror("lq-blast: bind"), 3;
   }
   const sockaddr_in dest = sockAddr(server, 67);
   // Transaction ids far from the agent's, one per client.
   const uint32_t xidBase = 0x4c510000;

   using Clock = std::chrono::steady_clock;
   std::vector<uint8_t> answered(macs.size(), 0);
   // Per query: sends so far and when the next resend is due.
   std::vector<uint8_t> sends(macs.size(), 0);
   std::vector<Clock::time_point> due(macs.size());
   size_t next = 0, outstanding = 0, got = 0, active = 0, sendErrors = 0, resent = 0;
   Clock::time_point first{}, last{};
   const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                            std::chrono::duration<double>(timeout));
   std::vector<uint8_t> buf(65536);
   auto send = [&](size_t i) {
      auto q = buildDhcpLeaseQuery(true, src, server, macs[i], IpAddr(), xidBase + uint32_t(i));
      if (!q) {
         std::fprintf(stderr, "lq-blast: the codec built no query\n");
         std::exit(2);
      }
      if (::sendto(fd, q->bytes().data(), q->size(), 0, reinterpret_cast<const sockaddr*>(&dest),
                   sizeof dest) < 0) {
         ++sendErrors;
      }
      const auto now = Clock::now();
      if (sends[i] < gaps.size()) {
         due[i] = now + std::chrono::duration_cast<Clock::duration>(
                            std::chrono::duration<double>(gaps[sends[i]]));
      } else {
         due[i] = Clock::time_point::max();
      }
      ++sends[i];
   };
   Clock::time_point nextScan = Clock::now();
   while (got < macs.size() && Clock::now() < deadline) {
      while (next < macs.size() && outstanding < window) {
         if (next == 0) first = Clock::now();
         send(next);
         ++next;
         ++outstanding;
      }
      if (!gaps.empty() && Clock::now() >= nextScan) {
         const auto now = Clock::now();
         for (size_t i = 0; i < next; ++i) {
            if (!answered[i] && due[i] <= now) {
               send(i);
               ++resent;
            }
         }
         nextScan = now + std::chrono::milliseconds(10);
      }
      pollfd p{fd, POLLIN, 0};
      if (::poll(&p, 1, 10) <= 0) continue;
      for (;;) {
         ssize_t n = ::recv(fd, buf.data(), buf.size(), 0);
         if (n < 0) break;
         PacketParser parser;
         if (!parser.doParse(std::span<const uint8_t>(buf.data(), size_t(n)))) continue;
         const uint32_t i = parser.xid() - xidBase;
         if (i >= macs.size() || answered[i]) continue;
         answered[i] = 1;
         ++got;
         --outstanding;
         if (parser.messageTypeName() == "DHCPLEASEACTIVE") ++active;
         last = Clock::now();
      }
   }
   const double span = got ? std::chrono::duration<double>(last - first).count() : -1;
   std::printf("sent %zu answered %zu active %zu span %.6f send-errors %zu resent %zu\n", next,
               got, active, span, sendErrors, resent);
   ::close(fd);
   return got == macs.size() ? 0 : 1;
}
