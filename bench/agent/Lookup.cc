// Row 1: a trapped frame checked against the lease table, as TrappedIpSm
// does for every frame from a locked port: parse Ethernet/IPv4, look the
// client up by MAC, then its lease by IP. Every frame of the stream belongs
// to a lease, so no query is sent and the figure is the check alone.
//
// Baseline: the same two lookups over the same frames in flat
// open-addressing tables (linear probing, at most half full), reading the
// MAC and IP at their fixed offsets.
#include <cstdio>
#include <functional>
#include <map>
#include <random>

#include "bench/agent/Rig.h"
#include "dhcp/DhcpCodec.h"
#include "triggers/TrappedIpSm.h"

namespace Tavrin::Bench {

namespace {

// Key 0 marks an empty slot; no MAC or IP of the plan is 0.
class FlatTable {
 public:
   static constexpr uint32_t kNone = UINT32_MAX;

   explicit FlatTable(size_t n) {
      size_t cap = 16;
      while (cap < 2 * n) cap *= 2;
      slots_.assign(cap, Slot{});
      mask_ = cap - 1;
   }
   void insert(uint64_t key, uint32_t value) {
      size_t i = size_t(mixHash(key)) & mask_;
      while (slots_[i].key != 0 && slots_[i].key != key) i = (i + 1) & mask_;
      slots_[i] = {key, value};
   }
   uint32_t find(uint64_t key) const {
      size_t i = size_t(mixHash(key)) & mask_;
      while (true) {
         const Slot& s = slots_[i];
         if (s.key == key) return s.value;
         if (s.key == 0) return kNone;
         i = (i + 1) & mask_;
      }
   }

 private:
   struct Slot {
      uint64_t key = 0;
      uint32_t value = 0;
   };
   std::vector<Slot> slots_;
   size_t mask_ = 0;
};

struct Frame {
   Ptr<Rt::Pkt> pkt;
   IntfId intf;
};

uint64_t macAt(const uint8_t* p) {
   uint64_t v = 0;
   for (int i = 0; i < 6; ++i) v = (v << 8) | p[i];
   return v;
}

uint32_t ipAt(const uint8_t* p) {
   return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

}  // namespace

bool runLookup(const Options& o) {
   const size_t n = o.leases ? o.leases : o.small ? 10000 : 1000000;
   const bool full = !o.small && n >= 1000000;
   LeasePlan plan(n);

   double t0 = wallNow();
   AgentRig rig(plan);
   fillStatus(*rig.leaseStatus(), plan, rig.platform().virtualClock().now());
   rig.start();
   rig.answerSentQueries();
   const double fillSeconds = wallNow() - t0;
   if (rig.leases() != n) {
      std::fprintf(stderr, "lookup: the table holds %zu leases, not %zu\n", rig.leases(), n);
      return false;
   }

   // The stream visits every lease once per pass, in an order unrelated to
   // the order the leases were made in; frames are allocated in stream order.
   // Frames reach the agent in batches, each from one port's reader (up
   // to IntfPamSm::kReadBatch): the stream is cut into runs of that many
   // frames of one port, the port of each run chosen at random.
   std::vector<size_t> shuffled(n);
   for (size_t i = 0; i < n; ++i) shuffled[i] = i;
   std::mt19937_64 rng(20261121);
   std::shuffle(shuffled.begin(), shuffled.end(), rng);
   std::map<IntfId, std::vector<size_t>> byPort;
   for (size_t i : shuffled) byPort[plan.intf(i)].push_back(i);
   std::vector<std::vector<size_t>*> ports;
   for (auto& [intf, leases] : byPort) ports.push_back(&leases);
   std::vector<size_t> order;
   order.reserve(n);
   std::vector<size_t> taken(ports.size(), 0);
   for (size_t live = ports.size(); live > 0;) {
      const size_t p = std::uniform_int_distribution<size_t>(0, ports.size() - 1)(rng);
      auto& leases = *ports[p];
      if (taken[p] == leases.size()) continue;
      const size_t run = std::min(IntfPamSm::kReadBatch, leases.size() - taken[p]);
      order.insert(order.end(), leases.begin() + taken[p], leases.begin() + taken[p] + run);
      taken[p] += run;
      if (taken[p] == leases.size()) --live;
   }
   const EthAddr gatewayMac = EthAddr::fromU64(0x02aa00000001ULL);
   const IpAddr gatewayIp = IpAddr::fromBytes(10, 255, 255, 254);
   std::vector<Frame> frames;
   frames.reserve(n);
   for (size_t i : order) {
      frames.push_back({buildEthIpv4Frame(plan.mac(i), plan.ip(i), gatewayMac, gatewayIp),
                        plan.intf(i)});
   }

   FlatTable byMac(n), byIp(n);
   for (size_t i = 0; i < n; ++i) {
      byMac.insert(plan.mac(i).toU64(), uint32_t(i));
      byIp.insert(plan.ip(i).value(), uint32_t(i));
   }

   auto trapped = rig.root()->trappedIpSm();
   auto table = rig.root()->leaseTable();
   auto pam = rig.platform().udpPam("Tavrin");
   pam->sentDelAll();

   // The agent's port reader hands over what it drained in batches of
   // IntfPamSm::kReadBatch; so does this pass (the stream is cut into the
   // same runs per port, as a flood on one port would arrive).
   struct Run {
      std::span<const Ptr<Rt::Pkt>> pkts;
      IntfId intf;
   };
   std::vector<Ptr<Rt::Pkt>> pkts;
   pkts.reserve(n);
   for (const auto& f : frames) pkts.push_back(f.pkt);
   std::vector<Run> runs;
   for (size_t i = 0; i < n;) {
      size_t j = i + 1;
      while (j < n && j - i < IntfPamSm::kReadBatch && frames[j].intf == frames[i].intf) ++j;
      runs.push_back({std::span<const Ptr<Rt::Pkt>>(pkts).subspan(i, j - i), frames[i].intf});
      i = j;
   }
   auto agentPass = [&] {
      for (const auto& r : runs) trapped->processTrappedIps(r.pkts, r.intf);
      return pam->sent().empty() ? n : 0;  // a miss would have sent a query
   };
   PacketParser parser;
   auto directPass = [&] {
      size_t hits = 0;
      for (const auto& f : frames) {
         if (!parser.doParseIpPkt(f.pkt, f.intf, true)) continue;
         auto client = table->macToLease(parser.srcMac());
         if (client && client->ipMacLeaseByIp(IpGenAddr(parser.srcIp()))) ++hits;
      }
      return hits;
   };
   auto flatPass = [&] {
      size_t hits = 0;
      for (const auto& f : frames) {
         const uint8_t* b = f.pkt->bytes().data();
         uint32_t c = byMac.find(macAt(b + 6));
         if (c != FlatTable::kNone && byIp.find(ipAt(b + 26)) == c) ++hits;
      }
      return hits;
   };

   // Interleaved rounds, so that drift of the shared machine hits all sides.
   std::vector<double> agentRate, directRate, flatRate;
   const int rounds = o.small ? 3 : 7;
   for (int r = 0; r < rounds; ++r) {
      for (auto [pass, rates] : {std::pair{std::function<size_t()>(agentPass), &agentRate},
                                 std::pair{std::function<size_t()>(directPass), &directRate},
                                 std::pair{std::function<size_t()>(flatPass), &flatRate}}) {
         double s = wallNow();
         size_t hits = pass();
         double dt = wallNow() - s;
         if (hits != n) {
            std::fprintf(stderr, "lookup: %zu of %zu frames matched a lease\n", hits, n);
            return false;
         }
         rates->push_back(double(n) / dt);
      }
   }

   Row row;
   row.name = "trapped-frame check, " + std::to_string(n) + " leases";
   row.unit = "frames/s";
   row.ours = median(agentRate);
   row.baseline = median(flatRate);
   row.figure = row.ours / row.baseline;
   row.goal = ">= 0.65";
   row.met = row.figure >= 0.65;
   char note[200];
   std::snprintf(note, sizeof note,
                 "parse + macToLease + ipMacLeaseByIp without TrappedIpSm: %.4g frames/s "
                 "(ratio %.3f); medians of %d interleaved passes; table filled in %.1f s",
                 median(directRate), median(directRate) / row.baseline, rounds, fillSeconds);
   row.notes.push_back(note);
   printRow(row, full);
   return true;
}

}  // namespace Tavrin::Bench
