#include "daemon/Counters.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace Tavrin::Daemon {

// ---------------------------------------------------------------- registry

void CounterRegistry::familyIs(Family f) {
   for (auto& existing : families_) {
      if (existing.name == f.name) {
         existing = std::move(f);
         return;
      }
   }
   families_.push_back(std::move(f));
}

void CounterRegistry::sourceIs(const std::string& slot, std::unique_ptr<CounterSource> source) {
   if (source) {
      sources_[slot] = std::move(source);
   } else {
      sources_.erase(slot);
   }
}

std::vector<Sample> CounterRegistry::collect() const {
   std::vector<Sample> all;
   for (const auto& [slot, source] : sources_) source->collect(all);
   std::vector<Sample> out;
   out.reserve(all.size());
   for (const auto& f : families_) {
      for (auto& s : all) {
         if (s.family == f.name) out.push_back(std::move(s));
      }
   }
   return out;
}

// ---------------------------------------------------------------- rendering

namespace {

// Label values: backslash, double quote and newline are escaped.
std::string escapeLabel(const std::string& v) {
   std::string out;
   out.reserve(v.size());
   for (char c : v) {
      if (c == '\\') {
         out += "\\\\";
      } else if (c == '"') {
         out += "\\\"";
      } else if (c == '\n') {
         out += "\\n";
      } else {
         out += c;
      }
   }
   return out;
}

// HELP text: only backslash and newline are escaped.
std::string escapeHelp(const std::string& v) {
   std::string out;
   for (char c : v) {
      if (c == '\\') {
         out += "\\\\";
      } else if (c == '\n') {
         out += "\\n";
      } else {
         out += c;
      }
   }
   return out;
}

std::string formatValue(double v) {
   if (std::isnan(v)) return "NaN";
   if (std::isinf(v)) return v > 0 ? "+Inf" : "-Inf";
   // Counters are whole numbers; print them without an exponent up to 2^53.
   if (v == std::floor(v) && std::fabs(v) < 9007199254740992.0) {
      char buf[32];
      std::snprintf(buf, sizeof buf, "%.0f", v);
      return buf;
   }
   char buf[32];
   std::snprintf(buf, sizeof buf, "%.17g", v);
   return buf;
}

}  // namespace

std::string prometheusText(const std::vector<Family>& families,
                           const std::vector<Sample>& samples) {
   std::string out;
   for (const auto& f : families) {
      out += "# HELP " + f.name + " " + escapeHelp(f.help) + "\n";
      out += "# TYPE " + f.name + (f.type == Family::Type::counter ? " counter\n" : " gauge\n");
      for (const auto& s : samples) {
         if (s.family != f.name) continue;
         out += s.family;
         if (!s.labels.empty()) {
            out += '{';
            for (size_t i = 0; i < s.labels.size(); ++i) {
               if (i) out += ',';
               out += s.labels[i].first + "=\"" + escapeLabel(s.labels[i].second) + '"';
            }
            out += '}';
         }
         out += ' ' + formatValue(s.value) + '\n';
      }
   }
   return out;
}

nlohmann::json countersJson(const std::vector<Sample>& samples) {
   auto out = nlohmann::json::array();
   for (const auto& s : samples) {
      nlohmann::json labels = nlohmann::json::object();
      for (const auto& [k, v] : s.labels) labels[k] = v;
      out.push_back({{"name", s.family}, {"labels", labels}, {"value", s.value}});
   }
   return out;
}

void declareDaemonFamilies(CounterRegistry& r) {
   using T = Family::Type;
   r.familyIs({"tavrin_queries_sent_total", T::counter, "DHCPLEASEQUERY datagrams sent"});
   r.familyIs({"tavrin_queries_deferred_total", T::counter,
               "Lease queries that waited for room in their server's window"});
   r.familyIs({"tavrin_queries_waiting", T::gauge,
               "Lease queries waiting for room in their server's window now"});
   r.familyIs({"tavrin_query_send_errors_total", T::counter,
               "DHCPLEASEQUERY datagrams the kernel refused to send"});
   r.familyIs({"tavrin_datagrams_received_total", T::counter,
               "Datagrams received on the lease query socket"});
   r.familyIs({"tavrin_answers_total", T::counter,
               "Lease query answers received from configured servers, by DHCP message type"});
   r.familyIs({"tavrin_drops_total", T::counter, "Received datagrams dropped, by reason"});
   r.familyIs({"tavrin_server_silent", T::gauge,
               "1 while a configured server has been asked for 10 seconds without answering"});
   r.familyIs({"tavrin_leases_added_total", T::counter, "Leases added to the lease table"});
   r.familyIs({"tavrin_leases_removed_total", T::counter, "Leases removed from the lease table"});
   r.familyIs({"tavrin_trapped_packets_total", T::counter, "Packets trapped on locked ports"});
   r.familyIs({"tavrin_trap_overruns_total", T::counter,
               "Times the kernel dropped trapped packets because the NFLOG socket's receive "
               "buffer was full (ENOBUFS)"});
   r.familyIs({"tavrin_trap_slices_total", T::counter,
               "Slices in which the agent read the trapped packets of one port"});
   r.familyIs({"tavrin_trap_slice_seconds_total", T::counter,
               "Time spent in those slices (monotonic clock)"});
   r.familyIs({"tavrin_trap_slice_overruns_total", T::counter,
               "Slices of reading trapped packets that ran past their 5 ms bound"});
   r.familyIs({"tavrin_trap_slice_overrun_seconds_total", T::counter,
               "Time those slices ran past the 5 ms bound, summed"});
   r.familyIs({"tavrin_leases", T::gauge, "Leases held"});
   r.familyIs({"tavrin_queries_in_flight", T::gauge, "Lease queries waiting for an answer"});
   r.familyIs({"tavrin_locked_interfaces", T::gauge, "Interfaces carrying a locking rule"});
   r.familyIs({"tavrin_fdb_entries", T::gauge, "MAC table entries learned on the bridge's ports"});
   r.familyIs(
       {"tavrin_netlink_notifications_total", T::counter, "Route netlink notifications digested"});
   r.familyIs({"tavrin_netlink_resyncs_total", T::counter,
               "Times the kernel tables were dumped again after lost notifications"});
   r.familyIs({"tavrin_store_commits_total", T::counter, "Database transactions committed"});
   r.familyIs({"tavrin_store_commit_failures_total", T::counter,
               "Database commits that failed and were kept for the next try"});
   r.familyIs({"tavrin_store_pending", T::gauge, "Changes waiting to be written to the database"});
}

void trapSamples(const Linux::NflogReader::Counters& t,
                 const Linux::NflogPamManager::Counters& pams, std::vector<Sample>& out) {
   out.push_back({"tavrin_trapped_packets_total", {}, double(t.trapped)});
   out.push_back({"tavrin_drops_total",
                  {{"reason", "trapped on a port without packet access"}},
                  double(pams.noPam)});
   out.push_back(
       {"tavrin_drops_total", {{"reason", "trapped packet queue full"}}, double(pams.queueFull)});
   out.push_back(
       {"tavrin_drops_total", {{"reason", "trapped on an unknown port"}}, double(t.unknownPort)});
   out.push_back({"tavrin_drops_total",
                  {{"reason", "trapped packet malformed"}},
                  double(t.malformed + t.unframed)});
   // Packets the kernel dropped are not known one by one, only how often
   // it happened; they are not among the drops, which are counted packets.
   out.push_back({"tavrin_trap_overruns_total", {}, double(t.overruns)});
   out.push_back({"tavrin_trap_slices_total", {}, double(pams.slices.count)});
   out.push_back({"tavrin_trap_slice_seconds_total", {}, pams.slices.seconds});
   out.push_back({"tavrin_trap_slice_overruns_total", {}, double(pams.slices.over)});
   out.push_back({"tavrin_trap_slice_overrun_seconds_total", {}, pams.slices.overSeconds});
}

// ---------------------------------------------------------------- lease changes

class LeaseChangeCounter::StatusReactor : public LeaseStatus::Notifiee {
 public:
   StatusReactor(LeaseChangeCounter& c, const Ptr<const LeaseStatus>& s)
       : LeaseStatus::Notifiee(s), c_(c) {}
   void onInterfaceLeaseSet(IntfId intf) override { c_.handleInterfaceLeaseSet(intf); }

 private:
   LeaseChangeCounter& c_;
};

class LeaseChangeCounter::SetReactor : public InterfaceLeaseSet::Notifiee {
 public:
   SetReactor(LeaseChangeCounter& c, const Ptr<const InterfaceLeaseSet>& s)
       : InterfaceLeaseSet::Notifiee(s), size_(s->ipMacLeaseSize()), c_(c) {}
   void onIpMacLease(const LeaseKey& key) override { c_.handleLease(notifier()->intfId(), key); }
   // The set's size when last seen: what a whole set's removal takes away.
   size_t size_;

 private:
   LeaseChangeCounter& c_;
};

LeaseChangeCounter::LeaseChangeCounter(Ptr<const LeaseStatus> status) : status_(std::move(status)) {
   if (!status_) return;
   statusReactor_ = std::make_unique<StatusReactor>(*this, status_);
   for (const auto& [intf, set] : status_->interfaceLeaseSetAll()) setReactorIs(intf, set);
}

LeaseChangeCounter::~LeaseChangeCounter() = default;

void LeaseChangeCounter::setReactorIs(IntfId intf, const Ptr<const InterfaceLeaseSet>& set) {
   setReactor_[intf] = std::make_unique<SetReactor>(*this, set);
}

void LeaseChangeCounter::handleInterfaceLeaseSet(IntfId intf) {
   auto set = status_->interfaceLeaseSet(intf);
   auto it = setReactor_.find(intf);
   if (it != setReactor_.end()) {
      if (set && it->second->notifier() == set) return;
      removed_ += it->second->size_;
      setReactor_.erase(it);
   }
   if (set) {
      added_ += set->ipMacLeaseSize();
      setReactorIs(intf, set);
   }
}

void LeaseChangeCounter::handleLease(IntfId intf, const LeaseKey& key) {
   auto it = setReactor_.find(intf);
   if (it == setReactor_.end()) return;
   const auto& set = it->second->notifier();
   // Sets notify a key only when it comes or goes, never for new times.
   if (set->ipMacLease(key)) {
      ++added_;
   } else {
      ++removed_;
   }
   it->second->size_ = set->ipMacLeaseSize();
}

void LeaseChangeCounter::collect(std::vector<Sample>& out) const {
   out.push_back({"tavrin_leases_added_total", {}, double(added_)});
   out.push_back({"tavrin_leases_removed_total", {}, double(removed_)});
}

}  // namespace Tavrin::Daemon
