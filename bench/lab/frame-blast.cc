// frame-blast: sends Ethernet frames from many source MACs through one
// interface, bounded in count and time, for the lab benchmarks.
//
//   frame-blast --iface IF --macs FILE [--mode learn|ipv4] [--count N]
//               [--rate PER_SEC] [--duration SEC]
//
// FILE holds one client per line, "MAC IP ..." (dhcp-swarm's output; the IP
// may be "-" in learn mode). Frames cycle over the clients.
//   learn  one broadcast frame of a local experimental EtherType per client,
//          as fast as the socket takes them: a bridge that just had learning
//          turned on learns every MAC within a few milliseconds.
//   ipv4   UDP datagrams from each client's (MAC, IP) to 192.0.2.1:9, which
//          a locked port traps to NFLOG while the pair is not allowed.
// --count defaults to one per client (learn) or 100000 (ipv4); --rate 0 is
// as fast as possible; --duration (default 30 s) ends it whatever is left.
// Prints "sent N in S s (R/s)" to standard output.
//
// Lab tool, not part of the agent: it uses a raw socket (CAP_NET_RAW).

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "rt/Types.h"

using namespace Tavrin;

namespace {

[[noreturn]] void usage(const char* why) {
   std::fprintf(stderr,
                "frame-blast: %s\n"
                "usage: frame-blast --iface IF --macs FILE [--mode learn|ipv4] [--count N]\n"
                "                   [--rate PER_SEC] [--duration SEC]\n",
                why);
   std::exit(64);
}

struct Client {
   EthAddr mac;
   IpAddr ip;
};

uint16_t checksum(const uint8_t* p, size_t n) {
   uint32_t sum = 0;
   for (size_t i = 0; i + 1 < n; i += 2) sum += uint32_t(p[i]) << 8 | p[i + 1];
   if (n & 1) sum += uint32_t(p[n - 1]) << 8;
   while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
   return uint16_t(~sum);
}

std::vector<uint8_t> frameFor(const Client& c, bool ipv4) {
   std::vector<uint8_t> f(ipv4 ? 14 + 20 + 8 + 18 : 60, 0);
   std::memset(f.data(), 0xff, 6);
   std::memcpy(f.data() + 6, c.mac.bytes().data(), 6);
   if (!ipv4) {
      f[12] = 0x88;  // IEEE local experimental EtherType 1
      f[13] = 0xb5;
      return f;
   }
   f[12] = 0x08;
   f[13] = 0x00;
   uint8_t* ip = f.data() + 14;
   const uint16_t total = 20 + 8 + 18;
   ip[0] = 0x45;
   ip[2] = uint8_t(total >> 8);
   ip[3] = uint8_t(total);
   ip[8] = 64;
   ip[9] = 17;
   const uint32_t src = c.ip.value(), dst = 0xc0000201;  // 192.0.2.1, documentation range
   for (int i = 0; i < 4; ++i) {
      ip[12 + i] = uint8_t(src >> (24 - 8 * i));
      ip[16 + i] = uint8_t(dst >> (24 - 8 * i));
   }
   const uint16_t sum = checksum(ip, 20);
   ip[10] = uint8_t(sum >> 8);
   ip[11] = uint8_t(sum);
   uint8_t* udp = ip + 20;
   udp[0] = 0x30;  // source port 12345
   udp[1] = 0x39;
   udp[3] = 9;  // discard
   udp[5] = 8 + 18;
   return f;
}

}  // namespace

int main(int argc, char** argv) {
   std::string iface, macs, mode = "learn";
   long long count = -1;
   double rate = 0, duration = 30;
   for (int i = 1; i < argc; ++i) {
      std::string_view a = argv[i];
      if (i + 1 >= argc) usage("missing value");
      const char* v = argv[++i];
      if (a == "--iface") iface = v;
      else if (a == "--macs") macs = v;
      else if (a == "--mode") mode = v;
      else if (a == "--count") count = std::atoll(v);
      else if (a == "--rate") rate = std::atof(v);
      else if (a == "--duration") duration = std::atof(v);
      else usage("unknown option");
   }
   if (iface.empty() || macs.empty()) usage("--iface and --macs are required");
   if (mode != "learn" && mode != "ipv4") usage("--mode is learn or ipv4");
   if (!(duration > 0) || duration > 600) usage("--duration must be in (0, 600]");
   const bool ipv4 = mode == "ipv4";

   std::vector<Client> clients;
   std::ifstream in(macs);
   for (std::string line; std::getline(in, line);) {
      std::istringstream ss(line);
      std::string m, a;
      ss >> m >> a;
      auto mac = EthAddr::parse(m);
      if (!mac) continue;
      auto ip = IpAddr::parse(a);
      if (ipv4 && !ip) continue;
      clients.push_back({*mac, ip ? *ip : IpAddr()});
   }
   if (clients.empty()) usage("no clients in --macs");
   if (count < 0) count = ipv4 ? 100000 : (long long)clients.size();
   if (count > 100000000) usage("--count at most 100000000");

   std::vector<std::vector<uint8_t>> frames;
   frames.reserve(clients.size());
   for (const auto& c : clients) frames.push_back(frameFor(c, ipv4));

   int fd = ::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
   if (fd < 0) {
      std::perror("frame-blast: socket");
      return 3;
   }
   sockaddr_ll ll{};
   ll.sll_family = AF_PACKET;
   ll.sll_ifindex = int(if_nametoindex(iface.c_str()));
   ll.sll_halen = 6;
   if (ll.sll_ifindex == 0) {
      std::fprintf(stderr, "frame-blast: no interface %s\n", iface.c_str());
      return 3;
   }
   using Clock = std::chrono::steady_clock;
   const auto start = Clock::now();
   const auto end = start + std::chrono::duration_cast<Clock::duration>(
                                std::chrono::duration<double>(duration));
   long long sent = 0, errors = 0;
   for (long long i = 0; i < count; ++i) {
      if (rate > 0) {
         auto due = start + std::chrono::duration_cast<Clock::duration>(
                                std::chrono::duration<double>(double(i) / rate));
         if (due > Clock::now()) std::this_thread::sleep_until(due);
      }
      if ((i & 255) == 0 && Clock::now() >= end) break;
      const auto& f = frames[size_t(i) % frames.size()];
      if (::sendto(fd, f.data(), f.size(), 0, reinterpret_cast<sockaddr*>(&ll), sizeof ll) < 0) {
         ++errors;
         // The interface's queue is full: give it a moment rather than spin.
         if (errno == ENOBUFS || errno == EAGAIN) std::this_thread::sleep_for(std::chrono::microseconds(50));
         continue;
      }
      ++sent;
   }
   const double secs = std::chrono::duration<double>(Clock::now() - start).count();
   std::printf("sent %lld in %.3f s (%.0f/s), errors %lld\n", sent, secs, sent / secs, errors);
   ::close(fd);
   return sent > 0 ? 0 : 1;
}
