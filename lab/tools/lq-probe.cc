// lq-probe: sends one DHCPLEASEQUERY built by the codec to a real DHCP
// server and prints the codec's reading of the answer, so that the lab can
// check both directions of the codec against a server we did not write.
//
//   lq-probe --src A --server S (--ip IP | --mac MAC) [--giaddr G]
//            [--xid N] [--timeout SEC]
//
// Binds UDP A:67 because servers answer a lease query to the relay's port,
// never to an ephemeral one. --giaddr (default A) exists so the lab can show
// what a server does with a query that names no relay.
//
// Prints one line:
//   type=NAME xid=N ciaddr=A chaddr=MAC lease-time=S|- last-txn=S|- assoc=A,A|-
// Exit: 0 answer parsed, 1 no answer in time, 2 answer failed to parse,
// 3 socket error, 64 bad usage.
//
// Linux lab tool, not part of the agent: it may use POSIX sockets directly.

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
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "dhcp/DhcpCodec.h"
#include "rt/Types.h"

using namespace Tavrin;

namespace {

constexpr int exitAnswer = 0, exitTimeout = 1, exitParse = 2, exitSocket = 3, exitUsage = 64;
constexpr uint16_t dhcpServerPort = 67;

[[noreturn]] void usage(const char* why) {
   std::fprintf(stderr,
                "lq-probe: %s\n"
                "usage: lq-probe --src A --server S (--ip IP | --mac MAC) [--giaddr G]\n"
                "                [--xid N] [--timeout SEC]\n",
                why);
   std::exit(exitUsage);
}

struct Args {
   IpAddr src, server, giaddr, ip;
   EthAddr mac;
   bool byMac = false;
   bool giaddrSet = false;
   uint32_t xid = 0;
   bool xidSet = false;
   double timeout = 3.0;
};

std::optional<uint64_t> parseUnsigned(std::string_view s, uint64_t max) {
   if (s.empty() || s.size() > 20) return std::nullopt;
   uint64_t v = 0;
   int base = 10;
   if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
      base = 16;
      s.remove_prefix(2);
   }
   for (char c : s) {
      int d;
      if (c >= '0' && c <= '9') d = c - '0';
      else if (base == 16 && c >= 'a' && c <= 'f') d = c - 'a' + 10;
      else if (base == 16 && c >= 'A' && c <= 'F') d = c - 'A' + 10;
      else return std::nullopt;
      if (v > (max - uint64_t(d)) / uint64_t(base)) return std::nullopt;
      v = v * uint64_t(base) + uint64_t(d);
   }
   return v;
}

IpAddr needIp(const char* flag, const char* text) {
   auto a = IpAddr::parse(text);
   if (!a) usage((std::string("bad address for ") + flag + ": " + text).c_str());
   return *a;
}

Args parseArgs(int argc, char** argv) {
   Args a;
   bool haveSrc = false, haveServer = false, haveIp = false, haveMac = false;
   for (int i = 1; i < argc; ++i) {
      std::string_view flag = argv[i];
      if (i + 1 >= argc) usage(("missing value for " + std::string(flag)).c_str());
      const char* val = argv[++i];
      if (flag == "--src") {
         a.src = needIp("--src", val);
         haveSrc = true;
      } else if (flag == "--server") {
         a.server = needIp("--server", val);
         haveServer = true;
      } else if (flag == "--giaddr") {
         a.giaddr = needIp("--giaddr", val);
         a.giaddrSet = true;
      } else if (flag == "--ip") {
         a.ip = needIp("--ip", val);
         haveIp = true;
      } else if (flag == "--mac") {
         auto m = EthAddr::parse(val);
         if (!m) usage((std::string("bad MAC for --mac: ") + val).c_str());
         a.mac = *m;
         a.byMac = true;
         haveMac = true;
      } else if (flag == "--xid") {
         auto v = parseUnsigned(val, UINT32_MAX);
         if (!v) usage((std::string("bad --xid: ") + val).c_str());
         a.xid = uint32_t(*v);
         a.xidSet = true;
      } else if (flag == "--timeout") {
         char* end = nullptr;
         a.timeout = std::strtod(val, &end);
         if (end == val || *end != '\0' || !(a.timeout > 0) || a.timeout > 60)
            usage("--timeout must be in (0, 60] seconds");
      } else {
         usage(("unknown option " + std::string(flag)).c_str());
      }
   }
   if (!haveSrc || !haveServer) usage("--src and --server are required");
   if (haveIp == haveMac) usage("exactly one of --ip and --mac is required");
   if (!a.giaddrSet) a.giaddr = a.src;
   if (!a.xidSet) a.xid = std::random_device{}();
   return a;
}

sockaddr_in sockAddr(IpAddr a, uint16_t port) {
   sockaddr_in sa{};
   sa.sin_family = AF_INET;
   sa.sin_port = htons(port);
   sa.sin_addr.s_addr = htonl(a.value());
   return sa;
}

std::string optU32(const std::optional<uint32_t>& v) {
   return v ? std::to_string(*v) : std::string("-");
}

std::string assocList(const PacketParser& p) {
   if (!p.hasAssociatedIp()) return "-";
   std::string out;
   for (const auto& a : p.associatedIp()) {
      if (!out.empty()) out += ',';
      out += a.str();
   }
   return out.empty() ? "-" : out;
}

}  // namespace

int main(int argc, char** argv) {
   Args args = parseArgs(argc, argv);

   int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
   if (fd < 0) {
      std::perror("lq-probe: socket");
      return exitSocket;
   }
   int one = 1;
   // A previous probe's socket may linger briefly; the lab runs many in a row.
   ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
   sockaddr_in local = sockAddr(args.src, dhcpServerPort);
   if (::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) < 0) {
      std::fprintf(stderr, "lq-probe: bind %s:%u: %s\n", args.src.str().c_str(),
                   unsigned(dhcpServerPort), std::strerror(errno));
      return exitSocket;
   }

   auto query = buildDhcpLeaseQuery(args.byMac, args.giaddr, args.server, args.mac,
                                    args.byMac ? IpAddr() : args.ip, args.xid);
   if (!query) {
      std::fprintf(stderr, "lq-probe: the codec built no query\n");
      return exitParse;
   }
   sockaddr_in dest = sockAddr(args.server, dhcpServerPort);
   if (::sendto(fd, query->bytes().data(), query->size(), 0, reinterpret_cast<sockaddr*>(&dest),
                sizeof(dest)) != ssize_t(query->size())) {
      std::fprintf(stderr, "lq-probe: sendto %s: %s\n", args.server.str().c_str(),
                   std::strerror(errno));
      return exitSocket;
   }

   using Clock = std::chrono::steady_clock;
   auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(args.timeout));
   std::vector<uint8_t> buf(65536);
   for (;;) {
      auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) break;
      pollfd pfd{fd, POLLIN, 0};
      int r = ::poll(&pfd, 1, int(left));
      if (r < 0 && errno == EINTR) continue;
      if (r < 0) {
         std::perror("lq-probe: poll");
         return exitSocket;
      }
      if (r == 0) break;
      sockaddr_in from{};
      socklen_t fromLen = sizeof(from);
      ssize_t n = ::recvfrom(fd, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr*>(&from),
                             &fromLen);
      if (n < 0) {
         if (errno == EINTR) continue;
         std::perror("lq-probe: recvfrom");
         return exitSocket;
      }
      PacketParser p;
      if (!p.doParse(std::span<const uint8_t>(buf.data(), size_t(n)))) {
         std::fprintf(stderr, "lq-probe: %zd-byte answer from %s failed to parse\n", n,
                      IpAddr(ntohl(from.sin_addr.s_addr)).str().c_str());
         return exitParse;
      }
      // Port 67 on a relay address also hears stray server traffic; only the
      // answer to our own transaction counts.
      if (p.xid() != args.xid) {
         std::fprintf(stderr, "lq-probe: ignoring answer with xid %u\n", p.xid());
         continue;
      }
      std::printf("type=%s xid=%u ciaddr=%s chaddr=%s lease-time=%s last-txn=%s assoc=%s\n",
                  p.messageTypeName().c_str(), p.xid(), p.ciaddr().str().c_str(),
                  p.chaddr().str().c_str(), optU32(p.leaseTime()).c_str(),
                  optU32(p.clientLastTransactionTime()).c_str(), assocList(p).c_str());
      ::close(fd);
      return exitAnswer;
   }
   std::fprintf(stderr, "lq-probe: no answer from %s within %gs\n", args.server.str().c_str(),
                args.timeout);
   ::close(fd);
   return exitTimeout;
}
