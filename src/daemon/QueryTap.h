// What crosses the lease query socket, seen from the daemon's side of it:
// every datagram the agent reads is classified the way the query client
// first sorts it (sender, parse, message type), so that answers can be
// counted by type and early drops by reason without the query machine's
// help; and every server that is asked but never says anything is reported
// once, in plain words, instead of being a silent retry schedule.
//
// It fills the "query" counter slot until the query machine counts for
// itself; the silence notice stays useful either way.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "daemon/Counters.h"
#include "daemon/Log.h"
#include "platform/UdpPam.h"
#include "rt/Clock.h"
#include "rt/Pkt.h"

namespace Tavrin::Daemon {

class QueryTap : public CounterSource {
 public:
   // A server asked for this long without one datagram back is called silent.
   static constexpr Seconds kSilentAfter = 10.0;
   using Notice = std::function<void(LogLevel, const std::string&)>;

   QueryTap(const Rt::Clock& clock, Notice notice);
   // Servers are recognised by the configuration in force when each
   // datagram arrives.
   void cliConfigIs(Ptr<const CliConfig> cliConfig) { cliConfig_ = std::move(cliConfig); }

   // A query went to dst from src.
   void sent(IpAddr dst, IpAddr src);
   // The agent read a datagram from src.
   void received(IpAddr src, const Rt::Pkt& pkt);

   bool silent(IpAddr server) const;
   uint64_t answers(uint8_t messageType) const;
   uint64_t drops(const std::string& reason) const;
   void collect(std::vector<Sample>& out) const override;

   static constexpr const char* kUnknownSender = "not from a configured server";
   static constexpr const char* kUnparsable = "not a DHCP message";
   static constexpr const char* kNotAnAnswer = "not a lease query answer";

 private:
   struct Server {
      Seconds askedSince = -1;  // first query since its last datagram; -1: none
      IpAddr source;            // where the queries came from, for the notice
      bool silent = false;
   };

   const Rt::Clock& clock_;
   Notice notice_;
   Ptr<const CliConfig> cliConfig_;
   std::map<IpAddr, Server> servers_;
   std::map<uint8_t, uint64_t> answers_;
   std::map<std::string, uint64_t> drops_;
};

// The agent's socket with the tap in between: everything is passed to the
// socket underneath, and the tap hears of each datagram sent and read.
class TappedUdpPam : public Platform::UdpPam {
 public:
   TappedUdpPam(Ptr<Platform::UdpPam> inner, QueryTap& tap);
   ~TappedUdpPam() override;

   void modeIs(Mode m) override;
   void pktIs(const Ptr<Rt::Pkt>& pkt) override;
   Ptr<Rt::Pkt> rxPkt() override;
   const Ptr<Platform::UdpPam>& inner() const { return inner_; }

 private:
   class Reactor;
   Ptr<Platform::UdpPam> inner_;
   QueryTap& tap_;
   std::unique_ptr<Reactor> reactor_;
};

}  // namespace Tavrin::Daemon
