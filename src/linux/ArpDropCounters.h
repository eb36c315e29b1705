// The data plane's per-port ARP drop counters, read back from the kernel
// and published for the agent in "tavrin/hardware/arpdrops".
//
// The data plane counts the ARP packets it drops on each locked port in a
// named nftables counter; a reading is a dump of the table's counter
// objects, digested with libnftnl's object parser (which validates each
// attribute) into plain readings. Publishing compares with what the entity
// holds and writes differences only, so the agent hears of a port only
// when its count moved.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "model/TavrinTypes.h"

namespace Tavrin::Linux {

// One counter object as the kernel reported it.
struct CounterReading {
   std::string table;
   std::string name;
   uint64_t packets = 0;
   uint64_t bytes = 0;
   bool operator==(const CounterReading&) const = default;
};

struct CounterDigested {
   enum class Status : uint8_t { ok, ignored, malformed };
   Status status = Status::ignored;
   CounterReading reading;
   std::string reason;  // why ignored or malformed
};

// One NFT_MSG_NEWOBJ message; objects that are not counters are ignored.
CounterDigested digestCounter(const nlmsghdr* nlh, size_t available);
// One message in a byte buffer of any alignment (tests, captures).
CounterDigested digestCounter(std::span<const uint8_t> bytes);

// The port a counter name belongs to; nullopt for counters that are not a
// port's ARP drop counter. The data plane names them.
using CounterPortFn = std::function<std::optional<std::string>(std::string_view counterName)>;

// Per port, the ARP packets dropped there, from one complete reading.
// Counters of other names are left out, and so are names that are no
// interface name.
std::map<IntfId, uint64_t> arpDropsByPort(const std::vector<CounterReading>& readings,
                                          const CounterPortFn& counterPort);

// Brings the entity to one complete reading, writing differences only.
// A port without drops has no entry: a counter at zero (new, or reset when
// the table was rebuilt) and a counter gone (the port unlocked) both
// remove the port's entry, and a new counter appears only once it counts.
// Returns the number of ports written.
size_t publishArpDrops(const std::map<IntfId, uint64_t>& drops,
                       Hardware::ArpDropCounterStatus& status);

}  // namespace Tavrin::Linux
