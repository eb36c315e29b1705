// A window of unanswered lease queries per server.
//
// The agent's retry schedule is per query, so a thousand MACs learned in the
// same second make a thousand queries due in the same instant, and each of
// their resends falls due together again. A DHCP server reads its queries
// from one socket with a receive buffer of a few hundred datagrams; the rest
// of a burst is lost, resent in a burst, and lost again. The window sends at
// most `limit` queries to a server that it has not answered yet; the others
// wait, in order, and go as answers come back. A query a server leaves
// unanswered for `timeout` stops holding its place, so a server that drops
// queries slows the flow without stopping it.
//
// A query that waits and is then replaced by the agent's next round for the
// same client (same chaddr and ciaddr, new transaction id) takes the older
// one's place in the line: the older one's answer would be dropped as stale.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <optional>

#include "rt/Pkt.h"
#include "rt/Types.h"

namespace Tavrin::Linux {

class SendWindow {
 public:
   struct Query {
      Rt::Ptr<Rt::Pkt> pkt;
      IpAddr dst;
      IpAddr src;
      uint16_t port = 0;
   };
   using Send = std::function<void(const Query&)>;

   static constexpr size_t kDefaultLimit = 64;
   // A lease query server answers within milliseconds; a query unanswered
   // this long was most likely lost, and holding its place longer starves
   // the line behind it when the path drops packets.
   static constexpr Seconds kDefaultTimeout = 0.2;

   explicit SendWindow(Send send, size_t limit = kDefaultLimit, Seconds timeout = kDefaultTimeout);

   // A query to q.dst at monotonic time now: sent at once if the server's
   // window has room, else queued (or put in the place of a waiting query
   // for the same client).
   void queryIs(Query q, Seconds now);
   // A datagram came from `server`: one of its queries is answered.
   void answerFrom(IpAddr server, Seconds now);
   // Frees the places of queries unanswered for `timeout`, and sends what
   // then fits. Call it at nextDeadline().
   void expire(Seconds now);
   // When expire() next has something to do; nullopt: nothing waits.
   std::optional<Seconds> nextDeadline() const;
   void clear();

   size_t waiting() const;
   uint64_t deferred() const { return deferred_; }
   uint64_t replaced() const { return replaced_; }

 private:
   // The client a query is about: chaddr's first six bytes and ciaddr.
   using ClientKey = std::pair<uint64_t, uint32_t>;
   static std::optional<ClientKey> clientKey(const Rt::Pkt& pkt);

   struct Server {
      std::list<Query> line;
      std::map<ClientKey, std::list<Query>::iterator> waiting;
      std::deque<Seconds> unanswered;  // send times, oldest first
   };
   void drain(Server& s, Seconds now);
   void forget(Server& s, Seconds now);

   Send send_;
   size_t limit_;
   Seconds timeout_;
   std::map<IpAddr, Server> servers_;
   uint64_t deferred_ = 0;
   uint64_t replaced_ = 0;
};

}  // namespace Tavrin::Linux
