#include "rt/Types.h"

#include <charconv>
#include <deque>
#include <unordered_map>
#include <vector>

namespace Tavrin {

namespace {

// Parses a decimal number in [0, max] that spans the whole text.
std::optional<uint32_t> parseDecimal(std::string_view text, uint32_t max) {
   if (text.empty() || text.size() > 10) return std::nullopt;
   uint32_t v = 0;
   auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
   if (ec != std::errc() || end != text.data() + text.size() || v > max) return std::nullopt;
   return v;
}

int hexDigit(char c) {
   if (c >= '0' && c <= '9') return c - '0';
   if (c >= 'a' && c <= 'f') return c - 'a' + 10;
   if (c >= 'A' && c <= 'F') return c - 'A' + 10;
   return -1;
}

constexpr char kHex[] = "0123456789abcdef";

}  // namespace

// ---- IpAddr

std::optional<IpAddr> IpAddr::parse(std::string_view text) {
   uint32_t value = 0;
   for (int part = 0; part < 4; ++part) {
      auto dot = text.find('.');
      if ((part < 3) == (dot == std::string_view::npos)) return std::nullopt;
      auto field = text.substr(0, dot);
      // Leading zeros are refused: "010" reads as octal to some tools.
      if (field.size() > 1 && field[0] == '0') return std::nullopt;
      auto octet = parseDecimal(field, 255);
      if (!octet) return std::nullopt;
      value = (value << 8) | *octet;
      text = part < 3 ? text.substr(dot + 1) : std::string_view();
   }
   return IpAddr(value);
}

std::string IpAddr::str() const {
   char buf[16];
   char* p = buf;
   for (int shift = 24; shift >= 0; shift -= 8) {
      p = std::to_chars(p, buf + sizeof buf, (value_ >> shift) & 0xff).ptr;
      if (shift) *p++ = '.';
   }
   return std::string(buf, p);
}

// ---- Ip6Addr

std::optional<Ip6Addr> Ip6Addr::parse(std::string_view text) {
   std::array<uint8_t, 16> out{};
   std::vector<uint16_t> head, tail;
   bool compressed = false;
   auto dbl = text.find("::");
   std::string_view left = text, right;
   if (dbl != std::string_view::npos) {
      compressed = true;
      left = text.substr(0, dbl);
      right = text.substr(dbl + 2);
      if (right.find("::") != std::string_view::npos) return std::nullopt;
   }
   // Splits one side into 16-bit groups; a trailing dotted quad counts as two.
   auto groups = [](std::string_view s, std::vector<uint16_t>& g, bool allowV4) -> bool {
      if (s.empty()) return true;
      while (true) {
         auto colon = s.find(':');
         auto field = s.substr(0, colon);
         if (colon == std::string_view::npos && allowV4 && field.find('.') != field.npos) {
            auto v4 = IpAddr::parse(field);
            if (!v4) return false;
            g.push_back(uint16_t(v4->value() >> 16));
            g.push_back(uint16_t(v4->value()));
            return true;
         }
         if (field.empty() || field.size() > 4) return false;
         uint16_t v = 0;
         for (char c : field) {
            int d = hexDigit(c);
            if (d < 0) return false;
            v = uint16_t((v << 4) | d);
         }
         g.push_back(v);
         if (colon == std::string_view::npos) return true;
         s = s.substr(colon + 1);
      }
   };
   if (!groups(left, head, !compressed) || !groups(right, tail, true)) return std::nullopt;
   size_t total = head.size() + tail.size();
   if (compressed ? total > 7 : total != 8) return std::nullopt;
   size_t i = 0;
   for (auto g : head) {
      out[i++] = uint8_t(g >> 8);
      out[i++] = uint8_t(g);
   }
   i = 16 - tail.size() * 2;
   for (auto g : tail) {
      out[i++] = uint8_t(g >> 8);
      out[i++] = uint8_t(g);
   }
   return Ip6Addr(out);
}

std::string Ip6Addr::str() const {
   // RFC 5952: lowercase, no leading zeros, the longest run (>= 2) of zero
   // groups compressed, the first one on a tie.
   uint16_t g[8];
   for (int i = 0; i < 8; ++i) g[i] = uint16_t((bytes_[2 * i] << 8) | bytes_[2 * i + 1]);
   int bestStart = -1, bestLen = 0;
   for (int i = 0; i < 8;) {
      if (g[i] != 0) {
         ++i;
         continue;
      }
      int j = i;
      while (j < 8 && g[j] == 0) ++j;
      if (j - i > bestLen && j - i >= 2) {
         bestStart = i;
         bestLen = j - i;
      }
      i = j;
   }
   std::string out;
   for (int i = 0; i < 8; ++i) {
      if (i == bestStart) {
         out += "::";
         i += bestLen - 1;
         continue;
      }
      if (!out.empty() && out.back() != ':') out += ':';
      char buf[5];
      auto end = std::to_chars(buf, buf + 5, g[i], 16).ptr;
      out.append(buf, end);
   }
   return out;
}

// ---- IpGenAddr

std::optional<IpGenAddr> IpGenAddr::parse(std::string_view text) {
   if (text.find(':') != std::string_view::npos) {
      if (auto v6 = Ip6Addr::parse(text)) return IpGenAddr(*v6);
      return std::nullopt;
   }
   if (auto v4 = IpAddr::parse(text)) return IpGenAddr(*v4);
   return std::nullopt;
}

std::string IpGenAddr::str() const {
   if (family_ == Family::v6) return v6Addr().str();
   return v4Addr().str();
}

// ---- EthAddr

std::optional<EthAddr> EthAddr::parse(std::string_view text) {
   if (text.size() != 17) return std::nullopt;
   std::array<uint8_t, 6> b{};
   for (int i = 0; i < 6; ++i) {
      int hi = hexDigit(text[3 * i]), lo = hexDigit(text[3 * i + 1]);
      if (hi < 0 || lo < 0) return std::nullopt;
      if (i < 5 && text[3 * i + 2] != ':') return std::nullopt;
      b[i] = uint8_t(hi << 4 | lo);
   }
   return EthAddr(b);
}

std::string EthAddr::str() const {
   std::string out(17, ':');
   for (int i = 0; i < 6; ++i) {
      out[3 * i] = kHex[bytes_[i] >> 4];
      out[3 * i + 1] = kHex[bytes_[i] & 0xf];
   }
   return out;
}

// ---- IntfId

namespace {

// The intern table lives for the whole process; interface names are few.
// A deque keeps references to names stable as the table grows.
struct InternTable {
   std::deque<std::string> names{std::string()};
   std::unordered_map<std::string_view, uint32_t> index{{std::string_view(names.front()), 0}};

   uint32_t intern(std::string_view name) {
      if (auto it = index.find(name); it != index.end()) return it->second;
      names.emplace_back(name);
      auto id = uint32_t(names.size() - 1);
      index.emplace(std::string_view(names.back()), id);
      return id;
   }
};

InternTable& internTable() {
   static InternTable table;
   return table;
}

}  // namespace

IntfId::IntfId(std::string_view name) : index_(internTable().intern(name)) {}

std::optional<IntfId> IntfId::parse(std::string_view text) {
   if (text.empty()) return std::nullopt;
   for (unsigned char c : text) {
      if (c <= ' ' || c == 0x7f) return std::nullopt;
   }
   return IntfId(text);
}

const std::string& IntfId::name() const { return internTable().names[index_]; }

std::strong_ordering IntfId::operator<=>(const IntfId& o) const {
   if (index_ == o.index_) return std::strong_ordering::equal;
   return name().compare(o.name()) <=> 0;
}

std::ostream& operator<<(std::ostream& os, const IpAddr& a) { return os << a.str(); }
std::ostream& operator<<(std::ostream& os, const Ip6Addr& a) { return os << a.str(); }
std::ostream& operator<<(std::ostream& os, const IpGenAddr& a) { return os << a.str(); }
std::ostream& operator<<(std::ostream& os, const EthAddr& a) { return os << a.str(); }
std::ostream& operator<<(std::ostream& os, const IntfId& a) { return os << a.name(); }

}  // namespace Tavrin
