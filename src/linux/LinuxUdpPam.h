// The lease query client's UDP socket on Linux.
//
// The agent listens where servers answer a lease query, the DHCP server
// port (RFC 4388 section 6.3: replies go to giaddr, port 67), and sends from
// the local interface's primary address, the giaddr it puts in each query.
// The source is chosen per datagram with IP_PKTINFO, so the socket stays
// bound to the wildcard address and one socket serves every source.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "linux/EventLoop.h"
#include "linux/SendWindow.h"
#include "platform/UdpPam.h"
#include "rt/TaskScheduler.h"

namespace Tavrin::Linux {

class LinuxUdpPam final : public Platform::UdpPam {
 public:
   struct Counters {
      uint64_t sent = 0;
      uint64_t sendErrors = 0;
      uint64_t received = 0;
      uint64_t receiveErrors = 0;
      // Datagrams dropped because nobody read the queue (kRxQueueMax).
      uint64_t rxQueueDrops = 0;
      // Times opening or binding the socket failed.
      uint64_t openErrors = 0;
   };
   // Sends wait for a server's window (see SendWindow); how many waited,
   // how many were replaced by a newer query for the same client while
   // waiting, and how many wait now.
   uint64_t deferred() const { return window_.deferred(); }
   uint64_t replaced() const { return window_.replaced(); }
   size_t waiting() const { return window_.waiting(); }
   static constexpr size_t kRxQueueMax = 1024;
   // Datagrams read per wake-up; the level-triggered loop comes back for the
   // rest after the other ready fds had their turn. DHCP clients broadcast
   // to port 67 too, and a busy segment must not starve the agent's timers.
   static constexpr size_t kRxBatch = 64;

   // The socket is opened by modeIs. It must not outlive the loop.
   LinuxUdpPam(std::string name, EventLoop& loop);
   ~LinuxUdpPam() override;

   // off: closes the socket. tx: an unbound socket. rx and txRx: bound to
   // rxIpAddr:rxPort. A failure to open or bind is traced at level 0 and
   // kept in lastError(); the socket then stays closed until the next modeIs.
   void modeIs(Mode m) override;
   void pktIs(const Ptr<Rt::Pkt>& pkt) override;
   Ptr<Rt::Pkt> rxPkt() override;

   bool isOpen() const { return bool(fd_); }
   const std::string& lastError() const { return lastError_; }
   const Counters& counters() const { return counters_; }
   // The bound port (differs from rxPort only when rxPort is 0); 0 if closed.
   uint16_t localPort() const;

 private:
   struct Datagram {
      Ptr<Rt::Pkt> pkt;
      IpAddr src;
   };
   class WindowTimer;
   void open(Mode m);
   void close();
   void handleReadable();
   void transmit(const SendWindow::Query& q);
   Seconds monotonic() const { return loop_.scheduler()->clock().monotonic(); }
   void armWindowTimer();
   void failed(const std::string& what, int err);

   EventLoop& loop_;
   UniqueFd fd_;
   std::deque<Datagram> rx_;
   std::string lastError_;
   Counters counters_;
   SendWindow window_;
   std::unique_ptr<Rt::TimerTask> windowTask_;
   std::unique_ptr<WindowTimer> windowTimer_;
};

}  // namespace Tavrin::Linux
