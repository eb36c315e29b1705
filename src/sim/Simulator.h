// tavrin-sim: the real agent on the in-memory platform with a virtual clock,
// driven by a text scenario. The same scenario prints the same log, byte for
// byte.
#pragma once

#include <iosfwd>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "agent/TavrinAgent.h"
#include "platform/InMemoryPlatform.h"

namespace Tavrin::Sim {

// A scenario line that cannot be run; the run stops with exit status 2.
class ScenarioError : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

class Simulator {
 public:
   explicit Simulator(std::ostream& out);
   ~Simulator();

   // Runs a whole scenario; returns the exit status (0, or 2 for a bad line
   // after printing "error: line N: WHY" to `err`).
   int run(std::istream& in, std::ostream& err);
   // Runs one line (no comment, not blank); throws ScenarioError.
   void runLine(std::string_view line);

 private:
   using Words = std::vector<std::string_view>;
   using Snapshot = std::map<std::pair<int, std::string>, std::string>;

   // ---- commands
   void cmdServer(const Words& w);
   void cmdLocalInterface(const Words& w);
   void cmdInterface(const Words& w);
   void cmdAddress(const Words& w);
   void cmdFdb(const Words& w);
   void cmdArpDrop(const Words& w);
   void cmdTrap(const Words& w);
   void cmdAnswer(const Words& w);
   void cmdRaw(const Words& w);
   void cmdRequest(const Words& w);
   void cmdPersist(const Words& w);
   void cmdStart();
   void cmdStop();
   void cmdAdvance(const Words& w);
   void cmdTrace(const Words& w);
   void cmdDump();

   // ---- output
   std::string stamp() const;
   void print(std::string_view word, const std::string& rest);
   Snapshot snapshot() const;
   void printDiff(const Snapshot& before, const Snapshot& after);
   void watchRoot(TavrinRoot& root);
   void watchUdpPam(Platform::FakeUdpPam& pam);
   void deliverAnswer(IpAddr server, const Ptr<Rt::Pkt>& pkt);

   Ptr<TavrinRoot> root() const;
   Ptr<CliConfig> cliConfig() const;

   std::ostream& out_;
   Platform::InMemoryPlatform platform_;
   std::unique_ptr<Rt::DualTrace> trace_;
   bool traceOn_ = false;
   std::map<IpAddr, uint32_t> lastXid_;
   class Watchers;
   std::unique_ptr<Watchers> watch_;
};

}  // namespace Tavrin::Sim
