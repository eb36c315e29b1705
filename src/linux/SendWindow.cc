#include "linux/SendWindow.h"

namespace Tavrin::Linux {

namespace {
// BOOTP fixed header: ciaddr at 12, chaddr at 28.
constexpr size_t kCiaddr = 12;
constexpr size_t kChaddr = 28;
}  // namespace

SendWindow::SendWindow(Send send, size_t limit, Seconds timeout)
    : send_(std::move(send)), limit_(limit ? limit : 1), timeout_(timeout) {}

std::optional<SendWindow::ClientKey> SendWindow::clientKey(const Rt::Pkt& pkt) {
   const auto& b = pkt.bytes();
   if (b.size() < kChaddr + 6) return std::nullopt;
   uint64_t mac = 0;
   for (size_t i = 0; i < 6; ++i) mac = mac << 8 | b[kChaddr + i];
   uint32_t ciaddr = 0;
   for (size_t i = 0; i < 4; ++i) ciaddr = ciaddr << 8 | b[kCiaddr + i];
   return ClientKey{mac, ciaddr};
}

void SendWindow::forget(Server& s, Seconds now) {
   while (!s.unanswered.empty() && s.unanswered.front() + timeout_ <= now) {
      s.unanswered.pop_front();
   }
}

void SendWindow::drain(Server& s, Seconds now) {
   forget(s, now);
   while (!s.line.empty() && s.unanswered.size() < limit_) {
      Query q = std::move(s.line.front());
      s.line.pop_front();
      if (auto key = clientKey(*q.pkt)) s.waiting.erase(*key);
      s.unanswered.push_back(now);
      send_(q);
   }
}

void SendWindow::queryIs(Query q, Seconds now) {
   if (!q.pkt) return;
   auto& s = servers_[q.dst];
   forget(s, now);
   if (s.line.empty() && s.unanswered.size() < limit_) {
      s.unanswered.push_back(now);
      send_(q);
      return;
   }
   auto key = clientKey(*q.pkt);
   if (key) {
      if (auto it = s.waiting.find(*key); it != s.waiting.end()) {
         *it->second = std::move(q);
         ++replaced_;
         return;
      }
   }
   ++deferred_;
   s.line.push_back(std::move(q));
   if (key) s.waiting.emplace(*key, std::prev(s.line.end()));
}

void SendWindow::answerFrom(IpAddr server, Seconds now) {
   auto it = servers_.find(server);
   if (it == servers_.end()) return;
   auto& s = it->second;
   if (!s.unanswered.empty()) s.unanswered.pop_front();
   drain(s, now);
}

void SendWindow::expire(Seconds now) {
   for (auto& [dst, s] : servers_) drain(s, now);
}

std::optional<Seconds> SendWindow::nextDeadline() const {
   std::optional<Seconds> next;
   for (const auto& [dst, s] : servers_) {
      // Only a full window with a line behind it has anything to wait for.
      if (s.line.empty() || s.unanswered.empty()) continue;
      Seconds t = s.unanswered.front() + timeout_;
      if (!next || t < *next) next = t;
   }
   return next;
}

void SendWindow::clear() {
   servers_.clear();
}

size_t SendWindow::waiting() const {
   size_t n = 0;
   for (const auto& [dst, s] : servers_) n += s.line.size();
   return n;
}

}  // namespace Tavrin::Linux
