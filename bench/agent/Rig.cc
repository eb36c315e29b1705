#include "bench/agent/Rig.h"

#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "dhcp/DhcpCodec.h"
#include "model/TavrinCommon.h"

namespace Tavrin::Bench {

LeasePlan::LeasePlan(size_t count) : n(count) {
   for (unsigned p = 1; p <= kPorts; ++p) ports.emplace_back("Ethernet" + std::to_string(p));
}

void fillStatus(LeaseStatus& status, const LeasePlan& plan, Seconds now) {
   for (size_t i = 0; i < plan.size(); ++i) {
      auto lease = status.interfaceLeaseSetIs(plan.intf(i))
                       ->ipMacLeaseIs({plan.mac(i), plan.ip(i), IpGenAddr(plan.server)});
      lease->lastTransactionTimeIs(now - 10);
      lease->expirationTimeIs(now + LeasePlan::kLeaseTime);
   }
}

AgentRig::AgentRig(const LeasePlan& plan) : plan_(plan) {
   registerTavrinTypes(platform_.types());
   platform_.stateEntityIs("tavrin/hardware/config", "Tavrin::Hardware::Config");
   platform_.stateEntityIs("tavrin/interfaceStatus", "Tavrin::ConfiguredInterfaceStatus");
   cli_ = Rt::ptrCast<CliConfig>(platform_.stateEntityIs("tavrin/cliConfig", "Tavrin::CliConfig"));
   leaseStatus_ = Rt::ptrCast<LeaseStatus>(
       platform_.stateEntityIs("tavrin/leaseStatus", "Tavrin::LeaseStatus"));
   auto ipStatus =
       Rt::ptrCast<Platform::IpStatus>(platform_.stateEntityIs("ip/status", "Ip::Status"));
   status_ = Rt::ptrCast<Status>(platform_.shmEntityIs("tavrin/status", "Tavrin::Status"));
   platform_.shmEntityIs("tavrin/hardware/installedConfig", "Tavrin::Hardware::InstalledConfig");
   platform_.shmEntityIs("tavrin/hardware/arpdrops", "Tavrin::Hardware::ArpDropCounterStatus");
   platform_.shmEntityIs("bridging/status", "ShmTable::Bridging::Status");

   cli_->localInterfaceIs(plan.localIntf);
   ipStatus->ipIntfStatusIs(plan.localIntf)->primaryAddrIs(plan.localAddr);
   cli_->dhcpV4ServerIs(plan.server);
   for (auto port : plan.ports) cli_->interfaceIs(port, true);
}

AgentRig::~AgentRig() {
   platform_.stop();
}

Ptr<TavrinRoot> AgentRig::root() const {
   auto agent = Rt::ptrCast<Agent>(platform_.agent());
   return agent ? agent->tavrinRoot() : nullptr;
}

void AgentRig::start() {
   platform_.start(
       [](const std::string& n, Platform::AgentFrame& f) {
          return Ptr<Platform::AgentBase>(agentFactory(n, f));
       },
       "Tavrin");
}

namespace {

void answer(Platform::FakeUdpPam& pam, const LeasePlan& plan, uint32_t xid, EthAddr mac) {
   DhcpAnswerFields f;
   f.messageType = uint8_t(DhcpMessageType::leaseActive);
   f.xid = xid;
   f.chaddr = mac;
   f.ciaddr = plan.ip(plan.indexOf(mac));
   f.leaseTime = LeasePlan::kLeaseTime;
   f.lastTransaction = 0;
   pam.deliver(buildDhcpAnswer(f), plan.server);
}

}  // namespace

size_t AgentRig::fillByAnswers(size_t from, size_t to) {
   auto pam = platform_.udpPam("Tavrin");
   auto request = root()->leaseQueryRequest();
   PacketParser parser;
   size_t delivered = 0;
   for (size_t i = from; i < to; ++i) {
      pam->sentDelAll();
      sendLeaseQuery(request, plan_.mac(i), IpGenAddr(), plan_.intf(i), false, true,
                     IpGenAddr(plan_.server));
      if (pam->sent().empty() || !parser.doParse(pam->sent().back().pkt)) continue;
      const uint32_t xid = parser.xid();
      pam->sentDelAll();
      answer(*pam, plan_, xid, plan_.mac(i));
      ++delivered;
   }
   pam->sentDelAll();
   return delivered;
}

size_t AgentRig::answerSentQueries() {
   auto pam = platform_.udpPam("Tavrin");
   const auto sent = pam->sent();
   pam->sentDelAll();
   PacketParser parser;
   size_t delivered = 0;
   for (const auto& s : sent) {
      if (!parser.doParse(s.pkt) || parser.chaddr().isZero()) continue;
      answer(*pam, plan_, parser.xid(), parser.chaddr());
      ++delivered;
   }
   pam->sentDelAll();
   return delivered;
}

size_t AgentRig::leases() const {
   auto r = root();
   return r ? r->leaseTable()->ipToLeaseAll().size() : 0;
}

size_t AgentRig::armedLeaseTimers() const {
   auto r = root();
   if (!r) return 0;
   size_t armed = 0;
   for (const auto& [intf, setSm] : r->leaseTimerSm()->interfaceLeaseSetSmAll()) {
      for (const auto& [key, lease] : setSm->interfaceLeaseSet()->ipMacLeaseAll()) {
         auto sm = setSm->ipMacLeaseSm(key);
         if (sm && sm->queryTask().isScheduled()) ++armed;
      }
   }
   return armed;
}

// ---------------------------------------------------------------- measuring

bool pinToCpu(int cpu) {
   cpu_set_t set;
   CPU_ZERO(&set);
   CPU_SET(cpu, &set);
   return sched_setaffinity(0, sizeof set, &set) == 0;
}

double wallNow() {
   timespec ts;
   clock_gettime(CLOCK_MONOTONIC, &ts);
   return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

double cpuNow() {
   timespec ts;
   clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
   return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

size_t residentBytes() {
   std::ifstream statm("/proc/self/statm");
   size_t total = 0, resident = 0;
   statm >> total >> resident;
   return resident * size_t(sysconf(_SC_PAGESIZE));
}

void printRow(const Row& row, bool fullSize) {
   std::printf("%s: ours %.4g %s, baseline %.4g %s -> %s %.3f (goal %s) %s\n", row.name.c_str(),
               row.ours, row.unit.c_str(), row.baseline, row.unit.c_str(), row.figureName.c_str(),
               row.figure, row.goal.c_str(),
               !fullSize ? "[small run: no verdict]" : row.met ? "[MET]" : "[MISSED]");
   for (const auto& n : row.notes) std::printf("    %s\n", n.c_str());
   std::fflush(stdout);
}

}  // namespace Tavrin::Bench
