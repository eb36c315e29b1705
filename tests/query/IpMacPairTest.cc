// The key of every per-query table: its text form (what operators paste
// back into tools) and its ordering.
#include <gtest/gtest.h>

#include "query/QueryContext.h"

using namespace Tavrin;

TEST(IpMacPair, textFormRoundTrips) {
   struct Case {
      const char* text;
      bool valid;  // operator! is false
   } cases[] = {
       {"Value('Tavrin::IpMacPair', ** {'ip': 10.0.1.10, 'mac': 00:00:00:00:00:00})", true},
       {"Value('Tavrin::IpMacPair', ** {'ip': 0.0.0.0, 'mac': 02:00:00:00:00:01})", true},
       {"Value('Tavrin::IpMacPair', ** {'ip': 192.168.7.1, 'mac': fe:dc:ba:98:76:54})", true},
       {"Value('Tavrin::IpMacPair', ** {'ip': 0.0.0.0, 'mac': 00:00:00:00:00:00})", false},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.text);
      auto pair = IpMacPair::parse(c.text);
      ASSERT_TRUE(pair);
      EXPECT_EQ(pair->str(), c.text);
      EXPECT_EQ(!*pair, !c.valid);
      EXPECT_EQ(IpMacPair::parse(pair->str()), pair);
   }
}

TEST(IpMacPair, malformedTextIsRefused) {
   const char* cases[] = {
       "",
       "Value('Tavrin::IpMacPair', ** {'ip': 10.0.1.10, 'mac': 00:00:00:00:00:00}",
       "Value('Tavrin::IpMacPair', ** {'ip': 10.0.1.10})",
       "Value('Tavrin::IpMacPair', ** {'ip': 10.0.1.256, 'mac': 00:00:00:00:00:00})",
       "Value('Tavrin::IpMacPair', ** {'ip': 10.0.1.10, 'mac': 00:00:00:00:00})",
       "Value('Tavrin::IpMacKey', ** {'ip': 10.0.1.10, 'mac': 00:00:00:00:00:00})",
       "Value('Tavrin::IpMacPair', ** {'mac': 00:00:00:00:00:00, 'ip': 10.0.1.10})",
   };
   for (const char* c : cases) EXPECT_FALSE(IpMacPair::parse(c)) << c;
}

TEST(IpMacPair, byMacKeyOfIpv4ZeroIsTheEmptyAddress) {
   // An answer's ciaddr 0.0.0.0 must find the query keyed by the empty IP.
   const EthAddr mac = *EthAddr::parse("02:00:00:00:00:01");
   const IpMacPair keyed{IpGenAddr(), mac};
   const IpMacPair answered{IpGenAddr(IpAddr()), mac};
   EXPECT_EQ(keyed, answered);
   EXPECT_EQ(std::hash<IpMacPair>()(keyed), std::hash<IpMacPair>()(answered));
   EXPECT_FALSE(keyed < answered || answered < keyed);
}

TEST(IpMacPair, ordersByIpFirst) {
   const IpMacPair low{IpGenAddr(*IpAddr::parse("10.0.0.1")), *EthAddr::parse("ff:00:00:00:00:00")};
   const IpMacPair high{IpGenAddr(*IpAddr::parse("10.0.0.2")), *EthAddr::parse("01:00:00:00:00:00")};
   EXPECT_LT(low, high);
}
