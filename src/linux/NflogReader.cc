#include "linux/NflogReader.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_log.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "linux/NetlinkWalk.h"
#include "rt/Trace.h"

namespace Tavrin::Linux {

namespace {

Rt::TraceFacility& nflogTrace() {
   static Rt::TraceFacility& f = Rt::traceFacility("TavrinNflog");
   return f;
}

// One read holds one netlink datagram: a whole copied packet (up to 64 KiB)
// with its attributes, or a batch of smaller ones.
constexpr size_t kRecvBuffer = 128 * 1024;
// The kernel answers a configuration request before sendto returns; the
// wait only guards against a kernel that never does.
constexpr int kAckWaitMs = 1000;

}  // namespace

// ---------------------------------------------------------------- dispatch

std::optional<IntfId> NflogDispatch::portOf(uint32_t ifindex) {
   if (ifindex == 0 || ifindex > uint32_t(INT32_MAX)) return std::nullopt;
   // A burst comes from few ports; their names are looked up once per take,
   // which is as fresh as the caller's view of the links between reads.
   for (const auto& [known, port] : ports_) {
      if (known == ifindex) return port;
   }
   auto name = ifname_ ? ifname_(int(ifindex)) : std::nullopt;
   std::optional<IntfId> port = name ? IntfId::parse(*name) : std::nullopt;
   if (ports_.size() < kPortsRemembered) ports_.emplace_back(ifindex, port);
   return port;
}

void NflogDispatch::message(const nlmsghdr* nlh) {
   NflogDigestedRef d = digestNflogInPlace(nlh, nlh->nlmsg_len);
   if (d.status == NflogDigested::Status::malformed) {
      ++counters_.malformed;
      TAVRIN_TRACE(nflogTrace(), 1, "malformed log message dropped: " << d.reason);
      return;
   }
   if (d.status != NflogDigested::Status::ok) return;
   ++counters_.packets;
   auto port = portOf(d.packet.inPort());
   if (!port) {
      ++counters_.unknownPort;
      TAVRIN_TRACE(
          nflogTrace(), 1,
          "trapped packet dropped: no known input port (ifindex " << d.packet.inPort() << ")");
      return;
   }
   auto pkt = Rt::makePtr<Rt::Pkt>();
   if (auto why = trappedFrameInto(d.packet, pkt->bytes()); !why.empty()) {
      ++counters_.unframed;
      TAVRIN_TRACE(nflogTrace(), 1, "trapped packet on " << *port << " dropped: " << why);
      return;
   }
   ++counters_.trapped;
   // Runs of one port are the rule in a burst: no map lookup for them.
   if (!last_ || lastPort_ != *port) {
      last_ = &filed_[*port];
      lastPort_ = *port;
   }
   last_->push_back(std::move(pkt));
}

void NflogDispatch::buffer(std::span<const uint8_t> bytes) {
   size_t left =
       Netlink::forEachMessage(bytes.data(), bytes.size(), [&](const nlmsghdr* nlh, size_t) {
          // Control messages: the end of a batch, or the answer to a request
          // the reader made at start; neither carries a packet.
          if (nlh->nlmsg_type >= NLMSG_MIN_TYPE) message(nlh);
          return true;
       });
   if (left > 0) {
      ++counters_.malformed;
      TAVRIN_TRACE(nflogTrace(), 1, left << " bytes after the last whole log message dropped");
   }
}

// ---------------------------------------------------------------- reader

void NflogReader::SocketCloser::operator()(mnl_socket* s) const {
   mnl_socket_close(s);
}

NflogReader::NflogReader(EventLoop& loop, Options options, IfnameLookup ifname, TrapSink sink)
    : loop_(loop),
      options_(options),
      sink_(std::move(sink)),
      dispatch_(std::move(ifname)),
      buf_(kRecvBuffer) {
   const std::string group = "NFLOG group " + std::to_string(options_.group);
   socket_.reset(mnl_socket_open2(NETLINK_NETFILTER, SOCK_NONBLOCK | SOCK_CLOEXEC));
   if (!socket_) throw NflogError(group + ": netfilter socket: " + std::strerror(errno));
   if (mnl_socket_bind(socket_.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
      throw NflogError(group + ": bind: " + std::strerror(errno));
   }
   int size = options_.rcvBufBytes;
   // As root the buffer may exceed the system's rmem_max; otherwise the
   // kernel caps it there, which only makes a burst overflow sooner.
   const int fd = mnl_socket_get_fd(socket_.get());
   if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) < 0 &&
       setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) < 0) {
      throw NflogError(group + ": receive buffer: " + std::strerror(errno));
   }
   try {
      bindGroup();
   } catch (const NflogError& e) {
      throw NflogError(group + ": " + e.what());
   }
   loop_.fdIs(mnl_socket_get_fd(socket_.get()), EPOLLIN, [this](uint32_t) { handleReadable(); });
   TAVRIN_TRACE(nflogTrace(), 4, "reading trapped packets from " << group);
}

NflogReader::~NflogReader() {
   // Closing the socket is the unbind: the kernel drops the group's
   // instance with the socket it belonged to.
   if (socket_) loop_.fdDel(mnl_socket_get_fd(socket_.get()));
}

void NflogReader::bindGroup() {
   alignas(nlmsghdr) std::array<char, 256> req{};
   nlmsghdr* nlh = mnl_nlmsg_put_header(req.data());
   nlh->nlmsg_type = (NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_CONFIG;
   nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
   nlh->nlmsg_seq = ++seq_;
   auto* gen = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(nfgenmsg)));
   gen->nfgen_family = AF_UNSPEC;
   gen->version = NFNETLINK_V0;
   gen->res_id = htons(options_.group);
   // Bind and settings in one request: the kernel creates the group's
   // instance and then sets it up, so no packet is logged without bytes.
   const nfulnl_msg_config_cmd cmd{NFULNL_CFG_CMD_BIND};
   mnl_attr_put(nlh, NFULA_CFG_CMD, sizeof cmd, &cmd);
   nfulnl_msg_config_mode mode{};
   mode.copy_range = htonl(options_.copyRange);
   mode.copy_mode = NFULNL_COPY_PACKET;
   mnl_attr_put(nlh, NFULA_CFG_MODE, sizeof mode, &mode);
   // The kernel holds logged packets back until it has a hundred or a
   // second has passed; a client waiting for its lease should not wait on
   // that. A burst still comes in batches.
   mnl_attr_put_u32(nlh, NFULA_CFG_QTHRESH, htonl(options_.batchMax));
   mnl_attr_put_u32(nlh, NFULA_CFG_TIMEOUT, htonl(options_.batchWaitCs));
   if (mnl_socket_sendto(socket_.get(), nlh, nlh->nlmsg_len) < 0) {
      throw NflogError(std::string("configuration request: ") + std::strerror(errno));
   }
   pollfd pfd{mnl_socket_get_fd(socket_.get()), POLLIN, 0};
   if (::poll(&pfd, 1, kAckWaitMs) <= 0) {
      throw NflogError("the kernel did not answer the configuration request");
   }
   ssize_t n = mnl_socket_recvfrom(socket_.get(), buf_.data(), buf_.size());
   if (n < 0) throw NflogError(std::string("configuration answer: ") + std::strerror(errno));
   if (mnl_cb_run(buf_.data(), size_t(n), seq_, mnl_socket_get_portid(socket_.get()), nullptr,
                  nullptr) < 0) {
      if (errno == EPERM || errno == EBUSY) {
         throw NflogError("held by another process (another tavrind, or a logging daemon)");
      }
      throw NflogError(std::string("refused: ") + std::strerror(errno));
   }
}

void NflogReader::handleReadable() {
   for (int i = 0; i < kReadsPerWake; ++i) {
      ssize_t n = mnl_socket_recvfrom(socket_.get(), buf_.data(), buf_.size());
      if (n < 0) {
         if (errno == EAGAIN || errno == EWOULDBLOCK) break;
         if (errno == EINTR) continue;
         if (errno == ENOBUFS) {
            ++dispatch_.counters().overruns;
            TAVRIN_TRACE(nflogTrace(), 1, "trapped packets lost: the socket's buffer overflowed");
            continue;
         }
         if (errno == ENOSPC) {
            // libmnl's word for a datagram larger than our buffer.
            ++dispatch_.counters().malformed;
            TAVRIN_TRACE(nflogTrace(), 1, "oversized log message dropped");
            continue;
         }
         TAVRIN_TRACE(nflogTrace(), 0, "reading trapped packets: " << std::strerror(errno));
         break;
      }
      dispatch_.buffer({buf_.data(), size_t(n)});
   }
   for (auto& [port, frames] : dispatch_.take()) sink_(port, std::move(frames));
}

}  // namespace Tavrin::Linux
