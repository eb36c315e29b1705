#include <gtest/gtest.h>

#include <unordered_set>

#include "rt/Types.h"

using namespace Tavrin;

TEST(IpAddr, parsesAndPrintsCanonicalText) {
   struct Case {
      const char* text;
      std::optional<uint32_t> value;
   } cases[] = {
       {"0.0.0.0", 0},
       {"10.0.0.1", 0x0a000001},
       {"255.255.255.255", 0xffffffff},
       {"192.168.1.200", 0xc0a801c8},
       {"256.0.0.1", std::nullopt},
       {"1.2.3", std::nullopt},
       {"1.2.3.4.5", std::nullopt},
       {"01.2.3.4", std::nullopt},  // octal-looking octets are refused
       {"1..3.4", std::nullopt},
       {" 1.2.3.4", std::nullopt},
       {"1.2.3.4 ", std::nullopt},
       {"", std::nullopt},
       {"a.b.c.d", std::nullopt},
   };
   for (const auto& c : cases) {
      auto a = IpAddr::parse(c.text);
      ASSERT_EQ(a.has_value(), c.value.has_value()) << c.text;
      if (!a) continue;
      EXPECT_EQ(a->value(), *c.value) << c.text;
      EXPECT_EQ(a->str(), c.text);
   }
}

TEST(Ip6Addr, parsesCompressedFormsAndPrintsRfc5952) {
   struct Case {
      const char* in;
      const char* out;  // nullptr: refused
   } cases[] = {
       {"::", "::"},
       {"::1", "::1"},
       {"2001:db8::1", "2001:db8::1"},
       {"2001:DB8:0:0:0:0:0:1", "2001:db8::1"},
       {"2001:db8:0:1:0:0:0:1", "2001:db8:0:1::1"},  // longest zero run is compressed
       {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},
       {"2001:db8:1:1:1:1:1:0", "2001:db8:1:1:1:1:1:0"},  // a single zero group stays
       {"::ffff:10.0.0.1", "::ffff:a00:1"},
       {"1:2:3:4:5:6:7:8:9", nullptr},
       {"1::2::3", nullptr},
       {"12345::", nullptr},
       {"g::", nullptr},
       {"1:2:3:4:5:6:7", nullptr},
   };
   for (const auto& c : cases) {
      auto a = Ip6Addr::parse(c.in);
      ASSERT_EQ(a.has_value(), c.out != nullptr) << c.in;
      if (a) {
         EXPECT_EQ(a->str(), c.out) << c.in;
      }
   }
}

TEST(IpGenAddr, emptyIsTheSameValueAsIpv4Any) {
   IpGenAddr empty;
   IpGenAddr any(IpAddr(0));
   EXPECT_TRUE(empty.isEmpty());
   EXPECT_FALSE(any.isEmpty());
   EXPECT_EQ(empty, any);
   EXPECT_FALSE(empty < any);
   EXPECT_FALSE(any < empty);
   EXPECT_EQ(std::hash<IpGenAddr>()(empty), std::hash<IpGenAddr>()(any));
   EXPECT_EQ(empty.str(), "0.0.0.0");
   // So a set keyed by the empty address finds an answer's 0.0.0.0.
   std::unordered_set<IpGenAddr> keys{empty};
   EXPECT_TRUE(keys.count(any));
   // The IPv6 unspecified address is a different value.
   EXPECT_NE(empty, IpGenAddr(*Ip6Addr::parse("::")));
   EXPECT_TRUE(IpGenAddr(*Ip6Addr::parse("::")).isUnset());
}

TEST(IpGenAddr, ordersIpv4BeforeIpv6AndByValue) {
   auto a = *IpGenAddr::parse("10.0.0.2");
   auto b = *IpGenAddr::parse("10.0.0.10");
   auto c = *IpGenAddr::parse("::1");
   EXPECT_LT(a, b);
   EXPECT_LT(b, c);
   EXPECT_EQ(a.v4Addr(), *IpAddr::parse("10.0.0.2"));
   EXPECT_FALSE(IpGenAddr::parse("10.0.0.256"));
   EXPECT_EQ(IpGenAddr::parse("2001:db8::5")->str(), "2001:db8::5");
}

TEST(EthAddr, parsesBothCasesAndPrintsLowercase) {
   auto m = EthAddr::parse("02:AB:cd:00:00:01");
   ASSERT_TRUE(m);
   EXPECT_EQ(m->str(), "02:ab:cd:00:00:01");
   EXPECT_EQ(m->toU64(), 0x02abcd000001ULL);
   EXPECT_EQ(EthAddr::fromU64(0x02abcd000001ULL), *m);
   EXPECT_TRUE(EthAddr().isZero());
   for (const char* bad : {"02:ab:cd:00:00", "02-ab-cd-00-00-01", "02:ab:cd:00:00:0g",
                           "02:ab:cd:00:00:011", ""}) {
      EXPECT_FALSE(EthAddr::parse(bad)) << bad;
   }
}

TEST(IntfId, internsNamesAndOrdersByName) {
   IntfId b("Ethernet2");
   IntfId a("Ethernet10");
   EXPECT_EQ(IntfId("Ethernet2"), b);
   EXPECT_EQ(IntfId("Ethernet2").index(), b.index());
   EXPECT_LT(a, b);  // text order, not creation order
   EXPECT_TRUE(IntfId().isEmpty());
   EXPECT_EQ(IntfId().name(), "");
   EXPECT_FALSE(IntfId::parse(""));
   EXPECT_FALSE(IntfId::parse("eth 0"));
   EXPECT_EQ(IntfId::parse("Port-Channel1")->name(), "Port-Channel1");
}
