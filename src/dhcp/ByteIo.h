// Big-endian reading and writing of packet bytes.
//
// Every read of untrusted bytes in this layer goes through ByteReader: a
// read past the end returns zeros (or an empty span), consumes nothing and
// leaves the reader failed, so a parser can read a run of fields and check
// ok() once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "rt/Types.h"

namespace Tavrin::Dhcp {

class ByteReader {
 public:
   explicit ByteReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

   bool ok() const { return ok_; }
   size_t remaining() const { return bytes_.size() - pos_; }
   bool atEnd() const { return remaining() == 0; }
   size_t offset() const { return pos_; }

   uint8_t u8() {
      auto b = take(1);
      return b.empty() ? 0 : b[0];
   }
   uint16_t u16() {
      auto b = take(2);
      return b.empty() ? 0 : uint16_t((b[0] << 8) | b[1]);
   }
   uint32_t u32() {
      auto b = take(4);
      return b.empty()
                 ? 0
                 : (uint32_t(b[0]) << 24) | (uint32_t(b[1]) << 16) | (uint32_t(b[2]) << 8) | b[3];
   }
   IpAddr ip() { return IpAddr(u32()); }
   EthAddr eth() {
      auto b = take(6);
      if (b.empty()) return EthAddr();
      return EthAddr({b[0], b[1], b[2], b[3], b[4], b[5]});
   }
   // The next n bytes, or an empty span (and a failed reader) if fewer remain.
   std::span<const uint8_t> bytes(size_t n) { return take(n); }
   void skip(size_t n) { take(n); }
   // The next byte without consuming it; 0 at the end (the reader stays ok).
   uint8_t peek() const { return atEnd() ? 0 : bytes_[pos_]; }

 private:
   std::span<const uint8_t> take(size_t n) {
      if (!ok_ || n > remaining()) {
         ok_ = false;
         return {};
      }
      auto out = bytes_.subspan(pos_, n);
      pos_ += n;
      return out;
   }

   std::span<const uint8_t> bytes_;
   size_t pos_ = 0;
   bool ok_ = true;
};

class ByteWriter {
 public:
   explicit ByteWriter(std::vector<uint8_t>& out) : out_(out) {}

   size_t size() const { return out_.size(); }
   void u8(uint8_t v) { out_.push_back(v); }
   void u16(uint16_t v) {
      u8(uint8_t(v >> 8));
      u8(uint8_t(v));
   }
   void u32(uint32_t v) {
      u16(uint16_t(v >> 16));
      u16(uint16_t(v));
   }
   void ip(IpAddr a) { u32(a.value()); }
   void eth(EthAddr a) { bytes(a.bytes()); }
   void bytes(std::span<const uint8_t> b) { out_.insert(out_.end(), b.begin(), b.end()); }
   void zeros(size_t n) { out_.insert(out_.end(), n, 0); }
   // Overwrites two bytes already written, for lengths and checksums.
   void u16At(size_t offset, uint16_t v) {
      out_.at(offset) = uint8_t(v >> 8);
      out_.at(offset + 1) = uint8_t(v);
   }

 private:
   std::vector<uint8_t>& out_;
};

}  // namespace Tavrin::Dhcp
