#include "sim/Simulator.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <sstream>

#include "dhcp/DhcpCodec.h"
#include "model/TavrinCommon.h"
#include "rt/Assert.h"

namespace Tavrin::Sim {

namespace {

// Snapshot kinds, in the order their changes are printed.
enum Kind { kLease = 0, kPam = 1, kRule = 2, kShm = 3 };
constexpr const char* kKindName[] = {"lease", "pam", "rule", "shm"};

std::string fmtTime(Seconds t) {
   char buf[64];
   std::snprintf(buf, sizeof buf, "%.3f", t);
   return buf;
}

std::string fmtIntf(IntfId i) { return i.isEmpty() ? "-" : i.name(); }

template <class C>
std::string fmtList(const C& items) {
   std::vector<std::string> texts;
   for (const auto& i : items) texts.push_back(i.str());
   if (texts.empty()) return "-";
   std::sort(texts.begin(), texts.end());
   std::string out;
   for (const auto& t : texts) out += (out.empty() ? "" : ",") + t;
   return out;
}

[[noreturn]] void fail(const std::string& why) { throw ScenarioError(why); }

IpAddr parseIp(std::string_view s) {
   auto a = IpAddr::parse(s);
   if (!a) fail("bad IPv4 address '" + std::string(s) + "'");
   return *a;
}

EthAddr parseMac(std::string_view s) {
   auto m = EthAddr::parse(s);
   if (!m) fail("bad MAC address '" + std::string(s) + "'");
   return *m;
}

IntfId parseIntf(std::string_view s) {
   auto i = IntfId::parse(s);
   if (!i) fail("bad interface name '" + std::string(s) + "'");
   return *i;
}

double parseNumber(std::string_view s, const char* what) {
   double v = 0;
   auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
   if (ec != std::errc() || end != s.data() + s.size() || !std::isfinite(v)) {
      fail(std::string("bad ") + what + " '" + std::string(s) + "'");
   }
   return v;
}

uint64_t parseUnsigned(std::string_view s, const char* what, uint64_t max) {
   uint64_t v = 0;
   auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
   if (ec != std::errc() || end != s.data() + s.size() || v > max) {
      fail(std::string("bad ") + what + " '" + std::string(s) + "'");
   }
   return v;
}

bool parseFlag(std::string_view word, std::string_view name) {
   std::string prefix = std::string(name) + "=";
   if (word.substr(0, prefix.size()) != prefix) fail("expected " + prefix + "0|1");
   auto v = word.substr(prefix.size());
   if (v == "0") return false;
   if (v == "1") return true;
   fail("bad " + std::string(name) + " '" + std::string(v) + "', expected 0 or 1");
}

bool parseOnOff(std::string_view word, std::string_view name) {
   std::string prefix = std::string(name) + "=";
   if (word.substr(0, prefix.size()) != prefix) fail("expected " + prefix + "on|off");
   auto v = word.substr(prefix.size());
   if (v == "on") return true;
   if (v == "off") return false;
   fail("bad " + std::string(name) + " '" + std::string(v) + "', expected on or off");
}

void expectWords(const std::vector<std::string_view>& w, size_t min, size_t max,
                 const char* usage) {
   if (w.size() < min || w.size() > max) fail(std::string("usage: ") + usage);
}

std::vector<uint8_t> parseHex(std::string_view s) {
   if (s.size() % 2) fail("odd number of hex digits");
   std::vector<uint8_t> out;
   for (size_t i = 0; i < s.size(); i += 2) {
      uint8_t b = 0;
      auto [end, ec] = std::from_chars(s.data() + i, s.data() + i + 2, b, 16);
      if (ec != std::errc() || end != s.data() + i + 2) fail("bad hex '" + std::string(s) + "'");
      out.push_back(b);
   }
   return out;
}

Simulator* gActive = nullptr;
std::ostream* gActiveOut = nullptr;

}  // namespace

// Subscriptions to the root's records and the text twin of the trace.
class Simulator::Watchers {
 public:
   Watchers(Simulator& sim, TavrinRoot& root)
       : request_(sim, root.leaseQueryRequest()),
         response_(sim, root.leaseQueryResponse()),
         moved_(sim, root.movedMac()) {}

 private:
   struct Request : LeaseQueryRequest::Notifiee {
      Request(Simulator& s, const Ptr<LeaseQueryRequest>& r) : Notifiee(r), sim(s) {}
      void onVersionNumber() override {
         const auto& r = *notifier();
         sim.print("request", "mac=" + r.mac().str() + " ip=" + r.ip().str() +
                                  " intf=" + fmtIntf(r.intfId()) + " delay=" +
                                  (r.delay() ? "1" : "0") + " force=" + (r.force() ? "1" : "0") +
                                  " server=" + r.dhcpAddr().str());
      }
      Simulator& sim;
   };
   struct Response : LeaseQueryResponse::Notifiee {
      Response(Simulator& s, const Ptr<LeaseQueryResponse>& r) : Notifiee(r), sim(s) {}
      void onVersionNumber() override {
         const auto& r = *notifier();
         sim.print("response", std::string("bymac=") + (r.queryByMac() ? "1" : "0") +
                                   " mac=" + r.mac().str() + " ip=" + r.ip().str() +
                                   " server=" + r.dhcpAddr().str() + " intf=" +
                                   fmtIntf(r.intfId()) + " lasttx=" +
                                   fmtTime(r.lastTransactionTime()) +
                                   " exp=" + fmtTime(r.expirationTime()) +
                                   " assoc=" + fmtList(r.associatedIpAll()));
      }
      Simulator& sim;
   };
   struct Moved : MovedMac::Notifiee {
      Moved(Simulator& s, const Ptr<MovedMac>& m) : Notifiee(m), sim(s) {}
      void onVersionNumber() override {
         sim.print("movedmac",
                   "mac=" + notifier()->mac().str() + " intf=" + fmtIntf(notifier()->newIntfId()));
      }
      Simulator& sim;
   };
   Request request_;
   Response response_;
   Moved moved_;
};

Simulator::Simulator(std::ostream& out) : out_(out), trace_(std::make_unique<Rt::DualTrace>()) {
   registerTavrinTypes(platform_.types());
   // The state store and tables exist before any agent, as on a switch.
   platform_.stateEntityIs("tavrin/cliConfig", "Tavrin::CliConfig");
   platform_.stateEntityIs("tavrin/hardware/config", "Tavrin::Hardware::Config");
   platform_.stateEntityIs("ip/status", "Ip::Status");
   platform_.stateEntityIs("tavrin/interfaceStatus", "Tavrin::ConfiguredInterfaceStatus");
   platform_.stateEntityIs("tavrin/leaseStatus", "Tavrin::LeaseStatus");
   platform_.shmEntityIs("tavrin/status", "Tavrin::Status");
   platform_.shmEntityIs("tavrin/hardware/installedConfig", "Tavrin::Hardware::InstalledConfig");
   platform_.shmEntityIs("tavrin/hardware/arpdrops", "Tavrin::Hardware::ArpDropCounterStatus");
   platform_.shmEntityIs("bridging/status", "ShmTable::Bridging::Status");

   trace_->textTwinIs([this](const Rt::TraceFacility& f, int level, std::string_view msg) {
      if (traceOn_) print("trace", f.name() + " " + std::to_string(level) + " " + std::string(msg));
   });
   Rt::traceSinkIs(trace_.get());
   Rt::traceMaskAllIs(0);
   platform_.udpPamCreatedIs([this](Platform::FakeUdpPam& pam) { watchUdpPam(pam); });

   gActive = this;
   gActiveOut = &out_;
   Rt::assertHandlerIs([](const char* expr, const char*, int) {
      if (gActive) gActive->print("assert", expr);
      if (gActiveOut) gActiveOut->flush();
      std::exit(3);
   });
}

Simulator::~Simulator() {
   watch_.reset();
   platform_.stop();
   Rt::traceSinkIs(nullptr);
   Rt::assertHandlerIs(nullptr);
   gActive = nullptr;
   gActiveOut = nullptr;
}

std::string Simulator::stamp() const { return fmtTime(platform_.virtualClock().now()); }

void Simulator::print(std::string_view word, const std::string& rest) {
   out_ << stamp() << ' ' << word;
   if (!rest.empty()) out_ << ' ' << rest;
   out_ << '\n';
}

Ptr<TavrinRoot> Simulator::root() const {
   auto agent = Rt::ptrCast<Agent>(platform_.agent());
   return agent ? agent->tavrinRoot() : nullptr;
}

Ptr<CliConfig> Simulator::cliConfig() const {
   return platform_.state<CliConfig>("tavrin/cliConfig");
}

void Simulator::watchUdpPam(Platform::FakeUdpPam& pam) {
   pam.onSentIs([this](const Platform::FakeUdpPam::Sent& s) {
      PacketParser p;
      if (!p.doParse(s.pkt)) {
         print("send", "dst=" + s.dst.str() + " src=" + s.src.str() + " unparsable");
         return;
      }
      lastXid_[s.dst] = p.xid();
      bool byMac = p.htype() == 1 && p.hlen() == 6;
      print("send", "dst=" + s.dst.str() + " src=" + s.src.str() + " xid=" +
                        std::to_string(p.xid()) + " bymac=" + (byMac ? "1" : "0") +
                        " ciaddr=" + p.ciaddr().str() + " chaddr=" + p.chaddr().str() +
                        " giaddr=" + p.giaddr().str());
   });
}

// ---------------------------------------------------------------- snapshot

Simulator::Snapshot Simulator::snapshot() const {
   Snapshot s;
   if (auto status = platform_.state<LeaseStatus>("tavrin/leaseStatus")) {
      for (const auto& [intf, set] : status->interfaceLeaseSetAll()) {
         for (const auto& [key, lease] : set->ipMacLeaseAll()) {
            s[{kLease, "intf=" + fmtIntf(intf) + " mac=" + key.mac.str() + " ip=" + key.ip.str() +
                           " server=" + key.dhcpAddr.str()}] =
                "lasttx=" + fmtTime(lease->lastTransactionTime()) +
                " exp=" + fmtTime(lease->expirationTime());
         }
      }
   }
   if (auto rules = platform_.state<ConfiguredInterfaceStatus>("tavrin/interfaceStatus")) {
      for (const auto& [intf, rule] : rules->interfaceRuleAll()) {
         s[{kRule, "intf=" + fmtIntf(intf)}] = "";
      }
   }
   if (auto shm = platform_.shm<Status>("tavrin/status")) {
      for (const auto& [key, entry] : shm->ipMacLeaseAll()) {
         s[{kShm, "mac=" + key.mac.str() + " ip=" + key.ip.str()}] =
             "intf=" + fmtIntf(entry.intfId);
      }
   }
   if (auto desired = platform_.pamDesiredIntfDir()) {
      for (auto intf : desired->intfDesiredAll()) s[{kPam, "intf=" + fmtIntf(intf)}] = "";
   }
   return s;
}

void Simulator::printDiff(const Snapshot& before, const Snapshot& after) {
   auto line = [this](const std::pair<int, std::string>& key, char sign, const std::string& value) {
      std::string rest = std::string(1, sign) + " " + key.second;
      if (!value.empty()) rest += " " + value;
      print(kKindName[key.first], rest);
   };
   auto b = before.begin(), a = after.begin();
   while (b != before.end() || a != after.end()) {
      if (a == after.end() || (b != before.end() && b->first < a->first)) {
         line(b->first, '-', b->second);
         ++b;
      } else if (b == before.end() || a->first < b->first) {
         line(a->first, '+', a->second);
         ++a;
      } else {
         if (a->second != b->second) line(a->first, '~', a->second);
         ++a;
         ++b;
      }
   }
}

// ---------------------------------------------------------------- running

int Simulator::run(std::istream& in, std::ostream& err) {
   std::string text;
   int lineNo = 0;
   while (std::getline(in, text)) {
      ++lineNo;
      std::string_view line = text;
      if (auto hash = line.find('#'); hash != std::string_view::npos) line = line.substr(0, hash);
      while (!line.empty() && std::isspace(static_cast<unsigned char>(line.back()))) {
         line.remove_suffix(1);
      }
      while (!line.empty() && std::isspace(static_cast<unsigned char>(line.front()))) {
         line.remove_prefix(1);
      }
      if (line.empty()) continue;
      try {
         runLine(line);
      } catch (const ScenarioError& e) {
         out_.flush();
         err << "error: line " << lineNo << ": " << e.what() << '\n';
         return 2;
      }
   }
   return 0;
}

void Simulator::runLine(std::string_view line) {
   Words w;
   for (size_t i = 0; i < line.size();) {
      while (i < line.size() && std::isspace(static_cast<unsigned char>(line[i]))) ++i;
      size_t j = i;
      while (j < line.size() && !std::isspace(static_cast<unsigned char>(line[j]))) ++j;
      if (j > i) w.push_back(line.substr(i, j - i));
      i = j;
   }
   const auto cmd = w.front();
   if (cmd == "advance") {
      cmdAdvance(w);  // prints its own differences, one per timer run
      return;
   }
   Snapshot before = snapshot();
   if (cmd == "server") {
      cmdServer(w);
   } else if (cmd == "local-interface") {
      cmdLocalInterface(w);
   } else if (cmd == "interface") {
      cmdInterface(w);
   } else if (cmd == "address") {
      cmdAddress(w);
   } else if (cmd == "fdb") {
      cmdFdb(w);
   } else if (cmd == "arpdrop") {
      cmdArpDrop(w);
   } else if (cmd == "trap") {
      cmdTrap(w);
   } else if (cmd == "answer") {
      cmdAnswer(w);
   } else if (cmd == "raw") {
      cmdRaw(w);
   } else if (cmd == "request") {
      cmdRequest(w);
   } else if (cmd == "persist") {
      cmdPersist(w);
   } else if (cmd == "start") {
      expectWords(w, 1, 1, "start");
      cmdStart();
   } else if (cmd == "stop") {
      expectWords(w, 1, 1, "stop");
      cmdStop();
   } else if (cmd == "trace") {
      cmdTrace(w);
   } else if (cmd == "dump") {
      expectWords(w, 1, 1, "dump");
      cmdDump();
   } else {
      fail("unknown command '" + std::string(cmd) + "'");
   }
   printDiff(before, snapshot());
}

// ---------------------------------------------------------------- configuration

void Simulator::cmdServer(const Words& w) {
   expectWords(w, 3, 3, "server add|del A");
   auto a = parseIp(w[2]);
   if (w[1] == "add") {
      cliConfig()->dhcpV4ServerIs(a);
   } else if (w[1] == "del") {
      cliConfig()->dhcpV4ServerDel(a);
   } else {
      fail("usage: server add|del A");
   }
}

void Simulator::cmdLocalInterface(const Words& w) {
   expectWords(w, 2, 2, "local-interface NAME");
   cliConfig()->localInterfaceIs(parseIntf(w[1]));
}

void Simulator::cmdInterface(const Words& w) {
   if (w.size() >= 2 && w[1] == "add") {
      expectWords(w, 3, 4, "interface add NAME [ipv4=on|off]");
      bool ipv4 = w.size() == 4 ? parseOnOff(w[3], "ipv4") : true;
      cliConfig()->interfaceIs(parseIntf(w[2]), ipv4);
   } else if (w.size() >= 2 && w[1] == "set") {
      expectWords(w, 4, 4, "interface set NAME ipv4=on|off");
      auto intf = cliConfig()->interface(parseIntf(w[2]));
      if (!intf) fail("interface " + std::string(w[2]) + " is not configured");
      intf->ipv4Is(parseOnOff(w[3], "ipv4"));
   } else if (w.size() >= 2 && w[1] == "del") {
      expectWords(w, 3, 3, "interface del NAME");
      cliConfig()->interfaceDel(parseIntf(w[2]));
   } else {
      fail("usage: interface add|set|del NAME ...");
   }
}

// ---------------------------------------------------------------- platform inputs

void Simulator::cmdAddress(const Words& w) {
   auto ipStatus = platform_.state<Platform::IpStatus>("ip/status");
   if (w.size() == 3 && w[1] == "del") {
      ipStatus->ipIntfStatusDel(parseIntf(w[2]));
      return;
   }
   expectWords(w, 3, 3, "address NAME A | address del NAME");
   auto intf = parseIntf(w[1]);
   auto addr = parseIp(w[2]);
   ipStatus->ipIntfStatusIs(intf)->primaryAddrIs(addr);
}

void Simulator::cmdFdb(const Words& w) {
   auto table = platform_.shm<Platform::BridgingStatus>("bridging/status");
   if (w.size() >= 2 && w[1] == "add") {
      expectWords(w, 5, 5, "fdb add FID MAC NAME");
      Platform::HostKey key{uint16_t(parseUnsigned(w[2], "FID", 4095)), parseMac(w[3])};
      table->fdbStatusIs(key, {parseIntf(w[4])});
   } else if (w.size() >= 2 && w[1] == "del") {
      expectWords(w, 4, 4, "fdb del FID MAC");
      table->fdbStatusDel({uint16_t(parseUnsigned(w[2], "FID", 4095)), parseMac(w[3])});
   } else {
      fail("usage: fdb add FID MAC NAME | fdb del FID MAC");
   }
}

void Simulator::cmdArpDrop(const Words& w) {
   expectWords(w, 3, 3, "arpdrop NAME N");
   auto counters =
       platform_.shm<Hardware::ArpDropCounterStatus>("tavrin/hardware/arpdrops");
   counters->arpDropCounterIs(parseIntf(w[1]), parseUnsigned(w[2], "counter", UINT64_MAX));
}

void Simulator::cmdTrap(const Words& w) {
   expectWords(w, 4, 4, "trap NAME MAC A");
   auto intf = parseIntf(w[1]);
   auto frame = buildEthIpv4Frame(parseMac(w[2]), parseIp(w[3]),
                                  EthAddr::fromU64(0xffffffffffffULL), IpAddr(0xffffffffu));
   // Only an interface with packet access traps anything.
   if (auto pam = platform_.pam(intf)) pam->deliver({frame});
}

void Simulator::deliverAnswer(IpAddr server, const Ptr<Rt::Pkt>& pkt) {
   // With no agent running there is no socket, and the datagram is lost.
   if (auto pam = platform_.udpPam("Tavrin")) pam->deliver(pkt, server);
}

void Simulator::cmdAnswer(const Words& w) {
   if (w.size() < 3) fail("usage: answer SERVER TYPE [field=value ...]");
   auto server = parseIp(w[1]);
   DhcpAnswerFields f;
   auto type = w[2];
   if (type == "active") {
      f.messageType = uint8_t(DhcpMessageType::leaseActive);
   } else if (type == "unassigned") {
      f.messageType = uint8_t(DhcpMessageType::leaseUnassigned);
   } else if (type == "unknown") {
      f.messageType = uint8_t(DhcpMessageType::leaseUnknown);
   } else if (type.substr(0, 5) == "type=") {
      f.messageType = uint8_t(parseUnsigned(type.substr(5), "message type", 255));
   } else {
      fail("bad answer type '" + std::string(type) + "'");
   }
   for (size_t i = 3; i < w.size(); ++i) {
      auto eq = w[i].find('=');
      if (eq == std::string_view::npos) fail("expected field=value, got '" + std::string(w[i]) + "'");
      auto name = w[i].substr(0, eq), value = w[i].substr(eq + 1);
      if (name == "xid") {
         if (value == "last") {
            auto it = lastXid_.find(server);
            if (it == lastXid_.end()) fail("xid=last: no query was sent to " + server.str());
            f.xid = it->second;
         } else {
            f.xid = uint32_t(parseUnsigned(value, "xid", UINT32_MAX));
         }
      } else if (name == "ciaddr") {
         f.ciaddr = parseIp(value);
      } else if (name == "chaddr") {
         f.chaddr = parseMac(value);
      } else if (name == "lease-time") {
         f.leaseTime = uint32_t(parseUnsigned(value, "lease-time", UINT32_MAX));
      } else if (name == "last-txn") {
         f.lastTransaction = uint32_t(parseUnsigned(value, "last-txn", UINT32_MAX));
      } else if (name == "assoc") {
         std::vector<IpAddr> list;
         for (size_t s = 0; s <= value.size();) {
            auto comma = value.find(',', s);
            if (comma == std::string_view::npos) comma = value.size();
            list.push_back(parseIp(value.substr(s, comma - s)));
            s = comma + 1;
         }
         f.assoc = std::move(list);
      } else {
         fail("unknown answer field '" + std::string(name) + "'");
      }
   }
   deliverAnswer(server, buildDhcpAnswer(f));
}

void Simulator::cmdRaw(const Words& w) {
   expectWords(w, 3, 3, "raw SERVER HEX");
   auto server = parseIp(w[1]);
   deliverAnswer(server, Rt::makePtr<Rt::Pkt>(parseHex(w[2])));
}

void Simulator::cmdRequest(const Words& w) {
   expectWords(w, 6, 7, "request MAC IP NAME delay=0|1 force=0|1 [server=A]");
   auto r = root();
   if (!r) fail("request: the agent is not running");
   auto mac = parseMac(w[1]);
   auto ip = parseIp(w[2]);
   auto intf = parseIntf(w[3]);
   bool delay = parseFlag(w[4], "delay");
   bool force = parseFlag(w[5], "force");
   IpGenAddr server;
   if (w.size() == 7) {
      if (w[6].substr(0, 7) != "server=") fail("expected server=A");
      server = parseIp(w[6].substr(7));
   }
   // An unset IP is the by-MAC form: the empty address.
   sendLeaseQuery(r->leaseQueryRequest(), mac, ip.isAny() ? IpGenAddr() : IpGenAddr(ip), intf,
                  delay, force, server);
}

// ---------------------------------------------------------------- state before start

void Simulator::cmdPersist(const Words& w) {
   if (platform_.agent()) fail("persist: only while the agent is stopped");
   if (w.size() >= 2 && w[1] == "lease") {
      expectWords(w, 8, 8, "persist lease NAME MAC IP SERVER LASTTX EXP");
      auto status = platform_.state<LeaseStatus>("tavrin/leaseStatus");
      LeaseKey key{parseMac(w[3]), parseIp(w[4]), parseIp(w[5])};
      auto lease = status->interfaceLeaseSetIs(parseIntf(w[2]))->ipMacLeaseIs(key);
      lease->lastTransactionTimeIs(parseNumber(w[6], "LASTTX"));
      lease->expirationTimeIs(parseNumber(w[7], "EXP"));
   } else if (w.size() >= 2 && w[1] == "rule") {
      expectWords(w, 3, 3, "persist rule NAME");
      platform_.state<ConfiguredInterfaceStatus>("tavrin/interfaceStatus")
          ->interfaceRuleIs(parseIntf(w[2]), 1);
   } else if (w.size() >= 2 && w[1] == "shm") {
      expectWords(w, 5, 5, "persist shm MAC IP NAME");
      IpMacLeaseEntry e{{parseMac(w[2]), parseIp(w[3])}, parseIntf(w[4]), false};
      platform_.shm<Status>("tavrin/status")->ipMacLeaseIs(e);
   } else {
      fail("usage: persist lease|rule|shm ...");
   }
}

// ---------------------------------------------------------------- control

void Simulator::cmdStart() {
   if (platform_.agent()) fail("start: the agent is already running");
   platform_.start(
       [this](const std::string& name, Platform::AgentFrame& frame) {
          auto agent = agentFactory(name, frame);
          agent->rootObserverIs([this](TavrinRoot& root) {
             watch_.reset();
             watch_ = std::make_unique<Watchers>(*this, root);
          });
          return Ptr<Platform::AgentBase>(agent);
       },
       "Tavrin");
}

void Simulator::cmdStop() {
   if (!platform_.agent()) fail("stop: the agent is not running");
   watch_.reset();
   platform_.stop();
}

void Simulator::cmdAdvance(const Words& w) {
   expectWords(w, 2, 2, "advance S");
   double dt = parseNumber(w[1], "duration");
   if (dt < 0) fail("advance: the clock does not go back");
   Snapshot before = snapshot();
   platform_.advance(dt, [&] {
      Snapshot after = snapshot();
      printDiff(before, after);
      before = std::move(after);
   });
}

void Simulator::cmdTrace(const Words& w) {
   expectWords(w, 2, 2, "trace on|off");
   if (w[1] == "on") {
      traceOn_ = true;
      Rt::traceMaskAllIs(Rt::kAllTraceLevels);
   } else if (w[1] == "off") {
      traceOn_ = false;
      Rt::traceMaskAllIs(0);
   } else {
      fail("usage: trace on|off");
   }
}

void Simulator::cmdDump() {
   std::vector<std::string> lines;
   auto section = [&](std::vector<std::string>& items) {
      std::sort(items.begin(), items.end());
      for (const auto& i : items) print("dump", i);
      items.clear();
   };
   Snapshot s = snapshot();
   for (int kind : {kLease, kShm, kRule, kPam}) {
      for (const auto& [key, value] : s) {
         if (key.first != kind) continue;
         lines.push_back(std::string(kKindName[kind]) + " " + key.second +
                         (value.empty() ? "" : " " + value));
      }
      section(lines);
   }
   auto r = root();
   if (!r) return;
   for (const auto& [mac, client] : r->leaseTable()->macToLeaseAll()) {
      std::vector<IpGenAddr> ips;
      for (const auto& [ip, lease] : client->ipMacLeaseByIpAll()) ips.push_back(ip);
      lines.push_back("client mac=" + mac.str() + " intf=" + fmtIntf(client->intfId()) +
                      " ips=" + fmtList(ips));
   }
   section(lines);
   if (r->leaseQuerySm()) {
      for (const auto& [pair, ctx] : r->leaseQuerySm()->queryContextAll()) {
         lines.push_back("query ip=" + pair.ip.str() + " mac=" + pair.mac.str() +
                         " genid=" + std::to_string(ctx->genId()) +
                         " sent=" + std::to_string(ctx->sentCount()) +
                         " pending=" + fmtList(ctx->pendingServerAll()) +
                         " valid=" + (ctx->receivedValidLease() ? "1" : "0") +
                         " intf=" + fmtIntf(ctx->intfId()));
      }
   }
   section(lines);
   for (const auto& [mac, intf] : r->macIntfMap()->intfIdAll()) {
      lines.push_back("macintf mac=" + mac.str() + " intf=" + fmtIntf(intf));
   }
   section(lines);
   if (r->arpDropCounterStatusSm()) {
      for (const auto& [intf, set] : r->arpDropCounterStatusSm()->pendingIntfMacSetAll()) {
         lines.push_back("arppending intf=" + fmtIntf(intf) + " macs=" + fmtList(set->macAll()));
      }
   }
   section(lines);
}

}  // namespace Tavrin::Sim
