#include "dhcp/DhcpCodec.h"

#include <array>

#include "dhcp/ByteIo.h"

namespace Tavrin {

using Dhcp::ByteReader;
using Dhcp::ByteWriter;
namespace Opt = Dhcp::Opt;

namespace {

// RFC 2131 section 2: the fixed BOOTP header, then the options field.
constexpr size_t kSnameOffset = 44;
constexpr size_t kSnameSize = 64;
constexpr size_t kFileOffset = kSnameOffset + kSnameSize;
constexpr size_t kFileSize = 128;
constexpr size_t kChaddrSize = 16;
static_assert(kFileOffset + kFileSize == 236, "the fixed BOOTP header");
constexpr uint32_t kMagicCookie = 0x63825363;  // 99.130.83.99
// RFC 951 fixed the message at 300 bytes and RFC 1542 section 2.1 lets
// relays and servers drop anything shorter. Padding costs a few dozen bytes
// per query and keeps old relays in the path from discarding it.
constexpr size_t kMinMessageSize = 300;

constexpr uint8_t kBootRequest = 1;
constexpr uint8_t kBootReply = 2;
constexpr uint8_t kHtypeEthernet = 1;
constexpr uint8_t kOverloadFile = 1;
constexpr uint8_t kOverloadSname = 2;

struct Header {
   uint8_t op = 0, htype = 0, hlen = 0;
   uint32_t xid = 0;
   IpAddr ciaddr, giaddr;
   EthAddr chaddr;
};

void writeHeader(ByteWriter& w, const Header& h) {
   w.u8(h.op);
   w.u8(h.htype);
   w.u8(h.hlen);
   w.u8(0);  // hops
   w.u32(h.xid);
   w.u16(0);  // secs
   w.u16(0);  // flags
   w.ip(h.ciaddr);
   w.ip(IpAddr());  // yiaddr
   w.ip(IpAddr());  // siaddr
   w.ip(h.giaddr);
   if (h.hlen) {
      w.eth(h.chaddr);
      w.zeros(kChaddrSize - 6);
   } else {
      w.zeros(kChaddrSize);
   }
   w.zeros(kSnameSize + kFileSize);
   w.u32(kMagicCookie);
}

// Writes one option, split into several of the same code when longer than
// one option can hold (RFC 3396 section 4). Splits fall on value boundaries
// so that a receiver reading each part alone still sees whole values.
void writeOption(ByteWriter& w, uint8_t code, std::span<const uint8_t> value, size_t unit = 1) {
   const size_t chunk = 255 - 255 % unit;
   do {
      size_t n = std::min(chunk, value.size());
      w.u8(code);
      w.u8(uint8_t(n));
      w.bytes(value.first(n));
      value = value.subspan(n);
   } while (!value.empty());
}

void writeU32Option(ByteWriter& w, uint8_t code, uint32_t v) {
   const std::array<uint8_t, 4> b{uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
   writeOption(w, code, b);
}

void writeEnd(ByteWriter& w) {
   w.u8(Opt::end);
   if (w.size() < kMinMessageSize) w.zeros(kMinMessageSize - w.size());
}

}  // namespace

std::string dhcpMessageTypeName(std::optional<uint8_t> type) {
   static constexpr const char* kNames[] = {
       nullptr,
       "DHCPDISCOVER",
       "DHCPOFFER",
       "DHCPREQUEST",
       "DHCPDECLINE",
       "DHCPACK",
       "DHCPNAK",
       "DHCPRELEASE",
       "DHCPINFORM",
       "DHCPFORCERENEW",
       "DHCPLEASEQUERY",
       "DHCPLEASEUNASSIGNED",
       "DHCPLEASEUNKNOWN",
       "DHCPLEASEACTIVE",
   };
   if (!type) return "BOOTP";
   if (*type < std::size(kNames) && kNames[*type]) return kNames[*type];
   return "DHCPTYPE" + std::to_string(*type);
}

Rt::Ptr<Rt::Pkt> buildDhcpLeaseQuery(bool byMac, IpAddr giaddr, IpAddr /*server*/, EthAddr chaddr,
                                     IpAddr ciaddr, uint32_t xid) {
   auto pkt = Rt::makePtr<Rt::Pkt>();
   ByteWriter w(pkt->bytes());
   // RFC 4388 section 6.2: a query names the client by exactly one of
   // chaddr or ciaddr; the other is left zero.
   writeHeader(w, Header{.op = kBootRequest,
                         .htype = byMac ? kHtypeEthernet : uint8_t(0),
                         .hlen = byMac ? uint8_t(6) : uint8_t(0),
                         .xid = xid,
                         .ciaddr = byMac ? IpAddr() : ciaddr,
                         .giaddr = giaddr,
                         .chaddr = byMac ? chaddr : EthAddr()});
   const uint8_t type = uint8_t(DhcpMessageType::leaseQuery);
   writeOption(w, Opt::messageType, std::span(&type, 1));
   const std::array<uint8_t, 3> wanted{Opt::leaseTime, Opt::clientLastTransactionTime,
                                       Opt::associatedIp};
   writeOption(w, Opt::parameterRequestList, wanted);
   writeEnd(w);
   return pkt;
}

Rt::Ptr<Rt::Pkt> buildDhcpAnswer(const DhcpAnswerFields& f) {
   auto pkt = Rt::makePtr<Rt::Pkt>();
   ByteWriter w(pkt->bytes());
   writeHeader(w, Header{.op = kBootReply,
                         .htype = kHtypeEthernet,
                         .hlen = 6,
                         .xid = f.xid,
                         .ciaddr = f.ciaddr,
                         .giaddr = f.giaddr,
                         .chaddr = f.chaddr});
   writeOption(w, Opt::messageType, std::span(&f.messageType, 1));
   if (f.serverId) writeU32Option(w, Opt::serverId, f.serverId->value());
   if (f.leaseTime) writeU32Option(w, Opt::leaseTime, *f.leaseTime);
   if (f.lastTransaction) writeU32Option(w, Opt::clientLastTransactionTime, *f.lastTransaction);
   if (f.assoc && !f.assoc->empty()) {
      std::vector<uint8_t> value;
      ByteWriter vw(value);
      for (IpAddr a : *f.assoc) vw.ip(a);
      writeOption(w, Opt::associatedIp, value, 4);
   }
   writeEnd(w);
   return pkt;
}

// ---- parsing

namespace {

// Collects the options of one field up to its end option. A field that runs
// out without one is accepted (several servers omit it when the options
// fill the field); an option whose length runs past the field is not.
bool scanOptions(std::span<const uint8_t> field, std::vector<Dhcp::OptionPart>& parts) {
   ByteReader r(field);
   while (!r.atEnd()) {
      uint8_t code = r.u8();
      if (code == Opt::pad) continue;
      if (code == Opt::end) return true;
      uint8_t len = r.u8();
      auto value = r.bytes(len);
      if (!r.ok()) return false;
      parts.push_back({code, value});
   }
   return true;
}

// The overload value (RFC 2132 section 9.3) from the options field alone:
// 0 when absent, nullopt when malformed.
std::optional<uint8_t> overloadOf(std::span<const Dhcp::OptionPart> parts) {
   std::optional<uint8_t> value;
   size_t len = 0;
   for (const auto& p : parts) {
      if (p.code != Opt::overload) continue;
      len += p.value.size();
      if (!p.value.empty()) value = p.value[0];
   }
   if (len == 0 && !value) return uint8_t(0);
   if (len != 1 || *value < 1 || *value > 3) return std::nullopt;
   return value;
}

}  // namespace

void PacketParser::resetDhcp() {
   op_ = htype_ = hlen_ = 0;
   xid_ = 0;
   ciaddr_ = yiaddr_ = giaddr_ = IpAddr();
   chaddr_ = EthAddr();
   messageType_.reset();
   leaseTime_.reset();
   lastTransaction_.reset();
   associatedIp_.clear();
   hasAssociatedIp_ = false;
   parameterRequestList_.clear();
   options_.clear();
   error_ = {};
}

bool PacketParser::doParse(std::span<const uint8_t> bytes) {
   resetDhcp();
   auto fail = [this](std::string_view why) {
      error_ = why;
      return false;
   };

   ByteReader r(bytes);
   op_ = r.u8();
   htype_ = r.u8();
   hlen_ = r.u8();
   r.skip(1);  // hops
   xid_ = r.u32();
   r.skip(4);  // secs, flags
   ciaddr_ = r.ip();
   yiaddr_ = r.ip();
   r.skip(4);  // siaddr
   giaddr_ = r.ip();
   chaddr_ = r.eth();
   r.skip(kChaddrSize - 6);
   auto sname = r.bytes(kSnameSize);
   auto file = r.bytes(kFileSize);
   uint32_t cookie = r.u32();
   if (!r.ok()) return fail("shorter than a BOOTP header");
   if (op_ != kBootRequest && op_ != kBootReply) return fail("bad op");
   if (hlen_ > kChaddrSize) return fail("bad hlen");
   if (cookie != kMagicCookie) return fail("bad magic cookie");

   // RFC 3396 section 7: the options field, then file, then sname.
   std::vector<Dhcp::OptionPart> parts;
   if (!scanOptions(r.bytes(r.remaining()), parts)) return fail("option past end of options");
   auto overload = overloadOf(parts);
   if (!overload) return fail("bad overload option");
   if ((*overload & kOverloadFile) && !scanOptions(file, parts)) {
      return fail("option past end of file field");
   }
   if ((*overload & kOverloadSname) && !scanOptions(sname, parts)) {
      return fail("option past end of sname field");
   }
   options_.assign(parts);
   if (options_.firstMalformed()) return fail("known option with a bad length");

   messageType_ = options_.u8(Opt::messageType);
   leaseTime_ = options_.u32(Opt::leaseTime);
   lastTransaction_ = options_.u32(Opt::clientLastTransactionTime);
   associatedIp_ = options_.ipv4List(Opt::associatedIp);
   hasAssociatedIp_ = options_.has(Opt::associatedIp);
   parameterRequestList_ = options_.u8List(Opt::parameterRequestList);
   return true;
}

}  // namespace Tavrin
