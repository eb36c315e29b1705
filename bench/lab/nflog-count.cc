// nflog-count: the baseline of the trapped-packet benchmark. Binds an NFLOG
// group with the settings tavrind's reader uses (whole packets, batches of
// 32 or 10 ms, a 4 MiB receive buffer, 128 KiB reads, 64 reads a wake-up)
// and only counts what arrives: the rate the kernel and one socket allow
// with no agent behind them.
//
//   nflog-count --group G --duration SEC [--rcvbuf BYTES]
//
// Prints "packets N enobufs E first-to-last S" (seconds between the first
// and the last packet read) when the time is up or on SIGTERM.
//
// Lab tool, not part of the agent.

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_log.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

namespace {

volatile sig_atomic_t stop = 0;
void onSignal(int) { stop = 1; }

double mono() {
   timespec ts{};
   ::clock_gettime(CLOCK_MONOTONIC, &ts);
   return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

int countPacket(const nlmsghdr* nlh, void* data) {
   if ((nlh->nlmsg_type & 0xff) == NFULNL_MSG_PACKET) ++*static_cast<unsigned long long*>(data);
   return MNL_CB_OK;
}

}  // namespace

int main(int argc, char** argv) {
   unsigned group = 7;
   double duration = 10;
   int rcvbuf = 4 << 20;
   for (int i = 1; i < argc; ++i) {
      std::string_view a = argv[i];
      if (i + 1 >= argc) return std::fprintf(stderr, "nflog-count: missing value\n"), 64;
      const char* v = argv[++i];
      if (a == "--group") group = unsigned(std::atoi(v));
      else if (a == "--duration") duration = std::atof(v);
      else if (a == "--rcvbuf") rcvbuf = std::atoi(v);
      else return std::fprintf(stderr, "nflog-count: unknown option\n"), 64;
   }
   if (!(duration > 0) || duration > 600) return std::fprintf(stderr, "nflog-count: duration\n"), 64;
   ::signal(SIGTERM, onSignal);
   ::signal(SIGINT, onSignal);

   mnl_socket* nl = mnl_socket_open2(NETLINK_NETFILTER, SOCK_NONBLOCK | SOCK_CLOEXEC);
   if (!nl || mnl_socket_bind(nl, 0, MNL_SOCKET_AUTOPID) < 0) {
      return std::perror("nflog-count: socket"), 3;
   }
   const int fd = mnl_socket_get_fd(nl);
   if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &rcvbuf, sizeof rcvbuf) < 0) {
      return std::perror("nflog-count: SO_RCVBUFFORCE"), 3;
   }
   std::vector<uint8_t> buf(128 * 1024);
   alignas(nlmsghdr) std::array<char, 256> req{};
   nlmsghdr* nlh = mnl_nlmsg_put_header(req.data());
   nlh->nlmsg_type = (NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_CONFIG;
   nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
   nlh->nlmsg_seq = 1;
   auto* gen = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(nfgenmsg)));
   gen->nfgen_family = AF_UNSPEC;
   gen->version = NFNETLINK_V0;
   gen->res_id = htons(uint16_t(group));
   const nfulnl_msg_config_cmd cmd{NFULNL_CFG_CMD_BIND};
   mnl_attr_put(nlh, NFULA_CFG_CMD, sizeof cmd, &cmd);
   nfulnl_msg_config_mode mode{};
   mode.copy_range = htonl(0xffff);
   mode.copy_mode = NFULNL_COPY_PACKET;
   mnl_attr_put(nlh, NFULA_CFG_MODE, sizeof mode, &mode);
   mnl_attr_put_u32(nlh, NFULA_CFG_QTHRESH, htonl(32));
   mnl_attr_put_u32(nlh, NFULA_CFG_TIMEOUT, htonl(1));
   if (mnl_socket_sendto(nl, nlh, nlh->nlmsg_len) < 0) return std::perror("nflog-count: send"), 3;
   pollfd pfd{fd, POLLIN, 0};
   if (::poll(&pfd, 1, 2000) <= 0) return std::fprintf(stderr, "nflog-count: no ack\n"), 3;
   ssize_t n = mnl_socket_recvfrom(nl, buf.data(), buf.size());
   if (n < 0 || mnl_cb_run(buf.data(), size_t(n), 1, mnl_socket_get_portid(nl), nullptr, nullptr) < 0) {
      return std::fprintf(stderr, "nflog-count: bind refused: %s\n", std::strerror(errno)), 3;
   }
   std::printf("bound group %u\n", group);
   std::fflush(stdout);

   unsigned long long packets = 0, enobufs = 0;
   double first = 0, last = 0;
   const double end = mono() + duration;
   while (!stop && mono() < end) {
      if (::poll(&pfd, 1, 100) <= 0) continue;
      for (int i = 0; i < 64; ++i) {
         n = mnl_socket_recvfrom(nl, buf.data(), buf.size());
         if (n < 0) {
            if (errno == ENOBUFS) {
               ++enobufs;
               continue;
            }
            break;
         }
         const unsigned long long before = packets;
         mnl_cb_run(buf.data(), size_t(n), 0, 0, countPacket, &packets);
         if (packets != before) {
            last = mono();
            if (first == 0) first = last;
         }
      }
   }
   std::printf("packets %llu enobufs %llu first-to-last %.6f\n", packets, enobufs,
               packets ? last - first : 0.0);
   mnl_socket_close(nl);
   return 0;
}
