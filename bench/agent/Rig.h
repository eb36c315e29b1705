// What every row of the agent benchmarks shares: a plan of N distinct
// leases, a whole agent on the in-memory platform filled with them through
// its normal paths, the process's resident memory, CPU pinning and clocks,
// and the one-line report each figure ends in.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "agent/TavrinAgent.h"
#include "platform/InMemoryPlatform.h"

namespace Tavrin::Bench {

// Lease i: one client MAC with one address on one of 48 locked ports, all
// from one server. Distinct MACs and IPs, so the table holds exactly N.
struct LeasePlan {
   static constexpr uint64_t kMacBase = 0x020000000000ULL;
   static constexpr unsigned kPorts = 48;
   static constexpr uint32_t kLeaseTime = 86400;  // no expiry within any run

   explicit LeasePlan(size_t n);

   size_t size() const { return n; }
   EthAddr mac(size_t i) const { return EthAddr::fromU64(kMacBase + i + 1); }
   // The lease index of a MAC of the plan.
   size_t indexOf(EthAddr mac) const { return size_t(mac.toU64() - kMacBase - 1); }
   IpAddr ip(size_t i) const { return IpAddr(IpAddr::fromBytes(10, 0, 0, 0).value() + uint32_t(i) + 1); }
   IntfId intf(size_t i) const { return ports[i % kPorts]; }

   size_t n;
   std::vector<IntfId> ports;
   IpAddr server = IpAddr::fromBytes(192, 0, 2, 1);
   IpAddr localAddr = IpAddr::fromBytes(192, 0, 2, 2);
   IntfId localIntf{"Vlan10"};
};

// Writes the plan into a lease status as a load from disk does.
void fillStatus(LeaseStatus& status, const LeasePlan& plan, Seconds now);

// An agent on the in-memory platform, configured for the plan's ports and
// server. Only one may exist at a time: the platform installs itself as
// the process's clock.
class AgentRig {
 public:
   explicit AgentRig(const LeasePlan& plan);
   ~AgentRig();

   Platform::InMemoryPlatform& platform() { return platform_; }
   const Ptr<LeaseStatus>& leaseStatus() const { return leaseStatus_; }
   const Ptr<Status>& published() const { return status_; }
   Ptr<TavrinRoot> root() const;

   void start();
   // Leases [from, to) of the plan, each as a client's lease arrives at a
   // running agent: a query by MAC goes out and the server's answer comes
   // back. Returns how many answers were delivered.
   size_t fillByAnswers(size_t from, size_t to);
   // Answers every query the agent has sent and not yet seen answered (the
   // re-query of every client after a start), as the server would.
   size_t answerSentQueries();

   size_t leases() const;
   // Leases whose expiry timer is in the scheduler.
   size_t armedLeaseTimers() const;

 private:
   const LeasePlan& plan_;
   Platform::InMemoryPlatform platform_;
   Ptr<CliConfig> cli_;
   Ptr<LeaseStatus> leaseStatus_;
   Ptr<Status> status_;
};

// ---------------------------------------------------------------- measuring

// Pins the calling thread (and so every side of every row) to one CPU.
bool pinToCpu(int cpu);
double wallNow();
double cpuNow();  // this process's CPU seconds
size_t residentBytes();

template <class T>
T median(std::vector<T> v) {
   std::sort(v.begin(), v.end());
   return v[v.size() / 2];
}

// One figure, computed from ours and its baseline of the same run, and its
// goal; the verdict is printed for full-size runs only.
struct Row {
   std::string name;
   std::string unit;
   double ours = 0;
   double baseline = 0;
   std::string figureName = "ratio";
   double figure = 0;
   std::string goal;  // e.g. ">= 0.65"
   bool met = false;
   std::vector<std::string> notes;
};
void printRow(const Row& row, bool fullSize);

struct Options {
   size_t leases = 0;  // 0: the row's own default
   bool small = false;
   int cpu = 1;
   std::string dir = "/tmp";  // where the databases go
   std::vector<size_t> batches;  // churn: changes per iteration
   double seconds = 0;           // churn: time per side and batch size
};

// Each returns false when the harness itself failed (a table not full, a
// lookup that missed): the figures would mean nothing.
bool runLookup(const Options& o);
bool runMemory(const Options& o);
bool runStart(const Options& o);
bool runChurn(const Options& o);
bool runIdle(const Options& o);

}  // namespace Tavrin::Bench
