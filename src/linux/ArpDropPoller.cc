#include "linux/ArpDropPoller.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "linux/NetlinkWalk.h"
#include "rt/Trace.h"

namespace Tavrin::Linux {

namespace {

Rt::TraceFacility& arpDropTrace() {
   static Rt::TraceFacility& f = Rt::traceFacility("TavrinArpDrops");
   return f;
}

// The kernel fills a dump datagram up to the reader's largest buffer (at
// most 32 KiB), so this never truncates.
constexpr size_t kRecvBuffer = 64 * 1024;
// Reads per wake-up; the level-triggered loop comes back for the rest.
constexpr int kReadsPerWake = 16;

}  // namespace

class ArpDropPoller::TickReactor : public Rt::TimerTask::Notifiee {
 public:
   TickReactor(ArpDropPoller& p, Rt::TimerTask* t) : p_(p) { notifierIs(t); }
   void onTaskRun() override { p_.handleTick(); }

 private:
   ArpDropPoller& p_;
};

void ArpDropPoller::SocketCloser::operator()(mnl_socket* s) const {
   mnl_socket_close(s);
}

ArpDropPoller::ArpDropPoller(EventLoop& loop, Ptr<Hardware::ArpDropCounterStatus> status,
                             Options options)
    : loop_(loop),
      status_(std::move(status)),
      options_(std::move(options)),
      tick_(loop.scheduler(), 3, "arp drop counters"),
      buf_(kRecvBuffer) {
   socket_.reset(mnl_socket_open2(NETLINK_NETFILTER, SOCK_NONBLOCK | SOCK_CLOEXEC));
   if (!socket_) throw ArpDropError(std::string("netfilter socket: ") + std::strerror(errno));
   if (mnl_socket_bind(socket_.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
      throw ArpDropError(std::string("netfilter socket bind: ") + std::strerror(errno));
   }
   tickReactor_ = std::make_unique<TickReactor>(*this, &tick_);
   loop_.fdIs(mnl_socket_get_fd(socket_.get()), EPOLLIN, [this](uint32_t) { handleReadable(); });
   tick_.scheduleTaskDelay(0);
}

ArpDropPoller::~ArpDropPoller() {
   tickReactor_.reset();
   loop_.fdDel(mnl_socket_get_fd(socket_.get()));
}

void ArpDropPoller::handleTick() {
   tick_.scheduleTaskDelay(options_.interval);
   if (dumping_) {
      // Its answers, should they still come, carry the old sequence number
      // and are passed over.
      ++counters_.late;
      TAVRIN_TRACE(arpDropTrace(), 1, "counter dump " << seq_ << " unanswered; asking again");
   }
   alignas(nlmsghdr) std::array<char, 256> req{};
   nlmsghdr* nlh = mnl_nlmsg_put_header(req.data());
   nlh->nlmsg_type = (NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_GETOBJ;
   nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
   nlh->nlmsg_seq = ++seq_;
   auto* gen = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(nfgenmsg)));
   gen->nfgen_family = NFPROTO_BRIDGE;
   gen->version = NFNETLINK_V0;
   // The kernel filters the dump: this table's counters only.
   mnl_attr_put_strz(nlh, NFTA_OBJ_TABLE, options_.table.c_str());
   mnl_attr_put_u32(nlh, NFTA_OBJ_TYPE, htonl(NFT_OBJECT_COUNTER));
   readings_.clear();
   dumping_ = false;
   if (mnl_socket_sendto(socket_.get(), nlh, nlh->nlmsg_len) < 0) {
      return fail(std::string("dump request: ") + std::strerror(errno));
   }
   dumping_ = true;
}

void ArpDropPoller::handleReadable() {
   for (int i = 0; i < kReadsPerWake; ++i) {
      ssize_t n = mnl_socket_recvfrom(socket_.get(), buf_.data(), buf_.size());
      if (n < 0) {
         if (errno == EAGAIN || errno == EWOULDBLOCK) return;
         if (errno == EINTR) continue;
         // ENOBUFS or a truncated read (ENOSPC): part of the dump is lost.
         if (dumping_) fail(std::string("dump read: ") + std::strerror(errno));
         continue;
      }
      Netlink::forEachMessage(buf_.data(), size_t(n), [&](const nlmsghdr* nlh, size_t) {
         // A previous, abandoned dump's answers are passed over.
         return dumping_ && nlh->nlmsg_seq == seq_ && handleMessage(nlh);
      });
   }
}

bool ArpDropPoller::handleMessage(const nlmsghdr* nlh) {
   if (nlh->nlmsg_flags & NLM_F_DUMP_INTR) {
      fail("the table changed during the dump");
      return false;
   }
   if (nlh->nlmsg_type == NLMSG_ERROR || nlh->nlmsg_type == NLMSG_DONE) {
      // Both end the dump; each carries an error code, 0 for none.
      int err = 0;
      if (mnl_nlmsg_get_payload_len(nlh) >= sizeof(int)) {
         std::memcpy(&err, mnl_nlmsg_get_payload(nlh), sizeof err);
      }
      if (err != 0) {
         fail(std::string("the kernel refused the dump: ") + std::strerror(-err));
      } else {
         finish();
      }
      return false;
   }
   if (nlh->nlmsg_type < NLMSG_MIN_TYPE) return true;
   CounterDigested d = digestCounter(nlh, nlh->nlmsg_len);
   if (d.status == CounterDigested::Status::malformed) {
      // One port's count is unknown: publishing the rest would read as that
      // port's counter gone.
      ++counters_.malformed;
      fail("malformed counter: " + d.reason);
      return false;
   }
   if (d.status == CounterDigested::Status::ok && d.reading.table == options_.table) {
      readings_.push_back(std::move(d.reading));
   }
   return true;
}

void ArpDropPoller::finish() {
   dumping_ = false;
   ++counters_.readings;
   const size_t written =
       publishArpDrops(arpDropsByPort(readings_, options_.counterPort), *status_);
   counters_.changes += written;
   if (written) {
      TAVRIN_TRACE(arpDropTrace(), 6,
                   written << " ARP drop counters moved, of " << readings_.size());
   }
   readings_.clear();
}

void ArpDropPoller::fail(const std::string& why) {
   dumping_ = false;
   readings_.clear();
   ++counters_.failures;
   TAVRIN_TRACE(arpDropTrace(), 1, "ARP drop counters not read: " << why);
}

}  // namespace Tavrin::Linux
