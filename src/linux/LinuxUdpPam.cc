#include "linux/LinuxUdpPam.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "rt/Trace.h"

namespace Tavrin::Linux {

namespace {

Rt::TraceFacility& udpTrace() {
   static Rt::TraceFacility& f = Rt::traceFacility("TavrinUdpPam");
   return f;
}

sockaddr_in sockAddr(IpAddr a, uint16_t port) {
   sockaddr_in sa{};
   sa.sin_family = AF_INET;
   sa.sin_addr.s_addr = htonl(a.value());
   sa.sin_port = htons(port);
   return sa;
}

// Large enough for any UDP payload over IPv4, so nothing is ever truncated.
constexpr size_t kMaxDatagram = 65535;

}  // namespace

class LinuxUdpPam::WindowTimer : public Rt::TimerTask::Notifiee {
 public:
   explicit WindowTimer(LinuxUdpPam& p) : p_(p) {}
   void onTaskRun() override {
      p_.window_.expire(p_.monotonic());
      p_.armWindowTimer();
   }

 private:
   LinuxUdpPam& p_;
};

LinuxUdpPam::LinuxUdpPam(std::string name, EventLoop& loop)
    : Platform::UdpPam(std::move(name)),
      loop_(loop),
      window_([this](const SendWindow::Query& q) { transmit(q); }),
      windowTask_(std::make_unique<Rt::TimerTask>(loop.scheduler(), Rt::TaskPriority(0),
                                                  "LinuxUdpPam window")),
      windowTimer_(std::make_unique<WindowTimer>(*this)) {
   windowTimer_->notifierIs(windowTask_.get());
}

LinuxUdpPam::~LinuxUdpPam() {
   close();
}

void LinuxUdpPam::armWindowTimer() {
   auto next = window_.nextDeadline();
   if (!next) {
      windowTask_->cancel();
      return;
   }
   windowTask_->scheduleTaskDelay(std::max(0.0, *next - monotonic()));
}

void LinuxUdpPam::modeIs(Mode m) {
   close();
   UdpPam::modeIs(m);
   if (m != Mode::off) open(m);
}

void LinuxUdpPam::failed(const std::string& what, int err) {
   ++counters_.openErrors;
   lastError_ = "UDP socket " + name() + ": " + what + ": " + std::strerror(err);
   TAVRIN_TRACE(udpTrace(), 0, lastError_);
   close();
}

void LinuxUdpPam::open(Mode m) {
   fd_.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
   if (!fd_) return failed("socket", errno);
   int on = 1;
   // Without SO_REUSEADDR a restarted daemon could not bind the port while
   // the previous socket lingers; nothing of ours lingers on UDP, but a
   // relay or server sharing the host may hold the port for its own sends.
   if (::setsockopt(fd_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
      return failed("SO_REUSEADDR", errno);
   }
   if (m == Mode::rx || m == Mode::txRx) {
      sockaddr_in sa = sockAddr(rxIpAddr(), rxPort());
      if (::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&sa), sizeof sa) != 0) {
         return failed("bind " + rxIpAddr().str() + ":" + std::to_string(rxPort()), errno);
      }
   }
   loop_.fdIs(fd_.get(), EPOLLIN, [this](uint32_t) { handleReadable(); });
   lastError_.clear();
   TAVRIN_TRACE(udpTrace(), 4, name() << " open, port " << localPort());
}

void LinuxUdpPam::close() {
   // What waits was meant for this socket; the agent's retries resend it.
   window_.clear();
   if (windowTask_) windowTask_->cancel();
   if (!fd_) return;
   loop_.fdDel(fd_.get());
   fd_.reset();
}

uint16_t LinuxUdpPam::localPort() const {
   if (!fd_) return 0;
   sockaddr_in sa{};
   socklen_t len = sizeof sa;
   if (::getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&sa), &len) != 0) return 0;
   return ntohs(sa.sin_port);
}

void LinuxUdpPam::pktIs(const Ptr<Rt::Pkt>& pkt) {
   if (!fd_ || !pkt) {
      ++counters_.sendErrors;
      TAVRIN_TRACE(udpTrace(), 1,
                   name() << " not open, datagram to " << txDstIpAddr() << " dropped");
      return;
   }
   window_.queryIs({pkt, txDstIpAddr(), txSrcIpAddr(), txPort()}, monotonic());
   armWindowTimer();
}

void LinuxUdpPam::transmit(const SendWindow::Query& q) {
   if (!fd_) return;
   const Ptr<Rt::Pkt>& pkt = q.pkt;
   sockaddr_in dst = sockAddr(q.dst, q.port);
   iovec iov{const_cast<uint8_t*>(pkt->bytes().data()), pkt->size()};
   msghdr msg{};
   msg.msg_name = &dst;
   msg.msg_namelen = sizeof dst;
   msg.msg_iov = &iov;
   msg.msg_iovlen = 1;
   // ipi_spec_dst picks the source address (and from it the route) while the
   // socket stays bound to the wildcard; ifindex 0 leaves routing to the kernel.
   alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(in_pktinfo))> control{};
   if (!q.src.isAny()) {
      msg.msg_control = control.data();
      msg.msg_controllen = control.size();
      cmsghdr* c = CMSG_FIRSTHDR(&msg);
      c->cmsg_level = IPPROTO_IP;
      c->cmsg_type = IP_PKTINFO;
      c->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
      in_pktinfo info{};
      info.ipi_spec_dst.s_addr = htonl(q.src.value());
      std::memcpy(CMSG_DATA(c), &info, sizeof info);
   }
   if (::sendmsg(fd_.get(), &msg, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
      ++counters_.sendErrors;
      TAVRIN_TRACE(udpTrace(), 1,
                   name() << " send to " << q.dst << ":" << q.port << " from " << q.src
                          << " failed: " << std::strerror(errno));
      return;
   }
   ++counters_.sent;
}

Ptr<Rt::Pkt> LinuxUdpPam::rxPkt() {
   if (rx_.empty()) return nullptr;
   Datagram d = std::move(rx_.front());
   rx_.pop_front();
   rxSrcIpAddrIs(d.src);
   return d.pkt;
}

void LinuxUdpPam::handleReadable() {
   static thread_local std::vector<uint8_t> buf(kMaxDatagram);
   // A reader may drop its last reference from its handler (agent stop).
   Ptr<LinuxUdpPam> self(this);
   for (size_t i = 0; i < kRxBatch && fd_; ++i) {
      sockaddr_in src{};
      socklen_t srcLen = sizeof src;
      ssize_t n = ::recvfrom(fd_.get(), buf.data(), buf.size(), MSG_DONTWAIT,
                             reinterpret_cast<sockaddr*>(&src), &srcLen);
      if (n < 0) {
         if (errno == EAGAIN || errno == EWOULDBLOCK) return;
         if (errno == EINTR) continue;
         // ICMP errors of earlier sends (ECONNREFUSED and the like) surface
         // here; they name no datagram, so they are counted and passed over.
         ++counters_.receiveErrors;
         TAVRIN_TRACE(udpTrace(), 1, name() << " receive: " << std::strerror(errno));
         continue;
      }
      ++counters_.received;
      const IpAddr from(ntohl(src.sin_addr.s_addr));
      window_.answerFrom(from, monotonic());
      armWindowTimer();
      if (rx_.size() >= kRxQueueMax) {
         ++counters_.rxQueueDrops;
         TAVRIN_TRACE(udpTrace(), 1, name() << " queue full, datagram dropped");
         continue;
      }
      auto pkt = Rt::makePtr<Rt::Pkt>(std::vector<uint8_t>(buf.begin(), buf.begin() + n));
      rx_.push_back({pkt, from});
      // The reader may close the socket from its handler (mode off); the
      // loop condition then ends the batch.
      readableCountInc();
   }
}

}  // namespace Tavrin::Linux
