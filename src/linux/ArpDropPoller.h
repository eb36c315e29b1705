// Reads the data plane's ARP drop counters once a second and publishes
// those that moved in "tavrin/hardware/arpdrops".
//
// The reading is one netlink dump of the table's counter objects, asked for
// by a scheduler timer and read when the socket is readable, so the agent's
// thread never waits on the kernel. Hundreds of ports are one dump of a few
// kilobytes. Only a complete dump is published: a dump that fails or is cut
// short leaves the entity as it was until the next second's.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "linux/ArpDropCounters.h"
#include "linux/EventLoop.h"

struct mnl_socket;

namespace Tavrin::Linux {

class ArpDropError : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

class ArpDropPoller {
 public:
   struct Options {
      std::string table;  // the data plane's table, in the bridge family
      CounterPortFn counterPort;
      Seconds interval = 1.0;
   };
   struct Counters {
      uint64_t readings = 0;   // complete dumps published
      uint64_t changes = 0;    // ports written to the entity
      uint64_t failures = 0;   // dumps refused, failed or cut short
      uint64_t late = 0;       // dumps still unanswered when the next was due
      uint64_t malformed = 0;  // messages that broke their policy
   };

   // Opens the socket; throws ArpDropError when the kernel refuses. The
   // first reading is taken at once, then every interval.
   ArpDropPoller(EventLoop& loop, Ptr<Hardware::ArpDropCounterStatus> status, Options options);
   ~ArpDropPoller();
   ArpDropPoller(const ArpDropPoller&) = delete;
   ArpDropPoller& operator=(const ArpDropPoller&) = delete;

   const Counters& counters() const { return counters_; }

 private:
   struct SocketCloser {
      void operator()(mnl_socket* s) const;
   };
   class TickReactor;

   void handleTick();
   void handleReadable();
   // One message of the dump under way; false when the dump has ended.
   bool handleMessage(const nlmsghdr* nlh);
   void finish();
   void fail(const std::string& why);

   EventLoop& loop_;
   Ptr<Hardware::ArpDropCounterStatus> status_;
   Options options_;
   std::unique_ptr<mnl_socket, SocketCloser> socket_;
   Rt::TimerTask tick_;
   std::unique_ptr<TickReactor> tickReactor_;
   uint32_t seq_ = 0;
   bool dumping_ = false;
   std::vector<CounterReading> readings_;
   std::vector<uint8_t> buf_;
   Counters counters_;
};

}  // namespace Tavrin::Linux
