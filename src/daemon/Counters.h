// The daemon's counters, as `tavrinctl show counters` and the Prometheus
// endpoint (`tavrinctl metrics`) present them.
//
// Families are declared once with their help text and type, so the output
// names every family even before its first event. Samples come from
// sources, each filed under a slot name; installing a source under a taken
// slot replaces the old one. That is how a better source takes over a
// family without anyone downstream noticing: answers and drops are counted
// from the daemon's side of the socket today (QueryTap), and the query
// machine's own counters can take the "query" slot when it has them.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "linux/NflogPamManager.h"
#include "linux/NflogReader.h"
#include "model/TavrinTypes.h"

namespace Tavrin::Daemon {

using Labels = std::vector<std::pair<std::string, std::string>>;

struct Sample {
   std::string family;
   Labels labels;  // in the order the source gives them
   double value = 0;
   bool operator==(const Sample&) const = default;
};

struct Family {
   enum class Type { counter, gauge };
   std::string name;
   Type type = Type::counter;
   std::string help;
};

class CounterSource {
 public:
   virtual ~CounterSource() = default;
   // Appends the source's current samples.
   virtual void collect(std::vector<Sample>& out) const = 0;
};

// A source computed on demand by a function: for counters that live in
// another object (the socket, the netlink follower, the store).
class FunctionSource : public CounterSource {
 public:
   using Fn = std::function<void(std::vector<Sample>&)>;
   explicit FunctionSource(Fn fn) : fn_(std::move(fn)) {}
   void collect(std::vector<Sample>& out) const override { fn_(out); }

 private:
   Fn fn_;
};

class CounterRegistry {
 public:
   void familyIs(Family f);
   const std::vector<Family>& families() const { return families_; }
   // Installs (or replaces) the source of a slot; an empty pointer removes it.
   void sourceIs(const std::string& slot, std::unique_ptr<CounterSource> source);
   bool sourceHas(const std::string& slot) const { return sources_.count(slot) != 0; }
   // Every source's samples, grouped by family in declaration order; samples
   // of undeclared families are left out (a source cannot invent a name).
   std::vector<Sample> collect() const;

 private:
   std::vector<Family> families_;
   std::map<std::string, std::unique_ptr<CounterSource>> sources_;
};

// The Prometheus text exposition format (version 0.0.4): HELP and TYPE once
// per family, then its samples; label values escaped.
std::string prometheusText(const std::vector<Family>& families, const std::vector<Sample>& samples);
// [{"name": ..., "labels": {...}, "value": ...}] for `show counters --json`.
nlohmann::json countersJson(const std::vector<Sample>& samples);

// The families the daemon exports; declared in one place so the docs, the
// tests and the output agree.
void declareDaemonFamilies(CounterRegistry& registry);

// What the trap reader and the packet access manager count, as samples of
// the daemon's families: trapped packets, their drops by reason, the
// kernel's overruns of the reader's socket and the readers' slices.
void trapSamples(const Linux::NflogReader::Counters& reader,
                 const Linux::NflogPamManager::Counters& pams, std::vector<Sample>& out);

// Leases added to and removed from the persisted lease status since this
// follower was made (what was there already is not counted as added).
class LeaseChangeCounter : public CounterSource {
 public:
   explicit LeaseChangeCounter(Ptr<const LeaseStatus> status);
   ~LeaseChangeCounter() override;
   uint64_t added() const { return added_; }
   uint64_t removed() const { return removed_; }
   void collect(std::vector<Sample>& out) const override;

 private:
   class StatusReactor;
   class SetReactor;
   void handleInterfaceLeaseSet(IntfId intf);
   void handleLease(IntfId intf, const LeaseKey& key);
   void setReactorIs(IntfId intf, const Ptr<const InterfaceLeaseSet>& set);

   Ptr<const LeaseStatus> status_;
   std::unique_ptr<StatusReactor> statusReactor_;
   std::map<IntfId, std::unique_ptr<SetReactor>> setReactor_;
   uint64_t added_ = 0;
   uint64_t removed_ = 0;
};

}  // namespace Tavrin::Daemon
