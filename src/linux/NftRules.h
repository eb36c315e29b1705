// The nftables data plane's names, settings and text, kept apart from the
// code that talks to the kernel so that each can be checked on its own.
//
// One table, `bridge tavrin`, owned by tavrind:
//  - set `locked` (ifname): the ports that carry a locking rule;
//  - set `allowed` (ifname . ether_addr . ipv4_addr): one element per
//    published (MAC, IP) pair, on the port the pair is allowed on;
//  - map `arp_drop` (ifname : counter): for each locked port, the named
//    counter arpDropCounterName(port) that counts the ARP packets dropped
//    there, so that a reader of counters finds a port's drops by name;
//  - base chains on the bridge's forward and input hooks, both jumping to
//    one chain `lock` that enforces the lock on ports in `locked`.
//
// The table is replaced whole with one nftables text transaction (atomic:
// the kernel switches from the old table to the new one between two
// packets), and set elements change afterwards through netlink batches.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "linux/ConfigFile.h"
#include "rt/Types.h"

namespace Tavrin::Linux::Nft {

inline constexpr std::string_view kTable = "tavrin";
inline constexpr std::string_view kLockedSet = "locked";
inline constexpr std::string_view kAllowedSet = "allowed";
inline constexpr std::string_view kArpDropMap = "arp_drop";
inline constexpr std::string_view kArpDropCounterPrefix = "arp_drop_";
inline constexpr std::string_view kLockChain = "lock";
inline constexpr std::string_view kForwardChain = "lock_forward";
inline constexpr std::string_view kInputChain = "lock_input";

// The name of the counter that counts ARP drops on a locked port.
std::string arpDropCounterName(std::string_view port);
// The port whose ARP drop counter has this name; nullopt for other names.
std::optional<std::string> arpDropCounterPort(std::string_view counterName);

// ---------------------------------------------------------------- settings

// The `data-plane` map of the configuration file.
struct DataPlaneSettings {
   // NFLOG group the trapped packets go to.
   static constexpr uint16_t kDefaultNflogGroup = 7;
   // What the agent is sent at most: enough to learn every client of a busy
   // port within a second or two, little enough that a flood of spoofed
   // packets cannot take the agent's only thread.
   static constexpr uint32_t kDefaultNflogRate = 100;  // packets per second
   static constexpr uint32_t kDefaultNflogBurst = 200;

   uint16_t nflogGroup = kDefaultNflogGroup;
   uint32_t nflogRate = kDefaultNflogRate;
   uint32_t nflogBurst = kDefaultNflogBurst;
   bool operator==(const DataPlaneSettings&) const = default;
};

// Interprets the reserved `data-plane` map: "nflog-group" (0 to 65535),
// "nflog-rate" and "nflog-burst" (1 to 1000000 packets). An unknown key or a
// bad value is refused with its line; file only labels the error.
std::variant<DataPlaneSettings, ConfigError> dataPlaneSettings(
    const std::map<std::string, ReservedSetting>& dataPlane, const std::string& file);

// ---------------------------------------------------------------- elements

// One element of `allowed`.
struct AllowedElem {
   IntfId port;
   EthAddr mac;
   IpAddr ip;
   auto operator<=>(const AllowedElem&) const = default;
   bool operator==(const AllowedElem&) const = default;
};
std::ostream& operator<<(std::ostream& os, const AllowedElem& e);

// The kernel's interface names are at most 15 bytes and hold no NUL; other
// names can never match a packet and are left out of the table.
inline constexpr size_t kIfnameBytes = 16;
bool ifnameFits(std::string_view name);

// Set keys as the kernel holds them: the ifname zero-padded to 16 bytes; in
// a concatenation every field starts on a 4-byte boundary, so the MAC takes
// 8 bytes (2 of padding) and the IPv4 address 4, in network byte order.
inline constexpr size_t kAllowedKeyBytes = 28;
using IfnameKey = std::array<uint8_t, kIfnameBytes>;
using AllowedKey = std::array<uint8_t, kAllowedKeyBytes>;

std::optional<IfnameKey> ifnameKey(std::string_view name);
std::optional<AllowedKey> allowedKey(const AllowedElem& e);
// Keys read from the kernel; nullopt when the bytes are not a key of that
// shape (wrong length, a name that is not NUL-terminated, non-zero padding).
std::optional<std::string> ifnameFromKey(std::span<const uint8_t> key);
std::optional<AllowedElem> allowedFromKey(std::span<const uint8_t> key);

// ---------------------------------------------------------------- text

// The rules of chain `lock`, in order, as nftables text.
std::vector<std::string> lockRules(const DataPlaneSettings& settings);
// Every chain of the built table with the number of rules it holds, and
// every set and map: what reading the table back must find.
std::map<std::string, size_t> chainRuleCounts();
std::vector<std::string> setNames();

// Whether a name can be written as an nftables quoted string: the text
// format has no escapes, and a trailing '*' would read as a wildcard.
bool textSafe(std::string_view name);

// The one transaction that replaces the table whole, holding the given
// locked ports and allowed elements. Names that cannot be written as text
// are left out and listed, for the caller to add by netlink right after.
struct ReplaceText {
   std::string text;
   std::vector<IntfId> lockedLeftOut;
   std::vector<AllowedElem> allowedLeftOut;
};
ReplaceText tableReplaceText(const DataPlaneSettings& settings, const std::vector<IntfId>& locked,
                             const std::vector<AllowedElem>& allowed);

}  // namespace Tavrin::Linux::Nft

template <>
struct std::hash<Tavrin::Linux::Nft::AllowedElem> {
   size_t operator()(const Tavrin::Linux::Nft::AllowedElem& e) const {
      return Tavrin::hashCombine(Tavrin::hashCombine(std::hash<Tavrin::EthAddr>()(e.mac),
                                                     std::hash<Tavrin::IpAddr>()(e.ip)),
                                 std::hash<Tavrin::IntfId>()(e.port));
   }
};
