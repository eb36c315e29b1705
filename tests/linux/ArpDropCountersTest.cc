// ARP drop counters: digestion of the kernel's counter objects from canned
// bytes, and what the agent hears when readings are published.
//
// The captured dump is what a real kernel (6.x) answered to a dump of the
// counter objects of table `bridge tavrin` holding arp_drop_p1 (3 packets),
// arp_drop_swp12 (2^32 + 5 packets: the count is 64-bit) and `other`.
#include <arpa/inet.h>
#include <endian.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <cstring>
#include <string_view>

#include "linux/ArpDropCounters.h"

using namespace Tavrin;
using namespace Tavrin::Linux;
using DigestStatus = CounterDigested::Status;

namespace {

std::vector<uint8_t> hex(std::string_view text) {
   std::vector<uint8_t> out;
   auto nibble = [](char c) { return c <= '9' ? c - '0' : c - 'a' + 10; };
   for (size_t i = 0; i + 1 < text.size(); i += 2) {
      out.push_back(uint8_t(nibble(text[i]) << 4 | nibble(text[i + 1])));
   }
   return out;
}

constexpr std::string_view kArpDropP1 =
    "68000000120a020805000000ec380000070000020b00010074617672696e0000100002006172705f64726f705f70"
    "310008000300000000010c000600000000000000000108000500000000001c0004000c000100000000000000007e"
    "0c0002000000000000000003";
constexpr std::string_view kArpDropSwp12 =
    "6c000000120a020805000000ec380000070000020b00010074617672696e0000130002006172705f64726f705f73"
    "77703132000008000300000000010c000600000000000000000208000500000000001c0004000c00010000000000"
    "0000270f0c0002000000000100000005";
constexpr std::string_view kOther =
    "64000000120a020805000000ec380000070000020b00010074617672696e00000a0002006f746865720000000800"
    "0300000000010c000600000000000000000308000500000000001c0004000c00010000000000000000000c000200"
    "0000000000000000";

// The naming the data plane uses: "arp_drop_" and the port.
std::optional<std::string> portOf(std::string_view counter) {
   constexpr std::string_view prefix = "arp_drop_";
   if (!counter.starts_with(prefix) || counter.size() == prefix.size()) return std::nullopt;
   return std::string(counter.substr(prefix.size()));
}

// Object messages for what no capture shows.
class ObjBuilder {
 public:
   explicit ObjBuilder(uint16_t msgType = NFT_MSG_NEWOBJ) {
      nlh_ = mnl_nlmsg_put_header(buf_);
      nlh_->nlmsg_type = uint16_t((NFNL_SUBSYS_NFTABLES << 8) | msgType);
      auto* gen = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(nlh_, sizeof(nfgenmsg)));
      gen->nfgen_family = NFPROTO_BRIDGE;
   }
   ObjBuilder& str(uint16_t type, const char* s) {
      mnl_attr_put_strz(nlh_, type, s);
      return *this;
   }
   ObjBuilder& raw(uint16_t type, std::vector<uint8_t> b) {
      mnl_attr_put(nlh_, type, b.size(), b.data());
      return *this;
   }
   ObjBuilder& type(uint32_t t) {
      mnl_attr_put_u32(nlh_, NFTA_OBJ_TYPE, htonl(t));
      return *this;
   }
   ObjBuilder& counter(std::optional<uint64_t> packets, bool narrow = false) {
      nlattr* nest = mnl_attr_nest_start(nlh_, NFTA_OBJ_DATA);
      if (packets && narrow)
         mnl_attr_put_u32(nlh_, NFTA_COUNTER_PACKETS, htonl(uint32_t(*packets)));
      if (packets && !narrow) mnl_attr_put_u64(nlh_, NFTA_COUNTER_PACKETS, htobe64(*packets));
      mnl_attr_nest_end(nlh_, nest);
      return *this;
   }
   // A whole, well-formed counter of table `tavrin`.
   static std::vector<uint8_t> good(const char* name, uint64_t packets) {
      return ObjBuilder()
          .str(NFTA_OBJ_TABLE, "tavrin")
          .str(NFTA_OBJ_NAME, name)
          .type(NFT_OBJECT_COUNTER)
          .counter(packets)
          .done();
   }
   std::vector<uint8_t> done() const {
      const auto* p = reinterpret_cast<const uint8_t*>(nlh_);
      return {p, p + nlh_->nlmsg_len};
   }

 private:
   alignas(nlmsghdr) char buf_[1024]{};
   nlmsghdr* nlh_;
};

CounterReading readingOf(std::string_view capture) {
   CounterDigested d = digestCounter(hex(capture));
   EXPECT_EQ(d.status, DigestStatus::ok) << d.reason;
   return d.reading;
}

IntfId intf(const char* name) {
   return IntfId(name);
}

}  // namespace

// ---------------------------------------------------------------- digestion

TEST(ArpDropDigest, CapturedCountersAreReadWithTheirSixtyFourBitCounts) {
   EXPECT_EQ(readingOf(kArpDropP1), (CounterReading{"tavrin", "arp_drop_p1", 3, 126}));
   EXPECT_EQ(readingOf(kArpDropSwp12),
             (CounterReading{"tavrin", "arp_drop_swp12", (uint64_t(1) << 32) + 5, 9999}));
   EXPECT_EQ(readingOf(kOther), (CounterReading{"tavrin", "other", 0, 0}));
}

TEST(ArpDropDigest, OtherObjectsAndMessagesAreIgnored) {
   EXPECT_EQ(digestCounter(ObjBuilder()
                               .str(NFTA_OBJ_TABLE, "tavrin")
                               .str(NFTA_OBJ_NAME, "q")
                               .type(NFT_OBJECT_QUOTA)
                               .done())
                 .status,
             DigestStatus::ignored);
   EXPECT_EQ(digestCounter(ObjBuilder(NFT_MSG_DELOBJ).done()).status, DigestStatus::ignored);
   EXPECT_EQ(digestCounter(hex("1400000003000200050000000000000000000000")).status,
             DigestStatus::ignored);
}

TEST(ArpDropDigest, BrokenCountersAreMalformedWithAReason) {
   auto cut = [](std::vector<uint8_t> m, size_t by) {
      uint32_t len;
      std::memcpy(&len, m.data(), 4);
      len -= uint32_t(by);
      std::memcpy(m.data(), &len, 4);
      return m;
   };
   struct Case {
      const char* name;
      std::vector<uint8_t> bytes;
      const char* reason;
   };
   const Case cases[] = {
       {"no type", ObjBuilder().str(NFTA_OBJ_TABLE, "tavrin").str(NFTA_OBJ_NAME, "a").done(),
        "without a type"},
       {"no name",
        ObjBuilder().str(NFTA_OBJ_TABLE, "tavrin").type(NFT_OBJECT_COUNTER).counter(1).done(),
        "without its name"},
       {"no values",
        ObjBuilder()
            .str(NFTA_OBJ_TABLE, "tavrin")
            .str(NFTA_OBJ_NAME, "a")
            .type(NFT_OBJECT_COUNTER)
            .done(),
        "without its values"},
       {"no packet count",
        ObjBuilder()
            .str(NFTA_OBJ_TABLE, "tavrin")
            .str(NFTA_OBJ_NAME, "a")
            .type(NFT_OBJECT_COUNTER)
            .counter(std::nullopt)
            .done(),
        "without a packet count"},
       {"packet count of four bytes",
        ObjBuilder()
            .str(NFTA_OBJ_TABLE, "tavrin")
            .str(NFTA_OBJ_NAME, "a")
            .type(NFT_OBJECT_COUNTER)
            .counter(7, true)
            .done(),
        "counter values: attribute 2"},
       {"name without its NUL", ObjBuilder().raw(NFTA_OBJ_NAME, {'a', 'b'}).done(), "attribute 2"},
       {"type of two bytes", ObjBuilder().raw(NFTA_OBJ_TYPE, {0, 1}).done(), "attribute 3"},
       {"attribute past the end", cut(hex(kArpDropP1), 8), "runs past the end"},
       {"shorter than its header", hex("6800000012"), "only 5 bytes"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      CounterDigested d = digestCounter(c.bytes);
      EXPECT_EQ(d.status, DigestStatus::malformed);
      EXPECT_NE(d.reason.find(c.reason), std::string::npos) << d.reason;
   }
}

TEST(ArpDropDigest, EveryTruncationIsRefusedOrReadWithinBounds) {
   for (auto source : {kArpDropP1, kArpDropSwp12}) {
      const auto whole = hex(source);
      for (size_t n = 0; n < whole.size(); ++n) {
         std::vector<uint8_t> part(whole.begin(), whole.begin() + n);
         EXPECT_NE(digestCounter(part).status, DigestStatus::ok) << "cut at " << n;
         if (n < sizeof(nlmsghdr)) continue;
         uint32_t len = uint32_t(n);
         std::memcpy(part.data(), &len, 4);
         // Read or refused, within the bytes: the sanitizer build checks the rest.
         (void)digestCounter(part);
      }
   }
}

// ---------------------------------------------------------------- by port

TEST(ArpDropByPort, OnlyThePortsCountersAreTakenByTheirPortName) {
   const std::vector<CounterReading> readings = {
       readingOf(kArpDropP1),
       readingOf(kArpDropSwp12),
       readingOf(kOther),
       {"tavrin", "arp_drop_", 4, 0},          // a prefix without a port
       {"tavrin", "arp_drop_bad name", 4, 0},  // not an interface name
   };
   auto drops = arpDropsByPort(readings, portOf);
   EXPECT_EQ(drops, (std::map<IntfId, uint64_t>{{intf("p1"), 3},
                                                {intf("swp12"), (uint64_t(1) << 32) + 5}}));
}

// ---------------------------------------------------------------- publication

namespace {

// What the agent's machine hears: one notification per port written.
struct Listener : Hardware::ArpDropCounterStatus::Notifiee {
   using Hardware::ArpDropCounterStatus::Notifiee::Notifiee;
   void onArpDropCounter(IntfId i) override { heard.push_back(i); }
   std::vector<IntfId> heard;
};

}  // namespace

TEST(ArpDropPublish, OnlyCountersThatMovedAreWrittenAndZeroMeansNoEntry) {
   using Drops = std::map<IntfId, uint64_t>;
   struct Step {
      const char* name;
      Drops reading;
      std::vector<IntfId> heard;  // in the order written
      Drops entity;               // what the entity holds after
   };
   const IntfId p1 = intf("p1"), p2 = intf("p2"), p3 = intf("p3");
   const Step steps[] = {
       {"new counters at zero say nothing", {{p1, 0}, {p2, 0}}, {}, {}},
       {"the first drops", {{p1, 2}, {p2, 0}}, {p1}, {{p1, 2}}},
       {"nothing moved", {{p1, 2}, {p2, 0}}, {}, {{p1, 2}}},
       {"both move", {{p1, 5}, {p2, 1}}, {p1, p2}, {{p1, 5}, {p2, 1}}},
       {"a new port with drops", {{p1, 5}, {p2, 1}, {p3, 9}}, {p3}, {{p1, 5}, {p2, 1}, {p3, 9}}},
       {"table rebuilt: counters reset", {{p1, 0}, {p2, 0}, {p3, 0}}, {p1, p2, p3}, {}},
       {"drops again after the reset", {{p1, 1}, {p2, 0}, {p3, 0}}, {p1}, {{p1, 1}}},
       {"port unlocked: its counter gone", {{p2, 0}, {p3, 0}}, {p1}, {}},
   };
   auto status = Rt::makePtr<Hardware::ArpDropCounterStatus>();
   Listener listener(status);
   for (const auto& s : steps) {
      SCOPED_TRACE(s.name);
      listener.heard.clear();
      const size_t written = publishArpDrops(s.reading, *status);
      EXPECT_EQ(listener.heard, s.heard);
      EXPECT_EQ(written, s.heard.size());
      EXPECT_EQ(status->arpDropCounterAll(), s.entity);
   }
}
