// dhcp-swarm: many DHCP clients from one interface, each with its own MAC,
// so that a bridge upstream learns every one of them as a host of its own.
//
//   dhcp-swarm --iface IF --count N [--mac-base MAC] [--rate PER_SEC]
//              [--timeout SEC] [--out FILE]
//
// Client i has MAC mac-base + i. Each does DISCOVER, then REQUEST for the
// address offered, with the broadcast flag set so the server's answers
// reach us whatever our own interface's address. DISCOVERs start at `rate`
// per second; an unanswered step is sent again after 2 s, four times at
// most. Everything ends at --timeout (default 60 s) whatever is left.
//
// Prints one line per client to --out (default standard output):
//   MAC IP FIRST_DISCOVER ACK
// with times in seconds since the Unix epoch; a client without a lease has
// "-" for IP and ACK. A summary goes to standard error.
// Exit: 0 every client bound, 1 some did not, 3 socket error, 64 bad usage.
//
// Linux lab tool, not part of the agent: it may use raw sockets directly.
// Needs CAP_NET_RAW (run it as root inside the lab's namespace).

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "dhcp/DhcpCodec.h"
#include "rt/Types.h"

using namespace Tavrin;

namespace {

constexpr int exitAllBound = 0, exitSomeUnbound = 1, exitSocket = 3, exitUsage = 64;
constexpr double kResendAfter = 2.0;
constexpr int kMaxSends = 5;
constexpr size_t kMaxCount = 100000;

[[noreturn]] void usage(const char* why) {
   std::fprintf(stderr,
                "dhcp-swarm: %s\n"
                "usage: dhcp-swarm --iface IF --count N [--mac-base MAC] [--rate PER_SEC]\n"
                "                  [--timeout SEC] [--out FILE]\n",
                why);
   std::exit(exitUsage);
}

struct Args {
   std::string iface;
   size_t count = 0;
   EthAddr macBase = EthAddr::fromU64(0x02005e300000ULL);
   double rate = 500;
   double timeout = 60;
   std::string out;
};

std::optional<double> parseNumber(const char* s) {
   char* end = nullptr;
   errno = 0;
   double v = std::strtod(s, &end);
   if (errno || end == s || *end != '\0' || !(v > 0)) return std::nullopt;
   return v;
}

Args parseArgs(int argc, char** argv) {
   Args a;
   for (int i = 1; i < argc; ++i) {
      std::string_view k = argv[i];
      if (i + 1 >= argc) usage("missing value");
      const char* v = argv[++i];
      if (k == "--iface") {
         a.iface = v;
      } else if (k == "--count") {
         auto n = parseNumber(v);
         if (!n || *n != double(size_t(*n)) || *n > double(kMaxCount)) usage("bad --count");
         a.count = size_t(*n);
      } else if (k == "--mac-base") {
         auto m = EthAddr::parse(v);
         if (!m) usage("bad --mac-base");
         a.macBase = *m;
      } else if (k == "--rate") {
         auto r = parseNumber(v);
         if (!r) usage("bad --rate");
         a.rate = *r;
      } else if (k == "--timeout") {
         auto t = parseNumber(v);
         if (!t) usage("bad --timeout");
         a.timeout = *t;
      } else if (k == "--out") {
         a.out = v;
      } else {
         usage("unknown option");
      }
   }
   if (a.iface.empty() || a.count == 0) usage("--iface and --count are required");
   return a;
}

// Owns the raw socket.
class Socket {
 public:
   explicit Socket(int fd) : fd_(fd) {}
   Socket(const Socket&) = delete;
   Socket& operator=(const Socket&) = delete;
   ~Socket() {
      if (fd_ >= 0) ::close(fd_);
   }
   int get() const { return fd_; }

 private:
   int fd_;
};

struct FileCloser {
   void operator()(std::FILE* f) const { std::fclose(f); }
};

double wallNow() {
   using namespace std::chrono;
   return duration<double>(system_clock::now().time_since_epoch()).count();
}

// ---------------------------------------------------------------- frames

uint16_t ipChecksum(const uint8_t* p, size_t n) {
   uint32_t sum = 0;
   for (size_t i = 0; i + 1 < n; i += 2) sum += uint32_t(p[i] << 8 | p[i + 1]);
   while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
   return uint16_t(~sum);
}

void put16(std::vector<uint8_t>& b, uint16_t v) {
   b.push_back(uint8_t(v >> 8));
   b.push_back(uint8_t(v));
}
void put32(std::vector<uint8_t>& b, uint32_t v) {
   put16(b, uint16_t(v >> 16));
   put16(b, uint16_t(v));
}

// A client's DISCOVER or REQUEST (RFC 2131 section 4.4.1), broadcast from
// 0.0.0.0:68 to 255.255.255.255:67 in an Ethernet frame from its own MAC.
std::vector<uint8_t> clientFrame(EthAddr mac, uint32_t xid, DhcpMessageType type,
                                 std::optional<IpAddr> requested, std::optional<IpAddr> server) {
   std::vector<uint8_t> dhcp;
   dhcp.push_back(1);  // BOOTREQUEST
   dhcp.push_back(1);  // Ethernet
   dhcp.push_back(6);
   dhcp.push_back(0);
   put32(dhcp, xid);
   put16(dhcp, 0);
   put16(dhcp, 0x8000);               // broadcast: answers reach us without an address
   dhcp.resize(dhcp.size() + 16, 0);  // ciaddr, yiaddr, siaddr, giaddr
   const auto& m = mac.bytes();
   dhcp.insert(dhcp.end(), m.begin(), m.end());
   dhcp.resize(dhcp.size() + 10 + 64 + 128, 0);
   put32(dhcp, 0x63825363);
   dhcp.insert(dhcp.end(), {Dhcp::Opt::messageType, 1, uint8_t(type)});
   dhcp.insert(dhcp.end(), {Dhcp::Opt::clientId, 7, 1});
   dhcp.insert(dhcp.end(), m.begin(), m.end());
   if (requested) {
      dhcp.insert(dhcp.end(), {Dhcp::Opt::requestedIp, 4});
      put32(dhcp, requested->value());
   }
   if (server) {
      dhcp.insert(dhcp.end(), {Dhcp::Opt::serverId, 4});
      put32(dhcp, server->value());
   }
   dhcp.insert(dhcp.end(),
               {Dhcp::Opt::parameterRequestList, 2, Dhcp::Opt::subnetMask, Dhcp::Opt::router});
   dhcp.push_back(Dhcp::Opt::end);
   if (dhcp.size() < 300) dhcp.resize(300, 0);

   std::vector<uint8_t> f;
   f.insert(f.end(), 6, 0xff);
   f.insert(f.end(), m.begin(), m.end());
   put16(f, ETH_P_IP);
   const size_t ip = f.size();
   const uint16_t udpLen = uint16_t(8 + dhcp.size());
   f.push_back(0x45);
   f.push_back(0);
   put16(f, uint16_t(20 + udpLen));
   put16(f, uint16_t(xid));
   put16(f, 0);
   f.push_back(64);
   f.push_back(17);
   put16(f, 0);
   put32(f, 0);
   put32(f, 0xffffffff);
   const uint16_t sum = ipChecksum(f.data() + ip, 20);
   f[ip + 10] = uint8_t(sum >> 8);
   f[ip + 11] = uint8_t(sum);
   put16(f, 68);
   put16(f, 67);
   put16(f, udpLen);
   put16(f, 0);  // no UDP checksum: allowed over IPv4
   f.insert(f.end(), dhcp.begin(), dhcp.end());
   return f;
}

// The DHCP message of a frame to UDP port 68, if it is one.
std::optional<std::span<const uint8_t>> dhcpToClient(std::span<const uint8_t> f) {
   if (f.size() < 14 + 20 + 8) return std::nullopt;
   if ((f[12] << 8 | f[13]) != ETH_P_IP) return std::nullopt;
   auto ip = f.subspan(14);
   const size_t ihl = size_t(ip[0] & 0x0f) * 4;
   if (ip[0] >> 4 != 4 || ihl < 20 || ip.size() < ihl + 8 || ip[9] != 17) return std::nullopt;
   auto udp = ip.subspan(ihl);
   if ((udp[2] << 8 | udp[3]) != 68) return std::nullopt;
   const size_t udpLen = size_t(udp[4] << 8 | udp[5]);
   if (udpLen < 8 || udpLen > udp.size()) return std::nullopt;
   return udp.subspan(8, udpLen - 8);
}

// ---------------------------------------------------------------- clients

struct Client {
   enum class State : uint8_t { idle, discovering, requesting, bound };
   EthAddr mac;
   uint32_t xid = 0;
   State state = State::idle;
   int sends = 0;
   double firstDiscover = 0;
   double lastSend = 0;
   double ack = 0;
   IpAddr offered, server, leased;
};

class Swarm {
 public:
   Swarm(const Args& a, int fd, int ifindex) : args_(a), fd_(fd), ifindex_(ifindex) {
      std::random_device rd;
      const uint32_t xidBase = uint32_t(rd()) & 0xfff00000u;
      clients_.resize(a.count);
      for (size_t i = 0; i < a.count; ++i) {
         clients_[i].mac = EthAddr::fromU64(a.macBase.toU64() + i);
         clients_[i].xid = xidBase + uint32_t(i);
         byXid_[clients_[i].xid] = i;
      }
   }

   // Runs until every client is bound or the time is up; returns the bound.
   size_t run() {
      const double start = wallNow();
      const double end = start + args_.timeout;
      size_t started = 0;
      std::vector<uint8_t> buf(4096);
      while (bound_ < clients_.size()) {
         const double now = wallNow();
         if (now >= end) break;
         // New clients at the given rate, measured from the start.
         const size_t due = std::min(clients_.size(), size_t((now - start) * args_.rate) + 1);
         for (; started < due; ++started) discover(clients_[started], now);
         resend(now);
         pollfd pfd{fd_, POLLIN, 0};
         if (::poll(&pfd, 1, 10) <= 0) continue;
         for (int i = 0; i < 256; ++i) {
            ssize_t n = ::recv(fd_, buf.data(), buf.size(), MSG_DONTWAIT);
            if (n <= 0) break;
            handle({buf.data(), size_t(n)});
         }
      }
      return bound_;
   }

   void print(std::FILE* out) const {
      for (const auto& c : clients_) {
         if (c.state == Client::State::bound) {
            std::fprintf(out, "%s %s %.6f %.6f\n", c.mac.str().c_str(), c.leased.str().c_str(),
                         c.firstDiscover, c.ack);
         } else {
            std::fprintf(out, "%s - %.6f -\n", c.mac.str().c_str(), c.firstDiscover);
         }
      }
   }
   uint64_t sendErrors() const { return sendErrors_; }

 private:
   void send(Client& c, DhcpMessageType type, double now) {
      std::optional<IpAddr> requested, server;
      if (type == DhcpMessageType::request) {
         requested = c.offered;
         server = c.server;
      }
      auto frame = clientFrame(c.mac, c.xid, type, requested, server);
      sockaddr_ll to{};
      to.sll_family = AF_PACKET;
      to.sll_ifindex = ifindex_;
      to.sll_halen = 6;
      std::memset(to.sll_addr, 0xff, 6);
      if (::sendto(fd_, frame.data(), frame.size(), 0, reinterpret_cast<sockaddr*>(&to),
                   sizeof to) < 0) {
         ++sendErrors_;
      }
      ++c.sends;
      c.lastSend = now;
   }

   void discover(Client& c, double now) {
      if (c.firstDiscover == 0) c.firstDiscover = now;
      c.state = Client::State::discovering;
      c.sends = 0;
      send(c, DhcpMessageType::discover, now);
   }

   void resend(double now) {
      for (auto& c : clients_) {
         if (c.state != Client::State::discovering && c.state != Client::State::requesting)
            continue;
         if (now - c.lastSend < kResendAfter || c.sends >= kMaxSends) continue;
         send(c,
              c.state == Client::State::discovering ? DhcpMessageType::discover
                                                    : DhcpMessageType::request,
              now);
      }
   }

   void handle(std::span<const uint8_t> frame) {
      auto dhcp = dhcpToClient(frame);
      if (!dhcp || !parser_.doParse(*dhcp) || parser_.op() != 2) return;
      auto it = byXid_.find(parser_.xid());
      if (it == byXid_.end()) return;
      Client& c = clients_[it->second];
      if (parser_.chaddr() != c.mac || !parser_.messageType()) return;
      const double now = wallNow();
      switch (DhcpMessageType(*parser_.messageType())) {
         case DhcpMessageType::offer:
            if (c.state != Client::State::discovering || !parser_.serverId()) return;
            c.offered = parser_.yiaddr();
            c.server = *parser_.serverId();
            c.state = Client::State::requesting;
            c.sends = 0;
            send(c, DhcpMessageType::request, now);
            return;
         case DhcpMessageType::ack:
            if (c.state != Client::State::requesting) return;
            c.state = Client::State::bound;
            c.leased = parser_.yiaddr();
            c.ack = now;
            ++bound_;
            return;
         case DhcpMessageType::nak:
            if (c.state == Client::State::requesting) discover(c, now);
            return;
         default:
            return;
      }
   }

   const Args& args_;
   int fd_;
   int ifindex_;
   std::vector<Client> clients_;
   std::unordered_map<uint32_t, size_t> byXid_;
   PacketParser parser_;
   size_t bound_ = 0;
   uint64_t sendErrors_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
   const Args args = parseArgs(argc, argv);
   const int ifindex = int(if_nametoindex(args.iface.c_str()));
   if (ifindex == 0) {
      std::fprintf(stderr, "dhcp-swarm: no interface %s\n", args.iface.c_str());
      return exitSocket;
   }
   Socket sock(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_IP)));
   if (sock.get() < 0) {
      std::fprintf(stderr, "dhcp-swarm: raw socket: %s\n", std::strerror(errno));
      return exitSocket;
   }
   sockaddr_ll here{};
   here.sll_family = AF_PACKET;
   here.sll_protocol = htons(ETH_P_IP);
   here.sll_ifindex = ifindex;
   // Promiscuous: a server may answer a client's own MAC rather than broadcast.
   packet_mreq promisc{};
   promisc.mr_ifindex = ifindex;
   promisc.mr_type = PACKET_MR_PROMISC;
   int rcvbuf = 8 << 20;
   if (::bind(sock.get(), reinterpret_cast<sockaddr*>(&here), sizeof here) < 0 ||
       ::setsockopt(sock.get(), SOL_PACKET, PACKET_ADD_MEMBERSHIP, &promisc, sizeof promisc) < 0 ||
       (::setsockopt(sock.get(), SOL_SOCKET, SO_RCVBUFFORCE, &rcvbuf, sizeof rcvbuf) < 0 &&
        ::setsockopt(sock.get(), SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf) < 0)) {
      std::fprintf(stderr, "dhcp-swarm: %s: %s\n", args.iface.c_str(), std::strerror(errno));
      return exitSocket;
   }
   Swarm swarm(args, sock.get(), ifindex);
   const double start = wallNow();
   const size_t bound = swarm.run();
   const double took = wallNow() - start;

   std::unique_ptr<std::FILE, FileCloser> file;
   if (!args.out.empty()) {
      file.reset(std::fopen(args.out.c_str(), "w"));
      if (!file) {
         std::fprintf(stderr, "dhcp-swarm: %s: %s\n", args.out.c_str(), std::strerror(errno));
         return exitSocket;
      }
   }
   swarm.print(file ? file.get() : stdout);
   std::fprintf(stderr, "dhcp-swarm: %zu of %zu clients bound in %.2f s (%llu send errors)\n",
                bound, args.count, took, static_cast<unsigned long long>(swarm.sendErrors()));
   return bound == args.count ? exitAllBound : exitSomeUnbound;
}
