// Value types shared by every layer: addresses, interface ids, time.
//
// All are small, trivially copyable where possible, and have equality,
// ordering, hashing, a string form and a parser. Parsers return
// std::nullopt on bad input instead of throwing: addresses come from
// configuration files and scenario text, both outside input.
#pragma once

#include <array>
#include <bit>
#include <compare>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace Tavrin {

// Absolute times are seconds on the runtime clock (wall-clock seconds since
// the Unix epoch); durations are seconds too.
using Seconds = double;

// An IPv4 address, held in host byte order.
class IpAddr {
 public:
   constexpr IpAddr() = default;
   constexpr explicit IpAddr(uint32_t hostOrder) : value_(hostOrder) {}
   static constexpr IpAddr fromBytes(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
      return IpAddr((uint32_t(a) << 24) | (uint32_t(b) << 16) | (uint32_t(c) << 8) | d);
   }
   static std::optional<IpAddr> parse(std::string_view text);

   constexpr uint32_t value() const { return value_; }
   constexpr bool isAny() const { return value_ == 0; }
   std::string str() const;

   constexpr auto operator<=>(const IpAddr&) const = default;

 private:
   uint32_t value_ = 0;
};

// An IPv6 address in network byte order.
class Ip6Addr {
 public:
   constexpr Ip6Addr() = default;
   constexpr explicit Ip6Addr(const std::array<uint8_t, 16>& bytes) : bytes_(bytes) {}
   static std::optional<Ip6Addr> parse(std::string_view text);

   constexpr const std::array<uint8_t, 16>& bytes() const { return bytes_; }
   constexpr bool isUnspecified() const {
      for (auto b : bytes_) {
         if (b != 0) return false;
      }
      return true;
   }
   std::string str() const;

   constexpr auto operator<=>(const Ip6Addr&) const = default;

 private:
   std::array<uint8_t, 16> bytes_{};
};

// Either address family, or empty. The empty value is the unspecified
// address and is the same value as IPv4 0.0.0.0 for equality, ordering and
// hashing: a server answer carrying ciaddr 0.0.0.0 must find the by-MAC query
// that was keyed by the empty address.
class IpGenAddr {
 public:
   enum class Family : uint8_t { none = 0, v4 = 4, v6 = 6 };

   constexpr IpGenAddr() = default;
   constexpr IpGenAddr(IpAddr v4) : family_(Family::v4) {  // NOLINT: widening is natural
      uint32_t v = v4.value();
      bytes_[0] = uint8_t(v >> 24);
      bytes_[1] = uint8_t(v >> 16);
      bytes_[2] = uint8_t(v >> 8);
      bytes_[3] = uint8_t(v);
   }
   constexpr IpGenAddr(const Ip6Addr& v6) : family_(Family::v6) {  // NOLINT: widening
      bytes_ = v6.bytes();
   }
   static std::optional<IpGenAddr> parse(std::string_view text);

   constexpr Family family() const { return family_; }
   constexpr bool isV4() const { return family_ == Family::v4; }
   constexpr bool isV6() const { return family_ == Family::v6; }
   constexpr bool isEmpty() const { return family_ == Family::none; }
   // True for the empty value, 0.0.0.0 and ::.
   constexpr bool isUnset() const {
      for (auto b : bytes_) {
         if (b != 0) return false;
      }
      return true;
   }
   constexpr IpAddr v4Addr() const {
      return IpAddr((uint32_t(bytes_[0]) << 24) | (uint32_t(bytes_[1]) << 16) |
                    (uint32_t(bytes_[2]) << 8) | bytes_[3]);
   }
   constexpr Ip6Addr v6Addr() const { return Ip6Addr(bytes_); }
   std::string str() const;

   constexpr bool operator==(const IpGenAddr& o) const {
      if (normalFamily() != o.normalFamily()) return false;
      if (std::is_constant_evaluated()) return bytes_ == o.bytes_;
      // Two word compares: this runs on every lease lookup, and the array's
      // own compare is a call to memcmp.
      uint64_t a[2], b[2];
      std::memcpy(a, bytes_.data(), 16);
      std::memcpy(b, o.bytes_.data(), 16);
      return ((a[0] ^ b[0]) | (a[1] ^ b[1])) == 0;
   }
   constexpr std::strong_ordering operator<=>(const IpGenAddr& o) const {
      if (auto c = normalFamily() <=> o.normalFamily(); c != 0) return c;
      if (std::is_constant_evaluated()) return bytes_ <=> o.bytes_;
      // Byte order is the order of two big-endian words; the array's own
      // compare calls memcmp, a noticeable share of sorting a million leases.
      if (auto c = word(0) <=> o.word(0); c != 0) return c;
      return word(1) <=> o.word(1);
   }
   size_t hash() const;

 private:
   // The empty value compares as IPv4 (its bytes are all zero already).
   constexpr Family normalFamily() const {
      return family_ == Family::none ? Family::v4 : family_;
   }
   // Bytes 8i..8i+7 as a big-endian number.
   uint64_t word(int i) const {
      uint64_t w;
      std::memcpy(&w, bytes_.data() + 8 * i, 8);
      if constexpr (std::endian::native == std::endian::little) w = __builtin_bswap64(w);
      return w;
   }
   Family family_ = Family::none;
   std::array<uint8_t, 16> bytes_{};
};

// A 48-bit Ethernet address.
class EthAddr {
 public:
   constexpr EthAddr() = default;
   constexpr explicit EthAddr(const std::array<uint8_t, 6>& bytes) : bytes_(bytes) {}
   static constexpr EthAddr fromU64(uint64_t v) {
      return EthAddr({uint8_t(v >> 40), uint8_t(v >> 32), uint8_t(v >> 24), uint8_t(v >> 16),
                      uint8_t(v >> 8), uint8_t(v)});
   }
   static std::optional<EthAddr> parse(std::string_view text);

   constexpr const std::array<uint8_t, 6>& bytes() const { return bytes_; }
   constexpr uint64_t toU64() const {
      if (std::is_constant_evaluated()) {
         uint64_t v = 0;
         for (auto b : bytes_) v = (v << 8) | b;
         return v;
      }
      // Two loads rather than a loop of six: every MAC hash and compare
      // goes through here.
      uint32_t hi;
      uint16_t lo;
      std::memcpy(&hi, bytes_.data(), 4);
      std::memcpy(&lo, bytes_.data() + 4, 2);
      if constexpr (std::endian::native == std::endian::little) {
         hi = __builtin_bswap32(hi);
         lo = __builtin_bswap16(lo);
      }
      return (uint64_t(hi) << 16) | lo;
   }
   constexpr bool isZero() const { return toU64() == 0; }
   std::string str() const;

   // By toU64 (byte order): the array's own compare calls memcmp, and the
   // lease query contexts are ordered by MAC.
   constexpr std::strong_ordering operator<=>(const EthAddr& o) const {
      return toU64() <=> o.toU64();
   }
   constexpr bool operator==(const EthAddr& o) const {
      if (std::is_constant_evaluated()) return bytes_ == o.bytes_;
      uint32_t a0, b0;
      uint16_t a1, b1;
      std::memcpy(&a0, bytes_.data(), 4);
      std::memcpy(&b0, o.bytes_.data(), 4);
      std::memcpy(&a1, bytes_.data() + 4, 2);
      std::memcpy(&b1, o.bytes_.data() + 4, 2);
      return a0 == b0 && a1 == b1;
   }

 private:
   std::array<uint8_t, 6> bytes_{};
};

// An interface name, interned: four bytes to store, O(1) to compare and
// hash, which matters when a million leases each name their interface.
// Ordering is by name so that sorted output reads naturally. The empty id
// (no interface) has the empty name.
class IntfId {
 public:
   constexpr IntfId() = default;
   explicit IntfId(std::string_view name);
   // Interface names are free text from configuration; only the empty name
   // and names with white space or control characters are refused.
   static std::optional<IntfId> parse(std::string_view text);

   const std::string& name() const;
   const std::string& str() const { return name(); }
   constexpr bool isEmpty() const { return index_ == 0; }
   constexpr uint32_t index() const { return index_; }

   constexpr bool operator==(const IntfId& o) const { return index_ == o.index_; }
   std::strong_ordering operator<=>(const IntfId& o) const;

 private:
   uint32_t index_ = 0;
};

std::ostream& operator<<(std::ostream& os, const IpAddr& a);
std::ostream& operator<<(std::ostream& os, const Ip6Addr& a);
std::ostream& operator<<(std::ostream& os, const IpGenAddr& a);
std::ostream& operator<<(std::ostream& os, const EthAddr& a);
std::ostream& operator<<(std::ostream& os, const IntfId& a);

// Mixes a 64-bit value into a well-spread hash (splitmix64 finaliser).
constexpr uint64_t mixHash(uint64_t x) {
   x += 0x9e3779b97f4a7c15ULL;
   x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
   x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
   return x ^ (x >> 31);
}
constexpr size_t hashCombine(size_t seed, size_t v) {
   return size_t(mixHash(uint64_t(seed) ^ (uint64_t(v) + 0x9e3779b97f4a7c15ULL + (seed << 6))));
}

// In the header: every lookup of the lease table by IP hashes one.
inline size_t IpGenAddr::hash() const {
   if (family_ == Family::v6) return hashCombine(size_t(mixHash(word(0))), size_t(word(1)));
   return size_t(mixHash(v4Addr().value()));
}

}  // namespace Tavrin

template <>
struct std::hash<Tavrin::IpAddr> {
   size_t operator()(const Tavrin::IpAddr& a) const { return size_t(Tavrin::mixHash(a.value())); }
};
template <>
struct std::hash<Tavrin::IpGenAddr> {
   size_t operator()(const Tavrin::IpGenAddr& a) const { return a.hash(); }
};
template <>
struct std::hash<Tavrin::Ip6Addr> {
   size_t operator()(const Tavrin::Ip6Addr& a) const { return Tavrin::IpGenAddr(a).hash(); }
};
template <>
struct std::hash<Tavrin::EthAddr> {
   size_t operator()(const Tavrin::EthAddr& a) const { return size_t(Tavrin::mixHash(a.toU64())); }
};
template <>
struct std::hash<Tavrin::IntfId> {
   size_t operator()(const Tavrin::IntfId& a) const { return size_t(Tavrin::mixHash(a.index())); }
};
