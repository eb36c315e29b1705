#include "linux/RtnlFollower.h"

#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "rt/Trace.h"

namespace Tavrin::Linux {

using Platform::FdbStatusEntry;
using Platform::HostKey;

namespace {

Rt::TraceFacility& rtnlTrace() {
   static Rt::TraceFacility& f = Rt::traceFacility("TavrinRtnl");
   return f;
}

// Large enough for the kernel's biggest dump chunk, so reads never truncate.
constexpr size_t kRecvBuffer = 32768;
// Reads per wake-up of the notification socket, so that a storm of changes
// cannot keep timers and other sockets waiting.
constexpr int kNotificationReads = 64;

}  // namespace

// ---------------------------------------------------------------- mirror

RtnlMirror::RtnlMirror(std::string bridgeName) : bridgeName_(std::move(bridgeName)) {}

int RtnlMirror::bridgeIfindex() const {
   auto it = byName_.find(bridgeName_);
   return it == byName_.end() ? 0 : it->second;
}

std::optional<std::string> RtnlMirror::ifname(int ifindex) const {
   auto it = links_.find(ifindex);
   if (it == links_.end()) return std::nullopt;
   return it->second.name;
}

std::optional<int> RtnlMirror::ifindex(std::string_view name) const {
   auto it = byName_.find(name);
   if (it == byName_.end()) return std::nullopt;
   return it->second;
}

std::optional<std::string> RtnlMirror::linkKind(int ifindex) const {
   auto it = links_.find(ifindex);
   if (it == links_.end()) return std::nullopt;
   return it->second.kind;
}

RtnlMirror::Change RtnlMirror::apply(const RtnlMsg& msg) {
   if (auto* l = std::get_if<LinkMsg>(&msg)) return applyLink(*l);
   if (auto* a = std::get_if<AddrMsg>(&msg)) return applyAddr(*a);
   return applyFdb(std::get<FdbMsg>(msg));
}

void RtnlMirror::nameDel(const std::string& name, int ifindex) {
   // Two links may swap names; the later message already claimed it.
   auto it = byName_.find(name);
   if (it != byName_.end() && it->second == ifindex) byName_.erase(it);
}

void RtnlMirror::fdbDelPort(int ifindex) {
   std::erase_if(fdb_, [ifindex](const auto& e) { return e.second == ifindex; });
}

RtnlMirror::Change RtnlMirror::applyLink(const LinkMsg& m) {
   Change c;
   int bridgeBefore = bridgeIfindex();
   auto it = links_.find(m.ifindex);
   if (m.removed) {
      if (it == links_.end()) return c;
      nameDel(it->second.name, m.ifindex);
      links_.erase(it);
      addrs_.erase(m.ifindex);
      // The kernel flushes a departing port's entries with notifications of
      // their own; not waiting for them keeps the view whole meanwhile.
      fdbDelPort(m.ifindex);
   } else {
      Link next{m.name, m.master, m.kind};
      if (it != links_.end()) {
         const Link& prev = it->second;
         // Carrier, MTU and flag changes arrive as link messages too, and
         // often; they change nothing here.
         if (prev.name == next.name && prev.master == next.master && prev.kind == next.kind) {
            return c;
         }
         if (prev.master != next.master) fdbDelPort(m.ifindex);
         if (prev.name != next.name) nameDel(prev.name, m.ifindex);
      }
      byName_[next.name] = m.ifindex;
      links_[m.ifindex] = std::move(next);
   }
   // A different bridge under the configured name holds none of the old one's entries.
   if (bridgeIfindex() != bridgeBefore) fdb_.clear();
   c.all = true;
   return c;
}

void RtnlMirror::addrPlace(std::vector<Addr>& list, const Addr& a) {
   // Where the kernel puts it in the interface's list: a secondary at the
   // end; a primary (new, or a secondary promoted when its primary went)
   // after the last primary of the same or a wider scope.
   auto at = list.end();
   if (!a.secondary) {
      at = list.begin();
      for (auto it = list.begin(); it != list.end(); ++it) {
         if (!it->secondary && it->scope <= a.scope) at = it + 1;
      }
   }
   list.insert(at, a);
}

RtnlMirror::Change RtnlMirror::applyAddr(const AddrMsg& m) {
   Change c;
   auto& list = addrs_[m.ifindex];
   auto it = std::find_if(list.begin(), list.end(), [&m](const Addr& a) {
      return a.local == m.local && a.prefixLen == m.prefixLen;
   });
   Addr next{m.local, m.prefixLen, m.secondary, m.scope};
   if (m.removed) {
      if (it != list.end()) list.erase(it);
   } else if (it == list.end()) {
      addrPlace(list, next);
   } else if (it->secondary && !m.secondary) {
      list.erase(it);
      addrPlace(list, next);
   } else {
      *it = next;
   }
   if (list.empty()) addrs_.erase(m.ifindex);
   c.addrIfindex.push_back(m.ifindex);
   return c;
}

bool RtnlMirror::fromBridge(const FdbMsg& m) const {
   int bridge = bridgeIfindex();
   if (bridge == 0) return false;
   if (m.master) return *m.master == bridge;
   // Without NDA_MASTER an entry of the bridge is recognised by its port; a
   // port's own device table (NTF_SELF) is not the bridge's.
   if (m.flags & NTF_SELF) return false;
   auto it = links_.find(m.ifindex);
   return it != links_.end() && it->second.master == bridge;
}

RtnlMirror::Change RtnlMirror::applyFdb(const FdbMsg& m) {
   Change c;
   if (!fromBridge(m)) return c;
   HostKey key{m.vlan, m.mac};
   // A bridge holds one entry per (VLAN, MAC): whatever this message says
   // of the key replaces what we had. Only entries learned on a port are
   // kept; local (NUD_PERMANENT) and static (NUD_NOARP) ones are not clients.
   bool learned =
       !m.removed && m.ifindex != bridgeIfindex() && (m.state & (NUD_PERMANENT | NUD_NOARP)) == 0;
   if (learned) {
      fdb_[key] = m.ifindex;
   } else {
      fdb_.erase(key);
   }
   c.fdb.push_back(key);
   return c;
}

std::optional<FdbStatusEntry> RtnlMirror::fdbEntry(const HostKey& key) const {
   auto it = fdb_.find(key);
   if (it == fdb_.end()) return std::nullopt;
   auto link = links_.find(it->second);
   if (link == links_.end()) return std::nullopt;
   return FdbStatusEntry{IntfId(link->second.name)};
}

std::map<HostKey, FdbStatusEntry> RtnlMirror::fdbAll() const {
   std::map<HostKey, FdbStatusEntry> out;
   for (const auto& [key, port] : fdb_) {
      if (auto e = fdbEntry(key)) out.emplace_hint(out.end(), key, *e);
   }
   return out;
}

IpAddr RtnlMirror::primaryAddr(int ifindex) const {
   auto it = addrs_.find(ifindex);
   if (it == addrs_.end()) return IpAddr();
   for (const auto& a : it->second) {
      if (!a.secondary) return a.local;
   }
   return IpAddr();
}

std::map<IntfId, IpAddr> RtnlMirror::primaryAddrAll() const {
   std::map<IntfId, IpAddr> out;
   for (const auto& [ifindex, list] : addrs_) {
      auto link = links_.find(ifindex);
      IpAddr primary = primaryAddr(ifindex);
      if (link == links_.end() || primary.isAny()) continue;
      out[IntfId(link->second.name)] = primary;
   }
   return out;
}

RtnlMirror RtnlResync::finish() && {
   for (const auto& m : replay_) fresh_.apply(m);
   replay_.clear();
   return std::move(fresh_);
}

// ---------------------------------------------------------------- publishing

namespace {

void publishFdb(const RtnlMirror& mirror, const HostKey& key, Platform::BridgingStatus& fdb) {
   if (auto e = mirror.fdbEntry(key)) {
      fdb.fdbStatusIs(key, *e);
   } else {
      fdb.fdbStatusDel(key);
   }
}

void publishAddr(IntfId intf, IpAddr primary, Platform::IpStatus& ip) {
   if (primary.isAny()) {
      ip.ipIntfStatusDel(intf);
   } else {
      ip.ipIntfStatusIs(intf)->primaryAddrIs(primary);
   }
}

}  // namespace

void publishAll(const RtnlMirror& mirror, Platform::BridgingStatus& fdb, Platform::IpStatus& ip) {
   auto wantFdb = mirror.fdbAll();
   std::vector<HostKey> gone;
   for (const auto& [key, entry] : fdb.fdbStatusAll()) {
      if (!wantFdb.count(key)) gone.push_back(key);
   }
   for (const auto& key : gone) fdb.fdbStatusDel(key);
   for (const auto& [key, entry] : wantFdb) fdb.fdbStatusIs(key, entry);

   auto wantIp = mirror.primaryAddrAll();
   std::vector<IntfId> noAddr;
   for (const auto& [intf, status] : ip.ipIntfStatusAll()) {
      if (!wantIp.count(intf)) noAddr.push_back(intf);
   }
   for (auto intf : noAddr) ip.ipIntfStatusDel(intf);
   for (const auto& [intf, primary] : wantIp) publishAddr(intf, primary, ip);
}

void publish(const RtnlMirror& mirror, const RtnlMirror::Change& change,
             Platform::BridgingStatus& fdb, Platform::IpStatus& ip) {
   if (change.all) {
      publishAll(mirror, fdb, ip);
      return;
   }
   for (const auto& key : change.fdb) publishFdb(mirror, key, fdb);
   for (int ifindex : change.addrIfindex) {
      // An address of a link not known yet is published with the link.
      if (auto name = mirror.ifname(ifindex)) {
         publishAddr(IntfId(*name), mirror.primaryAddr(ifindex), ip);
      }
   }
}

// ---------------------------------------------------------------- follower

class RtnlFollower::RetryReactor : public Rt::TimerTask::Notifiee {
 public:
   RetryReactor(RtnlFollower& f, Rt::TimerTask* t) : f_(f) { notifierIs(t); }
   void onTaskRun() override { f_.retryDump(); }

 private:
   RtnlFollower& f_;
};

void RtnlFollower::SocketCloser::operator()(mnl_socket* s) const {
   mnl_socket_close(s);
}

RtnlFollower::Socket RtnlFollower::openSocket(const char* what) {
   Socket s(mnl_socket_open2(NETLINK_ROUTE, SOCK_NONBLOCK | SOCK_CLOEXEC));
   if (!s) throw RtnlError(std::string("rtnetlink ") + what + " socket: " + std::strerror(errno));
   if (mnl_socket_bind(s.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
      throw RtnlError(std::string("rtnetlink ") + what + " bind: " + std::strerror(errno));
   }
   return s;
}

RtnlFollower::RtnlFollower(EventLoop& loop, Ptr<Platform::BridgingStatus> fdb,
                           Ptr<Platform::IpStatus> ip, Options options)
    : loop_(loop),
      fdb_(std::move(fdb)),
      ip_(std::move(ip)),
      options_(std::move(options)),
      mirror_(options_.bridge),
      buf_(kRecvBuffer) {
   events_ = openSocket("notification");
   int size = options_.rcvBufBytes;
   // As root the buffer may exceed the system's rmem_max; otherwise the
   // kernel caps it there, which is still correct, only sooner to overrun.
   if (mnl_socket_setsockopt(events_.get(), SO_RCVBUFFORCE, &size, sizeof size) < 0 &&
       setsockopt(mnl_socket_get_fd(events_.get()), SOL_SOCKET, SO_RCVBUF, &size, sizeof size) <
           0) {
      throw RtnlError(std::string("rtnetlink receive buffer: ") + std::strerror(errno));
   }
   for (int group : {RTNLGRP_LINK, RTNLGRP_NEIGH, RTNLGRP_IPV4_IFADDR}) {
      if (mnl_socket_setsockopt(events_.get(), NETLINK_ADD_MEMBERSHIP, &group, sizeof group) < 0) {
         throw RtnlError("rtnetlink group " + std::to_string(group) + ": " + std::strerror(errno));
      }
   }
   openDumpSocket();
   retry_ = std::make_unique<Rt::TimerTask>(loop_.scheduler(), 2, "rtnl dump retry");
   retryReactor_ = std::make_unique<RetryReactor>(*this, retry_.get());
   loop_.fdIs(mnl_socket_get_fd(events_.get()), EPOLLIN,
              [this](uint32_t) { handleNotifications(); });
}

RtnlFollower::~RtnlFollower() {
   loop_.fdDel(mnl_socket_get_fd(events_.get()));
   if (dump_) loop_.fdDel(mnl_socket_get_fd(dump_.get()));
}

void RtnlFollower::openDumpSocket() {
   if (dump_) loop_.fdDel(mnl_socket_get_fd(dump_.get()));
   dump_.reset();
   dump_ = openSocket("dump");
   loop_.fdIs(mnl_socket_get_fd(dump_.get()), EPOLLIN, [this](uint32_t) { handleDumpReadable(); });
}

void RtnlFollower::start() {
   if (resync_ || synced_) return;
   attempts_ = 0;
   beginDump();
}

void RtnlFollower::resyncIs() {
   if (!synced_ && !resync_) return start();
   if (resync_) {
      // The dump under way may already have read what changed; take another.
      again_ = true;
      return;
   }
   ++counters_.resyncs;
   attempts_ = 0;
   beginDump();
}

void RtnlFollower::retryDump() {
   attempts_ = 0;
   beginDump();
}

void RtnlFollower::beginDump() {
   retry_->cancel();
   if (!dump_) {
      try {
         openDumpSocket();
      } catch (const RtnlError& e) {
         TAVRIN_TRACE(rtnlTrace(), 0, e.what() << "; trying again in 1 s");
         retry_->scheduleTaskDelay(1.0);
         return;
      }
   }
   ++attempts_;
   resync_ = std::make_unique<RtnlResync>(options_.bridge);
   disturbed_ = false;
   again_ = false;
   step_ = Step::links;
   sendDumpRequest();
}

void RtnlFollower::sendDumpRequest() {
   std::array<char, 256> req{};
   nlmsghdr* nlh = mnl_nlmsg_put_header(req.data());
   nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
   nlh->nlmsg_seq = ++seq_;
   switch (step_) {
      case Step::links: {
         nlh->nlmsg_type = RTM_GETLINK;
         auto* ifi = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
         ifi->ifi_family = AF_UNSPEC;
         break;
      }
      case Step::addrs: {
         nlh->nlmsg_type = RTM_GETADDR;
         auto* ifa = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
         ifa->ifa_family = AF_INET;
         break;
      }
      case Step::fdb: {
         nlh->nlmsg_type = RTM_GETNEIGH;
         auto* ndm = static_cast<ndmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ndmsg)));
         ndm->ndm_family = AF_BRIDGE;
         break;
      }
      case Step::done:
         return;
   }
   if (mnl_socket_sendto(dump_.get(), nlh, nlh->nlmsg_len) < 0) {
      dumpFailed(std::string("dump request: ") + std::strerror(errno));
   }
}

int RtnlFollower::notificationCb(const nlmsghdr* nlh, void* self) {
   static_cast<RtnlFollower*>(self)->handleNotification(nlh);
   return MNL_CB_OK;
}

int RtnlFollower::dumpCb(const nlmsghdr* nlh, void* self) {
   static_cast<RtnlFollower*>(self)->handleDumpMessage(nlh);
   return MNL_CB_OK;
}

void RtnlFollower::handleNotifications() {
   for (int i = 0; i < kNotificationReads; ++i) {
      ssize_t n = mnl_socket_recvfrom(events_.get(), buf_.data(), buf_.size());
      if (n < 0) {
         if (errno == EAGAIN || errno == EWOULDBLOCK) return;
         if (errno == EINTR) continue;
         if (errno == ENOBUFS || errno == ENOSPC) {
            // ENOBUFS: the kernel dropped notifications; ENOSPC (libmnl's
            // word for a truncated read): we dropped part of one. Either
            // way some change is unknown, so the tables are read again.
            ++counters_.overruns;
            TAVRIN_TRACE(rtnlTrace(), 1,
                         "notifications lost (" << std::strerror(errno) << "), dumping again");
            resyncIs();
            continue;
         }
         TAVRIN_TRACE(rtnlTrace(), 0, "notification socket: " << std::strerror(errno));
         return;
      }
      // Notifications carry sequence 0 and port 0: neither is checked.
      if (mnl_cb_run(buf_.data(), size_t(n), 0, 0, notificationCb, this) < 0) {
         ++counters_.malformed;
         TAVRIN_TRACE(rtnlTrace(), 1, "notification batch: " << std::strerror(errno));
      }
   }
}

void RtnlFollower::handleNotification(const nlmsghdr* nlh) {
   Digested d = digestRtnl(nlh, nlh->nlmsg_len);
   if (d.status == Digested::Status::malformed) {
      ++counters_.malformed;
      TAVRIN_TRACE(rtnlTrace(), 1, "malformed notification dropped: " << d.reason);
      return;
   }
   if (d.status != Digested::Status::ok) return;
   ++counters_.notifications;
   TAVRIN_TRACE(rtnlTrace(), 6, str(d.msg));
   if (resync_) {
      resync_->notified(d.msg);
      // A multi-part dump resumes by position; a table that changed between
      // parts may have had an entry skipped. Read it again (bounded).
      bool sameTable = (step_ == Step::links && std::holds_alternative<LinkMsg>(d.msg)) ||
                       (step_ == Step::addrs && std::holds_alternative<AddrMsg>(d.msg)) ||
                       (step_ == Step::fdb && std::holds_alternative<FdbMsg>(d.msg));
      if (sameTable) disturbed_ = true;
   }
   publish(mirror_, mirror_.apply(d.msg), *fdb_, *ip_);
}

void RtnlFollower::handleDumpReadable() {
   while (resync_) {
      ssize_t n = mnl_socket_recvfrom(dump_.get(), buf_.data(), buf_.size());
      if (n < 0) {
         if (errno == EAGAIN || errno == EWOULDBLOCK) return;
         if (errno == EINTR) continue;
         return dumpFailed(std::string("dump read: ") + std::strerror(errno));
      }
      int rc = mnl_cb_run(buf_.data(), size_t(n), seq_, mnl_socket_get_portid(dump_.get()), dumpCb,
                          this);
      if (rc < 0) return dumpFailed(std::string("dump: ") + std::strerror(errno));
      if (rc == MNL_CB_STOP) dumpStepDone();
   }
   // Not dumping: whatever is left belongs to an abandoned dump.
   while (mnl_socket_recvfrom(dump_.get(), buf_.data(), buf_.size()) > 0) {
   }
}

void RtnlFollower::handleDumpMessage(const nlmsghdr* nlh) {
   if (!resync_) return;
   if (nlh->nlmsg_flags & NLM_F_DUMP_INTR) disturbed_ = true;
   Digested d = digestRtnl(nlh, nlh->nlmsg_len);
   if (d.status == Digested::Status::malformed) {
      ++counters_.malformed;
      TAVRIN_TRACE(rtnlTrace(), 1, "malformed dump message dropped: " << d.reason);
      return;
   }
   if (d.status == Digested::Status::ok) resync_->dumped(d.msg);
}

void RtnlFollower::dumpStepDone() {
   if (disturbed_ && attempts_ < kMaxDumpAttempts) {
      ++counters_.dumpRestarts;
      TAVRIN_TRACE(rtnlTrace(), 3, "table changed during the dump, dumping again");
      beginDump();
      return;
   }
   step_ = Step(int(step_) + 1);
   if (step_ == Step::done) return finishDump();
   disturbed_ = false;
   sendDumpRequest();
}

void RtnlFollower::finishDump() {
   size_t replayed = resync_->notifiedCount();
   mirror_ = std::move(*resync_).finish();
   resync_.reset();
   publishAll(mirror_, *fdb_, *ip_);
   bool first = !synced_;
   synced_ = true;
   TAVRIN_TRACE(rtnlTrace(), 4,
                "dump done: " << mirror_.links() << " links, " << fdb_->fdbStatusSize()
                              << " fdb entries, " << replayed << " notifications replayed");
   if (first) checkBridge();
   if (again_) {
      ++counters_.resyncs;
      attempts_ = 0;
      beginDump();
   }
   if (syncHandler_) syncHandler_();
}

void RtnlFollower::dumpFailed(const std::string& why) {
   ++counters_.dumpErrors;
   TAVRIN_TRACE(rtnlTrace(), 0, why << "; trying again in 1 s");
   resync_.reset();
   step_ = Step::done;
   // A fresh socket: replies of the failed dump must not meet the next one.
   try {
      openDumpSocket();
   } catch (const RtnlError& e) {
      TAVRIN_TRACE(rtnlTrace(), 0, e.what());
   }
   retry_->scheduleTaskDelay(1.0);
}

void RtnlFollower::checkBridge() const {
   int bridge = mirror_.bridgeIfindex();
   if (bridge == 0) {
      TAVRIN_TRACE(
          rtnlTrace(), 0,
          "bridge " << options_.bridge << " not found: the MAC table stays empty until it exists");
   } else if (mirror_.linkKind(bridge) != "bridge") {
      TAVRIN_TRACE(rtnlTrace(), 0,
                   options_.bridge << " is not a bridge (kind '"
                                   << mirror_.linkKind(bridge).value_or("")
                                   << "'): its MAC table stays empty");
   }
}

}  // namespace Tavrin::Linux
