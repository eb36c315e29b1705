#include "dhcp/DhcpOptions.h"

#include <algorithm>

#include "dhcp/ByteIo.h"
#include "rt/Assert.h"

namespace Tavrin::Dhcp {

namespace {

using K = OptionKind;

// Lengths from RFC 2132 sections 3 to 9 and RFC 4388 section 6.1. Options
// a lease query answer may carry are listed so that a malformed one is
// refused rather than half-read; a server-identifier of three bytes, say,
// says the sender cannot be trusted with the rest either.
constexpr OptionDef kOptions[] = {
    {Opt::subnetMask, "subnet-mask", K::ipv4, false, 4},
    {Opt::router, "router", K::ipv4, true, 4},
    {Opt::domainServer, "domain-server", K::ipv4, true, 4},
    {Opt::hostName, "host-name", K::text, false, 1},
    {Opt::requestedIp, "requested-ip", K::ipv4, false, 4},
    {Opt::leaseTime, "lease-time", K::u32, false, 4},
    {Opt::overload, "overload", K::u8, false, 1},
    {Opt::messageType, "message-type", K::u8, false, 1},
    {Opt::serverId, "server-id", K::ipv4, false, 4},
    {Opt::parameterRequestList, "parameter-request-list", K::u8, true, 1},
    {Opt::message, "message", K::text, false, 1},
    {Opt::maxMessageSize, "max-message-size", K::u16, false, 2},
    {Opt::renewalTime, "renewal-time", K::u32, false, 4},
    {Opt::rebindingTime, "rebinding-time", K::u32, false, 4},
    {Opt::clientId, "client-id", K::bytes, false, 2},
    {Opt::clientLastTransactionTime, "client-last-transaction-time", K::u32, false, 4},
    {Opt::associatedIp, "associated-ip", K::ipv4, true, 4},
};

constexpr size_t kindSize(OptionKind kind) {
   switch (kind) {
      case K::u16:
         return 2;
      case K::u32:
      case K::ipv4:
         return 4;
      case K::u8:
      case K::bytes:
      case K::text:
         return 1;
   }
   return 1;
}

constexpr bool isScalar(const OptionDef& def) {
   return !def.array && def.kind != K::bytes && def.kind != K::text;
}

constexpr bool tableSorted() {
   for (size_t i = 1; i < std::size(kOptions); ++i) {
      if (kOptions[i - 1].code >= kOptions[i].code) return false;
   }
   return true;
}
static_assert(tableSorted(), "optionDef() searches the table by code");

}  // namespace

std::span<const OptionDef> optionTable() {
   return kOptions;
}

const OptionDef* optionDef(uint8_t code) {
   auto it = std::lower_bound(std::begin(kOptions), std::end(kOptions), code,
                              [](const OptionDef& d, uint8_t c) { return d.code < c; });
   return it != std::end(kOptions) && it->code == code ? it : nullptr;
}

std::string optionName(uint8_t code) {
   if (auto* def = optionDef(code)) return std::string(def->name);
   return "option-" + std::to_string(code);
}

bool optionLengthOk(const OptionDef& def, size_t len) {
   size_t unit = kindSize(def.kind);
   if (isScalar(def)) return len == unit;
   return len >= def.minLen && len % unit == 0;
}

// ---- OptionSet

void OptionSet::clear() {
   slots_ = {};
   data_.clear();
}

void OptionSet::assign(std::span<const OptionPart> parts) {
   clear();
   std::vector<OptionPart> sorted(parts.begin(), parts.end());
   // Stable: the parts of one option keep their packet order.
   std::stable_sort(sorted.begin(), sorted.end(),
                    [](const OptionPart& a, const OptionPart& b) { return a.code < b.code; });
   size_t total = 0;
   for (const auto& p : sorted) total += p.value.size();
   data_.reserve(total);  // at most the size of the message read
   for (const auto& p : sorted) {
      Slot& slot = slots_[p.code];
      if (!slot.present) slot = {uint32_t(data_.size()), 0, true};
      data_.insert(data_.end(), p.value.begin(), p.value.end());
      slot.len += uint32_t(p.value.size());
   }
}

std::span<const uint8_t> OptionSet::raw(uint8_t code) const {
   const Slot& slot = slots_[code];
   return std::span<const uint8_t>(data_).subspan(slot.offset, slot.len);
}

std::optional<uint8_t> OptionSet::firstMalformed() const {
   for (const auto& def : kOptions) {
      if (has(def.code) && !optionLengthOk(def, slots_[def.code].len)) return def.code;
   }
   return std::nullopt;
}

std::span<const uint8_t> OptionSet::typed(uint8_t code, OptionKind kind, bool array) const {
   const OptionDef* def = optionDef(code);
   TAVRIN_ASSERT(def && def->kind == kind && def->array == array);
   return raw(code);
}

std::optional<uint8_t> OptionSet::u8(uint8_t code) const {
   auto v = typed(code, K::u8, false);
   if (!has(code) || v.size() != 1) return std::nullopt;
   return v[0];
}

std::optional<uint16_t> OptionSet::u16(uint8_t code) const {
   ByteReader r(typed(code, K::u16, false));
   uint16_t v = r.u16();
   if (!has(code) || !r.ok() || !r.atEnd()) return std::nullopt;
   return v;
}

std::optional<uint32_t> OptionSet::u32(uint8_t code) const {
   ByteReader r(typed(code, K::u32, false));
   uint32_t v = r.u32();
   if (!has(code) || !r.ok() || !r.atEnd()) return std::nullopt;
   return v;
}

std::optional<IpAddr> OptionSet::ipv4(uint8_t code) const {
   ByteReader r(typed(code, K::ipv4, false));
   IpAddr v = r.ip();
   if (!has(code) || !r.ok() || !r.atEnd()) return std::nullopt;
   return v;
}

std::vector<uint8_t> OptionSet::u8List(uint8_t code) const {
   auto v = typed(code, K::u8, true);
   return std::vector<uint8_t>(v.begin(), v.end());
}

std::vector<IpAddr> OptionSet::ipv4List(uint8_t code) const {
   ByteReader r(typed(code, K::ipv4, true));
   std::vector<IpAddr> out;
   out.reserve(r.remaining() / 4);
   while (r.remaining() >= 4) out.push_back(r.ip());
   return out;
}

}  // namespace Tavrin::Dhcp
