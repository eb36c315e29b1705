// The DHCP message parser against hand-assembled messages, well-formed and not.
#include <gtest/gtest.h>

#include "dhcp/Bytes.h"
#include "dhcp/DhcpCodec.h"

using namespace Tavrin;
using namespace Tavrin::Test;

namespace {

// A BOOTREPLY (xid 0x11223344, giaddr 10.0.0.1, chaddr 02:00:00:00:00:01)
// with the given options field, sname and file contents.
Bytes message(const Bytes& options, const Bytes& sname = {}, const Bytes& file = {}) {
   return cat({{2, 1, 6, 0},
               {0x11, 0x22, 0x33, 0x44},
               zeros(4 + 12),
               {10, 0, 0, 1},
               {0x02, 0, 0, 0, 0, 0x01},
               zeros(10),
               padded(sname, 64),
               padded(file, 128),
               {0x63, 0x82, 0x53, 0x63},
               options});
}

const Bytes kActive = {53, 1, 13};

struct ParseCase {
   const char* name;
   Bytes bytes;
   const char* error;  // "" when the message must parse
};

std::vector<ParseCase> parseCases() {
   const Bytes good = message(cat({kActive, {255}}));
   const char* kShort = "shorter than a BOOTP header";
   const char* kPastEnd = "option past end of options";
   const char* kBadLen = "known option with a bad length";
   const char* kBadOverload = "bad overload option";
   return {
       {"empty", {}, kShort},
       {"header one byte short of the cookie", firstBytes(good, 239), kShort},
       {"header without cookie", firstBytes(good, 236), kShort},
       {"cookie and nothing else", message({}), ""},
       {"bad cookie", withByte(good, 239, 0x64), "bad magic cookie"},
       {"op 0", withByte(good, 0, 0), "bad op"},
       {"op 3", withByte(good, 0, 3), "bad op"},
       {"hlen 16", withByte(good, 2, 16), ""},
       {"hlen 17", withByte(good, 2, 17), "bad hlen"},
       {"no end option", message(kActive), ""},
       {"pads around options", message(cat({{0, 0}, kActive, {0, 255}})), ""},
       {"junk after end ignored", message(cat({kActive, {255, 51, 99}})), ""},
       {"unknown option, odd length", message(cat({kActive, {200, 3, 1, 2, 3, 255}})), ""},
       {"unknown option, empty", message(cat({kActive, {80, 0, 255}})), ""},
       {"length past end", message(cat({kActive, {51, 4, 0, 0}})), kPastEnd},
       {"code without length", message(cat({kActive, {61}})), kPastEnd},
       {"53 length 0", message({53, 0, 255}), kBadLen},
       {"53 length 2", message({53, 2, 5, 5, 255}), kBadLen},
       {"53 twice", message({53, 1, 5, 53, 1, 5, 255}), kBadLen},
       {"51 length 3", message(cat({kActive, {51, 3, 0, 0, 1, 255}})), kBadLen},
       {"51 length 5", message(cat({kActive, {51, 5, 0, 0, 0, 1, 0, 255}})), kBadLen},
       {"91 length 2", message(cat({kActive, {91, 2, 0, 1, 255}})), kBadLen},
       {"92 length 0", message(cat({kActive, {92, 0, 255}})), kBadLen},
       {"92 length 6", message(cat({kActive, {92, 6, 10, 0, 0, 1, 10, 0, 255}})), kBadLen},
       {"54 length 3", message(cat({kActive, {54, 3, 10, 0, 0, 255}})), kBadLen},
       {"55 length 0", message(cat({kActive, {55, 0, 255}})), kBadLen},
       {"overload 0", message(cat({kActive, {52, 1, 0, 255}})), kBadOverload},
       {"overload 4", message(cat({kActive, {52, 1, 4, 255}})), kBadOverload},
       {"overload length 2", message(cat({kActive, {52, 2, 1, 1, 255}})), kBadOverload},
       {"overload length 0", message(cat({kActive, {52, 0, 255}})), kBadLen},
       {"overload into a file of garbage", message({52, 1, 1, 255}, {}, {53, 200, 13}),
        "option past end of file field"},
       {"overload into an sname of garbage", message({52, 1, 2, 255}, {12, 70, 'x'}),
        "option past end of sname field"},
       {"bad known option in the file", message({52, 1, 1, 255}, {}, {51, 2, 0, 1, 255}), kBadLen},
       {"garbage file without overload", message(cat({kActive, {255}}), {12, 70}, {53, 200}), ""},
       {"overload into empty fields", message(cat({kActive, {52, 1, 3, 255}})), ""},
   };
}

}  // namespace

TEST(DhcpParse, malformedCorpus) {
   for (const ParseCase& c : parseCases()) {
      SCOPED_TRACE(c.name);
      PacketParser p;
      bool expectOk = std::string_view(c.error).empty();
      EXPECT_EQ(p.doParse(c.bytes), expectOk);
      EXPECT_EQ(p.error(), c.error);
   }
}

TEST(DhcpParse, fixedHeaderFields) {
   PacketParser p;
   ASSERT_TRUE(p.doParse(withByte(message(kActive), 19, 9)));  // yiaddr 0.0.0.9
   EXPECT_EQ(p.op(), 2);
   EXPECT_EQ(p.htype(), 1);
   EXPECT_EQ(p.hlen(), 6);
   EXPECT_EQ(p.xid(), 0x11223344u);
   EXPECT_EQ(p.yiaddr(), IpAddr(9));
   EXPECT_EQ(p.giaddr(), IpAddr::fromBytes(10, 0, 0, 1));
   EXPECT_EQ(p.chaddr(), EthAddr::fromU64(0x020000000001ULL));
   EXPECT_EQ(p.messageTypeName(), "DHCPLEASEACTIVE");
}

// RFC 3396: parts of one option join in the order options field, file,
// sname, whichever field each came from.
TEST(DhcpParse, splitOptionsJoinAcrossFields) {
   const Bytes options = {53, 1, 13, 52, 1, 3, 51, 2, 0, 1, 92, 4, 10, 0, 0, 1, 255};
   const Bytes file = {51, 2, 0x51, 0x80, 92, 4, 10, 0, 0, 2, 255};
   const Bytes sname = {92, 8, 10, 0, 0, 3, 10, 0, 0, 4, 255};
   PacketParser p;
   ASSERT_TRUE(p.doParse(message(options, sname, file))) << p.error();
   EXPECT_EQ(p.leaseTime(), 0x00015180u);  // 86400
   EXPECT_EQ(p.associatedIp(),
             (std::vector{IpAddr::fromBytes(10, 0, 0, 1), IpAddr::fromBytes(10, 0, 0, 2),
                          IpAddr::fromBytes(10, 0, 0, 3), IpAddr::fromBytes(10, 0, 0, 4)}));
}

// An option split inside one value still reads as the joined value.
TEST(DhcpParse, splitInsideAValue) {
   PacketParser p;
   ASSERT_TRUE(p.doParse(message({53, 1, 13, 92, 3, 10, 0, 0, 92, 1, 7, 255}))) << p.error();
   EXPECT_EQ(p.associatedIp(), (std::vector{IpAddr::fromBytes(10, 0, 0, 7)}));
}

TEST(DhcpParse, overloadedFieldsOnlyWhenAsked) {
   const Bytes file = {53, 1, 11, 255};  // a type only the file carries
   const Bytes sname = {91, 4, 0, 0, 0, 9, 255};
   struct Case {
      uint8_t overload;
      std::optional<uint8_t> type;
      std::optional<uint32_t> lastTransaction;
   } cases[] = {{1, 11, {}}, {2, {}, 9}, {3, 11, 9}};
   for (const Case& c : cases) {
      SCOPED_TRACE(int(c.overload));
      PacketParser p;
      ASSERT_TRUE(p.doParse(message({52, 1, c.overload, 255}, sname, file))) << p.error();
      EXPECT_EQ(p.messageType(), c.type);
      EXPECT_EQ(p.clientLastTransactionTime(), c.lastTransaction);
   }
   PacketParser p;
   ASSERT_TRUE(p.doParse(message({255}, sname, file)));
   EXPECT_EQ(p.messageTypeName(), "BOOTP");
   EXPECT_FALSE(p.clientLastTransactionTime());
}

TEST(DhcpParse, unknownOptionsKeptRaw) {
   PacketParser p;
   ASSERT_TRUE(p.doParse(message({53, 1, 13, 200, 2, 'a', 'b', 200, 1, 'c', 255})));
   auto raw = p.options().raw(200);
   EXPECT_EQ(Bytes(raw.begin(), raw.end()), (Bytes{'a', 'b', 'c'}));
   EXPECT_FALSE(p.options().has(201));
}

// A parse starts from nothing: a failed or bare message after a full one
// leaves no option of the earlier one behind.
TEST(DhcpParse, resultsDoNotLeakAcrossParses) {
   PacketParser p;
   ASSERT_TRUE(p.doParse(message({53, 1, 13, 51, 4, 0, 0, 0, 60, 92, 4, 1, 2, 3, 4, 255})));
   EXPECT_FALSE(p.doParse(message({53, 2})));
   EXPECT_FALSE(p.leaseTime());
   EXPECT_FALSE(p.hasAssociatedIp());
   ASSERT_TRUE(p.doParse(message({})));
   EXPECT_FALSE(p.messageType());
   EXPECT_TRUE(p.associatedIp().empty());
   EXPECT_TRUE(p.error().empty());
}

TEST(DhcpParse, nullPacket) {
   PacketParser p;
   EXPECT_FALSE(p.doParse(Rt::Ptr<Rt::Pkt>()));
}
