#include "query/QueryContext.h"

namespace Tavrin {

std::string IpMacPair::str() const {
   return "Value('Tavrin::IpMacPair', ** {'ip': " + ip.str() + ", 'mac': " + mac.str() + "})";
}

std::optional<IpMacPair> IpMacPair::parse(std::string_view text) {
   constexpr std::string_view head = "Value('Tavrin::IpMacPair', ** {'ip': ";
   constexpr std::string_view mid = ", 'mac': ";
   constexpr std::string_view tail = "})";
   if (text.substr(0, head.size()) != head) return std::nullopt;
   text.remove_prefix(head.size());
   auto m = text.find(mid);
   if (m == std::string_view::npos || text.size() < tail.size() ||
       text.substr(text.size() - tail.size()) != tail) {
      return std::nullopt;
   }
   auto ip = IpGenAddr::parse(text.substr(0, m));
   auto mac = EthAddr::parse(text.substr(m + mid.size(), text.size() - tail.size() - m - mid.size()));
   if (!ip || !mac) return std::nullopt;
   return IpMacPair{*ip, *mac};
}

std::ostream& operator<<(std::ostream& os, const IpMacPair& p) { return os << p.str(); }

}  // namespace Tavrin
