// LeaseTableSm and LeaseTableShmTableSm on hand-built entities: the test
// plays the lease query client (it posts response records), the MAC table
// follower (MovedMac, MacIntfMap) and the configuration front end.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "lease/LeaseTableCheck.h"
#include "lease/LeaseTableShmTableSm.h"
#include "lease/LeaseTableSm.h"
#include "rt/Trace.h"

namespace Tavrin::Test {

inline EthAddr mac(unsigned n) {
   return EthAddr::fromU64(0x020000000000ULL + n);
}
inline IpGenAddr ip(unsigned n) {
   return IpAddr::fromBytes(10, 1, 0, uint8_t(n));
}
inline IpAddr server(unsigned n) {
   return IpAddr::fromBytes(10, 0, 0, uint8_t(n));
}
inline const IntfId eth1{"Ethernet1"}, eth2{"Ethernet2"}, eth3{"Ethernet3"}, eth9{"Ethernet9"};

// Collects trace messages as "FACILITY LEVEL MESSAGE".
class TraceLog : public Rt::TraceSink {
 public:
   TraceLog() {
      Rt::traceSinkIs(this);
      Rt::traceMaskAllIs(Rt::kAllTraceLevels);
   }
   ~TraceLog() override {
      Rt::traceSinkIs(nullptr);
      Rt::traceMaskAllIs(0x3);
   }
   void write(const Rt::TraceFacility& f, int level, std::string_view message) override {
      lines.push_back(f.name() + " " + std::to_string(level) + " " + std::string(message));
   }
   // True when some message ends with `text` (the part after the signature).
   bool has(std::string_view text) const {
      return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) {
         return l.size() >= text.size() &&
                l.compare(l.size() - text.size(), text.size(), text) == 0;
      });
   }
   std::vector<std::string> lines;
};

// A lease query answer as the query client posts it.
struct Answer {
   Answer(bool byMac, EthAddr mac, IpGenAddr ip, IpAddr server, Seconds lastTx, Seconds exp,
          IntfId intf = {}, uint8_t type = 13)
       : byMac(byMac),
         mac(mac),
         ip(ip),
         server(server),
         lastTx(lastTx),
         exp(exp),
         intf(intf),
         type(type) {}
   bool byMac;
   EthAddr mac;
   IpGenAddr ip;
   IpAddr server;
   Seconds lastTx;
   Seconds exp;
   IntfId intf;
   uint8_t type;
};

class LeaseHarness {
 public:
   LeaseHarness() {
      cliConfig->dhcpV4ServerIs(server(1));
      cliConfig->dhcpV4ServerIs(server(2));
      cliConfig->interfaceIs(eth1, true);
      cliConfig->interfaceIs(eth2, true);
   }

   // State that outlives the agent, written before start().
   void persist(IntfId intf, EthAddr m, IpGenAddr i, IpAddr s, Seconds lastTx, Seconds exp) {
      auto lease = leaseStatus->interfaceLeaseSetIs(intf)->ipMacLeaseIs({m, i, s});
      lease->lastTransactionTimeIs(lastTx);
      lease->expirationTimeIs(exp);
   }
   void publishedIs(EthAddr m, IpGenAddr i, IntfId intf) {
      shm->ipMacLeaseIs({{m, i}, intf, false});
   }

   void start() {
      sm = leaseTableSmFactory(table, macIntfMap, request, response, moved, cliConfig);
      shmSm = leaseTableShmTableSmFactory(table, shm, nullptr);
   }

   void post(const Answer& a) {
      response->queryByMacIs(a.byMac);
      response->macIs(a.mac);
      response->ipIs(a.ip);
      response->dhcpAddrIs(a.server);
      response->intfIdIs(a.intf);
      response->lastTransactionTimeIs(a.lastTx);
      response->expirationTimeIs(a.exp);
      response->associatedIpDelAll();
      response->messageTypeIs(a.type);
      response->versionNumberInc(1);
   }
   void move(EthAddr m, IntfId intf) {
      moved->macIs(m);
      moved->newIntfIdIs(intf);
      moved->versionNumberInc(1);
   }

   // "INTF MAC IP SERVER LASTTX EXP", sorted.
   std::vector<std::string> leases() const {
      std::vector<std::string> out;
      for (const auto& [intf, set] : leaseStatus->interfaceLeaseSetAll()) {
         for (const auto& [key, lease] : set->ipMacLeaseAll()) {
            out.push_back(intf.name() + " " + key.mac.str() + " " + key.ip.str() + " " +
                          key.dhcpAddr.str() + " " +
                          std::to_string(int64_t(lease->lastTransactionTime())) + " " +
                          std::to_string(int64_t(lease->expirationTime())));
         }
      }
      std::sort(out.begin(), out.end());
      return out;
   }
   // "MAC IP INTF", sorted.
   std::vector<std::string> published() const {
      std::vector<std::string> out;
      for (const auto& [key, entry] : shm->ipMacLeaseAll()) {
         out.push_back(key.mac.str() + " " + key.ip.str() + " " + entry.intfId.name());
      }
      std::sort(out.begin(), out.end());
      return out;
   }
   // "MAC IP INTF delay=D force=F server=S", in posting order, since the last call.
   std::vector<std::string> requests() { return std::exchange(recorder.postings, {}); }
   std::vector<std::string> violations() const {
      return checkLeaseTableConsistency(*table, *leaseStatus, shm.get());
   }

   Ptr<LeaseStatus> leaseStatus = Rt::makePtr<LeaseStatus>();
   Ptr<LeaseTable> table = Rt::makePtr<LeaseTable>(leaseStatus);
   Ptr<MacIntfMap> macIntfMap = Rt::makePtr<MacIntfMap>();
   Ptr<LeaseQueryRequest> request = Rt::makePtr<LeaseQueryRequest>();
   Ptr<LeaseQueryResponse> response = Rt::makePtr<LeaseQueryResponse>();
   Ptr<MovedMac> moved = Rt::makePtr<MovedMac>();
   Ptr<CliConfig> cliConfig = Rt::makePtr<CliConfig>();
   Ptr<Status> shm = Rt::makePtr<Status>();
   Ptr<LeaseTableSm> sm;
   Ptr<LeaseTableShmTableSm> shmSm;

 private:
   struct Recorder : LeaseQueryRequest::Notifiee {
      using LeaseQueryRequest::Notifiee::Notifiee;
      void onVersionNumber() override {
         const auto& r = *notifier();
         postings.push_back(r.mac().str() + " " + r.ip().str() + " " + r.intfId().name() +
                            " delay=" + (r.delay() ? "1" : "0") +
                            " force=" + (r.force() ? "1" : "0") + " server=" + r.dhcpAddr().str());
      }
      std::vector<std::string> postings;
   };
   Recorder recorder{request};
};

}  // namespace Tavrin::Test
