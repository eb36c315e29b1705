// The whole agent under a long random run of answers, MAC moves,
// configuration changes, timer runs and restarts. After every step (and
// after every timer run) the lease table, the persisted leases and the
// published entries must agree, and no lease may sit on an interface or come
// from a server that the configuration no longer has.
//
// Seeded and reproducible: TAVRIN_LEASE_SEED and TAVRIN_LEASE_STEPS override
// the defaults; a failure names the seed, the step and the steps before it.
// Under the address sanitizer a step costs about ten times as much, so that
// build runs a quarter of the steps by default (all paths are still reached
// within the first few thousand); the plain build runs the full count.
#include <gtest/gtest.h>

#include <cstdlib>
#include <deque>
#include <map>
#include <random>
#include <sstream>

#include "agent/TavrinAgent.h"
#include "dhcp/DhcpCodec.h"
#include "lease/LeaseTableCheck.h"
#include "model/TavrinCommon.h"
#include "platform/InMemoryPlatform.h"

using namespace Tavrin;
using Rt::Ptr;

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr uint64_t kDefaultSteps = 25000;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr uint64_t kDefaultSteps = 25000;
#else
constexpr uint64_t kDefaultSteps = 100000;
#endif
#else
constexpr uint64_t kDefaultSteps = 100000;
#endif

uint64_t envNumber(const char* name, uint64_t fallback) {
   const char* v = std::getenv(name);
   return v && *v ? std::strtoull(v, nullptr, 10) : fallback;
}

// What one step did, kept compact and put into words only for a failure.
struct StepRecord {
   const char* what = "";
   EthAddr mac;
   IpGenAddr ip;
   IntfId intf;
   IpAddr server;
   double a = 0, b = 0;
   bool flag = false;
};

std::ostream& operator<<(std::ostream& os, const StepRecord& r) {
   std::string_view w = r.what;
   os << w;
   if (w.starts_with("active")) {
      os << " server " << r.server << " mac " << r.mac << " ip " << r.ip << " intf " << r.intf
         << " lease " << r.a << " txn " << r.b << (r.flag ? "" : " (not sent)");
   } else if (w.starts_with("no-lease")) {
      os << " server " << r.server << " ip " << r.ip << (r.flag ? "" : " (not sent)");
   } else if (w.starts_with("mac")) {
      os << " " << r.mac << " " << r.intf << (r.flag ? ", move posted" : "");
   } else if (w.starts_with("server")) {
      os << " " << r.server;
   } else if (w.starts_with("interface")) {
      os << " " << r.intf << " ipv4=" << r.flag;
   } else if (w.starts_with("advance")) {
      os << " " << r.a;
   }
   return os;
}

class RandomAgentRun {
 public:
   explicit RandomAgentRun(uint64_t seed) : rng_(seed) {
      registerTavrinTypes(platform_.types());
      platform_.stateEntityIs("tavrin/hardware/config", "Tavrin::Hardware::Config");
      platform_.stateEntityIs("tavrin/interfaceStatus", "Tavrin::ConfiguredInterfaceStatus");
      cli_ =
          Rt::ptrCast<CliConfig>(platform_.stateEntityIs("tavrin/cliConfig", "Tavrin::CliConfig"));
      leaseStatus_ = Rt::ptrCast<LeaseStatus>(
          platform_.stateEntityIs("tavrin/leaseStatus", "Tavrin::LeaseStatus"));
      auto ipStatus =
          Rt::ptrCast<Platform::IpStatus>(platform_.stateEntityIs("ip/status", "Ip::Status"));
      shm_ = Rt::ptrCast<Status>(platform_.shmEntityIs("tavrin/status", "Tavrin::Status"));
      platform_.shmEntityIs("tavrin/hardware/installedConfig", "Tavrin::Hardware::InstalledConfig");
      platform_.shmEntityIs("tavrin/hardware/arpdrops", "Tavrin::Hardware::ArpDropCounterStatus");
      platform_.shmEntityIs("bridging/status", "ShmTable::Bridging::Status");

      for (unsigned i = 1; i <= 4; ++i) intfs_.emplace_back("Ethernet" + std::to_string(i));
      for (uint8_t s : {1, 3, 4}) servers_.push_back(IpAddr::fromBytes(10, 0, 0, s));
      for (unsigned m = 1; m <= 12; ++m) macs_.push_back(EthAddr::fromU64(0x020000000000ULL + m));
      for (unsigned i = 1; i <= 16; ++i) ips_.push_back(IpAddr::fromBytes(10, 1, 0, uint8_t(i)));
      cli_->localInterfaceIs(IntfId("Vlan10"));
      ipStatus->ipIntfStatusIs(IntfId("Vlan10"))->primaryAddrIs(IpAddr::fromBytes(10, 0, 0, 2));
      for (auto s : servers_) cli_->dhcpV4ServerIs(s);
      for (size_t i = 0; i < 3; ++i) cli_->interfaceIs(intfs_[i], true);
      start();
   }
   ~RandomAgentRun() { platform_.stop(); }

   // One random step; false once the run has found a fault.
   bool step() {
      unsigned roll = pick(100);
      if (roll < 50) {
         activeAnswer();
      } else if (roll < 65) {
         noLeaseAnswer();
      } else if (roll < 78) {
         moveMac();
      } else if (roll < 88) {
         changeConfiguration();
      } else if (roll < 99) {
         advance();
         return ok_;
      } else {
         restart();
      }
      ++driven_;
      check("after the last step");
      return ok_;
   }

   uint64_t driven() const { return driven_; }
   const std::string& failure() const { return failure_; }
   size_t leasesSeen() const { return leasesSeen_; }

 private:
   unsigned pick(unsigned n) { return unsigned(rng_() % n); }
   template <class V>
   const typename V::value_type& any(const V& v) {
      return v[pick(unsigned(v.size()))];
   }
   Ptr<TavrinRoot> root() const {
      auto agent = Rt::ptrCast<Agent>(platform_.agent());
      return agent ? agent->tavrinRoot() : nullptr;
   }
   StepRecord& note(const char* what) {
      if (history_.size() == 25) history_.pop_front();
      history_.push_back({});
      history_.back().what = what;
      return history_.back();
   }

   // At each start the MAC table is read back before the lease table is
   // rebuilt, as the MAC table follower does when it is created.
   void start() {
      platform_.start(
          [this](const std::string& n, Platform::AgentFrame& f) {
             auto agent = agentFactory(n, f);
             agent->rootObserverIs([this](TavrinRoot& r) {
                for (const auto& [mac, intf] : macLocation_) {
                   if (cli_->interface(intf)) r.macIntfMap()->intfIdIs(mac, intf);
                }
             });
             return Ptr<Platform::AgentBase>(agent);
          },
          "Tavrin");
      responses_.notifierIs(root()->leaseQueryResponse());
   }

   // Posts a request to one server and returns the xid that went out, as
   // the server would see it; nullopt if nothing was sent.
   std::optional<uint32_t> ask(EthAddr mac, IpGenAddr ip, IntfId intf, IpAddr server) {
      auto pam = platform_.udpPam("Tavrin");
      if (!pam) return std::nullopt;
      pam->sentDelAll();
      sendLeaseQuery(root()->leaseQueryRequest(), mac, ip, intf, false, true, server);
      if (pam->sent().empty() || pam->sent().back().dst != server) return std::nullopt;
      PacketParser p;
      if (!p.doParse(pam->sent().back().pkt)) return std::nullopt;
      uint32_t xid = p.xid();
      pam->sentDelAll();
      return xid;
   }

   void deliver(IpAddr server, const DhcpAnswerFields& f) {
      if (auto pam = platform_.udpPam("Tavrin")) pam->deliver(buildDhcpAnswer(f), server);
   }

   bool anyServer(IpAddr& server) {
      const auto& configured = cli_->dhcpV4ServerAll();
      if (configured.empty()) return false;
      server = *std::next(configured.begin(), long(pick(unsigned(configured.size()))));
      return true;
   }

   void activeAnswer() {
      bool byMac = pick(2);
      auto& r = note(byMac ? "active bymac" : "active byip");
      if (!anyServer(r.server)) return;
      r.mac = any(macs_);
      IpAddr ip = any(ips_);
      r.intf = any(intfs_);
      // Now and then a by-MAC answer names no address: the server withdraws
      // what it gave the client.
      bool noIp = byMac && pick(8) == 0;
      r.ip = noIp ? IpAddr() : ip;
      auto xid =
          byMac ? ask(r.mac, IpGenAddr(), r.intf, r.server) : ask(EthAddr(), ip, r.intf, r.server);
      if (!xid) return;
      r.flag = true;
      DhcpAnswerFields f;
      f.messageType = uint8_t(DhcpMessageType::leaseActive);
      f.xid = *xid;
      f.ciaddr = noIp ? IpAddr() : ip;
      f.chaddr = r.mac;
      f.leaseTime = 30 + pick(600);
      f.lastTransaction = pick(4) == 0 ? 0 : pick(40);
      r.a = *f.leaseTime;
      r.b = *f.lastTransaction;
      deliver(r.server, f);
   }

   void noLeaseAnswer() {
      auto& r = note("no-lease byip");
      if (!anyServer(r.server)) return;
      IpAddr ip = any(ips_);
      r.ip = ip;
      auto xid = ask(EthAddr(), ip, any(intfs_), r.server);
      if (!xid) return;
      r.flag = true;
      DhcpAnswerFields f;
      f.messageType =
          uint8_t(pick(2) ? DhcpMessageType::leaseUnassigned : DhcpMessageType::leaseUnknown);
      f.xid = *xid;
      f.ciaddr = ip;
      deliver(r.server, f);
   }

   // Played as the MAC table follower would: the map names the MAC's
   // interface when the interface is configured, and most moves are posted;
   // the others are found by the next answer for the MAC.
   void moveMac() {
      auto root = this->root();
      EthAddr mac = any(macs_);
      // Most MACs hold no lease at a given moment; aim half of the moves at
      // one that does.
      const auto& clients = root->leaseTable()->macToLeaseAll();
      if (!clients.empty() && pick(2)) {
         mac = std::next(clients.begin(), long(pick(unsigned(clients.size()))))->first;
      }
      IntfId intf = any(intfs_);
      if (pick(6) == 0) {
         note("mac leaves the MAC table").mac = mac;
         macLocation_.erase(mac);
         root->macIntfMap()->intfIdDel(mac);
         return;
      }
      auto& r = note("mac seen on");
      r.mac = mac;
      r.intf = intf;
      r.flag = pick(3) != 0;
      macLocation_[mac] = intf;
      if (cli_->interface(intf)) root->macIntfMap()->intfIdIs(mac, intf);
      if (!r.flag) return;
      root->movedMac()->macIs(mac);
      root->movedMac()->newIntfIdIs(intf);
      root->movedMac()->versionNumberInc(1);
   }

   void changeConfiguration() {
      if (pick(2)) {
         IpAddr server = any(servers_);
         bool add = !cli_->dhcpV4ServerHas(server);
         note(add ? "server add" : "server del").server = server;
         add ? cli_->dhcpV4ServerIs(server) : cli_->dhcpV4ServerDel(server);
         return;
      }
      IntfId intf = any(intfs_);
      auto config = cli_->interface(intf);
      unsigned what = pick(3);
      if (!config) {
         auto& r = note("interface add");
         r.intf = intf;
         r.flag = what != 0;
         cli_->interfaceIs(intf, r.flag);
      } else if (what == 0) {
         note("interface del").intf = intf;
         cli_->interfaceDel(intf);
      } else {
         auto& r = note("interface set");
         r.intf = intf;
         r.flag = !config->ipv4();
         config->ipv4Is(r.flag);
      }
   }

   void advance() {
      Seconds dt = pick(16) == 0 ? 100 + pick(400) : 0.5 * (1 + pick(20));
      note("advance").a = dt;
      // Only a posted answer (or a give-up) changes leases in a timer run;
      // the many runs that only resend a query need no check.
      platform_.advance(dt, [this] {
         if (responses_.postings == 0) return;
         responses_.postings = 0;
         check("after a timer run during the last step");
      });
   }

   // The state store and the published table outlive the agent; so may a
   // stale entry and a configuration change made while it is down.
   void restart() {
      note("restart");
      platform_.stop();
      if (pick(2)) changeConfiguration();
      if (pick(2)) shm_->ipMacLeaseIs({{any(macs_), any(ips_)}, any(intfs_), false});
      start();
   }

   void check(const char* when) {
      if (!ok_) return;
      auto r = root();
      if (!r) return;
      auto violations = checkLeaseTableConsistency(*r->leaseTable(), *leaseStatus_, shm_.get());
      for (const auto& [intf, set] : leaseStatus_->interfaceLeaseSetAll()) {
         auto config = cli_->interface(intf);
         for (const auto& [key, lease] : set->ipMacLeaseAll()) {
            if (!config || !config->ipv4()) {
               violations.push_back("lease on unlocked interface " + intf.name());
            }
            if (!cli_->dhcpV4ServerHas(key.dhcpAddr.v4Addr())) {
               violations.push_back("lease from unconfigured server " + key.dhcpAddr.str());
            }
         }
      }
      leasesSeen_ += r->leaseTable()->ipToLeaseAll().size();
      if (violations.empty()) return;
      ok_ = false;
      std::ostringstream os;
      os << "step " << driven_ << ", " << when << "\n";
      for (const auto& v : violations) os << "  violation: " << v << "\n";
      os << "recent steps, oldest first:\n";
      for (const auto& h : history_) os << "  " << h << "\n";
      failure_ = os.str();
   }

   struct ResponseCounter : LeaseQueryResponse::Notifiee {
      void onVersionNumber() override { ++postings; }
      unsigned postings = 0;
   };

   Platform::InMemoryPlatform platform_;
   ResponseCounter responses_;
   std::mt19937_64 rng_;
   Ptr<CliConfig> cli_;
   Ptr<LeaseStatus> leaseStatus_;
   Ptr<Status> shm_;
   std::vector<IntfId> intfs_;
   std::vector<IpAddr> servers_;
   std::vector<EthAddr> macs_;
   std::vector<IpAddr> ips_;
   std::map<EthAddr, IntfId> macLocation_;
   std::deque<StepRecord> history_;
   uint64_t driven_ = 0;
   size_t leasesSeen_ = 0;
   bool ok_ = true;
   std::string failure_;
};

}  // namespace

TEST(LeaseRandomRun, tableStatusAndPublicationAgreeAfterEveryStep) {
   const uint64_t seed = envNumber("TAVRIN_LEASE_SEED", 20261121);
   const uint64_t steps = envNumber("TAVRIN_LEASE_STEPS", kDefaultSteps);
   RandomAgentRun run(seed);
   while (run.driven() < steps) {
      if (!run.step()) break;
   }
   EXPECT_EQ(run.failure(), "") << "seed " << seed;
   // The run must actually have held leases most of the time.
   EXPECT_GT(run.leasesSeen(), steps);
}
