// The counters: the Prometheus exposition a scraper parses, sources that
// replace each other by slot, and the follower that counts lease changes
// from the entities.
#include <gtest/gtest.h>

#include "daemon/Counters.h"

using namespace Tavrin;
using namespace Tavrin::Daemon;

namespace {

class Fixed : public CounterSource {
 public:
   explicit Fixed(std::vector<Sample> s) : s_(std::move(s)) {}
   void collect(std::vector<Sample>& out) const override {
      out.insert(out.end(), s_.begin(), s_.end());
   }

 private:
   std::vector<Sample> s_;
};

double valueOf(const CounterSource& src, const std::string& family) {
   std::vector<Sample> out;
   src.collect(out);
   for (const auto& s : out) {
      if (s.family == family) return s.value;
   }
   return -1;
}

LeaseKey key(uint64_t mac, uint32_t ip) {
   return {EthAddr::fromU64(mac), IpAddr(ip), IpAddr::fromBytes(192, 0, 2, 10)};
}

}  // namespace

TEST(Prometheus, exposesEveryFamilyWithEscapedLabels) {
   std::vector<Family> families = {
       {"t_answers_total", Family::Type::counter, "Answers, by type"},
       {"t_leases", Family::Type::gauge, "Leases held\nnow \\ here"},
       {"t_quiet_total", Family::Type::counter, "Never happened"},
   };
   std::vector<Sample> samples = {
       {"t_answers_total", {{"type", "DHCPLEASEACTIVE"}}, 3},
       {"t_answers_total", {{"type", "say \"hi\"\\\n"}, {"server", "192.0.2.1"}}, 1},
       {"t_leases", {}, 12345678901},
       {"t_leases", {{"ratio", "half"}}, 0.5},
   };
   EXPECT_EQ(prometheusText(families, samples),
             "# HELP t_answers_total Answers, by type\n"
             "# TYPE t_answers_total counter\n"
             "t_answers_total{type=\"DHCPLEASEACTIVE\"} 3\n"
             "t_answers_total{type=\"say \\\"hi\\\"\\\\\\n\",server=\"192.0.2.1\"} 1\n"
             "# HELP t_leases Leases held\\nnow \\\\ here\n"
             "# TYPE t_leases gauge\n"
             "t_leases 12345678901\n"
             "t_leases{ratio=\"half\"} 0.5\n"
             "# HELP t_quiet_total Never happened\n"
             "# TYPE t_quiet_total counter\n");
}

TEST(CounterRegistry, aSlotHoldsOneSourceAndSourcesCannotInventNames) {
   CounterRegistry r;
   r.familyIs({"a_total", Family::Type::counter, "a"});
   r.familyIs({"b_total", Family::Type::counter, "b"});
   r.sourceIs("query", std::make_unique<Fixed>(std::vector<Sample>{{"b_total", {}, 1}}));
   r.sourceIs("socket",
              std::make_unique<Fixed>(std::vector<Sample>{{"a_total", {}, 2}, {"z_total", {}, 9}}));
   // Grouped by family in declaration order, whatever the slots' order.
   EXPECT_EQ(r.collect(), (std::vector<Sample>{{"a_total", {}, 2}, {"b_total", {}, 1}}));

   // A better source takes the slot over; the old one no longer counts.
   r.sourceIs("query", std::make_unique<Fixed>(std::vector<Sample>{{"b_total", {}, 7}}));
   EXPECT_EQ(r.collect(), (std::vector<Sample>{{"a_total", {}, 2}, {"b_total", {}, 7}}));
   r.sourceIs("query", nullptr);
   EXPECT_FALSE(r.sourceHas("query"));
   EXPECT_EQ(r.collect(), (std::vector<Sample>{{"a_total", {}, 2}}));
}

TEST(CounterRegistry, theDaemonsFamiliesAreUniqueAndWellFormed) {
   CounterRegistry r;
   declareDaemonFamilies(r);
   std::set<std::string> names;
   for (const auto& f : r.families()) {
      EXPECT_TRUE(names.insert(f.name).second) << "declared twice: " << f.name;
      EXPECT_EQ(f.name.rfind("tavrin_", 0), 0u) << f.name;
      // Prometheus convention: counters and only counters end in _total.
      bool total = f.name.size() > 6 && f.name.substr(f.name.size() - 6) == "_total";
      EXPECT_EQ(total, f.type == Family::Type::counter) << f.name;
      EXPECT_FALSE(f.help.empty()) << f.name;
   }
}

// Each trap counter lands in its own family, and all of them are declared,
// so none is silently left out of the output.
TEST(TrapSamples, eachCounterHasItsDeclaredFamily) {
   Linux::NflogReader::Counters reader;
   reader.trapped = 11;
   reader.malformed = 2;
   reader.unframed = 3;
   reader.unknownPort = 4;
   reader.overruns = 5;
   Linux::NflogPamManager::Counters pams;
   pams.noPam = 6;
   pams.queueFull = 7;
   pams.slices = {8, 9, 0.25, 1.5};
   CounterRegistry r;
   declareDaemonFamilies(r);
   r.sourceIs("trap", std::make_unique<FunctionSource>(
                          [&](std::vector<Sample>& out) { trapSamples(reader, pams, out); }));
   std::vector<Sample> raw;
   trapSamples(reader, pams, raw);
   EXPECT_EQ(r.collect().size(), raw.size()) << "a trap sample of an undeclared family";

   auto value = [&](const std::string& family, Labels labels = {}) {
      for (const auto& s : raw) {
         if (s.family == family && s.labels == labels) return s.value;
      }
      return -1.0;
   };
   EXPECT_EQ(value("tavrin_trapped_packets_total"), 11);
   EXPECT_EQ(value("tavrin_drops_total", {{"reason", "trapped packet malformed"}}), 5);
   EXPECT_EQ(value("tavrin_drops_total", {{"reason", "trapped on an unknown port"}}), 4);
   EXPECT_EQ(value("tavrin_drops_total", {{"reason", "trapped on a port without packet access"}}),
             6);
   EXPECT_EQ(value("tavrin_drops_total", {{"reason", "trapped packet queue full"}}), 7);
   EXPECT_EQ(value("tavrin_trap_overruns_total"), 5);
   EXPECT_EQ(value("tavrin_trap_slices_total"), 8);
   EXPECT_EQ(value("tavrin_trap_slice_overruns_total"), 9);
   EXPECT_EQ(value("tavrin_trap_slice_overrun_seconds_total"), 0.25);
   EXPECT_EQ(value("tavrin_trap_slice_seconds_total"), 1.5);
}

TEST(LeaseChangeCounter, countsLeasesThatComeAndGoButNotThoseAlreadyThere) {
   auto status = Rt::makePtr<LeaseStatus>();
   auto swp1 = status->interfaceLeaseSetIs(IntfId("swp1"));
   swp1->ipMacLeaseIs(key(1, 101));  // loaded from the database before
   LeaseChangeCounter c(status);
   EXPECT_EQ(c.added(), 0u);

   swp1->ipMacLeaseIs(key(2, 102));
   swp1->ipMacLeaseIs(key(2, 102));                          // find, not create
   swp1->ipMacLeaseIs(key(2, 102))->expirationTimeIs(5000);  // new times are no new lease
   EXPECT_EQ(c.added(), 1u);

   auto swp2 = status->interfaceLeaseSetIs(IntfId("swp2"));
   swp2->ipMacLeaseIs(key(3, 103));
   swp2->ipMacLeaseIs(key(4, 104));
   swp2->ipMacLeaseIs(key(5, 105));
   EXPECT_EQ(c.added(), 4u);

   swp1->ipMacLeaseDel(key(1, 101));
   swp1->ipMacLeaseDel(key(1, 101));  // already gone
   EXPECT_EQ(c.removed(), 1u);

   // A whole interface cleared at once: every lease in it counts.
   status->interfaceLeaseSetDel(IntfId("swp2"));
   EXPECT_EQ(c.removed(), 4u);
   // A set that comes back is followed again.
   status->interfaceLeaseSetIs(IntfId("swp2"))->ipMacLeaseIs(key(6, 106));
   EXPECT_EQ(c.added(), 5u);
   EXPECT_EQ(valueOf(c, "tavrin_leases_added_total"), 5);
   EXPECT_EQ(valueOf(c, "tavrin_leases_removed_total"), 4);
}
