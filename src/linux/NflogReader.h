// Reads the packets the data plane traps to an NFLOG group and hands each,
// as an Ethernet frame, to whoever serves the port it came in on (the packet
// access manager, which queues it for the agent).
//
// The socket is read inside the event loop, never blocking. A burst that
// overflows its receive buffer loses trapped packets (ENOBUFS): they are
// counted and not missed otherwise, since the data plane keeps trapping a
// client's packets until its lease is installed.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "linux/EventLoop.h"
#include "linux/NflogDigest.h"
#include "rt/Pkt.h"

struct mnl_socket;

namespace Tavrin::Linux {

class NflogError : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

// The name of an interface by ifindex; empty when unknown.
using IfnameLookup = std::function<std::optional<std::string>(int ifindex)>;
// Frames trapped on one port, in arrival order.
using TrapSink = std::function<void(IntfId port, std::vector<Ptr<Rt::Pkt>> frames)>;

// NFLOG messages to frames filed by port, counting what cannot be used.
// Knows nothing of sockets, so a test feeds it canned messages.
class NflogDispatch {
 public:
   struct Counters {
      uint64_t packets = 0;      // packet messages read
      uint64_t trapped = 0;      // frames handed on, one per packet
      uint64_t malformed = 0;    // messages that broke their policy, cut reads
      uint64_t unframed = 0;     // packets no Ethernet frame could be made of
      uint64_t unknownPort = 0;  // packets without an input port, or of an ifindex with no name
      uint64_t overruns = 0;     // times the kernel dropped log messages (ENOBUFS)
   };

   explicit NflogDispatch(IfnameLookup ifname) : ifname_(std::move(ifname)) {}

   // Digests one message and files its frame under its port.
   void message(const nlmsghdr* nlh);
   // Every message of a buffer as read from the socket.
   void buffer(std::span<const uint8_t> bytes);
   // What was filed since the last take, by port. Also forgets the port
   // names looked up, so that a renamed or new link is seen on the next read.
   std::map<IntfId, std::vector<Ptr<Rt::Pkt>>> take() {
      ports_.clear();
      last_ = nullptr;
      return std::exchange(filed_, {});
   }
   bool empty() const { return filed_.empty(); }

   Counters& counters() { return counters_; }
   const Counters& counters() const { return counters_; }

 private:
   // Port names kept until the next take; past this many ports in one take,
   // the rest are looked up for every packet.
   static constexpr size_t kPortsRemembered = 16;

   std::optional<IntfId> portOf(uint32_t ifindex);

   IfnameLookup ifname_;
   std::map<IntfId, std::vector<Ptr<Rt::Pkt>>> filed_;
   std::vector<std::pair<uint32_t, std::optional<IntfId>>> ports_;
   std::vector<Ptr<Rt::Pkt>>* last_ = nullptr;  // filed_'s list of lastPort_
   IntfId lastPort_;
   Counters counters_;
};

class NflogReader {
 public:
   struct Options {
      uint16_t group = 0;
      // Bytes of each packet copied to us. The whole packet, because the
      // agent's parser checks the IPv4 total length against what it is
      // given: a copy cut to the headers would be refused as short.
      uint32_t copyRange = 0xffff;
      // The kernel sends what it logged once it holds batchMax packets or
      // the oldest has waited batchWaitCs hundredths of a second.
      uint32_t batchMax = 32;
      uint32_t batchWaitCs = 1;
      // The socket's receive buffer: room for a burst of trapped packets
      // while the agent handles other events.
      int rcvBufBytes = 4 << 20;
   };
   using Counters = NflogDispatch::Counters;
   // Reads per wake-up, so that a burst cannot keep timers and the other
   // sockets waiting; the level-triggered loop comes back for the rest.
   static constexpr int kReadsPerWake = 64;

   // Opens the socket and binds the group (copying whole packets); throws
   // NflogError when the kernel refuses, for instance when another process
   // holds the group.
   NflogReader(EventLoop& loop, Options options, IfnameLookup ifname, TrapSink sink);
   ~NflogReader();
   NflogReader(const NflogReader&) = delete;
   NflogReader& operator=(const NflogReader&) = delete;

   const Options& options() const { return options_; }
   const Counters& counters() const { return dispatch_.counters(); }

 private:
   struct SocketCloser {
      void operator()(mnl_socket* s) const;
   };
   void bindGroup();
   void handleReadable();

   EventLoop& loop_;
   Options options_;
   TrapSink sink_;
   std::unique_ptr<mnl_socket, SocketCloser> socket_;
   uint32_t seq_ = 0;
   NflogDispatch dispatch_;
   std::vector<uint8_t> buf_;
};

}  // namespace Tavrin::Linux
