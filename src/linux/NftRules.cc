#include "linux/NftRules.h"

#include <charconv>
#include <ostream>

namespace Tavrin::Linux::Nft {

std::string arpDropCounterName(std::string_view port) {
   return std::string(kArpDropCounterPrefix) + std::string(port);
}

std::optional<std::string> arpDropCounterPort(std::string_view counterName) {
   if (!counterName.starts_with(kArpDropCounterPrefix)) return std::nullopt;
   auto port = counterName.substr(kArpDropCounterPrefix.size());
   if (port.empty()) return std::nullopt;
   return std::string(port);
}

// ---------------------------------------------------------------- settings

namespace {

struct SettingRange {
   std::string_view key;
   uint32_t min;
   uint32_t max;
   uint32_t DataPlaneSettings::*u32 = nullptr;
   uint16_t DataPlaneSettings::*u16 = nullptr;
};

constexpr SettingRange kSettings[] = {
    {"nflog-group", 0, 65535, nullptr, &DataPlaneSettings::nflogGroup},
    {"nflog-rate", 1, 1000000, &DataPlaneSettings::nflogRate, nullptr},
    {"nflog-burst", 1, 1000000, &DataPlaneSettings::nflogBurst, nullptr},
};

std::string knownKeys() {
   std::string out;
   for (const auto& s : kSettings) {
      if (!out.empty()) out += ", ";
      out += s.key;
   }
   return out;
}

}  // namespace

std::variant<DataPlaneSettings, ConfigError> dataPlaneSettings(
    const std::map<std::string, ReservedSetting>& dataPlane, const std::string& file) {
   DataPlaneSettings out;
   for (const auto& [key, setting] : dataPlane) {
      const SettingRange* range = nullptr;
      for (const auto& s : kSettings) {
         if (s.key == key) range = &s;
      }
      if (!range) {
         return ConfigError{
             file, setting.line,
             "data-plane: unknown setting '" + key + "' (known: " + knownKeys() + ")"};
      }
      const std::string& text = setting.text;
      uint64_t value = 0;
      auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
      if (text.empty() || ec != std::errc() || end != text.data() + text.size() ||
          value < range->min || value > range->max) {
         return ConfigError{file, setting.line,
                            "data-plane: " + key + ": expected a whole number from " +
                                std::to_string(range->min) + " to " + std::to_string(range->max) +
                                ", not '" + text + "'"};
      }
      if (range->u16) out.*(range->u16) = uint16_t(value);
      if (range->u32) out.*(range->u32) = uint32_t(value);
   }
   return out;
}

// ---------------------------------------------------------------- elements

std::ostream& operator<<(std::ostream& os, const AllowedElem& e) {
   return os << e.port << " " << e.mac << " " << e.ip;
}

bool ifnameFits(std::string_view name) {
   return !name.empty() && name.size() < kIfnameBytes && name.find('\0') == std::string_view::npos;
}

std::optional<IfnameKey> ifnameKey(std::string_view name) {
   if (!ifnameFits(name)) return std::nullopt;
   IfnameKey key{};
   std::copy(name.begin(), name.end(), key.begin());
   return key;
}

std::optional<AllowedKey> allowedKey(const AllowedElem& e) {
   auto name = ifnameKey(e.port.name());
   if (!name) return std::nullopt;
   AllowedKey key{};
   std::copy(name->begin(), name->end(), key.begin());
   const auto& mac = e.mac.bytes();
   std::copy(mac.begin(), mac.end(), key.begin() + kIfnameBytes);
   uint32_t ip = e.ip.value();
   for (size_t i = 0; i < 4; ++i) key[kIfnameBytes + 8 + i] = uint8_t(ip >> (24 - 8 * i));
   return key;
}

std::optional<std::string> ifnameFromKey(std::span<const uint8_t> key) {
   if (key.size() != kIfnameBytes) return std::nullopt;
   size_t len = 0;
   while (len < key.size() && key[len] != 0) ++len;
   // The kernel compares all 16 bytes, so a name is followed by zeros only.
   for (size_t i = len; i < key.size(); ++i) {
      if (key[i] != 0) return std::nullopt;
   }
   if (len == 0 || len == key.size()) return std::nullopt;
   return std::string(key.begin(), key.begin() + long(len));
}

std::optional<AllowedElem> allowedFromKey(std::span<const uint8_t> key) {
   if (key.size() != kAllowedKeyBytes) return std::nullopt;
   auto name = ifnameFromKey(key.first(kIfnameBytes));
   if (!name) return std::nullopt;
   auto mac = key.subspan(kIfnameBytes, 8);
   if (mac[6] != 0 || mac[7] != 0) return std::nullopt;
   auto ip = key.subspan(kIfnameBytes + 8, 4);
   AllowedElem e;
   e.port = IntfId(*name);
   e.mac = EthAddr({mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]});
   e.ip = IpAddr::fromBytes(ip[0], ip[1], ip[2], ip[3]);
   return e;
}

// ---------------------------------------------------------------- text

bool textSafe(std::string_view name) {
   if (!ifnameFits(name)) return false;
   for (char c : name) {
      auto u = static_cast<unsigned char>(c);
      if (u < 0x21 || u > 0x7e || c == '"' || c == '\\') return false;
   }
   return name.back() != '*';
}

// The lock, applied to every frame a port hands the bridge (forwarded or
// for the host itself). The order matters: DHCP and ARP probes first, so a
// lock never keeps a client from getting the lease that would open it; then
// the pairs backed by a lease; then what is left of IPv4 goes to the agent
// (within a rate, so a flood cannot drown it) and is dropped, and what is
// left of ARP is counted per port and dropped. An ARP packet passes only if
// both its Ethernet source and its sender hardware address hold the lease,
// and only in the Ethernet/IPv4 form whose offsets the lookups assume.
// Frames of other protocols (IPv6, LLDP, ...) are not this lock's business.
std::vector<std::string> lockRules(const DataPlaneSettings& s) {
   const std::string locked = "@" + std::string(kLockedSet);
   const std::string allowed = "@" + std::string(kAllowedSet);
   const std::string arpInet = "arp htype 1 arp ptype ip arp hlen 6 arp plen 4";
   return {
       "iifname != " + locked + " return",
       "meta protocol ip udp sport 68 udp dport 67 accept",
       "meta protocol arp " + arpInet + " arp saddr ip 0.0.0.0 accept",
       "meta protocol ip iifname . ether saddr . ip saddr " + allowed + " accept",
       "meta protocol arp " + arpInet + " iifname . ether saddr . arp saddr ip " + allowed +
           " iifname . arp saddr ether . arp saddr ip " + allowed + " accept",
       "meta protocol ip limit rate " + std::to_string(s.nflogRate) + "/second burst " +
           std::to_string(s.nflogBurst) + " packets log group " + std::to_string(s.nflogGroup),
       "meta protocol ip drop",
       "meta protocol arp counter name iifname map @" + std::string(kArpDropMap),
       "meta protocol arp drop",
   };
}

std::map<std::string, size_t> chainRuleCounts() {
   return {{std::string(kLockChain), lockRules(DataPlaneSettings{}).size()},
           {std::string(kForwardChain), 1},
           {std::string(kInputChain), 1}};
}

std::vector<std::string> setNames() {
   return {std::string(kAllowedSet), std::string(kArpDropMap), std::string(kLockedSet)};
}

namespace {

void appendQuoted(std::string& out, std::string_view name) {
   out += '"';
   out += name;
   out += '"';
}

void appendElem(std::string& out, const AllowedElem& e) {
   appendQuoted(out, e.port.name());
   out += " . ";
   out += e.mac.str();
   out += " . ";
   out += e.ip.str();
}

void appendLockChain(std::string& out, const DataPlaneSettings& s) {
   out += "\tchain ";
   out += kLockChain;
   out += " {\n";
   for (const auto& rule : lockRules(s)) {
      out += "\t\t";
      out += rule;
      out += '\n';
   }
   out += "\t}\n";
}

void appendBaseChain(std::string& out, std::string_view name, std::string_view hook) {
   out += "\tchain ";
   out += name;
   out += " {\n\t\ttype filter hook ";
   out += hook;
   out += " priority filter; policy accept;\n\t\tjump ";
   out += kLockChain;
   out += "\n\t}\n";
}

}  // namespace

ReplaceText tableReplaceText(const DataPlaneSettings& settings, const std::vector<IntfId>& locked,
                             const std::vector<AllowedElem>& allowed) {
   ReplaceText r;
   std::string& out = r.text;
   // About 50 bytes per element; one reservation spares a million copies.
   out.reserve(2048 + 16 * locked.size() + 56 * allowed.size());
   // Adding the table first makes the deletion valid when there is none yet;
   // the three commands are one transaction, so no packet sees the gap.
   const std::string table = "bridge " + std::string(kTable);
   out += "add table " + table + "\n";
   out += "delete table " + table + "\n";
   out += "table " + table + " {\n";

   out += "\tset " + std::string(kLockedSet) + " {\n\t\ttype ifname\n";
   bool first = true;
   for (const auto& port : locked) {
      if (!textSafe(port.name())) {
         r.lockedLeftOut.push_back(port);
         continue;
      }
      out += first ? "\t\telements = { " : ", ";
      first = false;
      appendQuoted(out, port.name());
   }
   if (!first) out += " }\n";
   out += "\t}\n";

   out += "\tset " + std::string(kAllowedSet) + " {\n\t\ttype ifname . ether_addr . ipv4_addr\n";
   first = true;
   for (const auto& e : allowed) {
      if (!textSafe(e.port.name())) {
         r.allowedLeftOut.push_back(e);
         continue;
      }
      out += first ? "\t\telements = {\n\t\t\t" : ",\n\t\t\t";
      first = false;
      appendElem(out, e);
   }
   if (!first) out += "\n\t\t}\n";
   out += "\t}\n";

   // Its elements name counters, which are created by netlink with any
   // port name; ARP drops uncounted for the moment that takes are still drops.
   out += "\tmap " + std::string(kArpDropMap) + " {\n\t\ttype ifname : counter\n\t}\n";

   appendLockChain(out, settings);
   appendBaseChain(out, kForwardChain, "forward");
   appendBaseChain(out, kInputChain, "input");
   out += "}\n";
   return r;
}

}  // namespace Tavrin::Linux::Nft
