// What the follower makes of the kernel's messages, without sockets: which
// FDB entries are clients, which address is primary, what link changes do
// to both, how a re-dump and the notifications that raced it converge, and
// that publishing tells the agent of real changes only. The sockets, the
// overrun and the re-dump against a real kernel are the lab's
// (lab/rtnl-follower.test.sh).
#include <gtest/gtest.h>
#include <linux/neighbour.h>

#include "linux/RtnlFollower.h"

using namespace Tavrin;
using namespace Tavrin::Linux;
using Platform::FdbStatusEntry;
using Platform::HostKey;

namespace {

constexpr int kBr = 2, kP1 = 4, kP2 = 5, kEth0 = 3, kOtherBr = 9, kQ9 = 10;

EthAddr mac(std::string_view s) { return *EthAddr::parse(s); }
IpAddr ip(std::string_view s) { return *IpAddr::parse(s); }
HostKey key(std::string_view m, uint16_t vlan = 0) { return {vlan, mac(m)}; }
FdbStatusEntry on(std::string_view intf) { return {IntfId(intf)}; }

LinkMsg link(int ifindex, std::string name, int master = 0, std::string kind = "") {
   return {false, ifindex, std::move(name), master, std::move(kind)};
}
LinkMsg unlink(int ifindex, std::string name) { return {true, ifindex, std::move(name), 0, ""}; }

FdbMsg learned(std::string_view m, int port, uint16_t vlan = 0) {
   FdbMsg f;
   f.ifindex = port;
   f.master = kBr;
   f.mac = mac(m);
   f.vlan = vlan;
   f.state = NUD_REACHABLE;
   return f;
}
FdbMsg withState(FdbMsg f, uint16_t state) {
   f.state = state;
   return f;
}
FdbMsg removed(FdbMsg f) {
   f.removed = true;
   return f;
}

AddrMsg addr(int ifindex, std::string_view a, uint8_t prefix, bool secondary = false,
             uint8_t scope = 0) {
   return {false, ifindex, ip(a), prefix, secondary, scope};
}
AddrMsg addrDel(int ifindex, std::string_view a, uint8_t prefix, bool secondary = false) {
   return {true, ifindex, ip(a), prefix, secondary};
}

// br0 with ports p1 and p2, eth0 outside it, and a second bridge with a port.
std::vector<RtnlMsg> topology() {
   return {link(kBr, "br0", 0, "bridge"), link(kP1, "p1", kBr, "veth"),
           link(kP2, "p2", kBr, "veth"),  link(kEth0, "eth0"),
           link(kOtherBr, "br9", 0, "bridge"), link(kQ9, "q9", kOtherBr, "veth")};
}

RtnlMirror mirrorOf(const std::vector<RtnlMsg>& msgs) {
   RtnlMirror m("br0");
   for (const auto& t : topology()) m.apply(t);
   for (const auto& msg : msgs) m.apply(msg);
   return m;
}

// Counts what subscribers of the two entities hear.
struct FdbListener : Platform::BridgingStatus::Notifiee {
   using Notifiee::Notifiee;
   void onFdbStatus(const HostKey& k) override { heard.push_back(k); }
   std::vector<HostKey> heard;
};
struct IpListener : Platform::IpStatus::Notifiee {
   using Notifiee::Notifiee;
   void onIpIntfStatus(IntfId i) override { heard.push_back(i); }
   std::vector<IntfId> heard;
};

}  // namespace

TEST(RtnlMirror, onlyEntriesTheBridgeLearnedOnAPortAreClients) {
   FdbMsg selfTable = learned("02:00:00:00:00:07", kP1);
   selfTable.master.reset();
   selfTable.flags = NTF_SELF;
   FdbMsg noMasterAttr = learned("02:00:00:00:00:08", kP2);
   noMasterAttr.master.reset();
   FdbMsg otherBridge = learned("02:00:00:00:00:09", kQ9);
   otherBridge.master = kOtherBr;
   FdbMsg extLearned = learned("02:00:00:00:00:0a", kP1);
   extLearned.flags = NTF_EXT_LEARNED;

   struct Case {
      const char* what;
      FdbMsg msg;
      std::optional<FdbStatusEntry> expected;
   } cases[] = {
       {"learned, reachable", learned("02:00:00:00:00:01", kP1), on("p1")},
       {"learned, aged (stale)", withState(learned("02:00:00:00:00:02", kP2), NUD_STALE), on("p2")},
       {"static", withState(learned("02:00:00:00:00:03", kP1), NUD_NOARP), std::nullopt},
       {"port's own address", withState(learned("02:00:00:00:00:04", kP1), NUD_PERMANENT), std::nullopt},
       {"bridge's own address", withState(learned("02:00:00:00:00:05", kBr), NUD_PERMANENT), std::nullopt},
       {"on the bridge, not permanent", learned("02:00:00:00:00:06", kBr), std::nullopt},
       {"a port device's own table", selfTable, std::nullopt},
       {"no NDA_MASTER, port of the bridge", noMasterAttr, on("p2")},
       {"another bridge's entry", otherBridge, std::nullopt},
       {"learned by offload", extLearned, on("p1")},
   };
   for (const auto& c : cases) {
      RtnlMirror m = mirrorOf({c.msg});
      EXPECT_EQ(m.fdbEntry(HostKey{c.msg.vlan, c.msg.mac}), c.expected) << c.what;
      EXPECT_EQ(m.fdbAll().size(), c.expected ? 1u : 0u) << c.what;
   }
}

TEST(RtnlMirror, theLastWordOnAKeyWins) {
   // One (VLAN, MAC) through its life; after each message, where it is.
   const HostKey k = key("02:00:00:00:00:01", 7);
   struct Step {
      const char* what;
      FdbMsg msg;
      std::optional<FdbStatusEntry> expected;
   } steps[] = {
       {"learned on p1", learned("02:00:00:00:00:01", kP1, 7), on("p1")},
       {"moved to p2", learned("02:00:00:00:00:01", kP2, 7), on("p2")},
       {"the same MAC on another VLAN is another key", learned("02:00:00:00:00:01", kP1, 8), on("p2")},
       {"made static by the operator", withState(learned("02:00:00:00:00:01", kP2, 7), NUD_NOARP),
        std::nullopt},
       {"learned again", learned("02:00:00:00:00:01", kP1, 7), on("p1")},
       {"aged out", removed(learned("02:00:00:00:00:01", kP1, 7)), std::nullopt},
       {"removed twice", removed(learned("02:00:00:00:00:01", kP1, 7)), std::nullopt},
   };
   RtnlMirror m = mirrorOf({});
   for (const auto& s : steps) {
      auto change = m.apply(s.msg);
      EXPECT_EQ(m.fdbEntry(k), s.expected) << s.what;
      EXPECT_FALSE(change.all) << s.what;
   }
   EXPECT_EQ(m.fdbEntry(key("02:00:00:00:00:01", 8)), on("p1"));
}

TEST(RtnlMirror, linkChangesCarryTheEntriesOfTheirPorts) {
   const HostKey a = key("02:00:00:00:00:0a"), b = key("02:00:00:00:00:0b");
   auto fresh = [&] {
      return mirrorOf({learned("02:00:00:00:00:0a", kP1), learned("02:00:00:00:00:0b", kP2),
                       addr(kP1, "10.0.0.1", 24)});
   };
   {
      RtnlMirror m = fresh();
      EXPECT_TRUE(m.apply(link(kP1, "p1", 0, "veth")).all);  // p1 leaves the bridge
      EXPECT_EQ(m.fdbEntry(a), std::nullopt);
      EXPECT_EQ(m.fdbEntry(b), on("p2"));
   }
   {
      RtnlMirror m = fresh();
      m.apply(unlink(kP1, "p1"));  // p1 deleted: its entries and addresses go
      EXPECT_EQ(m.fdbEntry(a), std::nullopt);
      EXPECT_EQ(m.fdbEntry(b), on("p2"));
      EXPECT_TRUE(m.primaryAddrAll().empty());
      EXPECT_EQ(m.ifindex("p1"), std::nullopt);
   }
   {
      RtnlMirror m = fresh();
      m.apply(link(kP1, "lan1", kBr, "veth"));  // renamed: same entries, new name
      EXPECT_EQ(m.fdbEntry(a), on("lan1"));
      EXPECT_EQ(m.primaryAddrAll(), (std::map<IntfId, IpAddr>{{IntfId("lan1"), ip("10.0.0.1")}}));
      EXPECT_EQ(m.ifindex("p1"), std::nullopt);
      EXPECT_EQ(m.ifindex("lan1"), kP1);
   }
   {
      RtnlMirror m = fresh();
      m.apply(unlink(kBr, "br0"));  // the bridge goes, and a new one takes its name
      m.apply(link(42, "br0", 0, "bridge"));
      EXPECT_EQ(m.bridgeIfindex(), 42);
      EXPECT_TRUE(m.fdbAll().empty());
   }
   {
      RtnlMirror m = fresh();
      // Carrier and MTU changes repeat the link as it is: nothing to publish.
      EXPECT_TRUE(m.apply(link(kP1, "p1", kBr, "veth")).empty());
      EXPECT_EQ(m.fdbEntry(a), on("p1"));
   }
   {
      RtnlMirror m = fresh();
      // Two links swap names. Replayed over a dump, the new holder of a
      // name can be heard of before the old holder's rename: neither may
      // lose its name to the other.
      m.apply(link(kP2, "p1", kBr, "veth"));
      m.apply(link(kP1, "p2", kBr, "veth"));
      EXPECT_EQ(m.ifindex("p1"), kP2);
      EXPECT_EQ(m.ifindex("p2"), kP1);
      EXPECT_EQ(m.fdbEntry(a), on("p2"));
      EXPECT_EQ(m.fdbEntry(b), on("p1"));
   }
}

TEST(RtnlMirror, thePrimaryIsTheFirstAddressThatIsNotSecondary) {
   struct Case {
      const char* what;
      std::vector<RtnlMsg> msgs;
      IpAddr expected;
   } cases[] = {
       {"none", {}, IpAddr()},
       {"one", {addr(kEth0, "10.0.0.1", 24)}, ip("10.0.0.1")},
       {"a secondary after it",
        {addr(kEth0, "10.0.0.1", 24), addr(kEth0, "10.0.0.2", 24, true)},
        ip("10.0.0.1")},
       {"primaries of two subnets: the first",
        {addr(kEth0, "10.0.0.1", 24), addr(kEth0, "192.168.0.1", 24)},
        ip("10.0.0.1")},
       {"the first primary removed: the next",
        {addr(kEth0, "10.0.0.1", 24), addr(kEth0, "192.168.0.1", 24), addrDel(kEth0, "10.0.0.1", 24)},
        ip("192.168.0.1")},
       {"a secondary promoted (promote_secondaries)",
        {addr(kEth0, "10.0.0.1", 24), addr(kEth0, "10.0.0.2", 24, true),
         addrDel(kEth0, "10.0.0.1", 24), addr(kEth0, "10.0.0.2", 24)},
        ip("10.0.0.2")},
       {"a promoted secondary goes behind the other primaries, as in the kernel's list",
        {addr(kEth0, "10.0.0.1", 24), addr(kEth0, "10.0.0.2", 24, true),
         addr(kEth0, "192.168.0.1", 24), addrDel(kEth0, "10.0.0.1", 24), addr(kEth0, "10.0.0.2", 24)},
        ip("192.168.0.1")},
       {"a new primary goes before the secondaries added earlier",
        {addr(kEth0, "10.0.0.2", 24, true), addr(kEth0, "192.168.0.1", 24)},
        ip("192.168.0.1")},
       {"a primary of wider scope goes first (RT_SCOPE_LINK 253, universe 0)",
        {addr(kEth0, "169.254.0.1", 16, false, 253), addr(kEth0, "10.0.0.1", 8)},
        ip("10.0.0.1")},
       {"only a secondary left, before its own removal",
        {addr(kEth0, "10.0.0.1", 24), addr(kEth0, "10.0.0.2", 24, true),
         addrDel(kEth0, "10.0.0.1", 24)},
        IpAddr()},
       {"the same address with another prefix is another address",
        {addr(kEth0, "10.0.0.1", 24), addr(kEth0, "10.0.0.1", 16), addrDel(kEth0, "10.0.0.1", 24)},
        ip("10.0.0.1")},
       {"removing an address never added", {addrDel(kEth0, "10.0.0.1", 24)}, IpAddr()},
   };
   for (const auto& c : cases) {
      RtnlMirror m = mirrorOf(c.msgs);
      EXPECT_EQ(m.primaryAddr(kEth0), c.expected) << c.what;
      EXPECT_EQ(m.primaryAddrAll().count(IntfId("eth0")), c.expected.isAny() ? 0u : 1u) << c.what;
   }
}

TEST(RtnlResync, notificationsThatRacedTheDumpGetTheLastWord) {
   // Each case: what the dump read, and the notifications that arrived while
   // it ran (some for changes before the dump read the key, some after).
   const HostKey k = key("02:00:00:00:00:01");
   struct Case {
      const char* what;
      std::vector<FdbMsg> dumped;
      std::vector<FdbMsg> notified;
      std::optional<FdbStatusEntry> expected;
   } cases[] = {
       {"moved after the dump read it", {learned("02:00:00:00:00:01", kP1)},
        {learned("02:00:00:00:00:01", kP2)}, on("p2")},
       {"moved before the dump read it", {learned("02:00:00:00:00:01", kP2)},
        {learned("02:00:00:00:00:01", kP2)}, on("p2")},
       {"deleted before the dump read it", {}, {removed(learned("02:00:00:00:00:01", kP1))},
        std::nullopt},
       {"deleted after the dump read it", {learned("02:00:00:00:00:01", kP1)},
        {removed(learned("02:00:00:00:00:01", kP1))}, std::nullopt},
       {"learned and aged out, read in between", {learned("02:00:00:00:00:01", kP1)},
        {learned("02:00:00:00:00:01", kP1), removed(learned("02:00:00:00:00:01", kP1))},
        std::nullopt},
       {"aged out and learned again, read in between", {},
        {removed(learned("02:00:00:00:00:01", kP1)), learned("02:00:00:00:00:01", kP2)}, on("p2")},
       {"untouched by notifications: as dumped", {learned("02:00:00:00:00:01", kP1)}, {}, on("p1")},
   };
   for (const auto& c : cases) {
      RtnlResync r("br0");
      for (const auto& t : topology()) r.dumped(t);
      for (const auto& d : c.dumped) r.dumped(d);
      for (const auto& n : c.notified) r.notified(n);
      RtnlMirror m = std::move(r).finish();
      EXPECT_EQ(m.fdbEntry(k), c.expected) << c.what;
   }
}

TEST(RtnlPublish, aResyncRewritesOnlyWhatDiffers) {
   auto fdb = Rt::makePtr<Platform::BridgingStatus>();
   auto ipStatus = Rt::makePtr<Platform::IpStatus>();
   // What the agent was told before notifications were lost.
   RtnlMirror before = mirrorOf({learned("02:00:00:00:00:01", kP1), learned("02:00:00:00:00:02", kP1),
                                 learned("02:00:00:00:00:03", kP1), addr(kEth0, "10.0.0.1", 24),
                                 addr(kP1, "10.1.0.1", 24)});
   publishAll(before, *fdb, *ipStatus);
   FdbListener fdbHeard(fdb);
   IpListener ipHeard(ipStatus);

   // The kernel now: 01 unchanged, 02 moved, 03 aged out, 04 new; eth0's
   // address changed, p1's removed, p2 got one.
   RtnlMirror after = mirrorOf({learned("02:00:00:00:00:01", kP1), learned("02:00:00:00:00:02", kP2),
                                learned("02:00:00:00:00:04", kP2), addr(kEth0, "10.0.0.9", 24),
                                addr(kP2, "10.2.0.1", 24)});
   publishAll(after, *fdb, *ipStatus);

   EXPECT_EQ(fdb->fdbStatusAll(), after.fdbAll());
   std::set<HostKey> fdbKeys(fdbHeard.heard.begin(), fdbHeard.heard.end());
   EXPECT_EQ(fdbKeys, (std::set<HostKey>{key("02:00:00:00:00:02"), key("02:00:00:00:00:03"),
                                         key("02:00:00:00:00:04")}));
   EXPECT_EQ(fdbHeard.heard.size(), 3u);  // once each; 01 never

   std::map<IntfId, IpAddr> primaries;
   for (const auto& [intf, status] : ipStatus->ipIntfStatusAll()) primaries[intf] = status->primaryAddr();
   EXPECT_EQ(primaries, after.primaryAddrAll());
   // eth0 kept its entry (its address changed in place); p1 lost it; p2 got one.
   EXPECT_EQ(ipHeard.heard, (std::vector<IntfId>{IntfId("p1"), IntfId("p2")}));

   fdbHeard.heard.clear();
   ipHeard.heard.clear();
   publishAll(after, *fdb, *ipStatus);  // nothing changed: nothing heard
   EXPECT_TRUE(fdbHeard.heard.empty());
   EXPECT_TRUE(ipHeard.heard.empty());
}

TEST(RtnlPublish, oneNotificationPublishesWhatItTouched) {
   auto fdb = Rt::makePtr<Platform::BridgingStatus>();
   auto ipStatus = Rt::makePtr<Platform::IpStatus>();
   RtnlMirror m = mirrorOf({learned("02:00:00:00:00:01", kP1), addr(kEth0, "10.0.0.1", 24)});
   publishAll(m, *fdb, *ipStatus);

   publish(m, m.apply(learned("02:00:00:00:00:01", kP2)), *fdb, *ipStatus);
   EXPECT_EQ(fdb->fdbStatus(key("02:00:00:00:00:01")), on("p2"));

   publish(m, m.apply(addrDel(kEth0, "10.0.0.1", 24)), *fdb, *ipStatus);
   EXPECT_EQ(ipStatus->ipIntfStatus(IntfId("eth0")), nullptr);

   // An address on a link not seen yet waits for the link.
   publish(m, m.apply(addr(77, "10.7.0.1", 24)), *fdb, *ipStatus);
   EXPECT_TRUE(ipStatus->ipIntfStatusAll().empty());
   publish(m, m.apply(link(77, "eth7")), *fdb, *ipStatus);
   ASSERT_NE(ipStatus->ipIntfStatus(IntfId("eth7")), nullptr);
   EXPECT_EQ(ipStatus->ipIntfStatus(IntfId("eth7"))->primaryAddr(), ip("10.7.0.1"));

   // The port leaves the bridge: its entry leaves the agent's table.
   publish(m, m.apply(link(kP2, "p2", 0, "veth")), *fdb, *ipStatus);
   EXPECT_EQ(fdb->fdbStatusSize(), 0u);
}
