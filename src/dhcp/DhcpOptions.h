// DHCP options: the one table that says what each option this layer knows
// looks like, and the set of options of one parsed message with typed
// accessors on top of it.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "rt/Types.h"

namespace Tavrin::Dhcp {

namespace Opt {
constexpr uint8_t pad = 0;
constexpr uint8_t subnetMask = 1;
constexpr uint8_t router = 3;
constexpr uint8_t domainServer = 6;
constexpr uint8_t hostName = 12;
constexpr uint8_t requestedIp = 50;
constexpr uint8_t leaseTime = 51;
constexpr uint8_t overload = 52;
constexpr uint8_t messageType = 53;
constexpr uint8_t serverId = 54;
constexpr uint8_t parameterRequestList = 55;
constexpr uint8_t message = 56;
constexpr uint8_t maxMessageSize = 57;
constexpr uint8_t renewalTime = 58;
constexpr uint8_t rebindingTime = 59;
constexpr uint8_t clientId = 61;
constexpr uint8_t clientLastTransactionTime = 91;
constexpr uint8_t associatedIp = 92;
constexpr uint8_t end = 255;
}  // namespace Opt

// The type of one value of an option. bytes and text are runs of octets.
enum class OptionKind : uint8_t { u8, u16, u32, ipv4, bytes, text };

struct OptionDef {
   uint8_t code;
   std::string_view name;
   OptionKind kind;
   // A list of values of `kind` (the length is then a multiple of its size).
   bool array;
   // The fewest bytes for arrays, bytes and text. A single u8, u16, u32 or
   // ipv4 value always has exactly its own size.
   uint8_t minLen;
};

// The known options, in code order. Each is validated when a message is
// parsed; an option not in the table is kept as opaque bytes.
std::span<const OptionDef> optionTable();
const OptionDef* optionDef(uint8_t code);
// The table name ("lease-time"), or "option-<n>" for an unknown code.
std::string optionName(uint8_t code);
// Whether a (concatenated) value of `len` bytes fits the definition.
bool optionLengthOk(const OptionDef& def, size_t len);

// One occurrence of an option in a message, pointing into the message.
struct OptionPart {
   uint8_t code;
   std::span<const uint8_t> value;
};

// The options of one message, each the concatenation of all its
// occurrences in packet order (RFC 3396 section 5). Owns its bytes, so it
// outlives the buffer it was read from.
class OptionSet {
 public:
   // Replaces the contents with `parts`, merging parts of the same code.
   void assign(std::span<const OptionPart> parts);
   void clear();

   bool has(uint8_t code) const { return slots_[code].present; }
   // The raw (concatenated) value; empty for an absent option.
   std::span<const uint8_t> raw(uint8_t code) const;
   // The first known option whose length its definition refuses.
   std::optional<uint8_t> firstMalformed() const;

   // Typed reads; each checks that the table agrees with the asked type.
   // Absent options read as nullopt or an empty list.
   std::optional<uint8_t> u8(uint8_t code) const;
   std::optional<uint16_t> u16(uint8_t code) const;
   std::optional<uint32_t> u32(uint8_t code) const;
   std::optional<IpAddr> ipv4(uint8_t code) const;
   std::vector<uint8_t> u8List(uint8_t code) const;
   std::vector<IpAddr> ipv4List(uint8_t code) const;

 private:
   struct Slot {
      uint32_t offset = 0;
      uint32_t len = 0;
      bool present = false;
   };
   std::span<const uint8_t> typed(uint8_t code, OptionKind kind, bool array) const;

   std::array<Slot, 256> slots_{};
   std::vector<uint8_t> data_;
};

}  // namespace Tavrin::Dhcp
