// What the control socket may ask of the lease table: the removals and the
// re-query that the lease table machine exposes. Behind an interface so the
// request handlers can be tested for what they ask, apart from how the
// machine carries it out.
#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "agent/TavrinAgent.h"

namespace Tavrin::Daemon {

class LeaseOps {
 public:
   virtual ~LeaseOps() = default;
   // Each returns false when the agent is not running (nothing was done).
   virtual bool removeIntf(IntfId intf) = 0;
   virtual bool removeDhcpServer(IpAddr server) = 0;
   virtual bool removeLeaseByMac(EthAddr mac, IpAddr server) = 0;
   // Queries every MAC the agent knows (leased or learned on a locked port);
   // no server asks every configured server. The number of MACs queried, or
   // nothing when the agent is not running.
   virtual std::optional<size_t> queryAllMacs(std::optional<IpAddr> server) = 0;
   // The servers a client holds leases from, in address order.
   virtual std::vector<IpAddr> serversOfMac(EthAddr mac) const = 0;
};

// The running agent's lease table machine; the agent is looked up at each
// call, so a restarted agent is followed without re-wiring.
class AgentLeaseOps : public LeaseOps {
 public:
   explicit AgentLeaseOps(std::function<Ptr<Agent>()> agent) : agent_(std::move(agent)) {}
   bool removeIntf(IntfId intf) override;
   bool removeDhcpServer(IpAddr server) override;
   bool removeLeaseByMac(EthAddr mac, IpAddr server) override;
   std::optional<size_t> queryAllMacs(std::optional<IpAddr> server) override;
   std::vector<IpAddr> serversOfMac(EthAddr mac) const override;

 private:
   Ptr<TavrinRoot> root() const;
   std::function<Ptr<Agent>()> agent_;
};

}  // namespace Tavrin::Daemon
