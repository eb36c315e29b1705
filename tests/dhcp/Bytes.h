// Hand-assembled packet bytes for the codec tests.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <vector>

namespace Tavrin::Test {

using Bytes = std::vector<uint8_t>;

inline Bytes zeros(size_t n) {
   return Bytes(n, 0);
}

inline Bytes cat(std::initializer_list<Bytes> parts) {
   Bytes out;
   for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
   return out;
}

inline Bytes withByte(Bytes b, size_t at, uint8_t v) {
   b.at(at) = v;
   return b;
}

inline Bytes firstBytes(const Bytes& b, size_t n) {
   return Bytes(b.begin(), b.begin() + n);
}

// `b` padded with zeros to n bytes.
inline Bytes padded(Bytes b, size_t n) {
   if (b.size() < n) b.resize(n, 0);
   return b;
}

}  // namespace Tavrin::Test
