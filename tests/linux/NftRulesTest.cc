#include <gtest/gtest.h>

#include <algorithm>

#include "linux/NftRules.h"

using namespace Tavrin;
using namespace Tavrin::Linux;
using namespace Tavrin::Linux::Nft;

namespace {

std::string refusal(const std::map<std::string, ReservedSetting>& map) {
   auto r = dataPlaneSettings(map, "t.yaml");
   if (auto* e = std::get_if<ConfigError>(&r)) return e->str();
   return "accepted";
}

AllowedElem elem(const char* port, const char* mac, const char* ip) {
   return AllowedElem{IntfId(port), *EthAddr::parse(mac), *IpAddr::parse(ip)};
}

// The key of "swp1" . 02:00:00:00:00:01 . 10.0.0.1 as the kernel notified it
// (captured from NFT_MSG_NEWSETELEM): name zero-padded to 16 bytes, the MAC
// padded to 8, the address in network order.
const std::vector<uint8_t> kKernelKey = {
    0x73, 0x77, 0x70, 0x31, 0,    0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  // "swp1"
    0x02, 0x00, 0x00, 0x00, 0x00, 0x01, 0, 0,                          // MAC + padding
    0x0a, 0x00, 0x00, 0x01,                                            // 10.0.0.1
};

size_t position(const std::string& text, const std::string& what) {
   auto at = text.find(what);
   EXPECT_NE(at, std::string::npos) << "missing: " << what << "\n" << text;
   return at;
}

}  // namespace

TEST(NftRules, dataPlaneSettingsAreCheckedWithTheirLine) {
   EXPECT_EQ(std::get<DataPlaneSettings>(dataPlaneSettings({}, "t.yaml")), DataPlaneSettings{});
   auto set = std::get<DataPlaneSettings>(dataPlaneSettings(
       {{"nflog-group", {"12", 4}}, {"nflog-rate", {"50", 5}}, {"nflog-burst", {"10", 6}}},
       "t.yaml"));
   EXPECT_EQ(set, (DataPlaneSettings{12, 50, 10}));
   EXPECT_EQ(std::get<DataPlaneSettings>(dataPlaneSettings({{"nflog-group", {"0", 4}}}, "t.yaml"))
                 .nflogGroup,
             0);

   struct Case {
      std::map<std::string, ReservedSetting> map;
      std::string expected;
   };
   const std::vector<Case> cases = {
       {{{"nflog-grup", {"7", 9}}},
        "t.yaml:9: data-plane: unknown setting 'nflog-grup' (known: nflog-group, nflog-rate, "
        "nflog-burst)"},
       {{{"nflog-group", {"65536", 3}}},
        "t.yaml:3: data-plane: nflog-group: expected a whole number from 0 to 65535, not "
        "'65536'"},
       {{{"nflog-group", {"-1", 3}}},
        "t.yaml:3: data-plane: nflog-group: expected a whole number from 0 to 65535, not '-1'"},
       {{{"nflog-group", {"7x", 3}}},
        "t.yaml:3: data-plane: nflog-group: expected a whole number from 0 to 65535, not '7x'"},
       {{{"nflog-rate", {"0", 5}}},
        "t.yaml:5: data-plane: nflog-rate: expected a whole number from 1 to 1000000, not '0'"},
       {{{"nflog-burst", {"", 6}}},
        "t.yaml:6: data-plane: nflog-burst: expected a whole number from 1 to 1000000, not ''"},
   };
   for (const auto& c : cases) EXPECT_EQ(refusal(c.map), c.expected);
}

TEST(NftRules, keysHaveTheKernelsLayout) {
   auto key = allowedKey(elem("swp1", "02:00:00:00:00:01", "10.0.0.1"));
   ASSERT_TRUE(key);
   EXPECT_EQ(std::vector<uint8_t>(key->begin(), key->end()), kKernelKey);
   EXPECT_EQ(allowedFromKey(kKernelKey), elem("swp1", "02:00:00:00:00:01", "10.0.0.1"));

   // Fifteen bytes is the longest name an interface can have.
   EXPECT_TRUE(allowedKey(elem("abcdefghijklmno", "02:00:00:00:00:01", "10.0.0.1")));
   EXPECT_FALSE(allowedKey(elem("abcdefghijklmnop", "02:00:00:00:00:01", "10.0.0.1")));
   EXPECT_FALSE(ifnameKey(""));
   EXPECT_FALSE(ifnameKey(std::string("a\0b", 3)));
}

TEST(NftRules, keysOfTheWrongShapeAreRefused) {
   struct Case {
      const char* what;
      std::vector<uint8_t> key;
   };
   auto with = [](size_t at, uint8_t v) {
      auto k = kKernelKey;
      k[at] = v;
      return k;
   };
   std::vector<uint8_t> shorter(kKernelKey.begin(), kKernelKey.end() - 1);
   std::vector<uint8_t> longer = kKernelKey;
   longer.push_back(0);
   std::vector<uint8_t> noName = kKernelKey;
   std::fill(noName.begin(), noName.begin() + 16, 0);
   std::vector<uint8_t> unterminated = kKernelKey;
   std::fill(unterminated.begin(), unterminated.begin() + 16, 'a');
   const std::vector<Case> cases = {
       {"short", shorter},
       {"long", longer},
       {"empty name", noName},
       {"name without its NUL", unterminated},
       {"bytes after the name's NUL", with(10, 'x')},
       {"MAC padding not zero", with(22, 1)},
   };
   for (const auto& c : cases) EXPECT_FALSE(allowedFromKey(c.key)) << c.what;
}

TEST(NftRules, counterNamesLeadBackToTheirPort) {
   EXPECT_EQ(arpDropCounterName("swp1"), "arp_drop_swp1");
   EXPECT_EQ(arpDropCounterPort(arpDropCounterName("eth0.10")), "eth0.10");
   EXPECT_EQ(arpDropCounterPort("arp_drop_"), std::nullopt);
   EXPECT_EQ(arpDropCounterPort("packets_in"), std::nullopt);
}

// The text front end has no escapes: a name it cannot spell is left for
// netlink instead of producing a transaction that fails (or, with a
// trailing '*', one that locks every port with that prefix).
TEST(NftRules, namesTheTextCannotSpellAreLeftOut) {
   for (const char* safe : {"swp1", "eth0.10", "bond-1", "veth_a/b", "p@1:x"}) {
      EXPECT_TRUE(textSafe(safe)) << safe;
   }
   for (const char* unsafe : {"a\"b", "swp*", "tab\there", "back\\slash", "caf\xc3\xa9", ""}) {
      EXPECT_FALSE(textSafe(unsafe)) << unsafe;
   }
   auto r = tableReplaceText(DataPlaneSettings{}, {IntfId("swp1"), IntfId("a\"b")},
                             {elem("swp1", "02:00:00:00:00:01", "10.0.0.1"),
                              elem("sw*", "02:00:00:00:00:02", "10.0.0.2")});
   EXPECT_EQ(r.lockedLeftOut, std::vector<IntfId>{IntfId("a\"b")});
   EXPECT_EQ(r.allowedLeftOut,
             std::vector<AllowedElem>{elem("sw*", "02:00:00:00:00:02", "10.0.0.2")});
   EXPECT_EQ(r.text.find("a\"b"), std::string::npos);
   EXPECT_EQ(r.text.find("sw*"), std::string::npos);
}

TEST(NftRules, theReplacementIsOneTransactionHoldingEveryElement) {
   DataPlaneSettings s;
   s.nflogGroup = 12;
   s.nflogRate = 30;
   s.nflogBurst = 60;
   auto r = tableReplaceText(s, {IntfId("swp1"), IntfId("swp2")},
                             {elem("swp1", "02:00:00:00:00:01", "10.0.0.1"),
                              elem("swp2", "0a:1b:2c:3d:4e:5f", "192.168.1.200")});
   const auto& t = r.text;
   // Created if absent, so that the deletion cannot fail, then deleted and
   // built again: in one transaction no packet ever sees it missing.
   EXPECT_EQ(
       t.rfind("add table bridge tavrin\ndelete table bridge tavrin\ntable bridge tavrin {\n", 0),
       0u);
   position(t, "elements = { \"swp1\", \"swp2\" }");
   position(t, "\"swp1\" . 02:00:00:00:00:01 . 10.0.0.1,\n");
   position(t, "\"swp2\" . 0a:1b:2c:3d:4e:5f . 192.168.1.200\n");
   position(t, "limit rate 30/second burst 60 packets log group 12\n");
   position(t, "type filter hook forward priority filter; policy accept;\n\t\tjump lock\n");
   position(t, "type filter hook input priority filter; policy accept;\n\t\tjump lock\n");

   // DHCP and ARP probes pass before anything is dropped, leased pairs pass
   // before the rest is trapped, and IPv4 is trapped before it is dropped.
   size_t notLocked = position(t, "iifname != @locked return");
   size_t dhcp = position(t, "udp sport 68 udp dport 67 accept");
   size_t probe = position(t, "arp saddr ip 0.0.0.0 accept");
   size_t ipAllowed = position(t, "ip saddr @allowed accept");
   size_t arpAllowed = position(t, "arp saddr ether . arp saddr ip @allowed accept");
   size_t trap = position(t, "log group 12");
   size_t ipDrop = position(t, "meta protocol ip drop");
   size_t arpCount = position(t, "counter name iifname map @arp_drop");
   size_t arpDrop = position(t, "meta protocol arp drop");
   EXPECT_LT(notLocked, dhcp);
   EXPECT_LT(dhcp, ipAllowed);
   EXPECT_LT(probe, arpAllowed);
   EXPECT_LT(ipAllowed, trap);
   EXPECT_LT(trap, ipDrop);
   EXPECT_LT(arpAllowed, arpCount);
   EXPECT_LT(arpCount, arpDrop);
}

TEST(NftRules, emptySetsAreDeclaredWithoutElements) {
   auto r = tableReplaceText(DataPlaneSettings{}, {}, {});
   EXPECT_EQ(r.text.find("elements"), std::string::npos);
   position(r.text, "set locked {\n\t\ttype ifname\n\t}\n");
   position(r.text, "set allowed {\n\t\ttype ifname . ether_addr . ipv4_addr\n\t}\n");
   position(r.text, "map arp_drop {\n\t\ttype ifname : counter\n\t}\n");
}
