// Any text given as tavrind's configuration file: parseConfig must accept
// it or name a line and a reason, never throw or crash; what it accepts
// keeps the guarantees the daemon relies on (no duplicate servers or
// interfaces, absolute paths).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <variant>

#include "linux/ConfigFile.h"

using namespace Tavrin;
using namespace Tavrin::Linux;

namespace {

void check(bool ok) {
   if (!ok) __builtin_trap();
}

template <class T>
bool noDuplicates(const std::vector<T>& v, auto key) {
   for (size_t i = 0; i < v.size(); ++i) {
      for (size_t j = i + 1; j < v.size(); ++j) {
         if (key(v[i]) == key(v[j])) return false;
      }
   }
   return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   const std::string_view text(reinterpret_cast<const char*>(data), size);
   const ConfigResult r = parseConfig(text, "fuzz.yaml");
   if (const auto* e = std::get_if<ConfigError>(&r)) {
      // Text in hand is never "cannot read": some line is to blame.
      check(e->line >= 1 && !e->reason.empty());
      return 0;
   }
   const auto& c = std::get<DaemonConfig>(r);
   check(noDuplicates(c.dhcpServers, [](IpAddr a) { return a; }));
   check(noDuplicates(c.interfaces, [](const InterfaceSetting& s) { return s.name; }));
   check(!c.database.empty() && c.database.front() == '/');
   check(!c.controlSocket.empty() && c.controlSocket.front() == '/');
   return 0;
}
